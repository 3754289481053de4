#pragma once

#include <chrono>
#include <memory>
#include <QAbstractEventDispatcher>

class DescriptorListener;

/// Qt event dispatcher over epoll: socket notifiers at constant cost each, timers in a heap, wake-up
/// through an eventfd. Install it with QCoreApplication::setEventDispatcher() before the application
/// object is made, or give it to a QThread. Belongs to the thread that runs it, as Qt asks; wakeUp()
/// and interrupt() are safe from any thread.
class EpollEventDispatcher : public QAbstractEventDispatcher {
    Q_OBJECT
public:
    explicit EpollEventDispatcher(QObject* parent = nullptr);
    ~EpollEventDispatcher() override;

    bool processEvents(QEventLoop::ProcessEventsFlags flags) override;
    bool hasPendingEvents() override;
    void registerSocketNotifier(QSocketNotifier* notifier) override;
    void unregisterSocketNotifier(QSocketNotifier* notifier) override;
    void registerTimer(int timerId, int interval, Qt::TimerType timerType, QObject* object) override;
    bool unregisterTimer(int timerId) override;
    bool unregisterTimers(QObject* object) override;
    QList<TimerInfo> registeredTimers(QObject* object) const override;
    int remainingTime(int timerId) override;
    void wakeUp() override;
    void interrupt() override;
    void flush() override;
    void closingDown() override;

    /// The calling thread's dispatcher; null when it has one of another kind.
    static EpollEventDispatcher* current();
    /// Sets the descriptor's one listener and what it waits for; null before the descriptor is closed.
    /// On the dispatcher's own thread.
    void listen(int descriptor, DescriptorListener* listener, bool forReading = false,
                bool forWriting = false);

    /// Longest turn (from wake-up to the next wait) since the last call; logged by the dispatcher
    /// itself when a turn exceeds 200 ms.
    std::chrono::microseconds takeLongestTurn();

private:
    struct State;
    std::unique_ptr<State> m_state;
};
