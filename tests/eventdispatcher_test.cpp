#include "core/loop/eventdispatcher.h"
#include "support/socketpair.h"
#include "support/table.h"
#include "support/testmain.h"

#include <array>
#include <fcntl.h>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QSocketNotifier>
#include <QTemporaryFile>
#include <QThread>
#include <QTimer>
#include <sys/socket.h>
#include <unistd.h>

// Takes what comes at a pair's first end, which may have another number meanwhile, and counts.
struct Watch {
    QSocketNotifier notifier;
    int calls = 0;
    explicit Watch(const Pair& pair, int fd = -1)
        : notifier(fd >= 0 ? fd : pair.fds[0], QSocketNotifier::Read) {
        QObject::connect(&notifier, &QSocketNotifier::activated, &notifier, [this, &pair] {
            pair.take();
            ++calls;
        });
    }
};

static int inDispatcher(QEventLoop::ProcessEventsFlags flags = QEventLoop::AllEvents) {
    return QAbstractEventDispatcher::instance()->processEvents(flags) ? 1 : 0;
}

class EventDispatcherTest : public QObject {
    Q_OBJECT
private slots:
    void postedEventsWakeAndReport() {
        while (inDispatcher()) {
        }
        int called = 0;
        const auto post = [&] {
            QMetaObject::invokeMethod(
                this, [&] { ++called; }, Qt::QueuedConnection);
        };
        post();
        QVERIFY(QAbstractEventDispatcher::instance()->hasPendingEvents());
        QCOMPARE(inDispatcher(), 1);
        QCOMPARE(called, 1);
        QCOMPARE(inDispatcher(), 0);

        // One that is posted at the last moment is not slept over.
        const auto connection =
            connect(QAbstractEventDispatcher::instance(), &QAbstractEventDispatcher::aboutToBlock, this, [&] {
                if (called == 1)
                    post();
            });
        inDispatcher(QEventLoop::WaitForMoreEvents);
        inDispatcher();
        disconnect(connection);
        QCOMPARE(called, 2);
    }

    void timers_data() {
        const Table<int, int, qint64> row{
            "interval", "type", "latest"}; // by the timer's own nature, without the machine's delays
        row("precise", 30, int(Qt::PreciseTimer), qint64(31));
        row("zero", 0, int(Qt::PreciseTimer), qint64(1));
        row("coarse, short", 15, int(Qt::CoarseTimer), qint64(16));
        row("coarse", 200, int(Qt::CoarseTimer), qint64(211));
        row("very coarse", 600, int(Qt::VeryCoarseTimer), qint64(2001));
    }

    void timers() {
        QFETCH(int, interval);
        QFETCH(int, type);
        QFETCH(qint64, latest);
        qint64 quickest = INT64_MAX; // of a few: the machine may be busy
        for (int round = 0; round < 5 && quickest > latest; ++round) {
            QTimer timer;
            timer.setTimerType(static_cast<Qt::TimerType>(type));
            timer.setSingleShot(true);
            QEventLoop loop;
            connect(&timer, &QTimer::timeout, &loop, &QEventLoop::quit);
            QElapsedTimer clock;
            clock.start();
            timer.start(interval);
            QCOMPARE(QAbstractEventDispatcher::instance()->registeredTimers(&timer).size(), 1);
            QVERIFY(timer.remainingTime() >= 0 && timer.remainingTime() <= latest);
            loop.exec();
            QVERIFY2(clock.elapsed() >= interval, qPrintable(QString::number(clock.elapsed())));
            QCOMPARE(timer.remainingTime(), -1);
            quickest = qMin(quickest, clock.elapsed());
        }
        QVERIFY2(quickest <= latest, qPrintable(QString::number(quickest)));
    }

    void timersStopAndStartInTheirSlots() {
        QTimer first;
        QTimer second;
        auto* doomed = new QTimer;
        int firstCalls = 0;
        int secondCalls = 0;
        int doomedCalls = 0;
        connect(doomed, &QTimer::timeout, this, [&] { ++doomedCalls; });
        connect(&first, &QTimer::timeout, this, [&] {
            if (++firstCalls == 3)
                first.stop();
            else
                first.start(2);
            second.start(0);
            delete std::exchange(doomed, nullptr);
        });
        connect(&second, &QTimer::timeout, this, [&] {
            ++secondCalls;
            second.stop();
        });
        first.start(1);
        doomed->start(1); // due together with the first, later in order
        QThread::msleep(3);
        QTRY_COMPARE(firstCalls, 3);
        QTRY_COMPARE(secondCalls, 3);
        QVERIFY(!first.isActive() && !second.isActive());
        QCOMPARE(doomedCalls, 0);
    }

