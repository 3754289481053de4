// A year of bells in five zones, with holidays, imported calendars, restarts and a clock that is set, against
// a calculation in another language.
#include "ics/calendarfile.h"
#include "support/table.h"
#include "support/testmain.h"
#include "tasks/schedule/handling.h"
#include "tasks/schedule/schedule.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QSet>
#include <QTimeZone>

namespace {
const qint64 LastDay = 21200; ///< in 2028

qint64 integer(const QJsonValue& value) {
    return static_cast<qint64>(value.toDouble());
}

UtcOffset offsetOf(const QTimeZone& zone) {
    auto known = std::make_shared<QHash<qint64, int>>();
    return [zone, known](qint64 epoch) {
        const qint64 quarter = epoch / 900;
        if (!known->contains(quarter))
            known->insert(quarter, zone.offsetFromUtc(QDateTime::fromSecsSinceEpoch(quarter * 900, Qt::UTC)));
        return known->value(quarter);
    };
}

std::vector<BellRule> rulesOf(const QJsonArray& schedules, QHash<qint64, MissedPolicy>& policies) {
    std::vector<BellRule> rules;
    for (const QJsonValue& one : schedules) {
        BellRule rule;
        rule.id = one["id"].toInt();
        rule.startTime = one["time"].toInt();
        rule.startdate = one["from"].toInt();
        rule.enddate = one["until"].toInt();
        rule.week = one["week"].toString();
        rule.localDates = one["local"].toBool();
        rule.plan = one["plan"].toInt();
        rule.exceptional = rule.plan == 3;
        rule.calendar = one["calendar"].toInt();
        rules.push_back(rule);
        if (one["within"].toInt() >= 0)
            policies[rule.id].within = one["within"].toInt();
    }
    return rules;
}

CalendarDays calendarsOf(const QJsonArray& calendars, const UtcOffset& offset) {
    CalendarDays days(20700, LastDay);
    for (int i = 0; i < calendars.size(); ++i) {
        std::vector<CalendarEntry> entries;
        for (const QJsonValue& one : calendars.at(i)["entries"].toArray()) {
            const int plan = one["plan"].toInt();
            entries.push_back({one["id"].toInt(), one["first"].toInt(), one["last"].toInt(),
                               plan == 0 ? std::nullopt : std::optional<qint64>(plan)});
        }
        qint64 id = 100;
        const CalendarFile file =
            readCalendarFile(calendars.at(i)["file"].toString().toUtf8(), offset, LastDay);
        for (const FileEvent& event : file.events) {
            for (const FileOccurrence& one : event.occurrences)
                entries.push_back({id++, one.first, one.last, {}});
        }
        days.add(i + 1, {}, entries);
    }
    return days;
}

/// The service's clockwork, without a queue and a database.
struct Clockwork {
    const LocalTime& localTime;
    const BellPlan& plan;
    const QHash<qint64, MissedPolicy>& policies;
    SecondSequence sequence;
    QSet<QPair<qint64, qint64>> runs{};
    std::vector<std::pair<qint64, qint64>> rings{};

    /// A tick that may be late, or each second's own.
    void handle(qint64 first, qint64 last, bool late) {
        for (const Bell& bell : plan.between(localTime.days(first, last), first, last)) {
            const QPair<qint64, qint64> run(bell.schedule, bell.due);
            if (bell.silence != Silence::None || runs.contains(run) ||
                !policies.value(bell.schedule).admits(late ? last - bell.at : 0))
                continue;
            runs.insert(run);
            rings.emplace_back(bell.at, bell.schedule);
        }
    }
    void run(qint64 start, qint64 stop) {
        const SecondSequence::Due due = sequence.due(start);
        if (due.setBack > 7200) {
            const qint64 tomorrow = localTime.days(start, start).back().stretches.back().last + 1;
            for (auto it = runs.begin(); it != runs.end();)
                it = it->second >= tomorrow ? runs.erase(it) : std::next(it);
        }
        if (due.first <= due.last) {
            handle(due.first, due.last, true);
            sequence.handled(due.last);
        }
        if (sequence.last() < stop)
            handle(sequence.last() + 1, stop, false);
        sequence.handled(std::max(sequence.last(), stop));
    }
};

} // namespace

class ScheduleYearTest : public QObject {
    Q_OBJECT
private slots:
    void year_data() {
        const Table<QString> row{"zone"};
        for (const char* zone :
             {"Europe/Berlin", "America/New_York", "Asia/Kolkata", "Australia/Lord_Howe", "America/Santiago"})
            row(zone, zone);
    }
    void year() {
        QFETCH(QString, zone);
        QProcess judge;
        judge.start("python3", {SOURCE_DIR "/tests/judge/year.py", zone, "3"});
        QVERIFY(judge.waitForFinished(120000));
        QVERIFY2(judge.exitCode() == 0, judge.readAllStandardError());
        const QJsonObject world = QJsonDocument::fromJson(judge.readAllStandardOutput()).object();
        const UtcOffset offset = offsetOf(QTimeZone(zone.toLatin1()));
        QHash<qint64, MissedPolicy> policies;
        const std::vector<BellRule> rules = rulesOf(world["schedules"].toArray(), policies);
        const CalendarDays calendars = calendarsOf(world["calendars"].toArray(), offset);
        const LocalTime localTime(offset);
        const BellPlan plan(rules, calendars, {{600, 84000}, false});
        const QJsonArray segments = world["segments"].toArray();
        Clockwork clockwork{localTime, plan, policies,
                            SecondSequence(integer(segments.at(0).toArray().at(0)) - 1)};
        for (const QJsonValue& segment : segments)
            clockwork.run(integer(segment.toArray().at(0)), integer(segment.toArray().at(1)));
        std::vector<std::pair<qint64, qint64>> expected;
        for (const QJsonValue& ring : world["rings"].toArray())
            expected.emplace_back(integer(ring.toArray().at(0)), integer(ring.toArray().at(1)));
        QVERIFY(expected.size() > 20000);
        for (size_t i = 0; i < std::min(expected.size(), clockwork.rings.size()); ++i)
            QVERIFY2(expected[i] == clockwork.rings[i], qPrintable(QStringLiteral("%1 %2 instead of %3 %4")
                                                                       .arg(clockwork.rings[i].first)
                                                                       .arg(clockwork.rings[i].second)
                                                                       .arg(expected[i].first)
                                                                       .arg(expected[i].second)));
        QCOMPARE(clockwork.rings.size(), expected.size());
    }
};

int main(int argc, char** argv) {
    return runTest<ScheduleYearTest>(argc, argv);
}
#include "schedule_year_test.moc"
