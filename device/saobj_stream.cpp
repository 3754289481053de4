#include "core/logthrottle.h"
#include "core/loop/devicesocket.h"
#include "device/fortcpclient.h"
#include "device/packets.h"
#include "device/saobj.h"

#include <chrono>
#include <QDebug>

// Streams forwarded to the speaker: who may, and the data connection by which the speaker takes them.

using namespace std::chrono_literals;

namespace {
constexpr auto StatusInterval = 2000ms;
constexpr auto RetryDelay = 10000ms;
constexpr auto HeartbeatInterval = 10000ms;
/// Chunks after which a speaker counts as playing a stream.
constexpr int StreamIdleLimit = 2000;
/// What the chunk counter starts from when a stream takes the speaker.
constexpr int FirstChunkCount = 100;

QByteArray heartbeat() {
    return QByteArrayLiteral("HELL");
}
} // namespace

int SAobj::send_mp3data(int streamId, const QString& taskName, int priority, int sequence, bool allowed,
                        const QByteArray& chunk) {
    return send_mp3data_mut(m_sourceName, streamId, taskName, priority, sequence, allowed, chunk);
}

int SAobj::send_mp3data_mut(const QString& sourceName, int streamId, const QString& taskName, int priority,
                            int sequence, bool allowed, const QByteArray& chunk) {
    if (m_streamActive) {
        if (priority < m_priority)
            return LowerPriority;
        if (priority != m_priority)
            takeSpeaker(sourceName, streamId, taskName, priority);
    } else if (priority == m_priority && sequence == m_sequence) {
        nameStream(sourceName, streamId, taskName);
    } else {
        takeSpeaker(sourceName, streamId, taskName, priority);
        m_sequence = sequence;
    }
    if (m_sequence >= sequence) {
        if (m_sequence != sequence || m_streamId != streamId)
            return StaleSequence;
    } else {
        m_sequence = sequence;
    }
    if (!allowed || !m_client)
        return NotAllowed;
    if (m_leixing == WifiKind)
        wifi_push_mp3(chunk);
    else
        push_mp3(chunk);
    ++m_chunkCounter;
    return 0;
}

void SAobj::takeSpeaker(const QString& sourceName, int streamId, const QString& taskName, int priority) {
    if (m_streamActive)
        note(SpeakerEvents::StreamEnded);
    nameStream(sourceName, streamId, taskName);
    m_priority = priority;
    m_queue.clear();
    setBusy(false);
}

/// The stream is the speaker's current one from here on.
void SAobj::nameStream(const QString& sourceName, int streamId, const QString& taskName) {
    m_sourceName = sourceName;
    m_taskName = taskName;
    m_streamId = streamId;
    m_isStreamNamed = true;
    m_chunkCounter = FirstChunkCount;
    m_streamActive = true;
    note(SpeakerEvents::StreamBegun);
    tickUnlessIdle();
}

QString SAobj::taskId() const {
    return m_isStreamNamed ? QString::number(m_streamId) : QStringLiteral("fucktaskid");
}

bool SAobj::isIdle() const {
    return !m_streamActive && m_chunkCounter < StreamIdleLimit;
}

void SAobj::tickUnlessIdle() {
    if (m_client && !isIdle() && !m_statusTimer.isActive())
        m_statusTimer = m_env.wheel.every(StatusInterval, this, StatusTick);
}

void SAobj::timeout() {
    if (m_mp3Socket && m_leixing != WifiKind)
        m_mp3Socket->setWatched(!m_streamActive || !m_queue.isEmpty());
    if (isIdle()) { // since the tick before: a stream that goes on keeps its ticks, and their period
        m_statusTimer.reset();
        return;
    }
    if (m_chunkCounter >= StreamIdleLimit) {
        if (!m_streamActive) {
            m_onlineState = Streaming;
            note(SpeakerEvents::StreamBegun);
        }
        m_streamActive = true;
        m_chunkCounter = 0;
        setBusy(false);
    } else if (m_streamActive) {
        m_statusText = StreamOver;
        m_onlineState = Online;
        note(SpeakerEvents::StreamEnded);
        m_streamActive = false;
        m_queue.clear();
        m_chunkCounter = 0;
    }
}

void SAobj::clear_que(int id) {
    if (id == m_streamId)
        m_queue.clear();
}

// --- the queue ---

void SAobj::push_mp3(const QByteArray& chunk) {
    if (m_hold)
        return;
    if (m_mp3Socket && m_writeInProgress)
        lookForRequest();
    if (m_mp3Socket && !m_writeInProgress && m_queue.isEmpty())
        return writeChunk(chunk);
    enqueue(chunk);
    if (!m_mp3Socket)
        requestConnection();
    else if (!m_writeInProgress)
        writeWaiting();
    else
        m_mp3Socket->setWatched(true);
}

/// A speaker that keeps up has asked for its next chunk long before there is one: its request is read
/// now, and nothing has to wake the loop for it. Where it has not asked yet, the loop shall tell.
void SAobj::lookForRequest() {
    if (const int bytes = m_mp3Socket->countNow())
        mp3_rdy(bytes);
}

