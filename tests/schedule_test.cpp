// Which second starts which task: a week of bells against a calculation of its own, and the clock's tricks.
#include "support/table.h"
#include "support/testmain.h"
#include "tasks/handledfile.h"
#include "tasks/schedule/handling.h"
#include "tasks/schedule/schedule.h"
#include "tasks/schedule/tasktime.h"

#include <QDateTime>
#include <QRandomGenerator>
#include <QTimeZone>
#include <set>

Q_DECLARE_METATYPE(Silence)

namespace {

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

/// Bells at random and at every border: midnight, the span's ends, the hours that clocks skip and repeat.
std::vector<BellRule> makeRules(const WorkingSpan& span, const QDate& from) {
    QRandomGenerator random(7);
    const std::vector<int> borders{0,           1,    10,   86399, span.from - 1, span.from, span.to,
                                   span.to + 1, 7199, 7200, 7201,  9000,          10799,     10800,
                                   10801,       3600, 3599, 1800,  5400,          12 * 3600};
    const qint64 firstDay = QDate(1970, 1, 1).daysTo(from);
    std::vector<BellRule> rules;
    for (int id = 1; id <= 500; ++id) {
        BellRule times;
        times.id = id;
        times.startTime =
            id <= 200 ? borders[static_cast<size_t>(id) % borders.size()] : random.bounded(86400);
        if (id % 3 == 1)
            times.startdate = firstDay + random.bounded(-1, 8);
        if (id % 4 == 2)
            times.enddate = firstDay + random.bounded(-1, 8);
        for (int i = 0; i < (id % 50 == 0 ? 6 : 7); ++i)
            times.week += id % 2 == 0 || random.bounded(2) == 1 ? '1' : '0';
        rules.push_back(times);
    }
    return rules;
}

/// Every start from `from` on for `days`, worked out per bell and calendar day.
Starts expectedStarts(const std::vector<BellRule>& rules, const WorkingSpan& span, const QDate& from,
                      int days, const QTimeZone& zone) {
    Starts starts;
    for (int i = 0; i < days; ++i) {
        const QDate date = from.addDays(i);
        for (const BellRule& bell : rules) {
            const int at = bell.startTime;
            const qint64 moment = firstMoment(date, at, zone);
            if (moment < 0 || at < span.from || at > span.to)
                continue;
            const qint64 utcDay =
                QDate(1970, 1, 1).daysTo(QDateTime::fromSecsSinceEpoch(moment, Qt::UTC).date());
            const bool byDate = (bell.startdate == 0 || utcDay >= bell.startdate) &&
                                (bell.enddate == 0 || utcDay <= bell.enddate);
            const bool byWeek = bell.week.size() != 7 || bell.week[date.dayOfWeek() - 1] == QChar('1');
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
        const std::vector<BellRule> bells = makeRules(span, from);
        const CalendarDays none(0, -1);
        const BellPlan plan(bells, none, {span, false});

        // Windows of any length, sometimes two in one second.
        const LocalTime localTime(offsetOf(rules));
        const qint64 first =
            firstMoment(from, 0, rules) < 0 ? firstMoment(from, 3600, rules) : firstMoment(from, 0, rules);
        const qint64 last = firstMoment(from.addDays(7), 0, rules) - 1;
        SecondSequence sequence(first - 1);
        QRandomGenerator random(1);
        Starts starts;
        for (qint64 now = first;; now = qMin(now + random.bounded(20000), last)) {
            const SecondSequence::Due due = sequence.due(now);
            QVERIFY(due.setBack == 0 && due.forgotten == 0);
            sequence.handled(qMax(due.last, sequence.last()));
            for (const Bell& bell : plan.between(localTime.days(due.first, due.last), due.first, due.last)) {
                if (bell.silence == Silence::None && !bell.isSecondPass())
                    starts.insert({bell.at, static_cast<int>(bell.schedule)});
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

    void calendars_data() {
        const Table<int, bool, int, int, bool, QString> row{"plan", "exceptional", "calendar",
                                                            "day",  "rings",       "reason"};
        // Day 100 to 110 silent, 104 and 105 plan 3, 105 plan 4 (newer), 106 plan 3 but newer and silent.
        const QString silent = "silent by calendar holidays";
        row("no calendar", 0, false, 0, 104, true, "");
        row("ordinary day", 3, false, 7, 99, true, "");
        row("silent", 3, false, 7, 100, false, silent);
        row("its last day", 0, false, 7, 110, false, silent);
        row("the day after", 0, false, 7, 111, true, "");
        row("shorter entry", 3, false, 7, 104, true, "");
        row("of another plan", 5, false, 7, 104, false, silent);
        row("without a plan", 0, false, 7, 104, false, silent);
        row("newer of two", 4, false, 7, 105, true, "");
        row("older of two", 3, false, 7, 105, false, silent);
        row("newer is silent", 3, false, 7, 106, false, silent);
        row("exceptional, named", 4, true, 7, 105, true, "");
        row("exceptional, not named", 4, true, 7, 104, false, "not due");
        row("exceptional, ordinary day", 4, true, 7, 99, false, "not due");
        row("exceptional, no calendar", 4, true, 0, 105, false, "not due");
        row("another calendar", 3, false, 8, 100, true, "");
    }
    void calendars() {
        QFETCH(int, plan);
        QFETCH(bool, exceptional);
        QFETCH(int, calendar);
        QFETCH(int, day);
        CalendarDays days(90, 120);
        days.add(7, "holidays",
                 {{1, 100, 110, {}},
                  {2, 104, 105, 3},
                  {5, 105, 105, 4},
                  {3, 105, 105, 3},
                  {6, 106, 106, 3},
                  {8, 106, 106, {}}});
        std::vector<BellRule> rules(1);
        rules[0].id = 1;
        rules[0].startTime = 28800;
        rules[0].plan = plan;
        rules[0].exceptional = exceptional;
        rules[0].calendar = calendar;
        const LocalTime utc([](qint64) { return 0; });
        const auto bells =
            BellPlan(rules, days, {}).on(utc.days(day * SecondsPerDay, day * SecondsPerDay + 1).front());
        QTEST(!bells.empty() && bells[0].silence == Silence::None, "rings");
        const QString reason = bells.empty() ? QString("not due") : silenceText(bells[0], days);
        QTEST(reason, "reason");
    }

    void nightsOfTheChange_data() {
        const Table<QByteArray, QDate, int, bool, QStringList, Silence> row{"zone",  "date",    "time",
                                                                            "after", "moments", "silence"};
        const QDate spring(2027, 3, 28), autumn(2027, 10, 31);
        row("before", "Europe/Berlin", spring, 3600, false, {"28T00:00"}, Silence::None);
        row("skipped", "Europe/Berlin", spring, 9000, false, {"28T01:00"}, Silence::NoSuchTime);
        row("rings after the gap", "Europe/Berlin", spring, 9000, true, {"28T01:00"}, Silence::None);
        row("twice", "Europe/Berlin", autumn, 9000, false, {"31T00:30", "31T01:30"}, Silence::None);
        row("half an hour twice", "Australia/Lord_Howe", QDate(2027, 4, 4), 6000, false,
            {"03T14:40", "03T15:10"}, Silence::None);
        row("no midnight", "America/Santiago", QDate(2027, 9, 5), 60, false, {"05T04:00"},
            Silence::NoSuchTime);
        row("no such date", "Pacific/Apia", QDate(2011, 12, 30), 43200, true, {"30T10:00"}, Silence::None);
    }
    void nightsOfTheChange() {
        QFETCH(QByteArray, zone);
        QFETCH(QDate, date);
        QFETCH(int, time);
        QFETCH(bool, after);
        std::vector<BellRule> rules(1);
        rules[0].startTime = time;
        rules[0].startdate = rules[0].enddate = QDate(1970, 1, 1).daysTo(date);
        rules[0].localDates = true;
        const CalendarDays none(0, -1);
        const qint64 from = QDateTime(date.addDays(-1), {0, 0}, Qt::UTC).toSecsSinceEpoch();
        const qint64 until = from + 3 * SecondsPerDay;
        const LocalTime localTime(offsetOf(QTimeZone(zone)));
        const auto bells =
            BellPlan(rules, none, {{}, after}).between(localTime.days(from, until), from, until);
        QStringList moments;
        for (const Bell& bell : bells) {
            moments += QDateTime::fromSecsSinceEpoch(bell.at, Qt::UTC).toString("dd'T'HH:mm");
            QCOMPARE(bell.due, bells[0].at);
            QTEST(bell.silence, "silence");
        }
        QTEST(moments, "moments");
    }

    void clockChanges_data() {
        const Table<QList<int>, QList<int>, int, int> row{"ticks", "seconds", "forgotten", "setBacks"};
        const auto upTo = [](int from, int to) {
            QList<int> all;
            for (int i = from; i <= to; ++i)
                all += i;
            return all;
        };
        row("every second", {101, 102, 103}, {101, 102, 103}, 0, 0);
        row("late", {101, 104}, {101, 102, 103, 104}, 0, 0);
        row("much later", {165, 166}, upTo(101, 166), 0, 0);
        row("twice in one second", {101, 101}, {101}, 0, 0);
        row("set back a little", {101, 90, 95, 101, 102}, {101, 102}, 0, 0);
        row("set back a minute", {101, 41, 102}, {101, 102}, 0, 0);
        row("set back more", {101, 40, 41}, {101, 40, 41}, 0, 1);
        row("days later", {100101}, upTo(13702, 100101), 13601, 0);
    }
    void clockChanges() {
        QFETCH(QList<int>, ticks);
        SecondSequence sequence(100);
        QList<int> handled;
        int setBacks = 0, forgotten = 0;
        for (int now : ticks) {
            const auto due = sequence.due(now);
            setBacks += due.setBack != 0;
            forgotten += static_cast<int>(due.forgotten);
            for (qint64 s = due.first; s <= due.last; ++s)
                handled += static_cast<int>(s);
            if (due.first <= due.last)
                sequence.handled(due.last);
        }
        QTEST(handled, "seconds");
        QTEST(forgotten, "forgotten");
        QTEST(setBacks, "setBacks");
    }

    void reasonsOfAbsence() {
        Absences absences;
        absences.note(100, Absence::NotRunning);
        absences.note(110, Absence::DatabaseAway);
        absences.note(120, Absence::DatabaseAway);
        absences.note(90, Absence::SetForward); // of seconds that have their reason
        QCOMPARE(absences.of(100), Absence::NotRunning);
        QCOMPARE(absences.of(101), Absence::DatabaseAway);
        QCOMPARE(absences.of(121), Absence::HeldUp);
        absences.forgetUntil(110);
        QCOMPARE(absences.of(100), Absence::DatabaseAway);
    }

    void missed_data() {
        const Table<int, int, int> row{"within", "last",
                                       "first"}; // the last that rings, the first that does not
        row("as always", -1, 59, 60);
        row("skip", 0, 2, 3);
        row("an hour", 3600, 3599, 3600);
    }
    void missed() {
        QFETCH(int, within);
        const MissedPolicy policy{within < 0 ? std::nullopt : std::optional<int>(within)};
        QFETCH(int, last);
        QFETCH(int, first);
        QVERIFY(policy.admits(last) && !policy.admits(first));
    }

    void handledFile_data() {
        const Table<QByteArray, int> row{"text", "last"};
        row("nothing", "", -1);
        row("a second", "30 30\n", 30);
        row("stretches", "5 7\n20 30\n", 30);
        row("cut off", "5 7\n20 3", 7);
        row("rubbish", "a b\n9 3\n\n1 2 3\n5 7\n", 7);
    }
    void handledFile() {
        QFETCH(QByteArray, text);
        QTEST(static_cast<int>(HandledFile::parse(text).value_or(-1)), "last");
    }

    // Every second of a day on which the clock jumps, by the local clock of its stretch.
    void stretchesFollowTheLocalClock() {
        for (const QDate& date : {QDate(2027, 3, 28), QDate(2027, 10, 31), QDate(2027, 6, 1)}) {
            const LocalTime berlin(offsetOf(QTimeZone("Europe/Berlin")));
            const qint64 from = QDateTime(date, {0, 0}, Qt::UTC).toSecsSinceEpoch() - 7000;
            qint64 next = from;
            for (const LocalStretch& stretch : berlin.stretches(from, from + SecondsPerDay)) {
                QCOMPARE(stretch.first, next);
                for (qint64 s : {stretch.first, (stretch.first + stretch.last) / 2, stretch.last})
                    QCOMPARE(stretch.epochOf(berlin.at(s).secondOfDay), s);
                QCOMPARE(stretch.lastSecondOfDay(), berlin.at(stretch.last).secondOfDay);
                next = stretch.last + 1;
            }
            QCOMPARE(next, from + SecondsPerDay + 1);
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
