#include "core/schemaupgrade.h"

#include "core/sqlite.h"

#include <algorithm>
#include <iterator>
#include <optional>
#include <QDebug>

namespace {

/// An index that has taken another's place: rows of a list in the order in which they were put there.
struct Replaced {
    const char* table;
    const char* index;
    const char* columns;
    const char* before;
};
constexpr Replaced Indexes[] = {{"taskfile", "taskfile_list", "`taskid`, `id`", "taskfile_task"},
                                {"taskseed", "taskseed_list", "`taskid`, `id`", "taskseed_task"}};

/// Whether there is such an index; with an empty name whether there is the table. Nothing when the
/// database does not answer.
std::optional<bool> exists(sqlite& database, const char* table, const char* index) {
    const bool ofTable = *index == '\0';
    QString statement;
    if (database.dialect() == SqlDialect::Sqlite)
        statement =
            QStringLiteral("SELECT name FROM sqlite_master WHERE tbl_name = '@table' and name = '@name'");
    else if (ofTable)
        statement = QStringLiteral("SELECT table_name FROM information_schema.tables WHERE table_schema = "
                                   "database() and table_name = '@table'");
    else
        statement =
            QStringLiteral("SELECT index_name FROM information_schema.statistics WHERE table_schema = "
                           "database() and table_name = '@table' and index_name = '@name'");
    const SqlResult found =
        database.run(statement, {{QStringLiteral("@table"), QLatin1String(table)},
                                 {QStringLiteral("@name"), QLatin1String(ofTable ? table : index)}});
    return found.ok ? std::optional<bool>(!found.isEmpty()) : std::nullopt;
}

bool replace(sqlite& database, const Replaced& one) {
    const auto isTable = exists(database, one.table, "");
    const auto isThere = exists(database, one.table, one.index);
    const auto isOld = exists(database, one.table, one.before);
    if (!isTable || !isThere || !isOld)
        return false;
    const QString table = QLatin1String(one.table);
    if (*isTable && !*isThere &&
        !database.exec(QStringLiteral("CREATE INDEX `%1` ON `%2` (%3)")
                           .arg(QLatin1String(one.index), table, QLatin1String(one.columns))))
        return false;
    if (!*isOld)
        return true;
    const QString drop = QStringLiteral("DROP INDEX `%1`").arg(QLatin1String(one.before));
    return database.exec(database.dialect() == SqlDialect::Mysql ? drop + QStringLiteral(" ON ") + table
                                                                 : drop);
}

} // namespace

bool upgradeSchema(sqlite& database) {
    const bool isDone = std::all_of(std::begin(Indexes), std::end(Indexes),
                                    [&](const Replaced& one) { return replace(database, one); });
    if (!isDone)
        qWarning() << "database: the indexes could not be brought up to date";
    return isDone;
}
