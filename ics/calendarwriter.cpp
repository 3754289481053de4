#include "ics/calendarfile.h"
#include "ics/civil.h"

namespace {

constexpr int LongestLine = 75; ///< bytes (RFC 5545, 3.1)

QByteArray dateText(qint64 day) {
    const CivilDate date = civilOf(day);
    return QStringLiteral("%1%2%3")
        .arg(date.year, 4, 10, QLatin1Char('0'))
        .arg(date.month, 2, 10, QLatin1Char('0'))
        .arg(date.day, 2, 10, QLatin1Char('0'))
        .toLatin1();
}

QByteArray escaped(const QString& text) {
    QString read = text;
    read.replace(QLatin1Char('\\'), QLatin1String("\\\\"))
        .replace(QLatin1Char(';'), QLatin1String("\\;"))
        .replace(QLatin1Char(','), QLatin1String("\\,"));
    return read.toUtf8();
}

/// Folded between characters, not within one.
void writeLine(QByteArray& file, const QByteArray& line) {
    int column = 0;
    for (int at = 0; at < line.size(); ++at) {
        const bool beginsCharacter = (static_cast<unsigned char>(line.at(at)) & 0xC0) != 0x80;
        if (beginsCharacter && column >= LongestLine - 4) {
            file += "\r\n ";
            column = 1;
        }
        file += line.at(at);
        ++column;
    }
    file += "\r\n";
}

} // namespace

QByteArray writeCalendarFile(const QString& name, const std::vector<WrittenEvent>& events, qint64 now) {
    const qint64 today = now / 86400;
    const int second = static_cast<int>(now % 86400);
    const QByteArray stamp = dateText(today) + QStringLiteral("T%1%2%3Z")
                                                   .arg(second / 3600, 2, 10, QLatin1Char('0'))
                                                   .arg(second / 60 % 60, 2, 10, QLatin1Char('0'))
                                                   .arg(second % 60, 2, 10, QLatin1Char('0'))
                                                   .toLatin1();
    QByteArray file;
    for (const char* line : {"BEGIN:VCALENDAR", "VERSION:2.0", "PRODID:-//speakerd//calendars//EN"})
        writeLine(file, line);
    writeLine(file, "X-WR-CALNAME:" + escaped(name));
    for (const WrittenEvent& event : events) {
        writeLine(file, "BEGIN:VEVENT");
        writeLine(file, "UID:" + escaped(event.uid));
        writeLine(file, "DTSTAMP:" + stamp);
        writeLine(file, "DTSTART;VALUE=DATE:" + dateText(event.first));
        writeLine(file, "DTEND;VALUE=DATE:" + dateText(event.last + 1));
        writeLine(file, "SUMMARY:" + escaped(event.name));
        writeLine(file, "END:VEVENT");
    }
    writeLine(file, "END:VCALENDAR");
    return file;
}
