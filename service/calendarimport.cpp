#include "service/calendarimport.h"

#include "core/sql/sqlite.h"
#include "tasks/schedule/localtime.h"

#include <algorithm>
#include <QDateTime>
#include <QDebug>
#include <QHash>
#include <QSet>

namespace {

const QString SelectImported = QStringLiteral(
    "SELECT id, uid, occurrence, name, firstday, lastday, planid FROM calendarentry WHERE calendarid = "
    "@calendar and uid != '' ORDER BY occurrence ;");
const QString InsertImported = QStringLiteral(
    "INSERT INTO calendarentry (calendarid, name, firstday, lastday, planid, uid, occurrence) VALUES "
    "(@calendar, '@name', @first, @last, NULLIF(@plan, 0), '@uid', @occurrence) ;");
const QString UpdateImported = QStringLiteral(
    "UPDATE calendarentry SET name = '@name', firstday = @first, lastday = @last WHERE id = @id ;");
const QString DeleteImported = QStringLiteral("DELETE FROM calendarentry WHERE id = @id ;");
const QString DeleteFile = QStringLiteral("DELETE FROM calendarfile WHERE calendarid = @calendar ;");
const QString InsertFile = QStringLiteral(
    "INSERT INTO calendarfile (calendarid, body, expanded) VALUES (@calendar, '@body', @today) ;");
const QString SelectStale =
    QStringLiteral("SELECT calendarid, expanded FROM calendarfile WHERE expanded != @today ;");
const QString SelectFile = QStringLiteral("SELECT body FROM calendarfile WHERE calendarid = @calendar ;");
const QString MarkExpanded =
    QStringLiteral("UPDATE calendarfile SET expanded = @today WHERE calendarid = @calendar ;");
const QString SelectAll = QStringLiteral(
    "SELECT id, name, firstday, lastday, uid, occurrence FROM calendarentry WHERE calendarid = @calendar "
    "ORDER BY firstday, id ;");

SqlArg named(const char* name, qint64 value) {
    return {QLatin1String(name), value};
}

qint64 localToday() {
    return LocalTime().at(QDateTime::currentSecsSinceEpoch()).day;
}

/// The last day that is expanded on this one.
qint64 lastDayOn(qint64 today) {
    return QDate(1970, 1, 1).daysTo(QDate(1970, 1, 1).addDays(today).addYears(YearsAhead));
}

CalendarFile read(const QByteArray& text, qint64 today) {
    return readCalendarFile(text, localUtcOffset, lastDayOn(today));
}

/// Days that a further expansion adds.
struct NewDays {
    qint64 first;
    qint64 last; ///< included
};

/// Brings the rows of one calendar in line with a file, or adds only what lies in new days: then what has
/// been changed or deleted by hand stays so.
class Merge {
public:
    Merge(sqlite& database, qint64 calendar, const CalendarFile& file,
          std::optional<NewDays> newDays = std::nullopt)
        : m_database(database)
        , m_calendar(calendar)
        , m_file(file)
        , m_newDays(newDays) {}

    /// Within a transaction; false when the database does not answer.
    bool run(CalendarImport& done) {
        return readRows() && writeEvents(done) && (m_newDays || removeRest(done));
    }

private:
    struct Row {
        qint64 id;
        QString name;
        qint64 first;
        qint64 last;
        bool isKept = false;
    };
    struct Rows {
        QHash<qint64, Row> byOccurrence;
        qint64 plan = 0; ///< of the last one; 0 none
    };

    bool readRows() {
        const SqlResult rows = m_database.run(SelectImported, {named("@calendar", m_calendar)});
        for (int row = 0; row < rows.rows.size(); ++row) {
            Rows& event = m_rows[rows.text(row, "uid")];
            event.byOccurrence.insert(rows.value(row, "occurrence").toLongLong(),
                                      {rows.value(row, "id").toLongLong(), rows.text(row, "name"),
                                       rows.value(row, "firstday").toLongLong(),
                                       rows.value(row, "lastday").toLongLong()});
            event.plan = rows.value(row, "planid").toLongLong();
        }
        return rows.ok;
    }

    bool writeEvents(CalendarImport& done) {
        for (const FileEvent& event : m_file.events) {
            const bool isNew = !m_rows.contains(event.uid);
            Rows& rows = m_rows[event.uid];
            bool isChanged = false;
            for (const FileOccurrence& occurrence : event.occurrences) {
                if (!write(event.uid, rows, occurrence, isChanged))
                    return false;
            }
            for (const Row& row : qAsConst(rows.byOccurrence))
                isChanged = isChanged || !row.isKept;
            done.added += isNew ? 1 : 0;
            done.changed += !isNew && isChanged ? 1 : 0;
            m_written.insert(event.uid);
        }
        return true;
    }

