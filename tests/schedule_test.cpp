// Which second starts which task: a week of bells against a calculation of its own, and the clock's tricks.
#include "support/table.h"
#include "support/testmain.h"
#include "tasks/handledseconds.h"
#include "tasks/schedule/schedule.h"
#include "tasks/schedule/tasktime.h"

#include <QDateTime>
#include <QRandomGenerator>
#include <QTimeZone>
#include <set>

namespace {
constexpr qint64 Day = 86400;

/// A zone's offset, looked up once a quarter of an hour: no zone changes at another moment.
UtcOffset offsetOf(const QTimeZone& zone) {
    auto known = std::make_shared<QHash<qint64, int>>();
    return [zone, known](qint64 epoch) {
        const qint64 quarter = epoch / 900;
        if (!known->contains(quarter))
            known->insert(quarter, zone.offsetFromUtc(QDateTime::fromSecsSinceEpoch(quarter * 900, Qt::UTC)));
        return known->value(quarter);
    };
}

/// The first moment that has this local date and time, by the calendar's own rules; -1 when none has.
qint64 firstMoment(const QDate& date, int secondOfDay, const QTimeZone& zone) {
    const qint64 asUtc = QDateTime(date, QTime(0, 0), Qt::UTC).toSecsSinceEpoch() + secondOfDay;
    for (int offset = 15 * 3600; offset >= -15 * 3600; offset -= 900) {
        const QDateTime moment = QDateTime::fromSecsSinceEpoch(asUtc - offset, Qt::UTC);
        if (zone.offsetFromUtc(moment) == offset)
            return moment.toSecsSinceEpoch();
    }
    return -1;
}

using Starts = std::multiset<std::pair<qint64, int>>; ///< second, task

struct Bell {
    int id;
    TaskTimes times;
};

/// Bells at random and at every border: midnight, the span's ends, the hours that clocks skip and repeat.
std::vector<Bell> makeBells(const WorkingSpan& span, const QDate& from) {
    QRandomGenerator random(7);
    const std::vector<int> borders{0,           1,    10,   86399, span.from - 1, span.from, span.to,
                                   span.to + 1, 7199, 7200, 7201,  9000,          10799,     10800,
                                   10801,       3600, 3599, 1800,  5400,          12 * 3600};
    const qint64 firstDay = QDate(1970, 1, 1).daysTo(from);
    std::vector<Bell> bells;
    for (int id = 1; id <= 500; ++id) {
        TaskTimes times;
        times.startTime =
            id <= 200 ? borders[static_cast<size_t>(id) % borders.size()] : random.bounded(86400);
        if (id % 3 == 1)
            times.startdate = firstDay + random.bounded(-1, 8);
        if (id % 4 == 2)
            times.enddate = firstDay + random.bounded(-1, 8);
        for (int i = 0; i < (id % 50 == 0 ? 6 : 7); ++i)
            times.week += id % 2 == 0 || random.bounded(2) == 1 ? '1' : '0';
        bells.push_back({id, times});
    }
    return bells;
}

/// Every start from `from` on for `days`, worked out per bell and calendar day.
Starts expectedStarts(const std::vector<Bell>& bells, const WorkingSpan& span, const QDate& from, int days,
                      const QTimeZone& zone) {
    Starts starts;
    for (int i = 0; i < days; ++i) {
        const QDate date = from.addDays(i);
        for (const Bell& bell : bells) {
            const int at = bell.times.startTime;
            const qint64 moment = firstMoment(date, at, zone);
            if (moment < 0 || at < span.from || at > span.to)
                continue;
            const qint64 utcDay =
                QDate(1970, 1, 1).daysTo(QDateTime::fromSecsSinceEpoch(moment, Qt::UTC).date());
            const bool byDate = (bell.times.startdate == 0 || utcDay >= bell.times.startdate) &&
                                (bell.times.enddate == 0 || utcDay <= bell.times.enddate);
            const bool byWeek =
                bell.times.week.size() != 7 || bell.times.week[date.dayOfWeek() - 1] == QChar('1');
            if (byDate && byWeek)
                starts.insert({moment, bell.id});
        }
    }
    return starts;
}

} // namespace

class ScheduleTest : public QObject {
    Q_OBJECT
private slots:
    void week_data() {
        const Table<QByteArray, QDate> row{"zone", "from"};
        row("ordinary", "Asia/Shanghai", QDate(2026, 11, 23));
        row("into summer time", "Europe/Berlin", QDate(2027, 3, 24));
        row("out of summer time", "Europe/Berlin", QDate(2027, 10, 27));
        row("half an hour back", "Australia/Lord_Howe", QDate(2027, 4, 1));
        row("skipped midnight", "Africa/Cairo", QDate(2027, 4, 27));
        row("west of Greenwich", "America/New_York", QDate(2026, 10, 29));
    }

