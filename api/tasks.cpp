// Endpoints for scheduled tasks.
#include "api/dumpcontroller_add_user.h"

#include "api/requestmapper.h"
#include "api/strictsql.h"
#include "api/taskstore.h"
#include "core/loop/mainloop.h"
#include "device/severinit.h"
#include "tasks/ownership.h"
#include "tasks/schedule/tasktime.h"
#include "tasks/task_workque.h"

#include <QDebug>
#include <QJsonArray>
#include <QSet>
#include <QVector>

namespace {

const QString EveryDay = QStringLiteral("1111111");

const QString InsertTask = QStringLiteral(
    "INSERT INTO  `task`            (`userid`, `start_time`, `task_name`, `nodeid`, `len`, `enable`, `week`, "
    "`kind`, `startdate`, `enddate` ,`jiange`, `fileids` ,`snids`) VALUES             ('@user_id', "
    "'@start_time', '@task_name', '1', '@len', '@enable', '@week', '@kind', '@startdate', '@enddate', "
    "'@jiange', '@fileids', '@snids');");
const QString SelectTasks =
    QStringLiteral("SELECT * FROM  task where  userid =  '@userid' order by groupid , start_time;");
const QString DeleteTask = QStringLiteral("DELETE FROM  task where  userid = '@userid'  and id = '@id';");
const QString EnableTask = QStringLiteral(
    "UPDATE  `task` SET `enable` = '1' WHERE ( `userid` = '@userid'   and  `id` = '@taskid');");
const QString DisableTask = QStringLiteral(
    "UPDATE  `task` SET `enable` = '0' WHERE ( `userid` = '@userid'   and  `id` = '@taskid');");
const QString SelectRequests = QStringLiteral(
    "select * from   `taskpop`  where  (  `taskpop`.`userid` = '@userid'  and    `taskpop`.`status` != 0 );");
const QString SelectPlaying = QStringLiteral(
    "select * from   `task`  where  (  `task`.`userid` = '@userid'  and  `task`.`statu`   =  1   );");
const QString InsertStop = QStringLiteral(
    "INSERT INTO  `taskpop` (`taskid`, `status`, `userid`, `kind`, `info`)             VALUES ('@taskid', "
    "'2', '@userid', '1', 'webstart');");

/// What a task consists of besides its row: its speakers or its files.
struct Members {
    QString placeholder; ///< of one id
    QString insertNew;   ///< for a new task
    QString insert;
    QString remove;
    QString select;
    QString keep;       ///< the list kept in the task's row
    const char* column; ///< of the link row: the speaker's or file's id
    std::optional<QSet<qint64>> (*own)(sqlite& database, int userid, const QList<qint64>& ids);
};
const Members Devices{
    QStringLiteral("@snid"),
    QStringLiteral("INSERT INTO  `taskseed` (`taskid`, `devseedid`) VALUES ( @taskid , @snid );"),
    QStringLiteral("INSERT INTO  `taskseed` (`taskid`, `devseedid`) VALUES ( '@taskid' , '@snid' ) ;"),
    QStringLiteral("DELETE FROM  `taskseed` WHERE ( `taskid` = '@taskid' );"),
    QStringLiteral("SELECT * FROM  sbox_device_info,taskseed where taskseed.devseedid = sbox_device_info.id "
                   "and taskseed.taskid  =  '@taskid' order by taskseed.id ;"),
    QStringLiteral("UPDATE `task` SET `snids` = '@list' WHERE (`id` = '@taskid');"),
    "devseedid",
    ownDevices};
const Members Files{
    QStringLiteral("@fileid"),
    QStringLiteral("INSERT INTO  `taskfile` (`taskid`, `fileid`) VALUES ( @taskid , @fileid );"),
    QStringLiteral("INSERT INTO  `taskfile` (`taskid`, `fileid`) VALUES ( '@taskid' , '@fileid' ) ;"),
    QStringLiteral("DELETE FROM  `taskfile` WHERE ( `taskid` = '@taskid'  );"),
    QStringLiteral("SELECT * FROM  userfile,taskfile where taskfile.fileid= userfile.id and taskfile.taskid  "
                   "= '@taskid' order by taskfile.id ;"),
    QStringLiteral("UPDATE `task` SET `fileids` = '@list' WHERE (`id` = '@taskid');"),
    "fileid",
    ownFiles};
const QString DeleteFiles = QStringLiteral("DELETE FROM  `taskfile` WHERE (`taskid` = '@taskid');");
const QString DeleteRule = QStringLiteral("DELETE FROM `taskrule` WHERE (`taskid` = '@taskid');");
const QString DeleteGroups = QStringLiteral("DELETE FROM `taskaim` WHERE (`taskid` = '@taskid');");
const QString DeleteDevices = QStringLiteral("DELETE FROM  `taskseed` WHERE (`taskid` = '@taskid');");

bool insertAll(const StrictSql& database, const QString& statement, const Members& members, qint64 taskid,
               const QList<qint64>& ids) {
    for (const qint64 id : ids) {
        if (!database.run(statement, {{QStringLiteral("@taskid"), taskid}, {members.placeholder, id}}).ok)
            return false;
    }
    return true;
}

bool replaceAll(const StrictSql& database, const Members& members, int taskid, const QList<qint64>& ids) {
    const SqlArg task{QStringLiteral("@taskid"), taskid};
    return database.run(members.remove, {task}).ok &&
           insertAll(database, members.insert, members, taskid, ids) &&
           database.run(members.keep, {task, {QStringLiteral("@list"), commaList(ids)}}).ok;
}

/// A speaker named twice is one speaker; a file named twice plays twice.
QList<qint64> withoutRepeats(const QList<qint64>& ids) {
    QList<qint64> once;
    QSet<qint64> seen;
    for (const qint64 id : ids) {
        if (!seen.contains(id))
            once += id;
        seen.insert(id);
    }
    return once;
}

/// Null when a task may hold these members, else the refusal's word.
const char* membersFault(const StrictSql& database, int userid, const Members& members,
                         const QList<qint64>& ids) {
    if (!isOwnOnly(database))
        return nullptr;
    const auto own = members.own(database, userid, ids);
    if (!own)
        return "ER_EXE";
    return std::all_of(ids.begin(), ids.end(), [&](qint64 id) { return own->contains(id); }) ? nullptr
                                                                                             : "ER_REJECT";
}

/// The rows of a task's members that its account may see, with "id" the member's own, not the link row's.
std::optional<QVector<QJsonObject>> memberRows(const StrictSql& database, int userid, const Members& members,
                                               int taskid) {
    const SqlResult found = database.run(members.select, {{QStringLiteral("@taskid"), taskid}});
    QList<qint64> ids;
    for (int row = 0; row < found.rows.size(); ++row)
        ids += found.value(row, members.column).toLongLong();
    std::optional<QSet<qint64>> own;
    if (isOwnOnly(database))
        own = members.own(database, userid, ids);
    if (!found.ok || (isOwnOnly(database) && !own))
        return std::nullopt;
    QVector<QJsonObject> rows;
    for (int row = 0; row < ids.size(); ++row) {
        if (own && !own->contains(ids.at(row)))
            continue;
        rows += found.object(row);
        rows.last().insert(QStringLiteral("id"), ids.at(row));
    }
    return rows;
}

// --- edit_task: one clause for each parameter that is there ---

struct Limits {
    int shortest; ///< seconds
};

struct EditField {
    const char* name;
    const char* clause;
    const char* placeholder;
    const char* refusal; ///< for a value that does not convert
    std::optional<SqlValue> (*convert)(const QString& text, const Limits& limits);
};

std::optional<SqlValue> asText(const QString& text, const Limits& /*limits*/) {
    return text;
}
std::optional<SqlValue> asNumber(const QString& text, const Limits& /*limits*/) {
    return qint64{text.toInt()};
}
std::optional<SqlValue> asFlag(const QString& text, const Limits& /*limits*/) {
    return qint64{text.toInt() != 0};
}
std::optional<SqlValue> asTime(const QString& text, const Limits& /*limits*/) {
    const auto seconds = secondsOfTime(text);
    if (!seconds)
        qInfo() << "start_time h:m:s" << text;
    return seconds ? std::optional<SqlValue>(qint64{*seconds}) : std::nullopt;
}
std::optional<SqlValue> asDate(const QString& text, const Limits& /*limits*/) {
    const auto days = daysOfDate(text);
    return days ? std::optional<SqlValue>(*days) : std::nullopt;
}
std::optional<SqlValue> asWeek(const QString& text, const Limits& /*limits*/) {
    const QString week = text.isEmpty() ? EveryDay : text;
    return isWeek(week) ? std::optional<SqlValue>(week) : std::nullopt;
}
std::optional<SqlValue> asLength(const QString& text, const Limits& limits) {
    const int length = text.toInt();
    return length >= limits.shortest && length <= MaxTaskLength ? std::optional<SqlValue>(qint64{length})
                                                                : std::nullopt;
}
std::optional<SqlValue> asKind(const QString& text, const Limits& /*limits*/) {
    const int kind = text.toInt();
    return kind == 1 || kind == 2 ? std::optional<SqlValue>(qint64{kind}) : std::nullopt;
}

constexpr EditField EditFields[] = {
    {"start_time", " `start_time` = '@start_time' ,", "@start_time", "Paruser", asTime},
    {"task_name", " `task_name` = '@task_name' ,", "@task_name", "Paruser", asText},
    {"len", " `len` = 'DQQQlen' ,", "DQQQlen", "_FALSE7", asLength},
    {"week", " `week` = '@week' ,", "@week", "Paruser", asWeek},
    {"kind", " `kind` = '@kind' ,", "@kind", "_FALSE7", asKind},
    {"jiange", " `jiange` = '@jiange' ,", "@jiange", "Paruser", asNumber},
    {"enable", " `enable` = '@enable' ,", "@enable", "Paruser", asFlag},
    {"statu", " `statu` = '@statu' ,", "@statu", "Paruser", asFlag},
    {"startdate", " `startdate` = '@startdate' ,", "@startdate", "Paruser", asDate},
    {"enddate", " `enddate` = '@enddate' ,", "@enddate", "Paruser", asDate},
};

/// A new task's row, but for its speakers and files. Null when it is complete, else the refusal's word.
const char* readNewTask(const StrictSql& database, const Call& call, const QList<qint64>& files,
                        SqlArgs& row) {
    const auto start = secondsOfTime(call.text("start_time"));
    if (!start) {
        qInfo() << "start_time h:m:s" << call.text("start_time");
        return "Paruser";
    }
    const auto from = daysOfDate(call.text("startdate"));
    const auto to = daysOfDate(call.text("enddate"));
    const QString week = call.text("weeks").isEmpty() ? EveryDay : call.text("weeks");
    if (!from || !to || !isWeek(week))
        return "Paruser";
    bool isNumber = true;
    const int kind = call.text("kind").isEmpty() ? 1 : call.text("kind").toInt(&isNumber);
    const auto length = playLength(database, call, files, kind);
    if (!isNumber || kind < 0 || !length)
        return "_FALSE7";
    row = {{QStringLiteral("@user_id"), call.userid()},
           {QStringLiteral("@start_time"), *start},
           {QStringLiteral("@task_name"), call.text("task_name")},
           {QStringLiteral("@len"), *length},
           {QStringLiteral("@enable"), 1},
           {QStringLiteral("@week"), week},
           {QStringLiteral("@kind"), kind},
           {QStringLiteral("@startdate"), *from},
           {QStringLiteral("@enddate"), *to},
           {QStringLiteral("@jiange"), call.number("jiange")}};
    return nullptr;
}

/// Reply of the statements that tell how many rows they changed.
QByteArray rowsReply(const SqlResult& result) {
    if (!result.ok)
        return reply({{QStringLiteral("res"), false}, {QStringLiteral("dbk"), 0}});
    return reply({{QStringLiteral("res"), true}, {QStringLiteral("EF"), result.affected}});
}

} // namespace