    bool write(const QString& uid, Rows& rows, const FileOccurrence& occurrence, bool& isChanged) {
        const auto known = rows.byOccurrence.find(occurrence.identity);
        SqlArgs args{named("@first", occurrence.first),
                     named("@last", occurrence.last),
                     {QStringLiteral("@name"), occurrence.name}};
        if (m_newDays && (known != rows.byOccurrence.end() || !isNew(occurrence)))
            return true;
        if (known == rows.byOccurrence.end()) {
            isChanged = true;
            args.insert(args.end(), {named("@calendar", m_calendar),
                                     named("@plan", rows.plan),
                                     {QStringLiteral("@uid"), uid},
                                     named("@occurrence", occurrence.identity)});
            return m_database.run(InsertImported, args).ok;
        }
        known->isKept = true;
        if (known->first == occurrence.first && known->last == occurrence.last &&
            known->name == occurrence.name)
            return true;
        isChanged = true;
        args.push_back(named("@id", known->id));
        return m_database.run(UpdateImported, args).ok;
    }

    bool isNew(const FileOccurrence& occurrence) const {
        const qint64 day = std::max(occurrence.first, occurrence.identity);
        return m_newDays->first <= day && day <= m_newDays->last;
    }

    bool removeRest(CalendarImport& done) {
        QSet<QString> ignored;
        for (const FileIgnored& event : m_file.ignored)
            ignored.insert(event.uid);
        for (auto rows = m_rows.cbegin(); rows != m_rows.cend(); ++rows) {
            const bool isGone = !m_written.contains(rows.key());
            if (isGone && ignored.contains(rows.key()))
                continue; // it is still there, and can't be read
            done.removed += isGone ? 1 : 0;
            for (const Row& row : rows->byOccurrence) {
                if (!row.isKept && !m_database.run(DeleteImported, {named("@id", row.id)}).ok)
                    return false;
            }
        }
        return true;
    }

    sqlite& m_database;
    const qint64 m_calendar;
    const CalendarFile& m_file;
    const std::optional<NewDays> m_newDays;
    QHash<QString, Rows> m_rows; ///< by UID
    QSet<QString> m_written;
};

bool keepFile(sqlite& database, qint64 calendar, const QByteArray& text, qint64 today) {
    return database.run(DeleteFile, {named("@calendar", calendar)}).ok &&
           (!text.contains("RRULE") ||
            database
                .run(InsertFile, {named("@calendar", calendar),
                                  {QStringLiteral("@body"), QString::fromUtf8(text)},
                                  named("@today", today)})
                .ok);
}

} // namespace

CalendarImport importCalendar(sqlite& database, qint64 calendar, const QByteArray& text) {
    CalendarImport done;
    const qint64 today = localToday();
    CalendarFile file = read(text, today);
    if (!file.refusal.isEmpty()) {
        done.outcome = text.size() > FileLimits::MaxBytes ? CalendarImport::Outcome::TooLarge
                                                          : CalendarImport::Outcome::Refused;
        done.refusal = file.refusal;
        return done;
    }
    const bool isDone = database.transaction([&] {
        return Merge(database, calendar, file).run(done) && keepFile(database, calendar, text, today);
    });
    if (isDone)
        done.outcome = CalendarImport::Outcome::Done;
    done.ignored = std::move(file.ignored);
    return done;
}

bool expandCalendars(sqlite& database) {
    const qint64 today = localToday();
    const SqlResult stale = database.run(SelectStale, {named("@today", today)});
    bool isDone = stale.ok;
    for (const auto& row : stale.rows) {
        const qint64 calendar = row.value(0).toLongLong();
        const NewDays days{lastDayOn(row.value(1).toLongLong()) + 1, lastDayOn(today)};
        const SqlResult body = database.run(SelectFile, {named("@calendar", calendar)});
        const CalendarFile file = read(body.text(0, "body").toUtf8(), today);
        if (!file.refusal.isEmpty())
            qWarning() << "calendar" << calendar << "could not be expanded:" << file.refusal;
        CalendarImport done;
        const bool isExpanded = body.ok && database.transaction([&] {
            return (!file.refusal.isEmpty() || Merge(database, calendar, file, days).run(done)) &&
                   database.run(MarkExpanded, {named("@calendar", calendar), named("@today", today)}).ok;
        });
        isDone = isDone && isExpanded;
    }
    return isDone;
}

std::optional<QByteArray> exportCalendar(sqlite& database, qint64 calendar, const QString& name) {
    const SqlResult rows = database.run(SelectAll, {named("@calendar", calendar)});
    if (!rows.ok)
        return std::nullopt;
    QHash<QString, int> occurrences; // by UID
    for (int row = 0; row < rows.rows.size(); ++row)
        ++occurrences[rows.text(row, "uid")];
    std::vector<WrittenEvent> events;
    for (int row = 0; row < rows.rows.size(); ++row) {
        QString uid = rows.text(row, "uid");
        if (uid.isEmpty())
            uid = QStringLiteral("entry-%1@speakerd").arg(rows.value(row, "id").toLongLong());
        else if (occurrences.value(uid) > 1)
            uid += QStringLiteral("-%1").arg(rows.value(row, "occurrence").toLongLong());
        events.push_back({uid, rows.text(row, "name"), rows.value(row, "firstday").toLongLong(),
                          rows.value(row, "lastday").toLongLong()});
    }
    return writeCalendarFile(name, events, QDateTime::currentSecsSinceEpoch());
}
