#include "redis/qtredis.h"

#include <QDeadlineTimer>
#include <QEventLoop>

QtRedis::QtRedis(QString host, int port, QObject* parent)
    : QObject(parent)
    , m_host(std::move(host))
    , m_port(port)
    , m_reader(std::make_unique<Reader>(m_host, m_port)) {
    qRegisterMetaType<QtRedis::Reply>("QtRedis::Reply");
    // Before any other receiver of this signal: a waiting command finds its answer stored.
    connect(m_reader.get(), &Reader::response, this, &QtRedis::response);
}

QtRedis::~QtRedis() = default;

void QtRedis::connectHost(const QString& host, quint16 port) {
    connect(m_reader.get(), &Reader::connected, this, &QtRedis::slotConnected, Qt::UniqueConnection);
    m_reader->connectHost(host, port);
}

void QtRedis::slotConnected() {
    connect(m_reader.get(), &Reader::disconnected, this, &QtRedis::slotDisconnected, Qt::UniqueConnection);
    emit connected();
}

void QtRedis::slotDisconnected() {
    emit disconnected();
}

bool QtRedis::openConnection() {
    QEventLoop loop;
    bool failed = false;
    connect(m_reader.get(), &Reader::connected, &loop, &QEventLoop::quit);
    connect(m_reader.get(), &Reader::error, &loop, [&] {
        failed = true;
        loop.quit();
    });
    connectHost(m_host, static_cast<quint16>(m_port));
    if (m_blockingLimit.count() > 0)
        m_reader->waitForConnected(m_blockingLimit);
    else if (!m_reader->isConnected() && !failed)
        loop.exec();
    return m_reader->isConnected();
}

void QtRedis::disconnectHost() {
    m_reader->disconnectHost();
}

QtRedis::Reply QtRedis::command(const QString& line) {
    return await([&] { m_reader->sendData(line); });
}

QtRedis::Reply QtRedis::command(const QByteArrayList& arguments) {
    return await([&] { m_reader->sendArguments(arguments); });
}

QtRedis::Reply QtRedis::await(const std::function<void()>& send) {
    QEventLoop loop;
    bool answered = false;
    bool lost = false;
    const auto end = [&loop](bool& reason) {
        return [&loop, &reason] {
            reason = true;
            loop.quit();
        };
    };
    connect(m_reader.get(), &Reader::response, &loop, end(answered));
    connect(m_reader.get(), &Reader::disconnected, &loop, end(lost));
    connect(m_reader.get(), &Reader::error, &loop, end(lost));
    send();
    if (m_blockingLimit.count() > 0) {
        QDeadlineTimer deadline(m_blockingLimit);
        while (!answered && !deadline.hasExpired() && m_reader->isConnected())
            m_reader->waitForData(std::chrono::milliseconds(deadline.remainingTime()));
        if (!answered)
            giveUp();
    } else if (!answered && !lost) {
        loop.exec();
    }
    if (answered)
        return replyFromResponse();
    return connectionLost();
}

QtRedis::Reply QtRedis::connectionLost() {
    return {QStringLiteral("error"), {}, {}, {}, QStringLiteral("connection lost")};
}

QtRedis::Reply QtRedis::replyFromResponse() const {
    const auto value = [](const Reply& reply, const QStringList& data) -> QVariant {
        if (reply.type == QLatin1String("integer"))
            return data.value(1).trimmed().toInt();
        if (reply.type == QLatin1String("list"))
            return QStringList(data.mid(1));
        return data.value(1);
    };
    Reply reply;
    reply.type = m_responseData.value(0);
    reply.value = value(reply, m_responseData);
    return reply;
}

void QtRedis::response(const QVariant& variant) {
    const QStringList list = variant.toStringList();
    const QString second = list.value(1);
    if (second == QLatin1String("message"))
        emit returnData({list[0], second, {}, list.value(2), list.value(3)});
    else if (second == QLatin1String("pmessage"))
        emit returnData({list[0], second, list.value(2), list.value(3), list.value(4)});
    else
        m_responseData = list;
}

QString QtRedis::word(const Map& map) {
    QStringList words;
    for (auto entry = map.cbegin(); entry != map.cend(); ++entry)
        words << entry.key() << entry.value().toString();
    return words.join(QLatin1Char(' '));
}

QtRedis::Map QtRedis::pairs(const QStringList& list) {
    Map map;
    for (int i = 0; i + 1 < list.size(); i += 2)
        map.insert(list[i], list[i + 1]);
    return map;
}
