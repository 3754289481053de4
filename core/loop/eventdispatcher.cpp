#include "core/loop/eventdispatcher.h"

#include "core/loop/socketwatch.h"
#include "core/loop/timerheap.h"

#include <atomic>
#include <cstdint>
#include <QCoreApplication>
#include <QDebug>
#include <QThread>
#include <sys/eventfd.h>
#include <unistd.h>

// Declared by Qt for event dispatchers that are not its own.
extern uint qGlobalPostedEventsCount();

using namespace std::chrono_literals;
using std::chrono::microseconds;
using std::chrono::milliseconds;

struct EpollEventDispatcher::State {
    static constexpr milliseconds LongTurn{200}; ///< worth a log line: something waits on the loop

    int wakeUpEvent = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    SocketWatch sockets{wakeUpEvent};
    TimerHeap timers;
    std::atomic<bool> wakeUpPending{false}; ///< the eventfd is written and not read yet
    std::atomic<bool> interrupted{false};
    bool wokenByItself = false; ///< wakeUp() from the own thread: no call into the kernel needed

    TimerHeap::Clock::time_point turnBegan{}; ///< zero before the first wait
    microseconds longestTurn{0};

    ~State() { close(wakeUpEvent); }

    void wakeUp() {
        const std::uint64_t one = 1;
        if (!wakeUpPending.exchange(true)) [[maybe_unused]]
            const ssize_t written = write(wakeUpEvent, &one, sizeof one);
    }

    // The flag is cleared before the events are looked for, so nothing posted from here on is missed.
    void drainWakeUp() {
        std::uint64_t count = 0;
        [[maybe_unused]] const ssize_t got = read(wakeUpEvent, &count, sizeof count);
        wakeUpPending = false;
    }

    void endTurn() {
        if (turnBegan == TimerHeap::Clock::time_point{})
            return;
        const auto turn = std::chrono::duration_cast<microseconds>(TimerHeap::Clock::now() - turnBegan);
        longestTurn = std::max(longestTurn, turn);
        if (turn > LongTurn)
            qWarning("event loop: one turn took %lld ms", static_cast<long long>(turn / 1ms));
    }

    milliseconds waitTime(bool mayBlock, bool withTimers) const {
        if (!mayBlock)
            return 0ms;
        return withTimers ? timers.untilNext(TimerHeap::Clock::now()) : -1ms;
    }
};

EpollEventDispatcher::EpollEventDispatcher(QObject* parent)
    : QAbstractEventDispatcher(parent)
    , m_state(std::make_unique<State>()) {}

EpollEventDispatcher::~EpollEventDispatcher() = default;

bool EpollEventDispatcher::processEvents(QEventLoop::ProcessEventsFlags flags) {
    State& s = *m_state;
    const bool withTimers = !flags.testFlag(QEventLoop::X11ExcludeTimers);
    const bool withSockets = !flags.testFlag(QEventLoop::ExcludeSocketNotifiers);

    s.interrupted = false;
    const bool posted = std::exchange(s.wokenByItself, false);
    emit awake();
    QCoreApplication::sendPostedEvents();
    if (s.interrupted)
        return false;

    const bool mayBlock = flags.testFlag(QEventLoop::WaitForMoreEvents) && !s.wokenByItself;
    if (mayBlock)
        emit aboutToBlock();
    const milliseconds timeout = s.waitTime(mayBlock && !s.wokenByItself, withTimers);
    s.endTurn();
    const bool woken = s.sockets.wait(timeout, withSockets);
    s.turnBegan = TimerHeap::Clock::now();
    if (woken)
        s.drainWakeUp();

    int handled = posted || woken || s.wokenByItself ? 1 : 0;
    if (withSockets)
        handled += s.sockets.deliver();
    if (withTimers)
        handled += s.timers.fireDue(TimerHeap::Clock::now());
    return handled > 0;
}

bool EpollEventDispatcher::hasPendingEvents() {
    return qGlobalPostedEventsCount() > 0;
}

void EpollEventDispatcher::registerSocketNotifier(QSocketNotifier* notifier) {
    m_state->sockets.add(notifier);
}

void EpollEventDispatcher::unregisterSocketNotifier(QSocketNotifier* notifier) {
    m_state->sockets.remove(notifier);
}

EpollEventDispatcher* EpollEventDispatcher::current() {
    return qobject_cast<EpollEventDispatcher*>(QAbstractEventDispatcher::instance());
}

void EpollEventDispatcher::listen(int descriptor, DescriptorListener* listener, bool forReading,
                                  bool forWriting) {
    m_state->sockets.listen(descriptor, listener, forReading, forWriting);
}

void EpollEventDispatcher::registerTimer(int timerId, int interval, Qt::TimerType timerType,
                                         QObject* object) {
    if (timerId > 0 && interval >= 0 && object)
        m_state->timers.add(timerId, milliseconds(interval), timerType, object);
}

bool EpollEventDispatcher::unregisterTimer(int timerId) {
    return m_state->timers.remove(timerId);
}

bool EpollEventDispatcher::unregisterTimers(QObject* object) {
    return m_state->timers.removeAll(object);
}

QList<QAbstractEventDispatcher::TimerInfo> EpollEventDispatcher::registeredTimers(QObject* object) const {
    return m_state->timers.timersOf(object);
}

int EpollEventDispatcher::remainingTime(int timerId) {
    return static_cast<int>(m_state->timers.remaining(timerId, TimerHeap::Clock::now()).count());
}

void EpollEventDispatcher::wakeUp() {
    if (QThread::currentThread() == thread())
        m_state->wokenByItself = true;
    else
        m_state->wakeUp();
}

void EpollEventDispatcher::interrupt() {
    m_state->interrupted = true;
    wakeUp();
}

void EpollEventDispatcher::flush() {}

void EpollEventDispatcher::closingDown() {
    m_state->sockets.clear();
    m_state->timers.clear();
}

microseconds EpollEventDispatcher::takeLongestTurn() {
    return std::exchange(m_state->longestTurn, 0us);
}
