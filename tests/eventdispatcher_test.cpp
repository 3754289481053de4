#include "core/eventdispatcher.h"
#include "support/testmain.h"

#include <array>
#include <atomic>
#include <fcntl.h>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QLocalServer>
#include <QLocalSocket>
#include <QProcess>
#include <QSocketNotifier>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTemporaryFile>
#include <QThread>
#include <QTimer>
#include <sys/socket.h>
#include <unistd.h>

// A connected pair of sockets; both ends are closed with it.
struct Pair {
    std::array<int, 2> fds{-1, -1};
    Pair() {
        if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, fds.data()) != 0)
            qFatal("socketpair");
    }
    ~Pair() {
        close(fds[0]);
        close(fds[1]);
    }
    void send() const {
        if (::write(fds[1], "x", 1) != 1)
            qFatal("write");
    }
    void take() const {
        std::array<char, 64> bytes{};
        [[maybe_unused]] const ssize_t got = ::read(fds[0], bytes.data(), bytes.size());
    }
};

class EventDispatcherTest : public QObject {
    Q_OBJECT
private slots:
    void isInstalled();
    void postedEventsWakeAndReport();
    void timers_data();
    void timers();
    void timersStopAndStartInTheirSlots();
    void aTimerIsNotEnteredAgain();
    void zeroTimersLeaveTheOthersTheirTurn();
    void timersCanBeExcluded();
    void notifiersAreMerged();
    void notifiersGoWhileActive();
    void switchedNotifiersStayRight();
    void descriptorsAreReused();
    void closedDescriptorIsReused();
    void regularFilesAreAlwaysReady();
    void badDescriptorIsSwitchedOff();
    void socketsCanBeExcluded();
    void nestedLoops();
    void deferredDeletesWaitForTheirLoop();
    void otherThreadsWakeIt();
    void runsInOtherThreads();
    void networkAndProcesses();
    void longestTurnIsMeasured();
};

static int inDispatcher(QEventLoop::ProcessEventsFlags flags = QEventLoop::AllEvents) {
    return QAbstractEventDispatcher::instance()->processEvents(flags) ? 1 : 0;
}

void EventDispatcherTest::isInstalled() {
    QVERIFY(qobject_cast<EpollEventDispatcher*>(QAbstractEventDispatcher::instance()));
}

