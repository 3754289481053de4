#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <list>
#include <mutex>
#include <QHostAddress>
#include <thread>

/// One accepted TCP connection, from accept to close. Belongs to its engine thread.
struct HttpSocket {
    enum class Phase { Head, Body, Answer };
    int descriptor = -1;
    QHostAddress peer;
    /// The client may still be sending what nobody will read: see ConnectionGuard::linger.
    bool lingers = false;
    // Read by the guard's thread.
    std::atomic<std::chrono::steady_clock::time_point> lastData{};
    std::atomic<qint64> bodyBytes{0};
    std::atomic<qint64> heldBytes{0}; ///< memory of the answer that is being sent

private:
    friend class ConnectionGuard;
    Phase phase = Phase::Head;
    bool isEnded = false; ///< the guard has shut it down; its engine thread will find that
    std::chrono::steady_clock::time_point phaseBegin;
    std::list<HttpSocket*>::iterator place; ///< in the guard's list of its phase
};

/// Ends connections whose client takes too long to say what it wants: a request head must be whole
/// within `readTimeout` of the connection's start or of the answer before it, a body may not pause
/// longer than that nor be slower than MinBodyRate. Where room is short it ends others sooner: the
/// longest without a request when connections are, the longest unread answers when memory is. Also ends
/// refused connections gently. One thread, asleep while no client is waited for; a connection that is
/// being answered costs it nothing.
class ConnectionGuard {
public:
    static constexpr std::chrono::milliseconds Tick{250};
    static constexpr qint64 MinBodyRate = 1024; ///< bytes/s, after SlowBodyGrace; a poor GPRS link
    static constexpr std::chrono::seconds SlowBodyGrace{30}; ///< for the slow start of a far client
    static constexpr std::chrono::seconds LingerTime{2};     ///< as long as a client needs to see the answer
    static constexpr std::size_t MaxLingering = 64;          ///< past that the rest are closed at once
    /// What even those who must make room are given: a head takes a round trip, a body has pauses,
    /// and a list of thousands of speakers is read within seconds.
    static constexpr std::chrono::seconds HeadPatience{1};
    static constexpr std::chrono::seconds BodyPatience{5};
    static constexpr std::chrono::seconds AnswerPatience{10};

    /// Past `room` connections the longest without a request make room.
    ConnectionGuard(std::chrono::milliseconds readTimeout, std::size_t room);
    ~ConnectionGuard();

    /// A new connection, in phase Head.
    void add(HttpSocket* socket);
    void enter(HttpSocket* socket, HttpSocket::Phase phase);
    /// Call before the descriptor is closed. Afterwards the guard doesn't touch the socket any more.
    void remove(HttpSocket* socket);
    /// Ends the connections that have left their answers unread for longest, `bytes` of them at least
    /// where there are as many.
    void endUnreadAnswers(qint64 bytes);

private:
    using TimePoint = std::chrono::steady_clock::time_point;
    struct Lingering {
        int descriptor;
        std::chrono::steady_clock::time_point end;
    };
    std::list<HttpSocket*>& listOf(HttpSocket::Phase phase);
    bool isIdle() const { return m_heads.empty() && m_bodies.empty() && m_lingering.empty(); }
    bool isFull() const;
    void end(HttpSocket& socket);
    void endOldHeads(TimePoint now);
    void endSilentBodies(TimePoint now);
    void run();
    void endOverdue(TimePoint now);
    bool isBodyOverdue(const HttpSocket& socket, TimePoint now) const;
    static bool hasLeft(const HttpSocket& socket, TimePoint now);
    void drainLingering(TimePoint now);
    /// Keeps reading what a refused client still sends: closing with unread data would reset the
    /// connection, and the reset can destroy the answer before the client has read it.
    void linger(int descriptor);

    const std::chrono::milliseconds m_readTimeout;
    const std::size_t m_room;
    std::mutex m_mutex; ///< guards all below, and each socket's private members
    std::condition_variable m_wake;
    std::list<HttpSocket*> m_heads; ///< in the order of their deadlines
    std::list<HttpSocket*> m_bodies;
    std::list<HttpSocket*> m_answers;
    std::list<Lingering> m_lingering;
    std::size_t m_ended = 0; ///< of the sockets in the lists
    bool m_ending = false;
    std::thread m_thread;
};
