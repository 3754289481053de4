// Calendar files: what they say about days, against cases written by hand and against another calculation.
#include "ics/calendarfile.h"
#include "support/table.h"
#include "support/testmain.h"

#include <QDate>
#include <QElapsedTimer>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QRandomGenerator>
#include <QTimeZone>

namespace {
const QDate Epoch(1970, 1, 1);
const qint64 LastDay = Epoch.daysTo(QDate(2031, 11, 22));

int berlin(qint64 epoch) {
    static const QTimeZone zone("Europe/Berlin");
    return zone.offsetFromUtc(QDateTime::fromSecsSinceEpoch(epoch, Qt::UTC));
}

QByteArray calendar(const QByteArray& inner) {
    return "BEGIN:VCALENDAR\r\nVERSION:2.0\r\n" + inner + "END:VCALENDAR\r\n";
}

QByteArray vevent(const QByteArray& lines, const QByteArray& uid = "u") {
    return "BEGIN:VEVENT\r\nUID:" + uid + "\r\nSUMMARY:name\r\n" + lines + "\r\nEND:VEVENT\r\n";
}

QString dateText(qint64 day) {
    return Epoch.addDays(day).toString("yyMMdd");
}

/// "261224-261226 270101": the dates of all occurrences.
QString datesOf(const CalendarFile& file) {
    QStringList texts;
    for (const FileEvent& event : file.events) {
        for (const FileOccurrence& one : event.occurrences)
            texts +=
                one.first == one.last ? dateText(one.first) : dateText(one.first) + '-' + dateText(one.last);
    }
    return texts.join(' ');
}

QString ignoredOf(const CalendarFile& file) {
    QStringList texts;
    for (const FileIgnored& one : file.ignored)
        texts += one.uid + ": " + one.reason;
    return texts.join('|');
}

} // namespace