    void week() {
        QFETCH(QByteArray, zone);
        QFETCH(QDate, from);
        const QTimeZone rules(zone);
        QVERIFY(rules.isValid());
        const WorkingSpan span{zone == "Asia/Shanghai" ? 21276 : 0, zone == "Asia/Shanghai" ? 82800 : 86399};
        const std::vector<Bell> bells = makeBells(span, from);
        QMultiHash<int, const Bell*> byTime;
        for (const Bell& bell : bells)
            byTime.insert(bell.times.startTime, &bell);

        // Ticks come up to 40 s late, sometimes two in one second.
        const LocalTime localTime(offsetOf(rules));
        const qint64 first =
            firstMoment(from, 0, rules) < 0 ? firstMoment(from, 3600, rules) : firstMoment(from, 0, rules);
        const qint64 last = firstMoment(from.addDays(7), 0, rules) - 1;
        SecondSequence sequence(first - 1);
        QRandomGenerator random(1);
        Starts starts;
        for (qint64 now = first;; now = qMin(now + random.bounded(41), last)) {
            const SecondSequence::Due due = sequence.due(now);
            QVERIFY(due.setBack == 0 && due.lostFirst > due.lostLast);
            for (qint64 s = due.first; s <= due.last; ++s) {
                const ScheduleSecond second = localTime.at(s);
                sequence.handled(s);
                for (const Bell* bell : byTime.values(second.secondOfDay)) {
                    if (isDue(bell->times, second) && !second.firstPass && span.contains(second.secondOfDay))
                        starts.insert({s, bell->id});
                }
            }
            if (now == last)
                break;
        }
        const Starts expected = expectedStarts(bells, span, from, 7, rules);
        QVERIFY(expected.size() > 500);
        Starts missed, extra;
        std::set_difference(expected.begin(), expected.end(), starts.begin(), starts.end(),
                            std::inserter(missed, missed.end()));
        std::set_difference(starts.begin(), starts.end(), expected.begin(), expected.end(),
                            std::inserter(extra, extra.end()));
        for (const auto& [second, id] : missed)
            qWarning() << "missed" << id << QDateTime::fromSecsSinceEpoch(second, rules);
        for (const auto& [second, id] : extra)
            qWarning() << "extra" << id << QDateTime::fromSecsSinceEpoch(second, rules);
        QVERIFY(missed.empty() && extra.empty());
    }

    void skippedHourIsTold() {
        const LocalTime berlin(offsetOf(QTimeZone("Europe/Berlin")));
        const qint64 change = QDateTime({2027, 3, 28}, {1, 0}, Qt::UTC).toSecsSinceEpoch();
        QVERIFY(berlin.skippedBefore(change - 1).empty());
        const auto skipped = berlin.skippedBefore(change);
        QCOMPARE(skipped.size(), size_t{1});
        QCOMPARE(skipped[0].first, 2 * 3600);
        QCOMPARE(skipped[0].last, 3 * 3600 - 1);
        QCOMPARE(skipped[0].weekday, 7);
        QVERIFY(isDueIn({9000, 0, 0, "0000001"}, skipped[0]));
        QVERIFY(!isDueIn({9000, 0, 0, "1111110"}, skipped[0]));
        QVERIFY(!isDueIn({10800, 0, 0, "1111111"}, skipped[0]));
        QVERIFY(berlin.skippedBefore(change + 1).empty());
    }

    void clockChanges_data() {
        const Table<QList<int>, QList<int>, QList<int>, int> row{"ticks", "seconds", "lost", "setBacks"};
        const auto upTo = [](int from, int to) {
            QList<int> all;
            for (int i = from; i <= to; ++i)
                all += i;
            return all;
        };
        row("every second", {101, 102, 103}, {101, 102, 103}, {}, 0);
        row("late", {101, 104}, {101, 102, 103, 104}, {}, 0);
        row("a minute late", {160}, upTo(101, 160), {}, 0);
        row("later than that", {165, 166}, upTo(106, 166), upTo(101, 105), 0);
        row("twice in one second", {101, 101}, {101}, {}, 0);
        row("set back a little", {101, 90, 95, 101, 102}, {101, 102}, {}, 0);
        row("set back a minute", {101, 41, 102}, {101, 102}, {}, 0);
        row("set back more", {101, 40, 41}, {101, 40, 41}, {}, 1);
    }

    void clockChanges() {
        QFETCH(QList<int>, ticks);
        SecondSequence sequence(100);
        QList<int> handled, lost;
        int setBacks = 0;
        for (int now : ticks) {
            const auto due = sequence.due(now);
            setBacks += due.setBack != 0;
            for (qint64 s = due.lostFirst; s <= due.lostLast; ++s)
                lost += static_cast<int>(s);
            for (qint64 s = due.first; s <= due.last; ++s) {
                handled += static_cast<int>(s);
                sequence.handled(s);
            }
        }
        QTEST(handled, "seconds");
        QTEST(lost, "lost");
        QTEST(setBacks, "setBacks");
    }