QByteArray DumpController_add_user::user_add_task(const Call& call) {
    const auto devices = idList(call.text("snids"));
    const auto files = idList(call.text("fileids"));
    if (!devices || !files)
        return refusal(QStringLiteral("Paruser"));
    SqlArgs row;
    if (const char* word = readNewTask(db(), call, *files, row))
        return refusal(QLatin1String(word));
    const QList<qint64> speakers = withoutRepeats(*devices);
    for (const char* word : {membersFault(db(), call.userid(), Devices, speakers),
                             membersFault(db(), call.userid(), Files, *files)}) {
        if (word)
            return refusal(QLatin1String(word));
    }
    row.emplace_back(QStringLiteral("@fileids"), commaList(*files));
    row.emplace_back(QStringLiteral("@snids"), commaList(speakers));

    SqlResult task;
    const bool stored = db().transaction([&] {
        task = db().run(InsertTask, row);
        return task.ok && insertAll(db(), Devices.insertNew, Devices, task.lastId, speakers) &&
               insertAll(db(), Files.insertNew, Files, task.lastId, *files);
    });
    if (!task.ok)
        return refusal(QStringLiteral("ER_EXE3"));
    if (!stored)
        return reply({{QStringLiteral("res"), false},
                      {QStringLiteral("info"), QStringLiteral("ER_")},
                      {QStringLiteral("dbk"), 0}});
    return success({{QStringLiteral("taskid"), task.lastId}});
}

