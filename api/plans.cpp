// Endpoints for plans: named groups of tasks.
#include "api/dumpcontroller_add_user.h"

#include "api/requestmapper.h"
#include "api/strictsql.h"

#include <QHash>
#include <QJsonArray>

namespace {

const QString InsertPlan =
    QStringLiteral("INSERT INTO  `taskgroup` (`userid`, `groupname`) VALUES ('@user_id', '@gnames');");
const QString EmptyPlan = QStringLiteral(
    "UPDATE  `task` SET `groupid` = '0' WHERE (`groupid` = '@pid' and  `userid` = '@userid'  and id > 0);");
const QString DeletePlan =
    QStringLiteral("DELETE FROM  `taskgroup` WHERE (`id` = '@pid' and  `userid` = '@userid' );");
const QString DeleteRule = QStringLiteral("DELETE FROM `planrule` WHERE (`planid` = '@pid');");
const QString SelectPlans = QStringLiteral("SELECT * FROM  taskgroup  where userid = '@userid' ;");
const QString SelectTasks =
    QStringLiteral("SELECT * FROM  task where  userid =  '@userid' order by groupid , start_time;");
const QString PutTask = QStringLiteral(
    "UPDATE  `task` SET `groupid` = '@pid' WHERE (`id` = '@taskid' and  `userid` = '@userid' );");
const QString EnablePlan = QStringLiteral(
    "UPDATE  `task` SET `enable` = '1'  WHERE (`groupid` = '@pid'  and  `userid` = '@userid' );");
const QString DisablePlan = QStringLiteral(
    "UPDATE  `task` SET `enable` = '0'  WHERE (`groupid` = '@pid'  and  `userid` = '@userid' );");

SqlArgs planArgs(const Call& call) {
    return {{QStringLiteral("@pid"), call.number("pid")}, {QStringLiteral("@userid"), call.userid()}};
}

QByteArray rowsReply(const SqlResult& result) {
    if (!result.ok)
        return reply({{QStringLiteral("res"), false}, {QStringLiteral("dbk"), 0}});
    return success({{QStringLiteral("EF"), result.affected}});
}

/// Switches every task of a plan. Number 0 names the tasks without a plan, which are not one.
QByteArray switchPlan(const Call& call, const StrictSql& database, const QString& statement) {
    if (call.number("pid") < 1)
        return refusal(QStringLiteral("ER_REJECT"));
    return rowsReply(database.run(statement, planArgs(call)));
}

} // namespace

QByteArray DumpController_add_user::user_addplant(const Call& call) {
    const SqlResult added = db().run(InsertPlan, {{QStringLiteral("@user_id"), call.userid()},
                                                  {QStringLiteral("@gnames"), call.text("pname")}});
    if (!added.ok)
        return refusal(QStringLiteral("ER_EXE"));
    return success({{QStringLiteral("pid"), added.lastId}});
}

QByteArray DumpController_add_user::user_deleteplant(const Call& call) {
    SqlResult removed;
    const bool done = db().transaction([&] {
        if (!db().run(EmptyPlan, planArgs(call)).ok)
            return false;
        removed = db().run(DeletePlan, planArgs(call));
        return removed.ok && (removed.affected == 0 || db().run(DeleteRule, planArgs(call)).ok);
    });
    if (!done)
        return refusal(QStringLiteral("ER_EXE"));
    return removed.affected == 0 ? refusal(QStringLiteral("ER_REJECT")) : rowsReply(removed);
}

QByteArray DumpController_add_user::user_listtaskplant(const Call& call) {
    const SqlArgs user{{QStringLiteral("@userid"), call.userid()}};
    const SqlResult plans = db().run(SelectPlans, user);
    const SqlResult tasks = db().run(SelectTasks, user);
    if (!plans.ok || !tasks.ok)
        return refusal(QStringLiteral("ER_EXE"));
    QHash<int, QJsonArray> taskids;
    for (int row = 0; row < tasks.rows.size(); ++row)
        taskids[tasks.integer(row, "groupid")].append(tasks.integer(row, "id"));
    QJsonArray list;
    for (int row = 0; row < plans.rows.size(); ++row) {
        const QString name = plans.text(row, "groupname");
        list.append(QJsonObject{
            {QStringLiteral("pid"), plans.integer(row, "id")},
            {QStringLiteral("groupname"), name},
            {QStringLiteral("pnameb64"), QString::fromLatin1(name.toUtf8().toBase64())},
            {QStringLiteral("taskids"), taskids.value(plans.integer(row, "id"))},
        });
    }
    return success({{QStringLiteral("plantary"), list}});
}

QByteArray DumpController_add_user::user_edittaskplant(const Call& call) {
    SqlArgs args = planArgs(call);
    args.emplace_back(QStringLiteral("@taskid"), call.number("taskid"));
    return rowsReply(db().run(PutTask, args));
}

QByteArray DumpController_add_user::user_enabletaskplant(const Call& call) {
    return switchPlan(call, db(), EnablePlan);
}

QByteArray DumpController_add_user::user_disabletaskplant(const Call& call) {
    return switchPlan(call, db(), DisablePlan);
}
