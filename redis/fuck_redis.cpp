#include "redis/fuck_redis.h"

#include <algorithm>
#include <QDeadlineTimer>
#include <QDebug>
#include <QEventLoop>

using namespace std::chrono_literals;

namespace {

constexpr auto FirstPause = 1s;
constexpr auto LongestPause = 30s;
/// Until a connection stands, or an answer is there whole: a group of 10,000 serials takes 10 ms.
constexpr auto ReadLimit = 3s;
/// The same for a read that blocks the loop because another one is waiting already.
constexpr auto BlockingReadLimit = 1s;
/// What is still moving fast: half of what the socket is handed at once.
constexpr qint64 MuchBacklog = WriteLink::MaxSocketBytes / 2;

QByteArray bytes(const QString& text) {
    return text.toUtf8();
}

/// Bytes stay as they are; everything else is written as text.
QByteArray bytes(const QVariant& value) {
    return value.userType() == QMetaType::QByteArray ? value.toByteArray() : bytes(value.toString());
}

} // namespace

fuck_redis::fuck_redis(QObject* parent)
    : QObject(parent)
    , m_pause(FirstPause) {
    m_retryTimer.setSingleShot(true);
    connect(&m_retryTimer, &QTimer::timeout, this, &fuck_redis::retry);
    connect(&m_writer, &WriteLink::lost, this, &fuck_redis::goAway);
    connect(&m_writer, &WriteLink::incomplete, this, &fuck_redis::restored);
    // Queued: what follows waits in an event loop, which has no place inside a socket's signal.
    connect(&m_writer, &WriteLink::ready, this, &fuck_redis::finishRetry, Qt::QueuedConnection);
}

fuck_redis::~fuck_redis() = default;

bool fuck_redis::isConnected() const {
    return m_phase == Phase::Ready;
}

bool fuck_redis::isBacklogged() const {
    return m_writer.backlog() > MuchBacklog;
}

// ---- connection ----

bool fuck_redis::try_connect(const QString& host, int port, const QString& password) {
    m_host = host;
    m_port = port;
    m_password = password;
    m_redis = makeReader();
    m_spare = makeReader();
    m_spare->setBlocking(BlockingReadLimit);
    connect(m_redis.get(), &QtRedis::connected, this, &fuck_redis::redis_connected);
    connect(m_redis.get(), &QtRedis::disconnected, this, &fuck_redis::redis_disconnected);
    connect(m_redis.get(), &QtRedis::returnData, this, &fuck_redis::slotMessage);

    m_phase = Phase::Starting;
    const bool reached = openReaders();
    if (reached) {
        openWriter();
        waitForWriter();
    }
    settle(reached && m_writer.isReady());
    return reached;
}

std::unique_ptr<QtRedis> fuck_redis::makeReader() {
    auto client = std::make_unique<QtRedis>(m_host, m_port, nullptr);
    client->setWholeReplies();
    return client;
}

bool fuck_redis::openReaders() {
    return openReader(*m_redis) && openReader(*m_spare);
}

bool fuck_redis::openReader(QtRedis& client) {
    QTimer limit;
    connect(&limit, &QTimer::timeout, &client, &QtRedis::giveUp);
    limit.start(ReadLimit);
    if (!client.openConnection())
        return false;
    QByteArrayList request{"AUTH"};
    if (!m_password.isEmpty())
        request << bytes(m_password);
    const bool accepted = client.command(request).value.toString() == QLatin1String("OK");
    if (&client == m_redis.get())
        qDebug() << "fuck_redis:AUTH:" << accepted;
    return client.isConnected();
}

void fuck_redis::openWriter() {
    m_writer.open(m_host, static_cast<quint16>(m_port), bytes(m_password));
}

void fuck_redis::waitForWriter() {
    QEventLoop loop;
    connect(&m_writer, &WriteLink::ready, &loop, &QEventLoop::quit);
    connect(&m_writer, &WriteLink::lost, &loop, &QEventLoop::quit);
    loop.exec();
}

void fuck_redis::settle(bool up) {
    if (!up) {
        goAway(QStringLiteral("not reached"));
        return;
    }
    const bool wasAway = m_awayLogged;
    m_phase = Phase::Ready;
    m_pause = FirstPause;
    m_awayLogged = false;
    qInfo().noquote() << "redis: connected to" << m_host << m_port;
    if (wasAway)
        emit restored();
}

/// One outage is told once, however many attempts it takes.
void fuck_redis::goAway(const QString& reason) {
    if (m_phase == Phase::Idle || m_phase == Phase::Away)
        return;
    if (m_phase == Phase::Ready)
        emit lost();
    m_phase = Phase::Away;
    m_writer.close();
    for (QtRedis* client : {m_redis.get(), m_spare.get()})
        client->giveUp();
    if (!m_awayLogged)
        qWarning().noquote() << "redis: no connection to" << m_host << m_port << reason << "trying again";
    m_awayLogged = true;
    m_retryTimer.start(m_pause);
    m_pause = std::min<std::chrono::seconds>(m_pause * 2, LongestPause);
}

void fuck_redis::retry() {
    m_phase = Phase::Opening;
    openWriter();
}

void fuck_redis::finishRetry() {
    if (m_phase != Phase::Opening)
        return;
    const bool open = openReaders();
    if (m_phase == Phase::Opening)
        settle(open && m_writer.isReady());
}

