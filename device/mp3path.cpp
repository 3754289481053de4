#include "device/mp3path.h"

#include "core/logthrottle.h"
#include "device/sessionenv.h"
#include "device/words.h"

#include <chrono>
#include <QDebug>
#include <utility>

using namespace std::chrono_literals;

namespace {
constexpr auto StatusInterval = 2000ms;
constexpr auto StartCheckDelay = 7261ms;
constexpr auto RetryDelay = 10000ms;
constexpr auto HeartbeatInterval = 10000ms;
/// Chunks after which a speaker counts as playing a stream.
constexpr int StreamIdleLimit = 2000;
/// What the chunk counter starts from when a stream takes the speaker.
constexpr int FirstChunkCount = 100;

QByteArray heartbeat() {
    return QByteArray::fromRawData(words::Heartbeat, sizeof words::Heartbeat - 1);
}
} // namespace

Mp3Path::Mp3Path(Speaker& speaker, const SessionEnv& env)
    : m_speaker(speaker)
    , m_env(env) {
    m_stream.source = QStringLiteral("oxiaom");
    m_stream.task = QStringLiteral("oxiaomtaskname");
}

void Mp3Path::wheelTimeout(int tag) {
    switch (tag) {
    case StatusTick:
        return tick();
    case HeartbeatDue:
        return beat();
    case ConnectRetry:
        return retry();
    case StartCheck:
        return checkStart();
    default:
        return;
    }
}

void Mp3Path::connected() {
    m_statusTimer.reset();
    tickUnlessIdle();
    reset();
    m_startCheckTimer = m_env.wheel.once(StartCheckDelay, this, StartCheck);
}

void Mp3Path::disconnected() {
    m_statusTimer.reset();
    m_startCheckTimer.reset();
    reset();
}

void Mp3Path::reset() {
    tellLost();
    detach();
    m_retryTimer.reset();
    m_queue.clear();
    m_chunkCounter = 0;
    m_writeInProgress = false;
    m_needConnect = true;
}

// --- streams ---

int Mp3Path::forward(const Mp3Stream& stream, bool allowed, const QByteArray& chunk) {
    if (m_active) {
        if (stream.priority < m_stream.priority)
            return LowerPriority;
        if (stream.priority != m_stream.priority)
            take(stream);
    } else if (stream.priority == m_stream.priority && stream.sequence == m_stream.sequence) {
        name(stream);
    } else {
        take(stream);
        setSequence(stream.sequence);
    }
    if (m_stream.sequence < stream.sequence)
        setSequence(stream.sequence);
    else if (m_stream.sequence != stream.sequence || m_stream.id != stream.id)
        return StaleSequence;
    if (!allowed || !m_speaker.hasConnection())
        return NotAllowed;
    if (m_kind == Wifi)
        pushWifi(chunk);
    else
        push(chunk);
    ++m_chunkCounter;
    if (!m_isGained && m_stream.id == stream.id)
        tellGained();
    return 0;
}

void Mp3Path::take(const Mp3Stream& stream) {
    if (m_active)
        m_speaker.streamChanged(Speaker::Replaced);
    name(stream);
    m_stream.priority = stream.priority;
    m_queue.clear();
    m_speaker.streamChanged(Speaker::Taken);
}

/// The stream is the speaker's current one from here on, but for its priority and sequence.
void Mp3Path::name(const Mp3Stream& stream) {
    tellLost();
    m_stream.source = stream.source;
    m_stream.task = stream.task;
    m_stream.id = stream.id;
    m_isNamed = true;
    m_chunkCounter = FirstChunkCount;
    m_active = true;
    m_speaker.streamChanged(Speaker::Begun);
    tickUnlessIdle();
}

void Mp3Path::setSequence(int sequence) {
    if (sequence != m_stream.sequence)
        tellLost();
    m_stream.sequence = sequence;
}

void Mp3Path::tellGained() {
    m_isGained = true;
    if (Mp3Feeder* const feeder = m_env.feeders.value(m_stream.id))
        feeder->gainedSpeaker(m_speaker.serial(), m_stream);
}

void Mp3Path::tellLost() {
    if (!std::exchange(m_isGained, false))
        return;
    if (Mp3Feeder* const feeder = m_env.feeders.value(m_stream.id))
        feeder->lostSpeaker(m_speaker.serial(), m_stream);
}

bool Mp3Path::isIdle() const {
    return !m_active && m_chunkCounter < StreamIdleLimit;
}

void Mp3Path::tickUnlessIdle() {
    if (m_speaker.hasConnection() && !isIdle() && !m_statusTimer.isActive())
        m_statusTimer = m_env.wheel.every(StatusInterval, this, StatusTick);
}

void Mp3Path::tick() {
    if (m_socket && m_kind != Wifi)
        m_socket->setWatched(!m_active || !m_queue.isEmpty());
    if (isIdle()) { // since the tick before: a stream that goes on keeps its ticks, and their period
        m_statusTimer.reset();
        return;
    }
    if (m_chunkCounter >= StreamIdleLimit) {
        if (!m_active)
            m_speaker.streamChanged(Speaker::Running);
        m_active = true;
        m_chunkCounter = 0;
        m_speaker.streamChanged(Speaker::Taken);
    } else if (m_active) {
        tellLost();
        m_speaker.streamChanged(Speaker::Paused);
        m_active = false;
        m_queue.clear();
        m_chunkCounter = 0;
    }
}