QByteArray DumpController_add_user::user_get_tasklist(const Call& call) {
    const SqlResult tasks = db().run(SelectTasks, {{QStringLiteral("@userid"), call.userid()}});
    if (!tasks.ok)
        return refusal(QStringLiteral("ER_EXE"));
    QJsonArray list;
    for (int row = 0; row < tasks.rows.size(); ++row)
        list.append(taskObject(tasks, row));
    return reply({{QStringLiteral("res"), true}, {QStringLiteral("taskary"), list}});
}

QByteArray DumpController_add_user::user_get_task(const Call& call) {
    const SqlResult task = ownTask(db(), call.userid(), call.number("taskid"));
    if (!task.ok)
        return refusal(QStringLiteral("ER_EXE"));
    if (task.isEmpty())
        return refusal(QStringLiteral("ER_REJECT"));
    const auto files = memberRows(db(), call.userid(), Files, call.number("taskid"));
    const auto devices = memberRows(db(), call.userid(), Devices, call.number("taskid"));
    if (!files || !devices)
        return refusal(QStringLiteral("ER_EXE"));

    QJsonArray fileList;
    for (QJsonObject file : *files) {
        file.insert(QStringLiteral("filenamebase64"),
                    file.value(QLatin1String("filename"))); // stored that way
        fileList.append(file);
    }
    QJsonArray deviceList;
    for (QJsonObject device : *devices) {
        const QByteArray name = device.value(QLatin1String("device_name")).toString().toUtf8();
        device.insert(QStringLiteral("device_namebase64"), QString::fromLatin1(name.toBase64()));
        deviceList.append(device);
    }
    QJsonObject answer = taskObject(task, 0);
    answer.insert(QStringLiteral("res"), true);
    answer.insert(QStringLiteral("info"), QStringLiteral("SUC"));
    answer.insert(QStringLiteral("filelistary"), fileList);
    answer.insert(QStringLiteral("devlistary"), deviceList);
    return reply(answer);
}

