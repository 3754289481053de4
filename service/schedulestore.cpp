// Writing schedules.
#include "service/schedules.h"

#include "core/sql/sqlite.h"
#include "service/caller.h"
#include "service/speakers.h"
#include "service/visibility.h"

#include <algorithm>
#include <QHash>

namespace {

// The lists in the task's row are what the older paths keep there.
const QString InsertTask = QStringLiteral(
    "INSERT INTO task (userid, start_time, task_name, nodeid, len, enable, week, kind, startdate, enddate, "
    "groupid, fileids, snids) VALUES (@owner, @time, '@name', 1, @len, @enable, '@week', @kind, @from, "
    "@until, "
    "@plan, '@files', '@speakers') ;");
const QString UpdateTask = QStringLiteral(
    "UPDATE task SET start_time = @time, task_name = '@name', len = @len, enable = @enable, week = '@week', "
    "kind = @kind, startdate = @from, enddate = @until, groupid = @plan, fileids = '@files', snids = "
    "'@speakers' WHERE id = @id ;");
// NULL for what is not said: 0 of a calendar, -1 of a number.
const QString InsertRule = QStringLiteral(
    "INSERT INTO taskrule (taskid, calendarid, missed, localdates, everyone, whole, volume, priority) VALUES "
    "(@id, NULLIF(@calendar, 0), NULLIF(@missed, -1), @localdates, @everyone, @whole, NULLIF(@volume, -1), "
    "NULLIF(@priority, -1)) ;");
const QString DeleteRule = QStringLiteral("DELETE FROM taskrule WHERE taskid = @id ;");
const QString DeleteFiles = QStringLiteral("DELETE FROM taskfile WHERE taskid = @id ;");
const QString InsertFile = QStringLiteral("INSERT INTO taskfile (taskid, fileid) VALUES (@id, @member) ;");
const QString DeleteSpeakers = QStringLiteral("DELETE FROM taskseed WHERE taskid = @id ;");
const QString InsertSpeaker =
    QStringLiteral("INSERT INTO taskseed (taskid, devseedid) VALUES (@id, @member) ;");
const QString DeleteGroups = QStringLiteral("DELETE FROM taskaim WHERE taskid = @id ;");
const QString InsertGroup = QStringLiteral("INSERT INTO taskaim (taskid, gid) VALUES (@id, @member) ;");
const QString DeleteTask = QStringLiteral("DELETE FROM task WHERE id = @id ;");
const QString SelectAccount =
    QStringLiteral("SELECT master_id, mask, user_level FROM sbox_users WHERE id = @id ;");
const QString SelectLengths = QStringLiteral("SELECT id, len FROM userfile WHERE id IN (@ids) ;");
const QString SelectSounds = QStringLiteral("SELECT id, userid FROM userfile WHERE id IN (@ids) ;");

const QString SelectRequests = QStringLiteral(
    "SELECT id FROM taskpop WHERE taskid = @id and kind = '1' and (status = '1' or status = '@also') ;");
const QString SelectState = QStringLiteral("SELECT statu FROM task WHERE id = @id ;");
const QString InsertRequest = QStringLiteral("INSERT INTO taskpop (taskid, status, userid, kind, info) "
                                             "VALUES (@id, '@status', @owner, '1', 'webstart') ;");

constexpr int MaxLength = 86400; ///< s

SqlArg named(const char* name, qint64 value) {
    return {QLatin1String(name), value};
}

QString commaList(const QList<qint64>& ids) {
    QStringList texts;
    for (const qint64 id : ids)
        texts += QString::number(id);
    return texts.join(QLatin1Char(','));
}

std::optional<QList<qint64>> speakerIds(sqlite& database, const QStringList& serials) {
    const auto found = findSpeakers(database, serials);
    if (!found)
        return std::nullopt;
    QHash<QString, qint64> bySerial;
    for (const Speaker& speaker : *found)
        bySerial.insert(speaker.serial, speaker.id);
    QList<qint64> ids;
    for (const QString& serial : serials) {
        if (bySerial.contains(serial))
            ids += bySerial.value(serial);
    }
    return ids;
}

/// What the sounds take, `repeat` times; 1 s at least.
std::optional<int> lengthOf(sqlite& database, const Schedule& schedule) {
    if (schedule.seconds)
        return schedule.seconds;
    const SqlResult rows = database.run(SelectLengths, {{QStringLiteral("@ids"), schedule.sounds}});
    QHash<qint64, qint64> lengths;
    for (int row = 0; row < rows.rows.size(); ++row)
        lengths.insert(rows.value(row, "id").toLongLong(), rows.value(row, "len").toLongLong());
    qint64 seconds = 0;
    for (const qint64 sound : schedule.sounds)
        seconds += lengths.value(sound);
    seconds = std::clamp<qint64>(seconds * std::max(schedule.repeat, 1), 1, MaxLength);
    return rows.ok ? std::optional(static_cast<int>(seconds)) : std::nullopt;
}

bool replaceMembers(sqlite& database, qint64 id, const QString& remove, const QString& insert,
                    const QList<qint64>& members) {
    return database.run(remove, {named("@id", id)}).ok &&
           std::all_of(members.begin(), members.end(), [&](qint64 member) {
               return database.run(insert, {named("@id", id), named("@member", member)}).ok;
           });
}

bool storeRule(sqlite& database, const Schedule& schedule) {
    return database.run(DeleteRule, {named("@id", schedule.rule.id)}).ok &&
           database
               .run(InsertRule, {named("@id", schedule.rule.id), named("@calendar", schedule.rule.calendar),
                                 named("@missed", schedule.missed.within.value_or(-1)),
                                 named("@localdates", schedule.rule.localDates ? 1 : 0),
                                 named("@everyone", schedule.targets.isAll ? 1 : 0),
                                 named("@whole", schedule.seconds ? 0 : 1),
                                 named("@volume", schedule.volume.value_or(-1)),
                                 named("@priority", schedule.priority.value_or(-1))})
               .ok;
}

bool store(sqlite& database, Schedule& schedule) {
    const auto speakers = speakerIds(database, schedule.targets.speakers);
    const auto length = lengthOf(database, schedule);
    if (!speakers || !length)
        return false;
    SqlArgs args{named("@time", schedule.rule.startTime),
                 named("@len", *length),
                 named("@enable", schedule.isEnabled ? 1 : 0),
                 named("@kind", schedule.repeat),
                 named("@from", schedule.rule.startdate),
                 named("@until", schedule.rule.enddate),
                 named("@plan", schedule.rule.plan),
                 {QStringLiteral("@name"), schedule.name},
                 {QStringLiteral("@week"), schedule.rule.week},
                 {QStringLiteral("@files"), commaList(schedule.sounds)},
                 {QStringLiteral("@speakers"), commaList(*speakers)}};
    const bool isNew = schedule.rule.id == 0;
    args.push_back(isNew ? named("@owner", schedule.owner) : named("@id", schedule.rule.id));
    const SqlResult stored = database.run(isNew ? InsertTask : UpdateTask, args);
    if (isNew)
        schedule.rule.id = stored.lastId;
    const qint64 id = schedule.rule.id;
    return stored.ok && storeRule(database, schedule) &&
           replaceMembers(database, id, DeleteFiles, InsertFile, schedule.sounds) &&
           replaceMembers(database, id, DeleteSpeakers, InsertSpeaker, *speakers) &&
           replaceMembers(database, id, DeleteGroups, InsertGroup, schedule.targets.groups);
}

Asked ask(sqlite& database, const Schedule& schedule, const QString& status) {
    const bool isDone = database
                            .run(InsertRequest, {named("@id", schedule.rule.id),
                                                 named("@owner", schedule.owner),
                                                 {QStringLiteral("@status"), status}})
                            .ok;
    return isDone ? Asked::Done : Asked::Failed;
}

} // namespace