// --- the queue ---

void Mp3Path::clear(int streamId) {
    if (streamId == m_stream.id)
        m_queue.clear();
}

void Mp3Path::push(const QByteArray& chunk) {
    if (m_hold)
        return;
    if (m_socket && m_writeInProgress)
        lookForRequest();
    if (m_socket && !m_writeInProgress && m_queue.isEmpty())
        return writeChunk(chunk);
    enqueue(chunk);
    if (!m_socket)
        requestConnectionOnce();
    else if (!m_writeInProgress)
        writeWaiting();
    else
        m_socket->setWatched(true);
}

/// A speaker that keeps up has asked for its next chunk long before there is one: its request is read
/// now, and nothing has to wake the loop for it. Where it has not asked yet, the loop shall tell.
void Mp3Path::lookForRequest() {
    if (const int bytes = m_socket->countNow())
        asked(bytes);
}

void Mp3Path::pushWifi(const QByteArray& chunk) {
    if (m_hold)
        return;
    if (m_socket) {
        if (m_socket->backlog() <= m_env.wifiBacklog)
            write(chunk);
        return;
    }
    enqueue(chunk);
    requestConnectionOnce();
}

void Mp3Path::enqueue(const QByteArray& chunk) {
    m_queue.append(chunk);
    if (m_queue.size() > m_limit) // the backlog is dropped whole
        m_queue.clear();
}

QByteArray Mp3Path::next() {
    if (!m_queue.isEmpty())
        return m_queue.takeFirst();
    m_writeInProgress = false;
    return {};
}

bool Mp3Path::write(const QByteArray& chunk) {
    return m_socket && m_speaker.mayBeWrittenTo() && m_socket->write(chunk) > 0;
}

void Mp3Path::writeChunk(const QByteArray& chunk) {
    // A heartbeat is nothing to play, so no request for the next chunk follows it.
    if (write(chunk) && chunk != words::Heartbeat)
        m_writeInProgress = true;
}

void Mp3Path::writeWaiting() {
    const QByteArray chunk = next();
    if (!chunk.isEmpty())
        writeChunk(chunk);
}

void Mp3Path::answerRequest() {
    QByteArray chunk = next();
    for (int skipped = 0; skipped < 2 && chunk == words::Heartbeat; ++skipped)
        chunk = next();
    if (!chunk.isEmpty())
        writeChunk(chunk);
}

// --- the data connection ---

int Mp3Path::requestConnection() {
    const int written = m_speaker.askForDataConnection();
    m_needConnect = false;
    m_retryTimer = m_env.wheel.once(RetryDelay, this, ConnectRetry);
    return written;
}

void Mp3Path::requestConnectionOnce() {
    if (!m_needConnect)
        return;
    qInfo().noquote() << "Could do c 1" << m_speaker.serial();
    requestConnection();
}

bool Mp3Path::lacksConnection() const {
    return m_speaker.hasConnection() && !m_socket;
}

void Mp3Path::retry() {
    if (!lacksConnection())
        return;
    m_needConnect = true;
    if (!m_queue.isEmpty())
        requestConnection();
}

void Mp3Path::checkStart() {
    if (lacksConnection() && (m_active || !m_queue.isEmpty()))
        requestConnection();
}

void Mp3Path::attach(std::unique_ptr<DeviceSocket> socket) {
    detach();
    m_socket = std::move(socket);
    m_socket->setOwner(this);
    m_retryTimer.reset();
    m_writeInProgress = false;
    m_requestBytes = 0;
    m_heartbeatTimer = m_env.wheel.every(HeartbeatInterval, this, HeartbeatDue);
    const QString& sn = m_speaker.serial();
    if (mayLog("Set Remote", sn))
        qInfo().noquote() << "Set Remote:" << m_socket->peerAddress().toString();
    if (mayLog("this sn is ready in", sn))
        qInfo().noquote() << "this sn is ready in" << sn;
    do
        writeWaiting();
    while (m_kind == Wifi && !m_queue.isEmpty());
}

/// A Wi-Fi speaker asks for nothing; what it sends is read so that the connection does not clog.
void Mp3Path::socketRead(const char* /*bytes*/, int size) {
    if (m_kind != Wifi)
        asked(size);
}

void Mp3Path::asked(int bytes) {
    const int all = m_requestBytes + bytes;
    m_requestBytes = static_cast<quint8>(all % RequestLength);
    // Requests beyond what waits find the queue empty, each in the same way.
    const int requests = std::min(all / RequestLength, m_queue.size() + 1);
    for (int i = 0; i < requests; ++i)
        answerRequest();
}

void Mp3Path::socketEnded() {
    if (mayLog("mp3_disconnect", m_speaker.serial()))
        qInfo().noquote() << "SAobj::mp3_disconnect" << m_speaker.serial() << m_socket->errorText();
    detach();
    m_needConnect = true;
}

void Mp3Path::beat() {
    if (m_active)
        return;
    if (m_kind == Wifi)
        pushWifi(heartbeat());
    else
        push(heartbeat());
}

void Mp3Path::detach() {
    m_heartbeatTimer.reset();
    m_socket.reset();
}
