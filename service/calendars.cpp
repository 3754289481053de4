#include "service/calendars.h"

#include "core/sql/sqlite.h"

namespace {

// Of one owner, or with @owner 0 of everybody.
const QString SelectCalendars = QStringLiteral(
    "SELECT id, userid, name FROM calendar WHERE id > @after and (@owner = 0 or userid = @owner) ORDER BY id "
    "LIMIT @most ;");
const QString SelectCalendar = QStringLiteral(
    "SELECT id, userid, name FROM calendar WHERE id = @id and (@owner = 0 or userid = @owner) ;");
const QString InsertCalendar =
    QStringLiteral("INSERT INTO calendar (userid, name) VALUES (@owner, '@name') ;");
const QString UpdateCalendar = QStringLiteral("UPDATE calendar SET name = '@name' WHERE id = @id ;");
const QString DeleteCalendar = QStringLiteral("DELETE FROM calendar WHERE id = @id ;");
const QString DeleteEntries = QStringLiteral("DELETE FROM calendarentry WHERE calendarid = @id ;");
const QString DeleteFile = QStringLiteral("DELETE FROM calendarfile WHERE calendarid = @id ;");
const QString SelectSchedules = QStringLiteral(
    "SELECT task.id FROM taskrule, task WHERE taskrule.calendarid = @id and task.id = taskrule.taskid "
    "ORDER BY task.id ;");

const QString SelectEntries = QStringLiteral("SELECT id, name, firstday, lastday, planid, uid FROM "
                                             "calendarentry WHERE calendarid = @calendar and id > "
                                             "@after ORDER BY id LIMIT @most ;");
const QString SelectEntry =
    QStringLiteral("SELECT id, name, firstday, lastday, planid, uid FROM calendarentry WHERE calendarid = "
                   "@calendar and id = @id ;");
// A plan of 0 is none.
const QString InsertEntry = QStringLiteral(
    "INSERT INTO calendarentry (calendarid, name, firstday, lastday, planid) VALUES (@calendar, '@name', "
    "@first, @last, NULLIF(@plan, 0)) ;");
const QString UpdateEntry =
    QStringLiteral("UPDATE calendarentry SET name = '@name', firstday = @first, lastday = @last, planid = "
                   "NULLIF(@plan, 0) WHERE id = @id ;");
const QString DeleteEntry = QStringLiteral("DELETE FROM calendarentry WHERE id = @id ;");

SqlArg named(const char* name, qint64 value) {
    return {QLatin1String(name), value};
}

Calendar calendarOf(const SqlResult& rows, int row) {
    return {rows.value(row, "id").toLongLong(), rows.value(row, "userid").toLongLong(),
            rows.text(row, "name")};
}

CalendarDates entryOf(const SqlResult& rows, int row) {
    const QVariant plan = rows.value(row, "planid");
    return {rows.value(row, "id").toLongLong(),
            rows.text(row, "name"),
            rows.value(row, "firstday").toLongLong(),
            rows.value(row, "lastday").toLongLong(),
            plan.isNull() ? std::nullopt : std::optional<qint64>(plan.toLongLong()),
            rows.text(row, "uid")};
}

SqlArgs argsOf(const CalendarDates& entry) {
    return {named("@first", entry.first),
            named("@last", entry.last),
            named("@plan", entry.plan.value_or(0)),
            {QStringLiteral("@name"), entry.name}};
}

template<typename Object>
std::optional<std::vector<Object>> all(const SqlResult& rows, Object (*read)(const SqlResult&, int)) {
    if (!rows.ok)
        return std::nullopt;
    std::vector<Object> found;
    for (int row = 0; row < rows.rows.size(); ++row)
        found.push_back(read(rows, row));
    return found;
}

template<typename Object>
std::optional<std::optional<Object>> one(const SqlResult& rows, Object (*read)(const SqlResult&, int)) {
    if (!rows.ok)
        return std::nullopt;
    return rows.isEmpty() ? std::optional<Object>() : std::optional<Object>(read(rows, 0));
}

} // namespace

std::optional<std::vector<Calendar>> listCalendars(sqlite& database, const Owner& owner, qint64 after,
                                                   int most) {
    return all(database.run(SelectCalendars, {named("@after", after), named("@owner", owner.value_or(0)),
                                              named("@most", most)}),
               calendarOf);
}

std::optional<std::optional<Calendar>> findCalendar(sqlite& database, const Owner& owner, qint64 id) {
    return one(database.run(SelectCalendar, {named("@id", id), named("@owner", owner.value_or(0))}),
               calendarOf);
}

std::optional<qint64> addCalendar(sqlite& database, qint64 owner, const QString& name) {
    const SqlResult added =
        database.run(InsertCalendar, {named("@owner", owner), {QStringLiteral("@name"), name}});
    return added.ok ? std::optional<qint64>(added.lastId) : std::nullopt;
}

bool renameCalendar(sqlite& database, qint64 id, const QString& name) {
    return database.run(UpdateCalendar, {named("@id", id), {QStringLiteral("@name"), name}}).ok;
}

bool removeCalendar(sqlite& database, qint64 id) {
    return database.transaction([&] {
        return database.run(DeleteEntries, {named("@id", id)}).ok &&
               database.run(DeleteFile, {named("@id", id)}).ok &&
               database.run(DeleteCalendar, {named("@id", id)}).ok;
    });
}

std::optional<QList<qint64>> schedulesBy(sqlite& database, qint64 calendar) {
    const SqlResult rows = database.run(SelectSchedules, {named("@id", calendar)});
    QList<qint64> ids;
    for (const auto& row : rows.rows)
        ids += row.first().toLongLong();
    return rows.ok ? std::optional(ids) : std::nullopt;
}

std::optional<std::vector<CalendarDates>> listEntries(sqlite& database, qint64 calendar, qint64 after,
                                                      int most) {
    return all(database.run(SelectEntries,
                            {named("@calendar", calendar), named("@after", after), named("@most", most)}),
               entryOf);
}

std::optional<std::optional<CalendarDates>> findEntry(sqlite& database, qint64 calendar, qint64 id) {
    return one(database.run(SelectEntry, {named("@calendar", calendar), named("@id", id)}), entryOf);
}

bool addEntry(sqlite& database, qint64 calendar, CalendarDates& entry) {
    SqlArgs args = argsOf(entry);
    args.push_back(named("@calendar", calendar));
    const SqlResult added = database.run(InsertEntry, args);
    entry.id = added.lastId;
    return added.ok;
}

bool changeEntry(sqlite& database, const CalendarDates& entry) {
    SqlArgs args = argsOf(entry);
    args.push_back(named("@id", entry.id));
    return database.run(UpdateEntry, args).ok;
}

bool removeEntry(sqlite& database, qint64 id) {
    return database.run(DeleteEntry, {named("@id", id)}).ok;
}
