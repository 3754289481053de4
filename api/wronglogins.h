#pragma once

#include <chrono>
#include <deque>
#include <mutex>
#include <QHash>
#include <QString>

/// Wrong names and passwords of the last minute, by name and address: who guesses on waits for each
/// answer. Thread-safe.
class WrongLogins {
public:
    using Clock = std::chrono::steady_clock;
    static constexpr std::size_t Free = 5; ///< a minute; answered at once
    static constexpr std::chrono::seconds Window{60};
    static constexpr std::chrono::milliseconds Delay{1000};
    static constexpr int MaxKept = 10'000; ///< names and addresses

    /// Counts one more. Returns how much later than now its refusal is to be sent.
    std::chrono::milliseconds add(const QString& name, const QString& address,
                                  Clock::time_point now = Clock::now());

private:
    struct Count {
        std::deque<Clock::time_point> last; ///< at most Free
        int total = 0;                      ///< since the last minute without any
    };
    void makeRoom(Clock::time_point now);

    std::mutex m_mutex;
    QHash<QString, Count> m_counts; ///< by address and name
};