bool storeSchedule(sqlite& database, Schedule& schedule) {
    return database.transaction([&] { return store(database, schedule); });
}

bool removeSchedule(sqlite& database, qint64 id) {
    const auto isDone = [&](const QString& statement) {
        return database.run(statement, {named("@id", id)}).ok;
    };
    return database.transaction([&] {
        return isDone(DeleteTask) && isDone(DeleteRule) && isDone(DeleteFiles) && isDone(DeleteSpeakers) &&
               isDone(DeleteGroups);
    });
}

Asked askStart(sqlite& database, const Schedule& schedule) {
    const SqlArg id = named("@id", schedule.rule.id);
    const SqlResult requests =
        database.run(SelectRequests, {id, {QStringLiteral("@also"), QStringLiteral("2")}});
    const SqlResult state = database.run(SelectState, {id});
    if (!requests.ok || !state.ok)
        return Asked::Failed;
    if (!requests.isEmpty() || state.integer(0, "statu") != 0)
        return Asked::Busy;
    return ask(database, schedule, QStringLiteral("1"));
}

Asked askStop(sqlite& database, const Schedule& schedule) {
    return ask(database, schedule, QStringLiteral("2"));
}

std::optional<QSet<qint64>> soundsAmong(sqlite& database, const std::optional<QList<qint64>>& owners,
                                        const QList<qint64>& ids) {
    const SqlResult rows = database.run(SelectSounds, {{QStringLiteral("@ids"), ids}});
    QSet<qint64> found;
    for (int row = 0; row < rows.rows.size(); ++row) {
        if (!owners || owners->contains(rows.value(row, "userid").toLongLong()))
            found.insert(rows.value(row, "id").toLongLong());
    }
    return rows.ok ? std::optional(found) : std::nullopt;
}

std::optional<QStringList> speakersOf(sqlite& database, qint64 account, const Targets& targets) {
    const SqlResult row = database.run(SelectAccount, {named("@id", account)});
    if (!row.ok)
        return std::nullopt;
    Caller caller;
    caller.account = account;
    caller.master = row.value(0, "master_id").toLongLong();
    caller.mask = row.text(0, "mask");
    caller.isAdmin = row.integer(0, "user_level") == 1;
    return resolve(database, reachable(database, caller), targets);
}