class CalendarFileTest : public QObject {
    Q_OBJECT
private slots:
    void dates_data() {
        const Table<QByteArray, QString, QString> row{"events", "dates", "ignored"};
        const QByteArray zone = "BEGIN:VTIMEZONE\nTZID:Mine\nBEGIN:STANDARD\nDTSTART:19700101T000000\n"
                                "TZOFFSETFROM:+1200\nTZOFFSETTO:+1200\nEND:STANDARD\nEND:VTIMEZONE\n";
        row("all day", vevent("DTSTART;VALUE=DATE:20261224"), "261224", "");
        row("days", vevent("DTSTART;VALUE=DATE:20261224\nDTEND;VALUE=DATE:20261227"), "261224-261226", "");
        row("end before start", vevent("DTSTART;VALUE=DATE:20261224\nDTEND;VALUE=DATE:20261201"), "261224",
            "");
        row("duration", vevent("DTSTART;VALUE=DATE:20261224\nDURATION:P1W"), "261224-261230", "");
        row("timed", vevent("DTSTART:20261224T100000\nDTEND:20261224T110000"), "261224", "");
        row("to midnight", vevent("DTSTART:20261224T100000\nDTEND:20261225T000000"), "261224", "");
        row("past midnight", vevent("DTSTART:20261224T100000\nDTEND:20261225T000100"), "261224-261225", "");
        row("moment", vevent("DTSTART:20261224T000000"), "261224", "");
        row("UTC", vevent("DTSTART:20261224T233000Z\nDURATION:PT1H"), "261225", "");
        row("zone", vevent("DTSTART;TZID=America/New_York:20261224T190000\nDURATION:PT1H"), "261225", "");
        row("mail's zone", vevent("DTSTART;TZID=\"Eastern Standard Time\":20261224T190000"), "261225", "");
        row("zone in a path", vevent("DTSTART;TZID=/x.org/1/Asia/Tokyo:20261224T010000"), "261223", "");
        row("own zone", zone + vevent("DTSTART;TZID=Mine:20261224T010000"), "261223", "");
        row("unknown zone", vevent("DTSTART;TZID=Nowhere:20261224T010000"), "",
            "u: unknown time zone Nowhere");
        row("folded", vevent("DTSTART;VALUE=\r\n DATE:2026122\r\n\t4"), "261224", "");
        row("no start", vevent("DTEND:20261224T100000"), "", "u: it has no start");
        row("no such day", vevent("DTSTART;VALUE=DATE:20261324"), "", "u: a time of it can't be read");
        row("cancelled", vevent("DTSTART;VALUE=DATE:20261224\nSTATUS:CANCELLED"), "", "");
        row("cancelled file", "METHOD:CANCEL\n" + vevent("DTSTART;VALUE=DATE:20261224"), "", "");
        row("no uid", "BEGIN:VEVENT\nDTSTART;VALUE=DATE:20261224\nEND:VEVENT\n", "", ": it has no UID");

        row("rule", vevent("DTSTART;VALUE=DATE:20261224\nRRULE:FREQ=YEARLY;COUNT=3"), "261224 271224 281224",
            "");
        row("every month's 13th",
            vevent("DTSTART;VALUE=DATE:20261213\nRRULE:FREQ=YEARLY;BYMONTHDAY=13;COUNT=3"),
            "261213 270113 270213", "");
        row("until a date", vevent("DTSTART:20261224T100000\nRRULE:FREQ=DAILY;UNTIL=20261225"),
            "261224 261225", "");
        row("until in UTC",
            vevent("DTSTART;TZID=America/New_York:20261224T100000\n"
                   "RRULE:FREQ=DAILY;UNTIL=20261225T150000Z"),
            "261224 261225", "");
        row("hourly", vevent("DTSTART:20261224T100000\nRRULE:FREQ=HOURLY"), "",
            "u: it recurs more often than daily");
        row("unreadable rule", vevent("DTSTART:20261224T100000\nRRULE:FREQ=NEVER"), "",
            "u: its RRULE can't be read");
        row("never", vevent("DTSTART;VALUE=DATE:20260101\nRRULE:FREQ=YEARLY;BYMONTH=2;BYMONTHDAY=30"), "",
            "");
        row("more dates",
            vevent("DTSTART;VALUE=DATE:20261224\nRDATE;VALUE=DATE:20270105,20261224\n"
                   "RDATE;VALUE=PERIOD:20270108T000000/P1D"),
            "261224 270105 270108", "");
        row("dates left out",
            vevent("DTSTART;VALUE=DATE:20261224\nRRULE:FREQ=DAILY;COUNT=4\n"
                   "EXDATE;VALUE=DATE:20261225,20261226"),
            "261224 261227", "");
        row("left out as a date",
            vevent("DTSTART:20261224T100000\nRRULE:FREQ=DAILY;COUNT=3\n"
                   "EXDATE;VALUE=DATE:20261225"),
            "261224 261226", "");
        row("left out in UTC",
            vevent("DTSTART;TZID=Europe/Berlin:20261224T100000\nRRULE:FREQ=DAILY;COUNT=3\n"
                   "EXDATE:20261225T090000Z"),
            "261224 261226", "");
        row("moved",
            vevent("DTSTART:20261224T100000\nRRULE:FREQ=DAILY;COUNT=3") +
                vevent("RECURRENCE-ID:20261225T100000\nDTSTART:20270105T100000"),
            "261224 261226 270105", "");
        row("moved, before its event",
            vevent("RECURRENCE-ID;VALUE=DATE:20261225\nDTSTART:20270105T100000") +
                vevent("DTSTART:20261224T100000\nRRULE:FREQ=DAILY;COUNT=3"),
            "261224 261226 270105", "");
        row("one cancelled",
            vevent("DTSTART:20261224T100000\nRRULE:FREQ=DAILY;COUNT=3") +
                vevent("RECURRENCE-ID:20261225T090000Z\nDTSTART:20261225T100000\n"
                       "STATUS:CANCELLED"),
            "261224 261226", "");
        row("a change alone", vevent("RECURRENCE-ID:20261225T090000Z\nDTSTART:20261227T100000"), "261227",
            "");
        row("two in a day", vevent("DTSTART:20261224T100000\nRRULE:FREQ=DAILY;COUNT=4;BYHOUR=10,14"),
            "261224 261225", "");
        row("23 hours long",
            vevent("DTSTART:20270328T000000\nDTEND:20270329T000000\nRRULE:FREQ=WEEKLY;COUNT=2"),
            "270328 270404", "");
    }
    void dates() {
        QFETCH(QByteArray, events);
        const CalendarFile file = readCalendarFile(calendar(events), berlin, LastDay);
        QCOMPARE(file.refusal, QString());
        QTEST(datesOf(file), "dates");
        QTEST(ignoredOf(file), "ignored");
    }

