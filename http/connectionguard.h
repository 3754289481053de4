#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
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

private:
    friend class ConnectionGuard;
    Phase phase = Phase::Head;
    std::chrono::steady_clock::time_point phaseBegin;
    std::list<HttpSocket*>::iterator place; ///< in the guard's list of its phase
};

/// Ends connections whose client takes too long to say what it wants: a request head must be whole
/// within `readTimeout` of the connection's start or of the answer before it, a body may not pause
/// longer than that nor be slower than MinBodyRate. Also ends refused connections gently. One thread,
/// asleep while no client is waited for; a connection that is being answered costs it nothing.
class ConnectionGuard {
public:
    static constexpr std::chrono::milliseconds Tick{250};
    static constexpr qint64 MinBodyRate = 1024; ///< bytes/s, after SlowBodyGrace; a poor GPRS link
    static constexpr std::chrono::seconds SlowBodyGrace{30}; ///< for the slow start of a far client
    static constexpr std::chrono::seconds LingerTime{2};     ///< as long as a client needs to see the answer
    static constexpr std::size_t MaxLingering = 64;          ///< past that the rest are closed at once

    explicit ConnectionGuard(std::chrono::milliseconds readTimeout);
    ~ConnectionGuard();

    /// A new connection, in phase Head.
    void add(HttpSocket* socket);
    void enter(HttpSocket* socket, HttpSocket::Phase phase);
    /// Call before the descriptor is closed. Afterwards the guard doesn't touch the socket any more.
    void remove(HttpSocket* socket);

private:
    struct Lingering {
        int descriptor;
        std::chrono::steady_clock::time_point end;
    };
    std::list<HttpSocket*>& listOf(HttpSocket::Phase phase);
    bool isIdle() const { return m_heads.empty() && m_bodies.empty() && m_lingering.empty(); }
    void run();
    void endOverdue(std::chrono::steady_clock::time_point now);
    bool isBodyOverdue(const HttpSocket& socket, std::chrono::steady_clock::time_point now) const;
    void drainLingering(std::chrono::steady_clock::time_point now);
    /// Keeps reading what a refused client still sends: closing with unread data would reset the
    /// connection, and the reset can destroy the answer before the client has read it.
    void linger(int descriptor);

    const std::chrono::milliseconds m_readTimeout;
    std::mutex m_mutex; ///< guards all below, and each socket's private members
    std::condition_variable m_wake;
    std::list<HttpSocket*> m_heads; ///< in the order of their deadlines
    std::list<HttpSocket*> m_bodies;
    std::list<HttpSocket*> m_answers;
    std::list<Lingering> m_lingering;
    bool m_ending = false;
    std::thread m_thread;
};