    void oneStartForEachDate() {
        StartGuard guard;
        QVERIFY(guard.admit(1, 28800, 20000, 0));
        QVERIFY(!guard.admit(1, 28800, 20000, 40 * 3600 * 1000)); // whatever happened to the clock
        QVERIFY(guard.admit(2, 28800, 20000, 0));
        QVERIFY(guard.admit(1, 28801, 20000, 0)); // another time has been set
        QVERIFY(guard.admit(1, 28800, 20001, 0));
        QVERIFY(guard.hasStarted(1, 28800, 20000) && !guard.hasStarted(1, 28800, 19999));
    }

    void handledSecondsSurvive_data() {
        const Table<QByteArray, QList<int>, QList<int>, int> row{"text", "handled", "others", "last"};
        row("nothing", "", {}, {0}, -1);
        row("stretches", "5 7\n20 30\n", {5, 7, 20, 30}, {4, 8, 19, 31}, 30);
        row("a clock set back", "20 30\n5 7\n", {5, 30}, {8}, 7);
        row("cut off", "5 7\n20 3", {5}, {20, 3}, 7);
        row("rubbish", "a b\n9 3\n\n1 2 3\n5 7\n", {5}, {9, 3, 1}, 7);
    }

    void handledSecondsSurvive() {
        QFETCH(QByteArray, text);
        QFETCH(QList<int>, handled);
        QFETCH(QList<int>, others);
        HandledSeconds seconds = HandledSeconds::parse(text);
        for (int second : handled)
            QVERIFY(seconds.contains(second));
        for (int second : others)
            QVERIFY(!seconds.contains(second));
        QTEST(static_cast<int>(seconds.last().value_or(-1)), "last");
        for (int second = 1000; second < 1000 + 3 * HandledSeconds::MaxStretches; second += 2) {
            seconds.add(second);
            seconds.add(second + 1);
            seconds.add(second + 100000);
        }
        QVERIFY(seconds.text().count('\n') == HandledSeconds::MaxStretches);
        QCOMPARE(HandledSeconds::parse(seconds.text()).text(), seconds.text());
    }

    // Every second of a day on which the clock jumps, by the local clock of its stretch.
    void stretchesFollowTheLocalClock() {
        for (const QDate& date : {QDate(2027, 3, 28), QDate(2027, 10, 31), QDate(2027, 6, 1)}) {
            const LocalTime berlin(offsetOf(QTimeZone("Europe/Berlin")));
            const qint64 from = QDateTime(date, {0, 0}, Qt::UTC).toSecsSinceEpoch() - 7000;
            qint64 next = from;
            for (const LocalStretch& stretch : berlin.stretches(from, from + Day)) {
                QCOMPARE(stretch.first, next);
                for (qint64 s : {stretch.first, (stretch.first + stretch.last) / 2, stretch.last})
                    QCOMPARE(stretch.epochOf(berlin.at(s).secondOfDay), s);
                QCOMPARE(stretch.lastSecondOfDay(), berlin.at(stretch.last).secondOfDay);
                next = stretch.last + 1;
            }
            QCOMPARE(next, from + Day + 1);
        }
    }

    void texts_data() {
        const Table<QString, int, int> row{"text", "time", "date"}; // -1 refused
        row("time", "8:5:0", 29100, -1);
        row("padded time", "08:05:00", 29100, -1);
        row("last second", "23:59:59", 86399, -1);
        row("hour 24", "24:0:0", -1, -1);
        row("minute 60", "1:60:0", -1, -1);
        row("two parts", "8:00", -1, -1);
        row("sign", "+8:0:0", -1, -1);
        row("empty", "", -1, 0);
        row("date", "2026-11-21", -1, 20778);
        row("padded date", "2027-01-02", -1, 20820);
        row("no such day", "2027-2-29", -1, -1);
        row("leap day", "2028-2-29", -1, 21243);
        row("unbounded", "0", -1, 0);
        row("two-digit year", "27-1-1", -1, -1);
    }

    void texts() {
        QFETCH(QString, text);
        QFETCH(int, time);
        QFETCH(int, date);
        QCOMPARE(secondsOfTime(text).value_or(-1), time);
        QCOMPARE(daysOfDate(text).value_or(-1), qint64{date});
        if (time >= 0)
            QCOMPARE(secondsOfTime(timeOfSeconds(time)).value_or(-1), time);
        if (date >= 0)
            QCOMPARE(daysOfDate(dateOfDays(date)).value_or(-1), qint64{date});
    }
};

int main(int argc, char** argv) {
    return runTest<ScheduleTest>(argc, argv);
}
#include "schedule_test.moc"