void SAobj::wifi_push_mp3(const QByteArray& chunk) {
    if (m_hold)
        return;
    if (m_mp3Socket) {
        if (m_mp3Socket->backlog() <= m_env.wifiBacklog)
            wirteMp3(chunk);
        return;
    }
    enqueue(chunk);
    requestConnection();
}

void SAobj::enqueue(const QByteArray& chunk) {
    m_queue.append(chunk);
    if (m_queue.size() > m_settings.AryLen) // the backlog is dropped whole
        m_queue.clear();
}

void SAobj::requestConnection() {
    if (!m_needConnect)
        return;
    qInfo().noquote() << "Could do c 1" << m_sn;
    domp3connect();
}

QByteArray SAobj::pop_mp3() {
    if (!m_queue.isEmpty())
        return m_queue.takeFirst();
    m_writeInProgress = false;
    return {};
}

bool SAobj::wirteMp3(const QByteArray& chunk) {
    return m_client && m_mp3Socket && m_enabled && m_mp3Socket->write(chunk) > 0;
}

void SAobj::writeChunk(const QByteArray& chunk) {
    // A heartbeat is nothing to play, so no request for the next chunk follows it.
    if (wirteMp3(chunk) && chunk != heartbeat())
        m_writeInProgress = true;
}

void SAobj::writeWaiting() {
    const QByteArray chunk = pop_mp3();
    if (!chunk.isEmpty())
        writeChunk(chunk);
}

/// One request for a chunk: the queue's head, past at most two heartbeats.
void SAobj::answerRequest() {
    QByteArray chunk = pop_mp3();
    for (int skipped = 0; skipped < 2 && chunk == heartbeat(); ++skipped)
        chunk = pop_mp3();
    if (!chunk.isEmpty())
        writeChunk(chunk);
}

// --- the data connection ---

int SAobj::domp3connect() {
    const int written =
        command("K", packets::addressBytes(addressForSpeaker()) + packets::portBytes(m_mp3Port));
    qInfo().noquote() << "MPORT:" << m_mp3Port << m_sn;
    m_needConnect = false;
    m_retryTimer = m_env.wheel.once(RetryDelay, this, ConnectRetry);
    return written;
}

/// The configured address, or the one at which the speaker reached us when none usable is configured.
QString SAobj::addressForSpeaker() const {
    const bool isUsable = QHostAddress(m_env.serverAddress).protocol() == QAbstractSocket::IPv4Protocol;
    if (isUsable || !m_client)
        return m_env.serverAddress;
    return m_client->socket()->localAddress().toString();
}

bool SAobj::lacksConnection() const {
    return m_client && !m_mp3Socket;
}

void SAobj::mp3recheck() {
    if (!lacksConnection())
        return;
    m_needConnect = true;
    if (!m_queue.isEmpty())
        domp3connect();
}

void SAobj::_check_start_stream() {
    if (lacksConnection() && (m_streamActive || !m_queue.isEmpty()))
        domp3connect();
}

void SAobj::setmp3tcpsocket(std::unique_ptr<DeviceSocket> socket) {
    dropMp3Socket();
    m_mp3Socket = std::move(socket);
    m_mp3Socket->setOwner(this);
    m_retryTimer.reset();
    m_writeInProgress = false;
    m_requestBytes = 0;
    m_heartbeatTimer = m_env.wheel.every(HeartbeatInterval, this, Heartbeat);
    if (mayLog("Set Remote", m_sn))
        qInfo().noquote() << "Set Remote:" << m_mp3Socket->peerAddress().toString();
    if (mayLog("this sn is ready in", m_sn))
        qInfo().noquote() << "this sn is ready in" << m_sn;
    do
        writeWaiting();
    while (m_leixing == WifiKind && !m_queue.isEmpty());
}

/// A Wi-Fi speaker asks for nothing; what it sends is read so that the connection does not clog.
void SAobj::socketRead(const char* /*bytes*/, int size) {
    if (m_leixing != WifiKind)
        mp3_rdy(size);
}

void SAobj::mp3_rdy(int bytes) {
    const int all = m_requestBytes + bytes;
    m_requestBytes = static_cast<quint8>(all % RequestLength);
    // Requests beyond what waits find the queue empty, each in the same way.
    const int requests = std::min(all / RequestLength, m_queue.size() + 1);
    for (int i = 0; i < requests; ++i)
        answerRequest();
}

void SAobj::mp3_disconnect() {
    if (mayLog("mp3_disconnect", m_sn))
        qInfo().noquote() << "SAobj::mp3_disconnect" << m_sn << m_mp3Socket->errorText();
    dropMp3Socket();
    m_needConnect = true;
}

void SAobj::mp3heat_() {
    if (m_streamActive)
        return;
    if (m_leixing == WifiKind)
        wifi_push_mp3(heartbeat());
    else
        push_mp3(heartbeat());
}

void SAobj::dropMp3Socket() {
    m_heartbeatTimer.reset();
    m_mp3Socket.reset();
}

void SAobj::resetMp3Path() {
    dropMp3Socket();
    m_retryTimer.reset();
    m_queue.clear();
    m_chunkCounter = 0;
    m_writeInProgress = false;
    m_needConnect = true;
}
