#pragma once

#include <chrono>
#include <functional>
#include <QByteArray>
#include <QString>
#include <vector>

// Calendar files (iCalendar, RFC 5545): what they say about days. Pure but for the rules of time zones; any
// thread, one file at a time in the process.

/// Dates that one occurrence of an event touches, by the service's own calendar.
struct FileOccurrence {
    qint64 first = 0;    ///< days since 1970-01-01
    qint64 last = 0;     ///< included
    qint64 identity = 0; ///< the day by which the event names it; 0 of an event that does not recur
    QString name;
};

struct FileEvent {
    QString uid;
    std::vector<FileOccurrence> occurrences;
};

/// An event that was left out, or of which something was.
struct FileIgnored {
    QString uid;
    QString reason;
};

struct CalendarFile {
    QString refusal;               ///< why nothing of the file was taken; empty when it was read
    std::vector<FileEvent> events; ///< without those that are cancelled; in the order of the file
    std::vector<FileIgnored> ignored;
};

struct FileLimits {
    static constexpr int MaxBytes = 4 * 1024 * 1024;
    int occurrences = 20000;
    std::chrono::milliseconds time{1000};
};

/// `offset`: seconds east of UTC of the service's own time zone at a moment. What recurs is expanded up to
/// `lastDay`. Times without a zone are local ones of the service.
CalendarFile readCalendarFile(const QByteArray& text, const std::function<int(qint64 epoch)>& offset,
                              qint64 lastDay, const FileLimits& limits = {});

/// An event of a file that is written.
struct WrittenEvent {
    QString uid;
    QString name;
    qint64 first = 0; ///< days since 1970-01-01
    qint64 last = 0;  ///< included
};
/// All-day events; `now` in seconds since 1970-01-01 UTC stands as the time of writing.
QByteArray writeCalendarFile(const QString& name, const std::vector<WrittenEvent>& events, qint64 now);
