#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <map>
#include <mutex>
#include <thread>

/// Answers that are held back for a while, on a thread of its own so that no worker waits. All methods
/// are thread-safe.
class LateAnswers {
public:
    LateAnswers();
    ~LateAnswers();

    /// `send` is called once, on this object's thread, when `delay` is over or end() is called.
    void add(std::chrono::milliseconds delay, std::function<void()> send);
    /// Sends what waits and takes no more.
    void end();

private:
    using Clock = std::chrono::steady_clock;
    void run();

    std::mutex m_mutex; ///< guards all below but the thread
    std::condition_variable m_wake;
    std::multimap<Clock::time_point, std::function<void()>> m_waiting;
    bool m_ending = false;
    std::thread m_thread;
};
