#include "service/audit.h"

#include <QDebug>

namespace {

constexpr int LongestText = 255; ///< characters; MySQL's columns hold no more

const QString Insert = QStringLiteral(
    "INSERT INTO `audit` (`at`, `account`, `address`, `action`, `object`, `detail`) VALUES (@at, @account, "
    "'@address', '@action', '@object', '@detail');");
const QString Find = QStringLiteral(
    "SELECT * FROM `audit` WHERE (`id` < @before AND `at` >= @from AND `at` < @until AND (@account = 0 OR "
    "`account` = @account) AND (@of = 0 OR `account` = @of OR `account` IN (SELECT `id` FROM `sbox_users` "
    "WHERE `master_id` = @of))) ORDER BY `id` DESC LIMIT @limit;");
// Some at a time: a table that is written to all the time is never locked for long.
const QString Oldest =
    QStringLiteral("SELECT MAX(`id`) AS `last` FROM (SELECT `id` FROM `audit` WHERE (`at` < @before) "
                   "ORDER BY `at` LIMIT @limit) AS `oldest`;");
const QString Forget = QStringLiteral("DELETE FROM `audit` WHERE (`id` <= @last AND `at` < @before);");
constexpr int AtOnce = 500;

} // namespace

void writeAudit(sqlite& database, const AuditLine& line) {
    const SqlResult written =
        database.run(Insert, {{QStringLiteral("@at"), line.at},
                              {QStringLiteral("@account"), line.account},
                              {QStringLiteral("@address"), line.address},
                              {QStringLiteral("@action"), line.action},
                              {QStringLiteral("@object"), line.object.left(LongestText)},
                              {QStringLiteral("@detail"), line.detail.left(LongestText)}});
    if (!written.ok)
        qWarning() << "audit line lost:" << line.account << line.action << line.object;
}

SqlResult findAudit(sqlite& database, const AuditQuery& query) {
    return database.run(Find, {{QStringLiteral("@before"), query.before},
                               {QStringLiteral("@from"), query.from},
                               {QStringLiteral("@until"), query.until},
                               {QStringLiteral("@account"), query.account},
                               {QStringLiteral("@of"), query.of},
                               {QStringLiteral("@limit"), query.limit}});
}

bool forgetAudit(sqlite& database, qint64 before) {
    const SqlArg since{QStringLiteral("@before"), before};
    const SqlResult oldest = database.run(Oldest, {since, {QStringLiteral("@limit"), AtOnce}});
    const qint64 last = oldest.isEmpty() ? 0 : oldest.value(0, "last").toLongLong();
    return last > 0 && database.run(Forget, {since, {QStringLiteral("@last"), last}}).ok;
}
