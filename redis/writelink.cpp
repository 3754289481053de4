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

/// Speakers whose owed writes are sent before the loop has its turn.
constexpr int KeysPerTurn = 500;
/// Keys tried at each heartbeat while they are refused: few beside the refreshes, which try theirs.
constexpr int KeysPerBeat = 1000;
/// Most refusals that are logged until writes are taken again.
constexpr int MaxReasons = 20;

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
    m_isPinging = m_isIncomplete = false;
    m_events.clear();
    m_refreshes.clear();
    m_inFlight.clear();
    m_pendingBytes = 0;
    m_owed.clear();
    m_reasons.clear();
    m_refusals = m_refusalsAtBeat = 0;
    m_socket.abort();
    m_received.clear();
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
    const QByteArray bytes = m_received + m_socket.readAll();
    int begin = 0;
    for (int end = 0; m_phase != Phase::Closed && (end = bytes.indexOf('\n', begin)) >= 0; begin = end + 1)
        take({bytes.constData() + begin, static_cast<size_t>(end - begin)});
    if (m_phase == Phase::Closed)
        return;
    m_received = bytes.mid(begin);
    if (m_received.size() > MaxAnswerBytes)
        fail(QStringLiteral("answer out of frame"));
    else
        payOwed();
}

/// The server takes writes when PING is answered as such; while it loads its data, refuses every
/// write or wants another password, it says so instead.
void WriteLink::takeOpening(bool isError, const QString& text) {
    if (--m_expected > 0) {
        if (isError)
            qWarning().noquote() << "redis: server says" << text;
        return;
    }
    if (isError) {
        fail(text);
        return;
    }
    m_answerDeadline.stop();
    m_phase = Phase::Ready;
    m_heartbeat.start(HeartbeatInterval);
    emit ready();
}

/// One line of a fleet's many.
void WriteLink::take(std::string_view answer) {
    const char type = answer.empty() ? '\0' : answer.front();
    const bool isError = type == '-';
    const auto text = [answer] {
        return QString::fromUtf8(answer.data() + 1, static_cast<int>(answer.size()) - 1).trimmed();
    };
    if (type != '+' && type != ':' && !isError) {
        fail(QStringLiteral("answer out of frame"));
        return;
    }
    if (m_phase == Phase::Opening) {
        takeOpening(isError, text());
        return;
    }
    if (m_inFlight.empty()) {
        fail(QStringLiteral("answer out of frame"));
        return;
    }
    const Request request = std::move(m_inFlight.front());
    m_inFlight.pop_front();
    if (request.isPing && isError) {
        fail(text());
    } else if (request.isPing) {
        m_isPinging = false;
        m_answerDeadline.stop();
    } else if (isError) {
        refused(request, text());
    } else if (!m_owed.isEmpty()) {
        const QByteArrayList arguments = decodeBytes(request.bytes);
        m_owed.supersede(arguments);
        m_owed.taken(arguments.at(1));
    }
}

// ---- what the server refuses ----

/// Told once for each reason, and for each key whose own fault it is.
void WriteLink::refused(const Request& request, const QString& reason) {
    const QString key = QString::fromUtf8(decodeBytes(request.bytes).at(1));
    const QString code = reason.section(QLatin1Char(' '), 0, 0);
    const QString told = code == QLatin1String("WRONGTYPE") ? code + key : code;
    if (m_reasons.size() < MaxReasons && !m_reasons.contains(told)) {
        m_reasons.insert(told);
        qWarning().noquote() << "redis: write refused:" << key << reason;
    }
    ++m_refusals;
    keep(request, OwedWrites::Why::Refused);
}

/// A refresh comes again by itself.
void WriteLink::keep(const Request& request, OwedWrites::Why why) {
    if (request.kind == Kind::Event && !request.isPing && !m_owed.keep(decodeBytes(request.bytes), why))
        m_isIncomplete = true;
}

/// With everything answered nothing newer is on its way than what is owed.
void WriteLink::payOwed() {
    if (m_owed.isEmpty() || m_pendingBytes > 0 || !m_inFlight.empty())
        return;
    const QList<QByteArrayList> requests = m_owed.takeDue(KeysPerTurn);
    for (const QByteArrayList& arguments : requests)
        enqueue({encodeBytes(arguments)});
}

void WriteLink::lookForEndOfRefusals() {
    const bool isQuiet = m_refusals == m_refusalsAtBeat;
    m_refusalsAtBeat = m_refusals;
    m_owed.tryAgain(KeysPerBeat);
    payOwed();
    if (!isQuiet)
        return;
    if (!m_reasons.isEmpty())
        qInfo() << "redis: writes are taken again, refused were" << m_refusals;
    m_reasons.clear();
    m_refusals = m_refusalsAtBeat = 0;
    if (m_pendingBytes == 0 && std::exchange(m_isIncomplete, false))
        emit incomplete();
}

void WriteLink::heartbeat() {
    reportDropped();
    lookForEndOfRefusals();
    if (m_isPinging)
        return; // the last one is still under way, and its deadline runs
    m_isPinging = true;
    m_answerDeadline.start(AnswerLimit);
    enqueue({Ping, Kind::Event, true});
}

// ---- sending ----

void WriteLink::send(const QByteArrayList& arguments, Kind kind) {
    if (m_phase != Phase::Ready)
        return;
    if (!m_owed.isEmpty()) {
        m_owed.supersede(arguments);
        // What a list is owed goes before what is newer.
        if (arguments.at(0) == "LPUSH" && m_owed.isRefused(arguments.at(1))) {
            keep({encodeBytes(arguments)}, OwedWrites::Why::Refused);
            return;
        }
    }
    enqueue({encodeBytes(arguments), kind});
}

void WriteLink::enqueue(Request request) {
    m_pendingBytes += request.bytes.size();
    (request.kind == Kind::Refresh ? m_refreshes : m_events).push_back(std::move(request));
    while (m_pendingBytes > MaxPendingBytes)
        dropOldest();
    queueFlush();
}

void WriteLink::dropOldest() {
    const bool refresh = !m_refreshes.empty();
    std::deque<Request>& queue = refresh ? m_refreshes : m_events;
    const Request request = std::move(queue.front());
    queue.pop_front();
    if (request.isPing) { // its answer is waited for
        queue.push_back(request);
        return;
    }
    m_pendingBytes -= request.bytes.size();
    keep(request, OwedWrites::Why::Dropped);
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
    for (std::deque<Request>* queue : {&m_events, &m_refreshes}) {
        for (; !queue->empty() && batch.size() < room; queue->pop_front()) {
            batch += queue->front().bytes;
            m_inFlight.push_back(std::move(queue->front()));
        }
    }
    m_pendingBytes -= batch.size();
    if (!batch.isEmpty())
        m_socket.write(batch);
}
