#include "service/plans.h"

#include "core/sql/sqlite.h"

namespace {

const QString Columns = QStringLiteral(
    "SELECT taskgroup.id AS id, taskgroup.userid AS userid, taskgroup.groupname AS groupname, "
    "planrule.exceptional AS exceptional FROM taskgroup LEFT JOIN planrule ON planrule.planid = "
    "taskgroup.id WHERE (@owner = 0 or taskgroup.userid = @owner) and ");
const QString SelectPlans =
    Columns + QStringLiteral("taskgroup.id > @after ORDER BY taskgroup.id LIMIT @most ;");
const QString SelectPlan = Columns + QStringLiteral("taskgroup.id = @id ;");
const QString InsertPlan =
    QStringLiteral("INSERT INTO taskgroup (userid, groupname) VALUES (@owner, '@name') ;");
const QString UpdatePlan = QStringLiteral("UPDATE taskgroup SET groupname = '@name' WHERE id = @id ;");
const QString DeleteRule = QStringLiteral("DELETE FROM planrule WHERE planid = @id ;");
const QString InsertRule =
    QStringLiteral("INSERT INTO planrule (planid, exceptional) VALUES (@id, @exceptional) ;");
const QString FreeSchedules = QStringLiteral("UPDATE task SET groupid = 0 WHERE groupid = @id ;");
const QString DeletePlan = QStringLiteral("DELETE FROM taskgroup WHERE id = @id ;");
const QString SelectNaming = QStringLiteral("SELECT id FROM calendarentry WHERE planid = @id LIMIT 1 ;");

SqlArg named(const char* name, qint64 value) {
    return {QLatin1String(name), value};
}

SchedulePlan planOf(const SqlResult& rows, int row) {
    return {rows.value(row, "id").toLongLong(), rows.value(row, "userid").toLongLong(),
            rows.text(row, "groupname"), rows.integer(row, "exceptional") != 0};
}

bool storeRule(sqlite& database, const SchedulePlan& plan) {
    return database.run(DeleteRule, {named("@id", plan.id)}).ok &&
           (!plan.isExceptional ||
            database.run(InsertRule, {named("@id", plan.id), named("@exceptional", 1)}).ok);
}

} // namespace

std::optional<std::vector<SchedulePlan>> listPlans(sqlite& database, const Owner& owner, qint64 after,
                                                   int most) {
    const SqlResult rows = database.run(
        SelectPlans, {named("@owner", owner.value_or(0)), named("@after", after), named("@most", most)});
    std::vector<SchedulePlan> plans;
    for (int row = 0; row < rows.rows.size(); ++row)
        plans.push_back(planOf(rows, row));
    return rows.ok ? std::optional(plans) : std::nullopt;
}

std::optional<std::optional<SchedulePlan>> findPlan(sqlite& database, const Owner& owner, qint64 id) {
    const SqlResult rows = database.run(SelectPlan, {named("@owner", owner.value_or(0)), named("@id", id)});
    if (!rows.ok)
        return std::nullopt;
    return rows.isEmpty() ? std::optional<SchedulePlan>() : std::optional<SchedulePlan>(planOf(rows, 0));
}

bool storePlan(sqlite& database, SchedulePlan& plan) {
    return database.transaction([&] {
        const SqlArg name{QStringLiteral("@name"), plan.name};
        const SqlResult stored = plan.id == 0 ? database.run(InsertPlan, {named("@owner", plan.owner), name})
                                              : database.run(UpdatePlan, {named("@id", plan.id), name});
        if (plan.id == 0)
            plan.id = stored.lastId;
        return stored.ok && storeRule(database, plan);
    });
}

bool removePlan(sqlite& database, qint64 id) {
    return database.transaction([&] {
        return database.run(FreeSchedules, {named("@id", id)}).ok &&
               database.run(DeleteRule, {named("@id", id)}).ok &&
               database.run(DeletePlan, {named("@id", id)}).ok;
    });
}

std::optional<bool> isPlanNamed(sqlite& database, qint64 id) {
    const SqlResult rows = database.run(SelectNaming, {named("@id", id)});
    return rows.ok ? std::optional(!rows.isEmpty()) : std::nullopt;
}
