#include "redis/writelink.h"

#include "redis/request.h"

#include <algorithm>
#include <chrono>
#include <QDebug>

using namespace std::chrono_literals;

namespace {

/// Connecting, AUTH and the first PING together.
constexpr auto OpeningLimit = 3s;
/// Between two PINGs: an outage of the network is noticed after this and AnswerLimit.
constexpr auto HeartbeatInterval = 5s;
/// Until a PING is answered, behind whatever the server still has to read.
constexpr auto AnswerLimit = 10s;

const QByteArray AnswersOn = encodeBytes({"CLIENT", "REPLY", "ON"});
const QByteArray AnswersOff = encodeBytes({"CLIENT", "REPLY", "OFF"});
const QByteArray Ping = encodeBytes({"PING"});

} // namespace

WriteLink::WriteLink(QObject* parent)
    : QObject(parent) {
    m_answerDeadline.setSingleShot(true);
    connect(&m_socket, &QTcpSocket::connected, this, &WriteLink::shakeHands);
    connect(&m_socket, &QTcpSocket::readyRead, this, &WriteLink::read);
    connect(&m_socket, &QTcpSocket::bytesWritten, this, [this] {
        if (m_pendingBytes > 0)
            flush();
    });
    connect(&m_socket, &QTcpSocket::errorOccurred, this, [this] { fail(m_socket.errorString()); });
    connect(&m_heartbeat, &QTimer::timeout, this, &WriteLink::heartbeat);
    connect(&m_answerDeadline, &QTimer::timeout, this, [this] { fail(QStringLiteral("no answer")); });
}

WriteLink::~WriteLink() {
    m_socket.disconnect(this); // closing must not call slots of what is half gone
}

void WriteLink::open(const QString& host, quint16 port, const QByteArray& password) {
    close();
    m_phase = Phase::Opening;
    m_password = password;
    m_answerDeadline.start(OpeningLimit);
    m_socket.connectToHost(host, port);
}

void WriteLink::close() {
    m_phase = Phase::Closed;
    m_heartbeat.stop();
    m_answerDeadline.stop();
    m_expected = 0;
    m_events.clear();
    m_refreshes.clear();
    m_pendingBytes = 0;
    m_socket.abort();
    m_stream.reset();
}

void WriteLink::fail(const QString& reason) {
    if (m_phase == Phase::Closed)
        return;
    close();
    emit lost(reason);
}

void WriteLink::shakeHands() {
    m_socket.setSocketOption(QAbstractSocket::LowDelayOption, 1);
    if (!m_password.isEmpty())
        m_socket.write(encodeBytes({"AUTH", m_password}));
    m_socket.write(Ping);
    m_expected = m_password.isEmpty() ? 1 : 2;
}

void WriteLink::read() {
    m_stream.append(m_socket.readAll());
    ReplyStream::Result result = m_stream.next();
    for (; result.status == ReplyStream::Status::Reply; result = m_stream.next())
        take(result.reply);
    if (result.status == ReplyStream::Status::Broken)
        fail(QStringLiteral("answer out of frame"));
}

/// The server takes writes when PING is answered as such; while it loads its data, refuses writes or
/// wants another password, it says so instead.
void WriteLink::take(const QStringList& reply) {
    const QString text = reply.value(1).trimmed();
    const bool isError = reply.value(0) == QLatin1String("error");
    if (m_expected == 0 || --m_expected > 0) {
        if (isError)
            qWarning().noquote() << "redis: server says" << text;
        return;
    }
    if (isError) {
        fail(text);
        return;
    }
    m_answerDeadline.stop();
    if (m_phase != Phase::Opening)
        return;
    m_socket.write(AnswersOff);
    m_phase = Phase::Ready;
    m_heartbeat.start(HeartbeatInterval);
    emit ready();
}

void WriteLink::heartbeat() {
    reportDropped();
    if (m_expected > 0)
        return; // the last one is still under way, and its deadline runs
    m_expected = 2;
    m_answerDeadline.start(AnswerLimit);
    const QByteArray request = AnswersOn + Ping + AnswersOff;
    m_events.push_back(request);
    m_pendingBytes += request.size();
    queueFlush();
}

void WriteLink::send(const QByteArrayList& arguments, Kind kind) {
    if (m_phase != Phase::Ready)
        return;
    QByteArray request = encodeBytes(arguments);
    m_pendingBytes += request.size();
    (kind == Kind::Refresh ? m_refreshes : m_events).push_back(std::move(request));
    while (m_pendingBytes > MaxPendingBytes)
        dropOldest();
    queueFlush();
}

void WriteLink::dropOldest() {
    const bool refresh = !m_refreshes.empty();
    std::deque<QByteArray>& queue = refresh ? m_refreshes : m_events;
    m_pendingBytes -= queue.front().size();
    queue.pop_front();
    ++(refresh ? m_droppedRefreshes : m_droppedEvents);
}

void WriteLink::reportDropped() {
    const quint64 drops = m_droppedRefreshes + m_droppedEvents;
    if (drops > m_reportedDrops)
        qWarning() << "redis: server reads too slowly, dropped in all" << m_droppedRefreshes
                   << "refreshes and" << m_droppedEvents << "other writes";
    m_reportedDrops = drops;
}

void WriteLink::queueFlush() {
    if (m_flushQueued)
        return;
    m_flushQueued = true;
    QMetaObject::invokeMethod(this, &WriteLink::flush, Qt::QueuedConnection);
}

void WriteLink::flush() {
    m_flushQueued = false;
    const auto room = static_cast<int>(MaxSocketBytes - m_socket.bytesToWrite());
    if (room <= 0)
        return; // bytesWritten() comes back here
    QByteArray batch;
    batch.reserve(std::min(m_pendingBytes, MaxSocketBytes));
    for (std::deque<QByteArray>* queue : {&m_events, &m_refreshes}) {
        for (; !queue->empty() && batch.size() < room; queue->pop_front())
            batch += queue->front();
    }
    m_pendingBytes -= batch.size();
    if (!batch.isEmpty())
        m_socket.write(batch);
}
