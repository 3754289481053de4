#include "tasks/ownership.h"

#include "core/sql/sqlite.h"

#include <algorithm>

namespace {

/// Values of one statement: SQLite takes a text of a million bytes.
constexpr int AtOnce = 1000;
constexpr int LongestSerial = 64;

const QString SelectMaster =
    QStringLiteral("SELECT `master_id`, `mask` FROM `sbox_users` WHERE (`id` = '@userid');");
const QString SelectSerials = QStringLiteral(
    "SELECT `device_seed` FROM `sbox_device_info` WHERE ( `device_seed` in ('@serials') and ( `user_id` = "
    "'@userid' or ( `user_id` = '@master' and `id` in ( @mask ) ) ) );");
const QString SelectDevices = QStringLiteral(
    "SELECT `id` FROM `sbox_device_info` WHERE ( `id` in ( @ids ) and ( `user_id` = '@userid' or ( `user_id` "
    "= '@master' and `id` in ( @mask ) ) ) );");
const QString SelectFiles =
    QStringLiteral("SELECT `id` FROM `userfile` WHERE ( `id` in ( @ids ) and `userid` = '@userid' );");

/// The account's number, its master's and the ids that its mask names, for a statement.
std::optional<SqlArgs> accountArgs(sqlite& database, int userid) {
    const SqlArg user{QStringLiteral("@userid"), userid};
    const SqlResult account = database.run(SelectMaster, {user});
    if (!account.ok)
        return std::nullopt;
    QList<qint64> mask{0};
    const QString named = account.text(0, "mask").replace(QLatin1Char('|'), QLatin1Char(','));
    for (const QString& id : named.split(QLatin1Char(',')))
        mask += id.trimmed().toLongLong();
    const int master = account.integer(0, "master_id");
    constexpr int nobody = -1; // devices of no account bear the number 0
    return SqlArgs{
        user, {QStringLiteral("@master"), master > 0 ? master : nobody}, {QStringLiteral("@mask"), mask}};
}

/// The first column of what a statement finds, asked for some of the values at a time.
template<typename Values>
std::optional<QSet<QString>> found(sqlite& database, const QString& statement, const SqlArgs& account,
                                   const QString& placeholder, const Values& values) {
    QSet<QString> all;
    for (int from = 0; from < values.size(); from += AtOnce) {
        SqlArgs args = account;
        args.emplace_back(placeholder, values.mid(from, AtOnce));
        const SqlResult rows = database.run(statement, args);
        if (!rows.ok)
            return std::nullopt;
        for (const auto& row : rows.rows)
            all.insert(row.first().toString());
    }
    return all;
}

std::optional<QSet<qint64>> numbers(const std::optional<QSet<QString>>& texts) {
    if (!texts)
        return std::nullopt;
    QSet<qint64> ids;
    for (const QString& text : *texts)
        ids.insert(text.toLongLong());
    return ids;
}

bool canBeSerial(const QString& text) {
    return !text.isEmpty() && text.size() <= LongestSerial &&
           std::all_of(text.begin(), text.end(),
                       [](QChar c) { return c.unicode() < 128 && c.isLetterOrNumber(); });
}

} // namespace

bool isOwnOnly(const sqlite& database) {
    return database.site.ownonly && database.kind() != 0;
}

std::optional<QStringList> ownSerials(sqlite& database, int userid, const QStringList& serials) {
    const auto account = accountArgs(database, userid);
    if (!account)
        return std::nullopt;
    QStringList fit;
    std::copy_if(serials.begin(), serials.end(), std::back_inserter(fit), canBeSerial);
    const auto own = found(database, SelectSerials, *account, QStringLiteral("@serials"), fit);
    if (!own)
        return std::nullopt;
    QStringList kept;
    std::copy_if(fit.begin(), fit.end(), std::back_inserter(kept),
                 [&](const QString& serial) { return own->contains(serial); });
    return kept;
}

std::optional<QSet<qint64>> ownDevices(sqlite& database, int userid, const QList<qint64>& ids) {
    const auto account = accountArgs(database, userid);
    if (!account)
        return std::nullopt;
    return numbers(found(database, SelectDevices, *account, QStringLiteral("@ids"), ids));
}

std::optional<QSet<qint64>> ownFiles(sqlite& database, int userid, const QList<qint64>& ids) {
    return numbers(
        found(database, SelectFiles, {{QStringLiteral("@userid"), userid}}, QStringLiteral("@ids"), ids));
}
