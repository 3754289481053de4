#include "core/loop/timingwheel.h"
#include "support/testmain.h"

#include <QElapsedTimer>
#include <QEventLoop>
#include <vector>

using namespace std::chrono_literals;

// Notes when it was called and does what the case asks for.
class Probe : public TimingWheel::Client {
public:
    void wheelTimeout(int tag) override {
        calls.push_back({clock().elapsed(), tag});
        if (action)
            action(tag);
    }

    static QElapsedTimer& clock() {
        static QElapsedTimer running = [] {
            QElapsedTimer timer;
            timer.start();
            return timer;
        }();
        return running;
    }

    struct Call {
        qint64 at;
        int tag;
    };
    std::vector<Call> calls;
    std::function<void(int)> action;
};

class TimingWheelTest : public QObject {
    Q_OBJECT
private slots:
    void onceIsNeverEarly() {
        TimingWheel wheel;
        Probe probe;
        std::vector<TimingWheel::Handle> handles;
        const std::vector<qint64> delays = {0, 1, 9, 10, 11, 37, 150};
        handles.reserve(delays.size());
        const qint64 start = Probe::clock().elapsed();
        for (const qint64 delay : delays)
            handles.push_back(wheel.once(std::chrono::milliseconds(delay), &probe, static_cast<int>(delay)));
        QCOMPARE(wheel.activeCount(), static_cast<int>(delays.size()));
        QTRY_COMPARE(probe.calls.size(), delays.size());
        for (const Probe::Call& call : probe.calls)
            QVERIFY2(call.at - start >= call.tag, qPrintable(QString::number(call.tag)));
        for (const TimingWheel::Handle& handle : handles)
            QVERIFY(!handle.isActive());
        QCOMPARE(wheel.activeCount(), 0);
    }

    void laterTurnsOfTheWheelWait() {
        TimingWheel wheel;
        Probe probe;
        const auto late = wheel.once(10'300ms, &probe, 1); // shares its slot with one 60 ms from now
        const auto soon = wheel.once(60ms, &probe, 2);
        const auto next = wheel.once(120ms, &probe, 3);
        QTRY_COMPARE(probe.calls.size(), size_t{2});
        QVERIFY(late.isActive());
        QCOMPARE(wheel.activeCount(), 1);
    }

    // A wheel that rounded each period up to its ticks would need 200 ms for 10 of them. The machine may be
    // busy at times, so the quickest of several windows counts.
    void periodsDoNotDrift() {
        TimingWheel wheel;
        Probe probe;
        const auto handle = wheel.every(13ms, &probe, 0);
        QTRY_VERIFY_WITH_TIMEOUT(probe.calls.size() > 120, 20'000);
        qint64 quickest = INT64_MAX;
        for (size_t from = 0; from + 10 < probe.calls.size(); ++from)
            quickest = qMin(quickest, probe.calls.at(from + 10).at - probe.calls.at(from).at);
        QVERIFY2(quickest <= 10 * 13 + 35, qPrintable(QString::number(quickest)));
    }

    // A quarter of the interval carries about a quarter of the calls. Of a few rounds: in one the loop may
    // have stood still.
    void oneIntervalIsSpread() {
        constexpr int Count = 1000;
        int early = 0;
        for (int round = 0; round < 5 && (early < 150 || early > 400); ++round) {
            TimingWheel wheel;
            Probe probe;
            std::vector<TimingWheel::Handle> handles;
            handles.reserve(Count);
            for (int i = 0; i < Count; ++i)
                handles.push_back(wheel.every(500ms, &probe, i));
            const qint64 start = Probe::clock().elapsed();
            std::vector<int> perTag(Count);
            QTRY_VERIFY(probe.calls.size() >= Count);
            for (const Probe::Call& call : probe.calls)
                ++perTag.at(static_cast<size_t>(call.tag));
            QVERIFY(*std::min_element(perTag.begin(), perTag.end()) >= 1);
            early = static_cast<int>(
                std::count_if(probe.calls.begin(), probe.calls.end(),
                              [&](const Probe::Call& call) { return call.at - start <= 125; }));
        }
        QVERIFY2(early >= 150 && early <= 400, qPrintable(QString::number(early)));
    }

    void resetSilencesAndHandlesMove() {
        TimingWheel wheel;
        Probe probe;
        auto first = wheel.once(10ms, &probe, 1);
        auto second = wheel.once(20ms, &probe, 2);
        first.reset();
        QVERIFY(!first.isActive());
        auto reused = wheel.once(30ms, &probe, 3); // takes the first one's place
        first.reset();                             // must not touch it
        TimingWheel::Handle moved = std::move(second);
        reused = std::move(moved); // ends 3, keeps 2
        QCOMPARE(wheel.activeCount(), 1);
        const auto last = wheel.once(60ms, &probe, 4);
        QTRY_COMPARE(probe.calls.size(), size_t{2});
        QCOMPARE(probe.calls.at(0).tag, 2);
        QCOMPARE(probe.calls.at(1).tag, 4);
    }

    void clientsChangeTheWheelWhileCalled() {
        TimingWheel wheel;
        Probe probe;
        std::array<TimingWheel::Handle, 3> handles;
        TimingWheel::Handle periodic = wheel.every(10ms, &probe, 9);
        for (int i = 0; i < 3; ++i)
            handles.at(static_cast<size_t>(i)) = wheel.once(20ms, &probe, i);
        TimingWheel::Handle added;
        probe.action = [&](int tag) {
            if (tag == 0) {
                handles[1].reset(); // due in the same tick
                periodic.reset();
                added = wheel.once(0ms, &probe, 7);
            }
        };
        QTRY_VERIFY(!added.isActive() && !handles[2].isActive());
        const auto called = [&](int tag) {
            return std::count_if(probe.calls.begin(), probe.calls.end(),
                                 [tag](const Probe::Call& call) { return call.tag == tag; });
        };
        QCOMPARE(called(0), 1);
        QCOMPARE(called(1), 0);
        QCOMPARE(called(2), 1);
        QCOMPARE(called(7), 1);
        QCOMPARE(wheel.activeCount(), 0);
    }

    void nestedLoopsKeepItTurning() {
        TimingWheel wheel;
        Probe probe;
        QEventLoop nested;
        probe.action = [&](int tag) {
            if (tag == 1)
                nested.exec();
            else
                nested.quit();
        };
        const auto outer = wheel.once(10ms, &probe, 1);
        const auto inner = wheel.once(40ms, &probe, 2);
        QTRY_COMPARE(probe.calls.size(), size_t{2});
    }

    void lateLoopLeavesOut() {
        TimingWheel wheel;
        Probe probe;
        const auto handle = wheel.every(20ms, &probe, 0);
        QTRY_VERIFY(!probe.calls.empty());
        const size_t before = probe.calls.size();
        const qint64 end = Probe::clock().elapsed() + 210;
        while (Probe::clock().elapsed() < end) {
        } // the loop is held up
        QCoreApplication::processEvents();
        QVERIFY(probe.calls.size() <= before + 5);
        QTRY_VERIFY(probe.calls.size() > before + 3);
    }
};

int main(int argc, char** argv) {
    return runTest<TimingWheelTest>(argc, argv);
}
#include "timingwheel_test.moc"