void EventDispatcherTest::postedEventsWakeAndReport() {
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

void EventDispatcherTest::timers_data() {
    QTest::addColumn<int>("interval");
    QTest::addColumn<int>("type");
    QTest::addColumn<qint64>("latest"); // by the timer's own nature, without the machine's delays
    QTest::newRow("precise") << 30 << int(Qt::PreciseTimer) << qint64(31);
    QTest::newRow("zero") << 0 << int(Qt::PreciseTimer) << qint64(1);
    QTest::newRow("coarse, short") << 15 << int(Qt::CoarseTimer) << qint64(16);
    QTest::newRow("coarse") << 200 << int(Qt::CoarseTimer) << qint64(211);
    QTest::newRow("very coarse") << 600 << int(Qt::VeryCoarseTimer) << qint64(2001);
}

void EventDispatcherTest::timers() {
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

void EventDispatcherTest::timersStopAndStartInTheirSlots() {
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

void EventDispatcherTest::aTimerIsNotEnteredAgain() {
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

void EventDispatcherTest::zeroTimersLeaveTheOthersTheirTurn() {
    QTimer busy;
    int busyCalls = 0;
    connect(&busy, &QTimer::timeout, this, [&] { ++busyCalls; });
    busy.start(0);
    Pair pair;
    QSocketNotifier notifier(pair.fds[0], QSocketNotifier::Read);
    int ready = 0;
    connect(&notifier, &QSocketNotifier::activated, this, [&] {
        pair.take();
        ++ready;
    });
    bool late = false;
    QTimer::singleShot(5, this, [&] { late = true; });
    pair.send();
    for (int i = 0; i < 1'000'000 && !(ready && late); ++i)
        inDispatcher();
    QCOMPARE(ready, 1);
    QVERIFY(late && busyCalls > 1);
}

void EventDispatcherTest::timersCanBeExcluded() {
    QTimer timer;
    int calls = 0;
    connect(&timer, &QTimer::timeout, this, [&] { ++calls; });
    timer.start(0);
    for (int i = 0; i < 10; ++i)
        inDispatcher(QEventLoop::X11ExcludeTimers);
    QCOMPARE(calls, 0);
    inDispatcher();
    QCOMPARE(calls, 1);
}

void EventDispatcherTest::notifiersAreMerged() {
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

void EventDispatcherTest::notifiersGoWhileActive() {
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

void EventDispatcherTest::switchedNotifiersStayRight() {
    Pair pair;
    QSocketNotifier reader(pair.fds[0], QSocketNotifier::Read);
    int calls = 0;
    connect(&reader, &QSocketNotifier::activated, this, [&] {
        pair.take();
        ++calls;
    });
    inDispatcher();
    for (int round = 1; round <= 3; ++round) {
        reader.setEnabled(false);
        reader.setEnabled(true);
        pair.send();
        inDispatcher();
        QCOMPARE(calls, round);
    }
    reader.setEnabled(false);
    inDispatcher();
    pair.send();
    inDispatcher();
    QCOMPARE(calls, 3);
    reader.setEnabled(true);
    inDispatcher();
    QCOMPARE(calls, 4);
}

// The number comes back for another file within one turn of the loop, as in a storm of connections.
void EventDispatcherTest::descriptorsAreReused() {
    Pair old;
    Pair fresh;
    const int number = old.fds[0];
    auto notifier = std::make_unique<QSocketNotifier>(number, QSocketNotifier::Read);
    int calls = 0;
    connect(notifier.get(), &QSocketNotifier::activated, this, [&] { QFAIL("the old one was called"); });
    inDispatcher();
    notifier.reset();
    QCOMPARE(dup2(fresh.fds[0], number), number); // closes the old file
    notifier = std::make_unique<QSocketNotifier>(number, QSocketNotifier::Read);
    connect(notifier.get(), &QSocketNotifier::activated, this, [&] {
        fresh.take();
        ++calls;
    });
    inDispatcher();
    QCOMPARE(calls, 0);
    fresh.send();
    inDispatcher();
    QCOMPARE(calls, 1);
}

void EventDispatcherTest::closedDescriptorIsReused() {
    Pair old;
    Pair fresh;
    const int number = old.fds[0];
    QSocketNotifier forgotten(number, QSocketNotifier::Read);
    inDispatcher();
    QCOMPARE(dup2(fresh.fds[0], number), number); // while its notifier is still on
    QTest::ignoreMessage(QtWarningMsg, QRegularExpression("two socket notifiers of one type"));
    QSocketNotifier notifier(number, QSocketNotifier::Read);
    int calls = 0;
    connect(&notifier, &QSocketNotifier::activated, this, [&] {
        fresh.take();
        ++calls;
    });
    fresh.send();
    inDispatcher();
    QCOMPARE(calls, 1);
    forgotten.setEnabled(false); // must not take the newer one with it
    fresh.send();
    inDispatcher();
    QCOMPARE(calls, 2);
}

void EventDispatcherTest::regularFilesAreAlwaysReady() {
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

void EventDispatcherTest::badDescriptorIsSwitchedOff() {
    const int number = dup(STDIN_FILENO);
    QSocketNotifier notifier(number, QSocketNotifier::Read);
    close(number);
    QTest::ignoreMessage(QtWarningMsg, QRegularExpression("can't be watched"));
    inDispatcher();
    QVERIFY(!notifier.isEnabled());
}

void EventDispatcherTest::socketsCanBeExcluded() {
    Pair pair;
    QSocketNotifier reader(pair.fds[0], QSocketNotifier::Read);
    int calls = 0;
    connect(&reader, &QSocketNotifier::activated, this, [&] {
        pair.take();
        ++calls;
    });
    pair.send();
    bool timedOut = false;
    QTimer::singleShot(20, this, [&] { timedOut = true; });
    int turns = 0;
    for (; !timedOut; ++turns)
        inDispatcher(QEventLoop::WaitForMoreEvents | QEventLoop::ExcludeSocketNotifiers);
    QCOMPARE(calls, 0);
    QVERIFY(turns < 10); // it slept although the socket was ready
    inDispatcher();
    QCOMPARE(calls, 1);
}

void EventDispatcherTest::nestedLoops() {
    Pair outerPair;
    Pair innerPair;
    QSocketNotifier outer(outerPair.fds[0], QSocketNotifier::Read);
    QSocketNotifier inner(innerPair.fds[0], QSocketNotifier::Read);
    QEventLoop nested;
    QStringList order;
    connect(&inner, &QSocketNotifier::activated, this, [&] {
        innerPair.take();
        order.append("inner");
        nested.quit();
    });
    connect(&outer, &QSocketNotifier::activated, this, [&] {
        outerPair.take();
        order.append("begin");
        QTimer::singleShot(5, this, [&] { innerPair.send(); });
        nested.exec();
        order.append("end");
    });
    outerPair.send();
    QTRY_COMPARE(order, QStringList({"begin", "inner", "end"}));
}

void EventDispatcherTest::deferredDeletesWaitForTheirLoop() {
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

void EventDispatcherTest::otherThreadsWakeIt() {
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

void EventDispatcherTest::runsInOtherThreads() {
    QThread thread;
    thread.setEventDispatcher(new EpollEventDispatcher);
    QObject inThread;
    inThread.moveToThread(&thread);
    std::atomic<int> calls{0};
    connect(&thread, &QThread::started, &inThread, [&] {
        QTimer::singleShot(1, &inThread, [&] {
            ++calls;
            thread.quit();
        });
    });
    thread.start();
    QVERIFY(thread.wait(20'000));
    QCOMPARE(calls.load(), 1);
}

void EventDispatcherTest::networkAndProcesses() {
    constexpr int Size = 3'000'000;
    const QByteArray payload(Size, 'x');

    QTcpServer tcpServer;
    QVERIFY(tcpServer.listen(QHostAddress::LocalHost));
    QTcpSocket tcp;
    QByteArray tcpBack;
    connect(&tcpServer, &QTcpServer::newConnection, this, [&] {
        QTcpSocket* peer = tcpServer.nextPendingConnection();
        connect(peer, &QTcpSocket::readyRead, peer, [peer] { peer->write(peer->readAll()); });
    });
    connect(&tcp, &QTcpSocket::readyRead, this, [&] { tcpBack += tcp.readAll(); });
    tcp.connectToHost(QHostAddress::LocalHost, tcpServer.serverPort());
    tcp.write(payload);

    QLocalServer localServer;
    QVERIFY(localServer.listen(QString("speakerd-test-%1").arg(getpid())));
    QLocalSocket local;
    QByteArray localBack;
    connect(&localServer, &QLocalServer::newConnection, this, [&] {
        QLocalSocket* peer = localServer.nextPendingConnection();
        connect(peer, &QLocalSocket::readyRead, peer, [peer] { peer->write(peer->readAll()); });
    });
    connect(&local, &QLocalSocket::readyRead, this, [&] { localBack += local.readAll(); });
    local.connectToServer(localServer.fullServerName());
    local.write(payload);

    QProcess process;
    process.start("cat", QStringList());
    process.write(payload);
    process.closeWriteChannel();
    int exitCode = -1;
    connect(&process, QOverload<int, QProcess::ExitStatus>::of(&QProcess::finished), this,
            [&](int code) { exitCode = code; });

    QTRY_COMPARE_WITH_TIMEOUT(tcpBack.size(), Size, 60'000);
    QTRY_COMPARE_WITH_TIMEOUT(localBack.size(), Size, 60'000);
    QTRY_COMPARE_WITH_TIMEOUT(exitCode, 0, 60'000);
    QCOMPARE(process.readAll().size(), Size);
    bool closed = false;
    connect(&tcp, &QTcpSocket::disconnected, this, [&] { closed = true; });
    delete tcpServer.findChild<QTcpSocket*>();
    QTRY_VERIFY(closed);
}

void EventDispatcherTest::longestTurnIsMeasured() {
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

int main(int argc, char** argv) {
    return runTest<EventDispatcherTest>(argc, argv);
}
#include "eventdispatcher_test.moc"
