#include "rest/idempotency.h"

#include "core/sql/sqlite.h"
#include "rest/restcall.h"

#include <algorithm>
#include <chrono>
#include <QDateTime>
#include <QJsonDocument>

namespace {

using std::chrono::milliseconds;

constexpr int LongestKey = 100;
constexpr milliseconds Kept = std::chrono::hours(24);
/// Longer than anything runs: what has begun before that and has no answer ended with its process.
constexpr milliseconds Abandoned = std::chrono::minutes(15);

const QString Prune = QStringLiteral("DELETE FROM `idempotency` WHERE (`at` < @before);");
const QString Abandon = QStringLiteral(
    "DELETE FROM `idempotency` WHERE (`account` = @account AND `name` = '@name' AND `status` = 0 AND "
    "`at` < @before);");
const QString BeginSqlite =
    QStringLiteral("INSERT OR IGNORE INTO `idempotency` (`account`, `name`, `request`, `status`, `at`) "
                   "VALUES (@account, '@name', '@request', 0, @now);");
const QString BeginMysql =
    QStringLiteral("INSERT IGNORE INTO `idempotency` (`account`, `name`, `request`, `status`, `at`) VALUES "
                   "(@account, '@name', '@request', 0, @now);");
const QString Find = QStringLiteral("SELECT `request`, `status`, `location`, `body` FROM `idempotency` WHERE "
                                    "(`account` = @account AND `name` = '@name');");
const QString Keep = QStringLiteral("UPDATE `idempotency` SET `status` = @status, `location` = '@location', "
                                    "`body` = '@body' WHERE (`account` = @account AND `name` = '@name');");
const QString Forget =
    QStringLiteral("DELETE FROM `idempotency` WHERE (`account` = @account AND `name` = '@name');");

bool isKey(const QByteArray& key) {
    return key.size() <= LongestKey &&
           std::all_of(key.begin(), key.end(), [](char c) { return c > 0x20 && c < 0x7f; });
}

SqlArg account(const RestCall& call) {
    return {QStringLiteral("@account"), call.caller().account};
}

SqlArg named(const QByteArray& key) {
    return {QStringLiteral("@name"), QString::fromLatin1(key)};
}

/// Whether this request is the first with its key; nullopt when the database does not answer.
std::optional<bool> begin(const QByteArray& key, const RestCall& call, const QString& request) {
    sqlite& database = call.database();
    const qint64 now = QDateTime::currentMSecsSinceEpoch();
    database.run(Prune, {{QStringLiteral("@before"), now - qint64(Kept.count())}});
    database.run(Abandon,
                 {account(call), named(key), {QStringLiteral("@before"), now - qint64(Abandoned.count())}});
    const SqlResult begun = database.run(
        database.dialect() == SqlDialect::Mysql ? BeginMysql : BeginSqlite,
        {account(call), named(key), {QStringLiteral("@request"), request}, {QStringLiteral("@now"), now}});
    return begun.ok ? std::optional(begun.affected > 0) : std::nullopt;
}

RestAnswer firstAnswer(const QByteArray& key, const RestCall& call, const QString& request) {
    const SqlResult kept = call.database().run(Find, {account(call), named(key)});
    if (kept.isEmpty())
        return unavailable();
    if (kept.text(0, "request") != request)
        return problem(409, QStringLiteral("this Idempotency-Key was used for another request"));
    if (kept.integer(0, "status") == 0)
        return problem(409, QStringLiteral("the first request with this Idempotency-Key is under way"));
    RestAnswer answer;
    answer.status = kept.integer(0, "status");
    answer.json = QJsonDocument::fromJson(kept.text(0, "body").toUtf8()).object();
    if (const QByteArray location = kept.text(0, "location").toUtf8(); !location.isEmpty())
        answer.header("Location", location);
    return answer;
}

void keep(const QByteArray& key, const RestCall& call, const RestAnswer& answer) {
    if (answer.status >= 500 || answer.status == 429) {
        call.database().run(Forget, {account(call), named(key)});
        return;
    }
    call.database().run(Keep,
                        {account(call),
                         named(key),
                         {QStringLiteral("@status"), answer.status},
                         {QStringLiteral("@location"), QString::fromUtf8(answer.headers.value("Location"))},
                         {QStringLiteral("@body"), QString::fromUtf8(bodyOf(answer))}});
}

} // namespace

RestAnswer onceFor(const QByteArray& key, RestCall& call, RestAnswer (*run)(RestCall& call)) {
    if (!isKey(key))
        return problem(400,
                       QStringLiteral("an Idempotency-Key has 1 to %1 printable characters").arg(LongestKey));
    const QString request = QString::fromLatin1(call.fingerprint());
    const auto isFirst = begin(key, call, request);
    if (!isFirst)
        return unavailable();
    if (!*isFirst)
        return firstAnswer(key, call, request);
    RestAnswer answer = run(call);
    keep(key, call, answer);
    return answer;
}