    void aTimerIsNotEnteredAgain() {
        QTimer repeating;
        QTimer other;
        QEventLoop nested;
        int depth = 0;
        int deepest = 0;
        int otherCalls = 0;
        connect(&other, &QTimer::timeout, this, [&] {
            if (++otherCalls == 5)
                nested.quit();
        });
        connect(&repeating, &QTimer::timeout, this, [&] {
            deepest = qMax(deepest, ++depth);
            if (otherCalls < 5)
                nested.exec();
            --depth;
        });
        repeating.start(1);
        other.start(3);
        QTRY_VERIFY(otherCalls >= 5 && depth == 0);
        QCOMPARE(deepest, 1);
    }

    void zeroTimersLeaveTheOthersTheirTurn() {
        QTimer busy;
        int busyCalls = 0;
        connect(&busy, &QTimer::timeout, this, [&] { ++busyCalls; });
        busy.start(0);
        Pair pair;
        Watch watch(pair);
        bool late = false;
        QTimer::singleShot(5, this, [&] { late = true; });
        pair.send();
        for (int i = 0; i < 1'000'000 && !(watch.calls && late); ++i)
            inDispatcher();
        QCOMPARE(watch.calls, 1);
        QVERIFY(late && busyCalls > 1);
    }

    void notifiersAreMerged() {
        Pair pair;
        QSocketNotifier reader(pair.fds[0], QSocketNotifier::Read);
        QSocketNotifier writer(pair.fds[0], QSocketNotifier::Write);
        QSocketNotifier exception(pair.fds[0], QSocketNotifier::Exception);
        std::array<int, 3> calls{};
        for (QSocketNotifier* notifier : {&reader, &writer, &exception})
            connect(notifier, &QSocketNotifier::activated, this,
                    [&calls, notifier] { ++calls.at(notifier->type()); });
        inDispatcher();
        QCOMPARE(calls, (std::array<int, 3>{0, 1, 0}));
        writer.setEnabled(false);
        pair.send();
        inDispatcher();
        QCOMPARE(calls, (std::array<int, 3>{1, 1, 0}));
        inDispatcher(); // level-triggered: nothing was read
        QCOMPARE(calls, (std::array<int, 3>{2, 1, 0}));
        reader.setEnabled(false);
        QCOMPARE(inDispatcher(), 0);
    }

    void notifiersGoWhileActive() {
        std::array<Pair, 3> pairs;
        std::array<std::unique_ptr<QSocketNotifier>, 3> notifiers;
        int calls = 0;
        for (size_t i = 0; i < pairs.size(); ++i) {
            notifiers[i] = std::make_unique<QSocketNotifier>(pairs[i].fds[0], QSocketNotifier::Read);
            connect(notifiers[i].get(), &QSocketNotifier::activated, this, [&, i] {
                ++calls;
                for (size_t other = 0; other < notifiers.size(); ++other) {
                    if (other != i)
                        notifiers[other].reset(); // their events are in the same batch
                }
                notifiers[i]->deleteLater();
                notifiers[i].release()->setEnabled(false);
            });
            pairs[i].send();
        }
        inDispatcher();
        inDispatcher();
        QCOMPARE(calls, 1);
    }

    void switchedNotifiersStayRight() {
        Pair pair;
        Watch watch(pair);
        inDispatcher();
        for (int round = 1; round <= 3; ++round) {
            watch.notifier.setEnabled(false);
            watch.notifier.setEnabled(true);
            pair.send();
            inDispatcher();
            QCOMPARE(watch.calls, round);
        }
        watch.notifier.setEnabled(false);
        inDispatcher();
        pair.send();
        inDispatcher();
        QCOMPARE(watch.calls, 3);
        watch.notifier.setEnabled(true);
        inDispatcher();
        QCOMPARE(watch.calls, 4);
    }

    // The number comes back for another file within one turn of the loop, as in a storm of connections.
    void descriptorsAreReused() {
        Pair old;
        Pair fresh;
        const int number = old.fds[0];
        auto notifier = std::make_unique<QSocketNotifier>(number, QSocketNotifier::Read);
        connect(notifier.get(), &QSocketNotifier::activated, this, [&] { QFAIL("the old one was called"); });
        inDispatcher();
        notifier.reset();
        QCOMPARE(dup2(fresh.fds[0], number), number); // closes the old file
        Watch watch(fresh, number);
        inDispatcher();
        QCOMPARE(watch.calls, 0);
        fresh.send();
        inDispatcher();
        QCOMPARE(watch.calls, 1);
    }

    void closedDescriptorIsReused() {
        Pair old;
        Pair fresh;
        const int number = old.fds[0];
        QSocketNotifier forgotten(number, QSocketNotifier::Read);
        inDispatcher();
        QCOMPARE(dup2(fresh.fds[0], number), number); // while its notifier is still on
        QTest::ignoreMessage(QtWarningMsg, QRegularExpression("two socket notifiers of one type"));
        Watch watch(fresh, number);
        fresh.send();
        inDispatcher();
        QCOMPARE(watch.calls, 1);
        forgotten.setEnabled(false); // must not take the newer one with it
        fresh.send();
        inDispatcher();
        QCOMPARE(watch.calls, 2);
    }

