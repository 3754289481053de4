#pragma once

#include "fronts/websocketframes.h"

#include <chrono>
#include <QByteArray>
#include <QObject>
#include <QQueue>
#include <QStringList>

class QTcpSocket;

/// What all connections of the front hold in memory together: messages that arrive, wait or are worked on,
/// and unsent bytes. On the front's thread.
struct WebSocketBudget {
    static constexpr qint64 MaxBytes = 48 * 1024 * 1024; ///< with what lists and JSON take beside it, 64 MiB
    qint64 bytes = 0;
    /// What is unsent of events counts by itself: of what all clients are told there is one copy.
    static constexpr qint64 MaxEventBytes = 64 * 1024 * 1024;
    qint64 eventBytes = 0;
};

/// One WebSocket connection, from the accepted socket to its end; despite its name no thread, it lives on the
/// front's. Hands its requests on one at a time and sends the replies in the order of the requests.
class qwebsocktthread : public QObject {
    Q_OBJECT
public:
    using Clock = std::chrono::steady_clock;

    static constexpr std::chrono::seconds HandshakeTime{10};
    /// Silence that is borne after the handshake.
    static constexpr std::chrono::seconds FirstMessage{30};
    /// For a message that has begun, and for any progress of a peer that has bytes to read.
    static constexpr std::chrono::seconds MessageTime{60};
    static constexpr std::chrono::seconds UnreadTime{30};
    /// A peer that has not answered a ping by the next is gone.
    static constexpr std::chrono::seconds PingInterval{60};
    /// After a close frame, for the peer to see it.
    static constexpr std::chrono::seconds CloseTime{2};
    static constexpr qint64 MaxIgnoredBytes = 4 * 1024 * 1024;
    static constexpr int MaxHandshakeBytes = 8 * 1024;
    /// Longest message: a request with 20,000 serials is 0.7 MB.
    static constexpr int MaxMessageBytes = 1024 * 1024;
    /// Requests that wait for the one before them, in number and in bytes; a client that sends faster
    /// than it is answered is closed.
    static constexpr int MaxWaiting = 64;
    static constexpr qint64 MaxWaitingBytes = 4 * MaxMessageBytes;
    /// With more unsent bytes no further request is begun. One reply may be longer.
    static constexpr qint64 MaxUnsentBytes = 1024 * 1024;
    /// Pings, pongs and closes in a second: peers send one in many seconds.
    static constexpr int MaxControlFrames = 64;
    /// Of unsent bytes, with which it may still be told more; with what it is told at once less than 1 MB.
    static constexpr qint64 EventRoom = 64 * 1024;
    /// What the kernel may hold of a client's events.
    static constexpr int EventSendBuffer = 256 * 1024;

    /// Takes `socket` as its child. `budget` outlives it.
    qwebsocktthread(QTcpSocket* socket, QStringList origins, WebSocketBudget& budget, QObject* parent);
    ~qwebsocktthread() override;

    QString address() const; ///< the peer's
    /// The reply to the request under way, held back for `delay`; "busy" instead of it where there is no
    /// memory for it.
    void reply(const QByteArray& text, std::chrono::milliseconds delay = {});
    /// The request under way needs no reply.
    void endRequest();
    /// Is sent messages unasked from now on: while it reads nothing it is kept until a ping goes unanswered.
    void setSubscribed();
    /// A whole frame that nobody has asked for.
    void tell(const QByteArray& frame);
    /// Whether it has read so much that it may be told more.
    bool hasRoom() const;
    /// For how long it has read nothing of what waits for it.
    std::chrono::milliseconds standstill(Clock::time_point now) const;
    void closeForPolicy(const char* why) { close(websocket::CloseCode::Policy, why); }
    void dropForSilence() { dropFor("does not read its events"); }
    /// Whether it has sent a whole message yet.
    bool hasAsked() const { return m_hasAsked; }
    Clock::time_point begin() const { return m_begin; }
    /// Looks at its deadlines; to be called about once a second.
    void tick(Clock::time_point now);
    /// Ends it at once and without a word.
    void drop();

signals:
    /// A message whose turn has come; the next follows after reply().
    void request(const QByteArray& message);
    /// Has room again.
    void drained();
    /// The connection is over.
    void ended();

private:
    void send(const QByteArray& text);
    enum class State { Handshake, Open, Closing };

    void receive();
    QByteArray shakeHands(const QByteArray& bytes);
    void take(const websocket::Event& event);
    void takeText(const QByteArray& message);
    bool isControlFlood();
    void pong(const QByteArray& payload);
    void next();
    void written();
    void close(websocket::CloseCode code, const char* why);
    void finish(const QByteArray& lastBytes);
    void ping(Clock::time_point now);
    void dropFor(const char* why);
    bool account();

    QTcpSocket* m_socket;
    const QStringList m_origins;
    WebSocketBudget& m_budget;
    State m_state = State::Handshake;
    QByteArray m_handshake;
    websocket::FrameReader m_reader{MaxMessageBytes};
    QQueue<QByteArray> m_waiting;
    qint64 m_waitingBytes = 0;
    qint64 m_busyBytes = 0; ///< of the request under way
    qint64 m_ignored = 0;   ///< bytes that came after the last ones were sent
    qint64 m_accounted = 0; ///< its part of the budget
    bool m_isSubscribed = false;
    qint64 m_eventBytes = 0; ///< at most so many of the unsent bytes are events
    qint64 m_accountedEvents = 0;
    bool m_isBusy = false;
    bool m_hasAsked = false;
    bool m_hasAnswered = true; ///< the last ping
    int m_controls = 0;        ///< control frames of this second
    const Clock::time_point m_begin = Clock::now();
    Clock::time_point m_second = m_begin;
    Clock::time_point m_lastPing = m_begin;
    Clock::time_point m_lastMessage = m_begin; ///< no message under way since then; also the handshake's end
    Clock::time_point m_lastWritten = m_begin; ///< nothing unsent, or progress with it
    Clock::time_point m_closing;
};