void fuck_redis::redis_connected() {
    m_connected = true;
}

void fuck_redis::redis_disconnected() {
    m_connected = false;
}

void fuck_redis::slotMessage(const QtRedis::Reply& reply) {
    qDebug().noquote() << "Channel:" << reply.channel << "Pattern:" << reply.pattern
                       << reply.value.toString();
}

// ---- reads ----

QStringList fuck_redis::backsnlist(const QString& key) {
    if (!isConnected())
        return {};
    if (m_reading)
        return readGroup(*m_spare, bytes(key));
    QTimer limit;
    connect(&limit, &QTimer::timeout, m_redis.get(), &QtRedis::giveUp);
    limit.start(ReadLimit);
    m_reading = true;
    const QStringList serials = readGroup(*m_redis, bytes(key));
    m_reading = false;
    return serials;
}

/// Length first, then the serials; on a connection that a server has closed for being idle, once more.
QStringList fuck_redis::readGroup(QtRedis& client, const QByteArray& key) {
    const QDeadlineTimer patience(BlockingReadLimit);
    QtRedis::Reply reply = askGroup(client, key);
    if (!client.isConnected() && !patience.hasExpired())
        reply = askGroup(client, key);
    if (reply.isError())
        qWarning().noquote() << "redis: group not read:" << key << reply.value.toString().trimmed();
    if (!client.isConnected())
        goAway(QStringLiteral("no answer"));
    return reply.type == QLatin1String("list") ? reply.value.toStringList() : QStringList();
}

QtRedis::Reply fuck_redis::askGroup(QtRedis& client, const QByteArray& key) {
    if (!client.isConnected() && !openReader(client))
        return QtRedis::connectionLost();
    const QtRedis::Reply length = client.command({"LLEN", key});
    if (length.type != QLatin1String("integer") || length.value.toInt() <= 0)
        return length;
    return client.isConnected() ? client.command({"LRANGE", key, "0", "-1"}) : QtRedis::connectionLost();
}

// ---- writes ----

void fuck_redis::Set_sn_key_value(const QString& sn, const QString& field, const QVariant& value) {
    const bool refresh = field == QLatin1String("STATUS");
    m_writer.send({"HSET", bytes(sn), bytes(field), bytes(value)},
                  refresh ? WriteLink::Kind::Refresh : WriteLink::Kind::Event);
}

void fuck_redis::Warmingdown_push(const QString& sn, const QString& time) {
    m_writer.send({"LPUSH", "Warmingup", bytes(sn) + '_' + bytes(time)});
}

void fuck_redis::Warmingup_push(const QString& sn, const QString& time) {
    m_writer.send({"LPUSH", "Warmingdown", bytes(sn) + '_' + bytes(time)});
}

fuck_redis::Fields fuck_redis::deviceFields(const QString& sn, int kindsk, int vol, int mic_d, int mic_e,
                                            const QString& l_ip, const QString& r_ip) {
    return {{QStringLiteral("sn"), sn},       {QStringLiteral("kindsk"), kindsk},
            {QStringLiteral("vol"), vol},     {QStringLiteral("mic_d"), mic_d},
            {QStringLiteral("mic_e"), mic_e}, {QStringLiteral("l_ip"), l_ip},
            {QStringLiteral("r_ip"), r_ip}};
}

void fuck_redis::online_newdevices(const QString& sn, int kindsk, int vol, int mic_d, int mic_e,
                                   const QString& l_ip, const QString& r_ip, const QString& regDate) {
    Fields fields = deviceFields(sn, kindsk, vol, mic_d, mic_e, l_ip, r_ip);
    fields[QStringLiteral("Reg_Date")] = QString(regDate).replace(QLatin1Char(' '), QLatin1Char('-'));
    fields[QStringLiteral("Line")] = QStringLiteral("Online");
    writeDevice(sn, fields);
    qDebug().noquote() << (m_writer.isReady() ? "true" : "false") << sn;
}

void fuck_redis::online_newdevices(const QString& sn, int kindsk, int vol, int mic_d, int mic_e,
                                   const QString& l_ip, const QString& r_ip) {
    Fields fields = deviceFields(sn, kindsk, vol, mic_d, mic_e, l_ip, r_ip);
    fields[QStringLiteral("S_ip")] = serverAddress;
    writeDevice(sn, fields);
}

void fuck_redis::writeDevice(const QString& sn, const Fields& fields) {
    if (!m_knownSet.contains(sn)) {
        m_knownSet.insert(sn);
        m_knownSerials << sn;
    }
    QByteArrayList request{"HMSET", bytes(sn)};
    for (auto field = fields.cbegin(); field != fields.cend(); ++field)
        request << bytes(field.key()) << bytes(field.value());
    m_writer.send(request);
}

void fuck_redis::test() {
    if (!m_connected || m_reading)
        return;
    static const QStringList samples{QStringLiteral("SET key1 \"Hello World\""), QStringLiteral("GET key1"),
                                     QStringLiteral("HMSET samplehash field1 one field2 two"),
                                     QStringLiteral("HGETALL samplehash"),
                                     QStringLiteral("DEL key1 samplehash")};
    for (const QString& line : samples)
        qDebug().noquote() << line << "->" << m_redis->command(line).value.toStringList();
}
