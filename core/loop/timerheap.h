#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <QAbstractEventDispatcher>
#include <QHash>
#include <QMultiHash>
#include <vector>

/// The timers of one event dispatcher, earliest first: O(log n) to add, take and remove one. Precise
/// timers are due to the millisecond, coarse ones up to 5 % late so that they come together, very coarse
/// ones at whole seconds; none is early. One thread.
class TimerHeap {
public:
    using Clock = std::chrono::steady_clock;

    TimerHeap();
    ~TimerHeap();

    void add(int id, std::chrono::milliseconds interval, Qt::TimerType type, QObject* object);
    bool remove(int id);
    bool removeAll(QObject* object);
    void clear();
    QList<QAbstractEventDispatcher::TimerInfo> timersOf(QObject* object) const;
    /// Time left, 0 when it is due; negative for an unknown timer.
    std::chrono::milliseconds remaining(int id, Clock::time_point now) const;

    /// Time until the next timer, rounded up to milliseconds; negative when there is none. A timer
    /// whose event is being delivered does not count.
    std::chrono::milliseconds untilNext(Clock::time_point now) const;

    /// Sends one event for each timer that is due now, at most one each. A timer whose event is being
    /// delivered is left out, so a slot that runs a nested loop is not entered again. Returns the count.
    int fireDue(Clock::time_point now);

private:
    struct Timer;
    void push(Timer* timer);
    void take(Timer* timer);
    void place(Timer* timer, size_t at);
    void siftUp(size_t at);
    void siftDown(size_t at);
    void fire(int id, Clock::time_point now);

    std::vector<Timer*> m_heap;
    QHash<int, std::shared_ptr<Timer>> m_timers; ///< by id
    QMultiHash<QObject*, int> m_idsOf;
    std::uint64_t m_order = 0;
    std::uint64_t m_pass = 0;
};
