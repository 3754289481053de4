#include "core/sql/migrations.h"

#include "core/sql/sqlconnection.h"
#include "core/sql/sqlite.h"

#include <algorithm>
#include <optional>
#include <QDebug>
#include <QDir>
#include <QFile>
#include <vector>

namespace {

constexpr auto Directory = ":/etc/ttys/migrations";
constexpr int FirstVersion = 1; ///< of a database from before versions were noted
constexpr int LockWait = 30;    ///< seconds for another node's migration of the same MySQL database

struct Step {
    int version;
    QString file;
};

/// "002-what.sqlite.sql" or "002-what.mysql.sql": the number of the version that the step leads to.
std::vector<Step> stepsFor(SqlDialect dialect) {
    const QString suffix =
        dialect == SqlDialect::Mysql ? QStringLiteral(".mysql.sql") : QStringLiteral(".sqlite.sql");
    std::vector<Step> steps;
    const QStringList files = QDir(QLatin1String(Directory)).entryList({QStringLiteral("*") + suffix});
    for (const QString& file : files)
        steps.push_back({file.left(3).toInt(), QLatin1String(Directory) + QLatin1Char('/') + file});
    std::sort(steps.begin(), steps.end(), [](const Step& a, const Step& b) { return a.version < b.version; });
    return steps;
}

/// Nothing when the database does not answer.
std::optional<bool> hasTable(sqlite& database, const char* name) {
    const QString statement =
        database.dialect() == SqlDialect::Mysql
            ? QStringLiteral("SELECT table_name FROM information_schema.tables WHERE "
                             "table_schema = DATABASE() AND table_name = '@name'")
            : QStringLiteral("SELECT name FROM sqlite_master WHERE type = 'table' AND name = '@name'");
    const SqlResult found = database.run(statement, {{QStringLiteral("@name"), QLatin1String(name)}});
    return found.ok ? std::optional<bool>(!found.isEmpty()) : std::nullopt;
}

/// The version noted; 0 when it can't be read.
int versionOf(sqlite& database) {
    const auto isNoted = hasTable(database, "schema_version");
    if (!isNoted.value_or(true))
        return FirstVersion;
    const SqlResult noted =
        database.run(QStringLiteral("SELECT MAX(`version`) AS `version` FROM `schema_version`"));
    return noted.isEmpty() ? 0 : std::max(FirstVersion, noted.integer(0, "version"));
}

QString scriptOf(const Step& step) {
    QFile file(step.file);
    return file.open(QIODevice::ReadOnly) ? QString::fromUtf8(file.readAll()) : QString();
}

/// A consistent copy, as private as the file itself.
bool copyBeside(sqlite& database, int version) {
    const QString copy = QStringLiteral("%1.v%2").arg(QLatin1String(SqliteFile)).arg(version);
    QFile::remove(copy);
    QFile file(copy);
    if (!file.open(QIODevice::WriteOnly | QIODevice::NewOnly))
        return false;
    file.setPermissions(QFile::permissions(QLatin1String(SqliteFile)));
    file.close();
    qInfo().noquote() << "schema: a copy of version" << version << "is kept in" << copy;
    return database.run(QStringLiteral("VACUUM INTO '@copy'"), {{QStringLiteral("@copy"), copy}}).ok;
}

bool runStep(sqlite& database, const Step& step) {
    const QString note =
        QStringLiteral("INSERT INTO `schema_version` (`version`) VALUES (%1);").arg(step.version);
    const bool isDone = database.runScript(scriptOf(step) + QLatin1Char('\n') + note) >= 0;
    if (isDone)
        qInfo().noquote() << "schema: now version" << step.version;
    return isDone;
}

bool runSteps(sqlite& database, int version, QString& why) {
    bool copied = database.dialect() == SqlDialect::Mysql;
    for (const Step& step : stepsFor(database.dialect())) {
        if (step.version <= version)
            continue;
        if (!copied && !copyBeside(database, version)) {
            why = QStringLiteral("no copy of the database could be made before its schema is changed");
            return false;
        }
        copied = true;
        if (!runStep(database, step)) {
            why = QStringLiteral("the step to schema version %1 failed").arg(step.version);
            return false;
        }
    }
    return true;
}

bool migrate(sqlite& database, QString& why) {
    const int version = versionOf(database);
    const int newest = newestSchemaVersion();
    if (version == 0)
        why = QStringLiteral("the schema's version can't be read");
    else if (version > newest)
        why = QStringLiteral(
                  "the database is of schema version %1, this program knows %2: it is too old for it")
                  .arg(version)
                  .arg(newest);
    if (version > newest)
        database.refuse();
    if (!why.isEmpty())
        return false;
    if (version == newest)
        return true;
    const QString table =
        QStringLiteral("CREATE TABLE IF NOT EXISTS `schema_version` (`version` INTEGER NOT NULL)");
    if (!database.run(table).ok) {
        why = QStringLiteral("the schema's version can't be noted");
        return false;
    }
    return runSteps(database, version, why);
}

} // namespace

int newestSchemaVersion() {
    const auto steps = stepsFor(SqlDialect::Sqlite);
    return steps.empty() ? FirstVersion : steps.back().version;
}

bool migrateSchema(sqlite& database, QString& why) {
    const auto isOurs = hasTable(database, "task");
    if (!isOurs.value_or(false))
        return isOurs.has_value();
    const bool isShared = database.dialect() == SqlDialect::Mysql;
    if (isShared)
        database.run(QStringLiteral("SELECT GET_LOCK('speakerd_schema', @wait)"),
                     {{QStringLiteral("@wait"), LockWait}});
    const bool isDone = migrate(database, why);
    if (isShared)
        database.run(QStringLiteral("SELECT RELEASE_LOCK('speakerd_schema')"));
    thread_local QString told; // who tries again and again is told once
    if (!isDone && told != why)
        qCritical().noquote() << "schema:" << why;
    told = why;
    return isDone;
}