QByteArray DumpController_add_user::user_edit_task_(const Call& call) {
    const Limits limits{std::max(db().site.tasklenmin, 1)};
    QString statement = QStringLiteral("UPDATE  `task` SET  ");
    SqlArgs args{{QStringLiteral("@taskid"), call.number("taskid")},
                 {QStringLiteral("@userid"), call.userid()}};
    for (const EditField& field : EditFields) {
        if (!call.has(field.name))
            continue;
        const auto value = field.convert(call.text(field.name), limits);
        if (!value)
            return refusal(QLatin1String(field.refusal));
        statement += QLatin1String(field.clause);
        std::visit([&](const auto& v) { args.emplace_back(QLatin1String(field.placeholder), v); }, *value);
    }
    if (statement.endsWith(QLatin1Char(',')))
        statement.chop(1);
    statement += QStringLiteral(" WHERE (`id` = '@taskid' and  `userid` = '@userid' );");
    const ShownResult edited = db().run(statement, args);
    if (!edited.ok)
        return reply({{QStringLiteral("res"), false},
                      {QStringLiteral("info"), QStringLiteral("ER_EXE")},
                      {QStringLiteral("sqline"), edited.sql}});
    return rowsReply(edited);
}

namespace {

QByteArray editMembers(const Call& call, const StrictSql& database, const char* parameter,
                       const Members& members) {
    auto ids = idList(call.text(parameter));
    if (!ids)
        return refusal(QStringLiteral("Parer"));
    if (&members == &Devices)
        ids = withoutRepeats(*ids);
    const int taskid = call.number("taskid");
    const SqlResult task = ownTask(database, call.userid(), taskid);
    if (task.ok && task.isEmpty())
        return refusal(QStringLiteral("ER_REJECT"));
    if (const char* word = membersFault(database, call.userid(), members, *ids))
        return refusal(QLatin1String(word));
    if (!task.ok || !database.transaction([&] { return replaceAll(database, members, taskid, *ids); }))
        return refusal(QStringLiteral("ER_EXE"));
    return success();
}

} // namespace