    void refusals_data() {
        const Table<QByteArray, QString> row{"text", "refusal"};
        QByteArray many;
        for (int i = 0; i < 11; ++i)
            many += vevent("DTSTART;VALUE=DATE:20200101\nRRULE:FREQ=DAILY", QByteArray::number(i));
        row("nothing", "", "it is no calendar file");
        row("something else", "<html>", "it is no calendar file");
        row("a card", "BEGIN:VCARD\nEND:VCARD\n", "it is no calendar file");
        row("too large", calendar(QByteArray(4 << 20, 'x') + "\n"), "the file is larger than 4 MB");
        row("too many", calendar(many), "the file has more than 20000 occurrences");
    }
    void refusals() {
        QFETCH(QByteArray, text);
        const CalendarFile file = readCalendarFile(text, berlin, LastDay);
        QTEST(file.refusal, "refusal");
        QVERIFY(file.events.empty());
        QCOMPARE(readCalendarFile(calendar(vevent("DTSTART;VALUE=DATE:20261224")), berlin, LastDay,
                                  {20000, std::chrono::milliseconds(0)})
                     .refusal,
                 "the file takes longer than a second");
    }

    void rulesByAnotherCalculation() {
        QProcess judge;
        judge.start("python3", {SOURCE_DIR "/tests/judge/rules.py", "7", "400", "2031-11-22"});
        QVERIFY(judge.waitForFinished(60000));
        QVERIFY2(judge.exitCode() == 0, judge.readAllStandardError());
        const QJsonObject judged = QJsonDocument::fromJson(judge.readAllStandardOutput()).object();
        const CalendarFile file =
            readCalendarFile(judged["file"].toString().toUtf8(), [](qint64) { return 0; }, LastDay, {200000});
        QCOMPARE(file.refusal, QString());
        QCOMPARE(ignoredOf(file), QString());
        const QJsonObject expected = judged["days"].toObject();
        QVERIFY(expected.size() > 300);
        QCOMPARE(static_cast<int>(file.events.size()), expected.size());
        for (const FileEvent& event : file.events) {
            QJsonArray days;
            for (const FileOccurrence& one : event.occurrences)
                days.append(QJsonArray{one.first, one.last});
            QVERIFY2(days == expected[event.uid].toArray(), qPrintable(event.uid));
        }
    }

    void whatIsWrittenCanBeRead() {
        const QString name = QString::fromUtf8("Ferien, \"große\"; \\ 休日 ").repeated(6).trimmed();
        const QByteArray text =
            writeCalendarFile("x", {{"a;b", name, 20800, 20801}, {"c", "short", 20900, 20900}}, 1800000000);
        for (const QByteArray& line : text.split('\n'))
            QVERIFY(line.size() <= 76);
        const CalendarFile file = readCalendarFile(text, berlin, LastDay);
        QCOMPARE(datesOf(file), dateText(20800) + '-' + dateText(20801) + ' ' + dateText(20900));
        QCOMPARE(file.events[0].occurrences[0].name, name.left(200));
        QCOMPARE(file.events[0].uid, "a;b");
    }
};

int main(int argc, char** argv) {
    return runTest<CalendarFileTest>(argc, argv);
}
#include "calendarfile_test.moc"
