#include "core/loop/timerheap.h"

#include <QCoreApplication>
#include <QTimerEvent>

using namespace std::chrono_literals;
using std::chrono::milliseconds;

namespace {

constexpr size_t NotInHeap = SIZE_MAX;

// `due` as it is waited for: rounded up to a grid that timers of similar intervals share.
TimerHeap::Clock::time_point onGrid(TimerHeap::Clock::time_point due, milliseconds interval,
                                    Qt::TimerType type) {
    milliseconds grid = 0ms;
    if (type == Qt::VeryCoarseTimer) {
        grid = 1000ms;
    } else if (type == Qt::CoarseTimer && interval >= 40ms) {
        grid = 1ms;
        while (grid * 2 <= interval / 20)
            grid *= 2;
    }
    if (grid == 0ms)
        return due;
    const auto past = due.time_since_epoch() % grid;
    return past == TimerHeap::Clock::duration::zero() ? due : due + (grid - past);
}

} // namespace

struct TimerHeap::Timer {
    int id;
    milliseconds interval;
    Qt::TimerType type;
    QObject* object;
    Clock::time_point due;     // the exact period
    Clock::time_point waitFor; // the same on its grid
    std::uint64_t order = 0;   // among equals the one that was set first comes first
    std::uint64_t pass = 0;    // the last call of fireDue() that fired it
    size_t at = NotInHeap;
    bool removed = false;

    bool before(const Timer& other) const {
        return waitFor != other.waitFor ? waitFor < other.waitFor : order < other.order;
    }

    void next(Clock::time_point now) {
        due += interval;
        if (due < now)
            due = now + interval;
        waitFor = onGrid(due, interval, type);
    }
};

TimerHeap::TimerHeap() = default;
TimerHeap::~TimerHeap() = default;

void TimerHeap::add(int id, milliseconds interval, Qt::TimerType type, QObject* object) {
    // Very coarse timers have whole seconds for a period, and at least one.
    const milliseconds period =
        type == Qt::VeryCoarseTimer ? std::max<milliseconds>(1s, (interval + 500ms) / 1000 * 1000) : interval;
    auto timer = std::make_shared<Timer>();
    timer->id = id;
    timer->interval = period;
    timer->type = type;
    timer->object = object;
    timer->due = Clock::now() + period;
    timer->waitFor = onGrid(timer->due, period, type);
    push(timer.get());
    m_timers.insert(id, timer);
    m_idsOf.insert(object, id);
}

bool TimerHeap::remove(int id) {
    const auto found = m_timers.find(id);
    if (found == m_timers.end())
        return false;
    const std::shared_ptr<Timer> timer = *found;
    take(timer.get());
    timer->removed = true;
    m_timers.erase(found);
    m_idsOf.remove(timer->object, id);
    return true;
}

bool TimerHeap::removeAll(QObject* object) {
    const QList<int> ids = m_idsOf.values(object);
    for (const int id : ids)
        remove(id);
    return !ids.isEmpty();
}

void TimerHeap::clear() {
    const QList<int> ids = m_timers.keys();
    for (const int id : ids)
        remove(id);
}

QList<QAbstractEventDispatcher::TimerInfo> TimerHeap::timersOf(QObject* object) const {
    QList<QAbstractEventDispatcher::TimerInfo> timers;
    const QList<int> ids = m_idsOf.values(object);
    for (const int id : ids) {
        const auto& timer = m_timers[id];
        timers.append({id, static_cast<int>(timer->interval.count()), timer->type});
    }
    return timers;
}

milliseconds TimerHeap::remaining(int id, Clock::time_point now) const {
    const auto timer = m_timers.value(id);
    return timer ? std::max(0ms, std::chrono::ceil<milliseconds>(timer->waitFor - now)) : -1ms;
}

milliseconds TimerHeap::untilNext(Clock::time_point now) const {
    return m_heap.empty() ? -1ms : std::max(0ms, std::chrono::ceil<milliseconds>(m_heap[0]->waitFor - now));
}

int TimerHeap::fireDue(Clock::time_point now) {
    const std::uint64_t pass = ++m_pass;
    int fired = 0;
    // A timer of interval 0 is due again at once, behind all others: meeting it again ends the pass.
    while (!m_heap.empty() && m_heap[0]->waitFor <= now && m_heap[0]->pass != pass) {
        m_heap[0]->pass = pass;
        fire(m_heap[0]->id, now);
        ++fired;
    }
    return fired;
}

// While its event is being delivered the timer is out of the heap; its slots may remove it.
void TimerHeap::fire(int id, Clock::time_point now) {
    const std::shared_ptr<Timer> timer = m_timers.value(id);
    take(timer.get());
    timer->next(now);
    QTimerEvent event(id);
    QCoreApplication::sendEvent(timer->object, &event);
    if (!timer->removed)
        push(timer.get());
}

void TimerHeap::push(Timer* timer) {
    timer->order = ++m_order;
    m_heap.push_back(timer);
    place(timer, m_heap.size() - 1);
    siftUp(timer->at);
}

void TimerHeap::take(Timer* timer) {
    if (timer->at == NotInHeap)
        return;
    const size_t hole = timer->at;
    Timer* const last = m_heap.back();
    m_heap.pop_back();
    timer->at = NotInHeap;
    if (last == timer)
        return;
    place(last, hole);
    siftUp(hole);
    siftDown(last->at);
}

void TimerHeap::place(Timer* timer, size_t at) {
    m_heap[at] = timer;
    timer->at = at;
}

void TimerHeap::siftUp(size_t at) {
    Timer* const timer = m_heap[at];
    while (at > 0 && timer->before(*m_heap[(at - 1) / 2])) {
        place(m_heap[(at - 1) / 2], at);
        at = (at - 1) / 2;
    }
    place(timer, at);
}

void TimerHeap::siftDown(size_t at) {
    Timer* const timer = m_heap[at];
    for (size_t child = 2 * at + 1; child < m_heap.size(); child = 2 * at + 1) {
        if (child + 1 < m_heap.size() && m_heap[child + 1]->before(*m_heap[child]))
            ++child;
        if (!m_heap[child]->before(*timer))
            break;
        place(m_heap[child], at);
        at = child;
    }
    place(timer, at);
}
