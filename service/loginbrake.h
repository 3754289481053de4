#pragma once

#include <chrono>
#include <list>
#include <mutex>
#include <QHash>
#include <QString>

/// Slows who guesses passwords: after five failures of an account's name from an address the next try is
/// taken after 1 s, then after 2, 4 and so on up to 60 s. Neither that name from elsewhere nor other names
/// from there wait. What failed longest ago is forgotten first. Any thread.
class LoginBrake {
public:
    using Clock = std::chrono::steady_clock;
    static constexpr int Free = 5;
    static constexpr std::chrono::seconds Longest{60};
    static constexpr std::chrono::minutes Forgotten{15}; ///< after the last failure
    static constexpr std::size_t MaxKept = 10'000;

    /// How long a try must wait; 0: it may be made now.
    std::chrono::seconds wait(const QString& name, const QString& address,
                              Clock::time_point now = Clock::now());
    void failed(const QString& name, const QString& address, Clock::time_point now = Clock::now());
    void succeeded(const QString& name, const QString& address);

private:
    struct Entry {
        QString key;
        int failures = 0;
        Clock::time_point last;
        Clock::time_point open; ///< the next try is taken from here on
    };
    using Entries = std::list<Entry>; ///< the one that failed last in front
    void makeRoom(Clock::time_point now);

    std::mutex m_mutex;
    Entries m_entries;
    QHash<QString, Entries::iterator> m_places;
};
