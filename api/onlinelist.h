#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <QByteArray>

class Severinit;

/// The reply that lists the speakers online, for whoever asks, from a copy: however often it is asked for,
/// the main loop is bothered once a second. Any thread but the main loop's.
class OnlineList {
public:
    static constexpr std::chrono::milliseconds MaxAge{1000};

    explicit OnlineList(Severinit* devices)
        : m_devices(devices) {}
    /// At most MaxAge old. Waits for the main loop, or for a thread that does already, when it is older.
    QByteArray reply();

private:
    using Clock = std::chrono::steady_clock;
    void renew(std::unique_lock<std::mutex>& lock);

    Severinit* m_devices;
    std::mutex m_lock;
    std::condition_variable m_renewed;
    // Guarded by m_lock.
    QByteArray m_reply;
    Clock::time_point m_taken;
    bool m_renewing = false;
};
