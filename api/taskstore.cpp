#include "api/taskstore.h"

#include "api/call.h"
#include "api/strictsql.h"
#include "tasks/schedule/tasktime.h"

#include <algorithm>
#include <QHash>

namespace {

const QString SelectOwnTask =
    QStringLiteral("select  * FROM  task where  userid = '@userid'  and  id = '@id';");
const QString SelectOwnFiles =
    QStringLiteral("SELECT * FROM  userfile where id in (@fidstr) and userid = '@userid';");
const QString SelectBusy = QStringLiteral(
    "select * from   `taskpop`,`task`  where  ( (`taskpop`.`userid` = '@userid'  and    `taskpop`.`status` "
    "!= 0  and `taskpop`.`taskid` = '@taskid' )  or (`task`.`userid` = '@userid'  and  `task`.`statu`  != 0 "
    "and  `task`.`id`  = '@taskid' ) );");
const QString InsertStart = QStringLiteral(
    "INSERT INTO  `taskpop` (`taskid`, `status`, `userid`, `kind`, `info`)             VALUES ('@taskid', "
    "'1', '@userid', '1', '@info');");

/// Seconds that the account's own files among these play, one after the other.
qint64 filesLength(const StrictSql& database, int userid, const QList<qint64>& files) {
    const SqlResult found = database.run(
        SelectOwnFiles, {{QStringLiteral("@fidstr"), files}, {QStringLiteral("@userid"), userid}});
    QHash<qint64, qint64> lengths;
    for (int row = 0; row < found.rows.size(); ++row)
        lengths.insert(found.value(row, "id").toLongLong(), found.integer(row, "len"));
    qint64 seconds = 0;
    for (const qint64 file : files)
        seconds += lengths.value(file);
    return seconds;
}

} // namespace

std::optional<int> playLength(const StrictSql& database, const Call& call, const QList<qint64>& files,
                              int times) {
    const int shortest = database.site.tasklenmin;
    if (call.text("len").isEmpty()) {
        const qint64 wanted = filesLength(database, call.userid(), files) * std::clamp(times, 1, 1000);
        return static_cast<int>(std::clamp<qint64>(wanted, std::min(shortest, MaxTaskLength), MaxTaskLength));
    }
    const int length = call.number("len");
    if (length < std::max(shortest, 1) || length > MaxTaskLength)
        return std::nullopt;
    return length;
}

SqlResult ownTask(const StrictSql& database, int userid, int taskid) {
    return database.run(SelectOwnTask,
                        {{QStringLiteral("@userid"), userid}, {QStringLiteral("@id"), taskid}});
}

QJsonObject taskObject(const SqlResult& tasks, int row) {
    QJsonObject task = tasks.object(row);
    task.insert(QStringLiteral("taskid"), tasks.integer(row, "id"));
    task.insert(QStringLiteral("tasktime"), timeOfSeconds(tasks.integer(row, "start_time")));
    for (const char* date : {"startdate", "enddate"})
        task.insert(QLatin1String(date), dateOfDays(tasks.value(row, date).toLongLong()));
    return task;
}

StartRequest requestStart(const StrictSql& database, int userid, int taskid, const QString& info) {
    const SqlResult task = ownTask(database, userid, taskid);
    if (task.ok && task.isEmpty())
        return StartRequest::NotOwn;
    const SqlArgs args{{QStringLiteral("@userid"), userid},
                       {QStringLiteral("@taskid"), taskid},
                       {QStringLiteral("@info"), info}};
    const SqlResult busy = database.run(SelectBusy, args);
    if (!task.ok || !busy.ok)
        return StartRequest::Failed;
    // The second test is for a request table that is empty: its join with the tasks has no row then.
    if (!busy.isEmpty() || task.integer(0, "statu") != 0)
        return StartRequest::Working;
    return database.run(InsertStart, args).ok ? StartRequest::Done : StartRequest::Failed;
}

QByteArray startReply(StartRequest outcome, const QJsonObject& done) {
    switch (outcome) {
    case StartRequest::Done:
        return success(done);
    case StartRequest::NotOwn:
        return refusal(QStringLiteral("ER_REJECT"));
    case StartRequest::Working:
        return refusal(QStringLiteral("Task is Working"));
    case StartRequest::Failed:
        break;
    }
    return refusal(QStringLiteral("ER_EXE"));
}
