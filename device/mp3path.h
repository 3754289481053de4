#pragma once

#include "core/loop/devicesocket.h"
#include "core/loop/fetch.h"
#include "core/loop/timingwheel.h"

#include <memory>
#include <QByteArray>
#include <QList>
#include <QString>

struct SessionEnv;

/// A stream as whoever feeds it describes it.
struct Mp3Stream {
    int id = 0;
    int priority = 0;
    int sequence = 0;
    QString source;
    QString task;
};

/// Whoever feeds streams and wants to know which speakers they have (Severinit::setMp3Feeder()). Told from
/// inside the call that changed it: feeds nothing meanwhile. Main loop only.
class Mp3Feeder {
public:
    /// The stream's first chunk is on its way to the speaker, or the first since it was lost.
    virtual void gainedSpeaker(const QString& sn, const Mp3Stream& stream) = 0;
    /// Another stream has taken the speaker, the stream has paused or ended, or the speaker is gone.
    virtual void lostSpeaker(const QString& sn, const Mp3Stream& stream) = 0;

protected:
    ~Mp3Feeder() = default;
};

/// The streams that are forwarded to one speaker: which of them has it, the queue of its chunks, and the data
/// connection by which the speaker takes them, each when it asks for it or, with Wi-Fi, as it comes. Main
/// loop only. Owner: the session.
class Mp3Path : private TimingWheel::Client, private DeviceSocket::Owner {
public:
    enum Kind { Pull = 1, Wifi = 2 };
    /// Bytes of a request for a chunk on the data connection.
    static constexpr int RequestLength = 5;
    /// Refusals of forward().
    static constexpr int LowerPriority = -3;
    static constexpr int StaleSequence = -6;
    static constexpr int NotAllowed = -1;

    /// The session as its path sees it.
    class Speaker {
    public:
        enum Change {
            Begun,    ///< a stream has the speaker
            Replaced, ///< another stream takes it from the one before
            Taken,    ///< from its own store
            Running,  ///< chunks come, but no stream is known to have begun
            Paused,   ///< no chunk came from one status tick to the next
        };
        virtual const QString& serial() const = 0;
        virtual bool hasConnection() const = 0; ///< for commands
        virtual bool mayBeWrittenTo() const = 0;
        /// Sends the command that makes the speaker open its data connection; returns the bytes.
        virtual int askForDataConnection() = 0;
        virtual void streamChanged(Change change) = 0;

    protected:
        ~Speaker() = default;
    };

    /// Both outlive the path.
    Mp3Path(Speaker& speaker, const SessionEnv& env);

    // --- life of the control connection ---
    void connected();
    void disconnected();

    // --- streams ---
    /// One chunk under the preemption rule. Returns 0; -3 refused (lower priority than the active stream), -6
    /// stale sequence of another stream, -1 not allowed or no control connection.
    int forward(const Mp3Stream& stream, bool allowed, const QByteArray& chunk);
    /// The status tick, every 2000 ms while there is a connection and not idle; when idle it would do
    /// nothing.
    void tick();
    bool isActive() const { return m_active; }
    const Mp3Stream& stream() const { return m_stream; } ///< the current one
    bool isNamed() const { return m_isNamed; }           ///< a stream has been forwarded since the start

    // --- the queue ---
    void push(const QByteArray& chunk);
    void pushWifi(const QByteArray& chunk);
    void clear(int streamId); ///< when it is the current stream's
    int queuedChunks() const { return m_queue.size(); }
    /// Most chunks that wait; with one more all are dropped.
    void setLimit(int chunks) { m_limit = chunks; }
    /// While set, chunks are discarded. Nothing here sets it.
    void setHold(bool hold) { m_hold = hold; }

    // --- the data connection ---
    int kind() const { return m_kind; }
    /// How the speaker takes chunks; decides for the next data connection.
    void setKind(int kind) { m_kind = static_cast<quint8>(kind); }
    int requestConnection();
    /// Takes over an accepted connection, replacing one that was there.
    void attach(std::unique_ptr<DeviceSocket> socket);
    bool isAttached() const { return m_socket != nullptr; }
    /// The speaker sent so many bytes on it: RequestLength are one request for a chunk.
    void asked(int bytes);
    /// One request for a chunk: the queue's head, past at most two heartbeats.
    void answerRequest();
    void fetchSocket() const { fetchObject(m_socket.get()); }

private:
    enum Deadline { StatusTick, HeartbeatDue, ConnectRetry, StartCheck };

    void wheelTimeout(int tag) override;
    void socketRead(const char* bytes, int size) override;
    void socketEnded() override;

    void take(const Mp3Stream& stream);
    void name(const Mp3Stream& stream);
    void setSequence(int sequence);
    void tellGained();
    void tellLost();
    bool isIdle() const;
    void tickUnlessIdle();
    void requestConnectionOnce();
    void enqueue(const QByteArray& chunk);
    QByteArray next();
    bool write(const QByteArray& chunk);
    void writeChunk(const QByteArray& chunk);
    void writeWaiting();
    void lookForRequest();
    void beat();
    void retry();
    void checkStart();
    void detach();
    void reset();
    bool lacksConnection() const;

    Speaker& m_speaker;
    const SessionEnv& m_env;
    std::unique_ptr<DeviceSocket> m_socket;
    int m_chunkCounter = 0;
    quint8 m_kind = Pull;
    quint8 m_requestBytes = 0; ///< of a request for a chunk that has arrived in part
    bool m_active = false;
    bool m_hold = false;
    bool m_writeInProgress = false;
    bool m_needConnect = true;
    bool m_isNamed = false;
    bool m_isGained = false; ///< the feeder has been told so
    int m_limit = 20;
    Mp3Stream m_stream;
    QList<QByteArray> m_queue;
    TimingWheel::Handle m_statusTimer;
    TimingWheel::Handle m_heartbeatTimer;
    TimingWheel::Handle m_retryTimer;
    TimingWheel::Handle m_startCheckTimer;
};