QByteArray DumpController_add_user::user_edit_task_devs(const Call& call) {
    return editMembers(call, db(), "snids", Devices);
}

QByteArray DumpController_add_user::user_edit_task_files(const Call& call) {
    return editMembers(call, db(), "fileids", Files);
}

namespace {

/// The task is gone and shall be heard no more. A queue on another node takes requests only.
void endPlay(Task_workque* tasks, const StrictSql& database, int userid, int taskid) {
    if (tasks)
        callOnLoop(tasks, [=] { tasks->endTask(static_cast<quint64>(taskid)); });
    else
        database.run(InsertStop, {{QStringLiteral("@taskid"), taskid}, {QStringLiteral("@userid"), userid}});
}

} // namespace

QByteArray DumpController_add_user::user_DEL_task(const Call& call) {
    const SqlArgs args{{QStringLiteral("@userid"), call.userid()},
                       {QStringLiteral("@id"), call.number("taskid")},
                       {QStringLiteral("@taskid"), call.number("taskid")}};
    SqlResult removed;
    const bool done = db().transaction([&] {
        removed = db().run(DeleteTask, args);
        return removed.ok && removed.affected > 0 && db().run(DeleteFiles, args).ok &&
               db().run(DeleteDevices, args).ok && db().run(DeleteRule, args).ok &&
               db().run(DeleteGroups, args).ok;
    });
    if (removed.ok && removed.affected == 0)
        return refusal(QStringLiteral("ER_REJECT"));
    if (done)
        endPlay(m_tasks, db(), call.userid(), call.number("taskid"));
    return done ? success() : refusal(QStringLiteral("ER_EXE"));
}

QByteArray DumpController_add_user::user_enable_task(const Call& call) {
    return rowsReply(db().run(EnableTask, {{QStringLiteral("@userid"), call.userid()},
                                           {QStringLiteral("@taskid"), call.number("taskid")}}));
}

QByteArray DumpController_add_user::user_disable_task(const Call& call) {
    return rowsReply(db().run(DisableTask, {{QStringLiteral("@userid"), call.userid()},
                                            {QStringLiteral("@taskid"), call.number("taskid")}}));
}

QByteArray DumpController_add_user::user_start_task(const Call& call) {
    return startReply(requestStart(db(), call.userid(), call.number("taskid"), QStringLiteral("webstart")));
}

namespace {

/// Why a task can't be stopped, in the words for it; null when it can.
const char* stopRefusal(const StrictSql& database, int userid, int taskid) {
    const SqlArgs user{{QStringLiteral("@userid"), userid}};
    const SqlResult requests = database.run(SelectRequests, user);
    if (!requests.ok)
        return "fuckU_ass_hole2";
    for (int row = 0; row < requests.rows.size(); ++row) {
        if (requests.integer(row, "taskid") == taskid && requests.text(row, "kind") == QLatin1String("1") &&
            requests.text(row, "status") == QLatin1String("2"))
            return "fuckU_ass_hole1";
    }
    const SqlResult playing = database.run(SelectPlaying, user);
    if (!playing.ok)
        return "fuckU_ass_hole3";
    for (int row = 0; row < playing.rows.size(); ++row) {
        if (playing.integer(row, "id") == taskid)
            return nullptr;
    }
    return "fuckU_ass_hole";
}

} // namespace

QByteArray DumpController_add_user::user_stop_task(const Call& call) {
    const int taskid = call.number("taskid");
    const SqlResult task = ownTask(db(), call.userid(), taskid);
    if (task.ok && task.isEmpty())
        return refusal(QStringLiteral("ER_REJECT"));
    if (const char* word = stopRefusal(db(), call.userid(), taskid))
        return refusal(QLatin1String(word));
    const SqlResult asked = db().run(
        InsertStop, {{QStringLiteral("@taskid"), taskid}, {QStringLiteral("@userid"), call.userid()}});
    return asked.ok ? success() : refusal(QStringLiteral("ER_EXE"));
}

QByteArray DumpController_add_user::user_taskconfigini(const Call& call) {
    if (!call.has("sskey"))
        return refusal(QStringLiteral("ParER"));
    if (!m_devices->matchesServiceKey(call.text("sskey")))
        return refusal(QStringLiteral("sskey_ER"));
    return success({{QStringLiteral("task_minilen"), db().site.tasklenmin},
                    {QStringLiteral("task_maxlen"), MaxTaskLength}});
}