    void regularFilesAreAlwaysReady() {
        QTemporaryFile file;
        QVERIFY(file.open());
        QSocketNotifier notifier(file.handle(), QSocketNotifier::Read);
        int calls = 0;
        connect(&notifier, &QSocketNotifier::activated, this, [&] {
            if (++calls == 3)
                notifier.setEnabled(false);
        });
        QTRY_COMPARE(calls, 3);
        inDispatcher();
        QCOMPARE(calls, 3);
    }

    void badDescriptorIsSwitchedOff() {
        const int number = dup(STDIN_FILENO);
        QSocketNotifier notifier(number, QSocketNotifier::Read);
        close(number);
        QTest::ignoreMessage(QtWarningMsg, QRegularExpression("can't be watched"));
        inDispatcher();
        QVERIFY(!notifier.isEnabled());
    }

    void socketsAndTimersCanBeExcluded() {
        Pair pair;
        Watch watch(pair);
        pair.send();
        bool timedOut = false;
        QTimer::singleShot(20, this, [&] { timedOut = true; });
        int turns = 0;
        for (; !timedOut; ++turns)
            inDispatcher(QEventLoop::WaitForMoreEvents | QEventLoop::ExcludeSocketNotifiers);
        QCOMPARE(watch.calls, 0);
        QVERIFY(turns < 10); // it slept although the socket was ready
        QTimer timer;
        connect(&timer, &QTimer::timeout, this, [&] { timedOut = false; });
        timer.start(0);
        inDispatcher(QEventLoop::X11ExcludeTimers);
        QCOMPARE(watch.calls, 1);
        QVERIFY(timedOut);
        inDispatcher();
        QVERIFY(!timedOut);
    }

    void nestedLoops() {
        Pair outerPair, innerPair;
        Watch outer(outerPair), inner(innerPair);
        QEventLoop nested;
        int innerCalls = -1;
        connect(&inner.notifier, &QSocketNotifier::activated, &nested, &QEventLoop::quit);
        connect(&outer.notifier, &QSocketNotifier::activated, this, [&] {
            QTimer::singleShot(5, this, [&] { innerPair.send(); });
            nested.exec();
            innerCalls = inner.calls;
        });
        outerPair.send();
        QTRY_COMPARE(innerCalls, 1);
        QCOMPARE(outer.calls, 1);
    }

    void deferredDeletesWaitForTheirLoop() {
        QEventLoop loop;
        bool gone = false;
        bool goneInside = true;
        QTimer::singleShot(0, this, [&] {
            auto* object = new QObject;
            connect(object, &QObject::destroyed, this, [&] { gone = true; });
            object->deleteLater();
            QEventLoop nested;
            QTimer::singleShot(5, &nested, &QEventLoop::quit);
            nested.exec();
            goneInside = gone;
            QTimer::singleShot(0, &loop, &QEventLoop::quit);
        });
        loop.exec();
        QVERIFY(!goneInside);
        QTRY_VERIFY(gone);
    }

    void otherThreadsWakeIt() {
        constexpr int Threads = 4;
        constexpr int Each = 2000;
        int received = 0;
        QEventLoop loop;
        QTimer::singleShot(60'000, &loop, &QEventLoop::quit);
        const auto receive = [&] {
            if (++received == Threads * Each)
                loop.quit();
        };
        std::vector<std::unique_ptr<QThread>> threads;
        for (int i = 0; i < Threads; ++i) {
            threads.emplace_back(QThread::create([&] {
                for (int n = 0; n < Each; ++n) {
                    QMetaObject::invokeMethod(this, receive, Qt::QueuedConnection);
                    if (n % 100 == 0) // let the loop fall asleep now and then
                        QMetaObject::invokeMethod(
                            this, [] {}, Qt::BlockingQueuedConnection);
                }
            }));
            threads.back()->start();
        }
        loop.exec();
        QCOMPARE(received, Threads * Each);
        for (const auto& thread : threads)
            thread->wait();
    }

    void longestTurnIsMeasured() {
        auto* dispatcher = qobject_cast<EpollEventDispatcher*>(QAbstractEventDispatcher::instance());
        inDispatcher();
        dispatcher->takeLongestTurn();
        QTimer::singleShot(0, this, [] { QThread::msleep(230); });
        QTest::ignoreMessage(QtWarningMsg, QRegularExpression("one turn took \\d+ ms"));
        inDispatcher();
        inDispatcher();
        QVERIFY(dispatcher->takeLongestTurn() >= std::chrono::milliseconds(230));
        QVERIFY(dispatcher->takeLongestTurn() < std::chrono::milliseconds(230));
    }
};

int main(int argc, char** argv) {
    return runTest<EventDispatcherTest>(argc, argv);
}
#include "eventdispatcher_test.moc"
