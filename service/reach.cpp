#include "service/reach.h"

#include "service/caller.h"

#include "core/sql/sqlite.h"
#include "tasks/ownership.h"

#include <algorithm>

namespace {

enum class Role { Viewer = 1, Operator = 2 }; ///< as `groupgrant` holds them

// Who was given a right on a group has it on what its giver owns there, and no more: else a group that holds
// speakers of others would hand them on. An administrator owns everything.
const QString Within = QStringLiteral(
    "WITH RECURSIVE `inside` (`gid`, `owner`, `level`) AS (SELECT `sbox_group`.`id`, `sbox_group`.`userid`, "
    "`sbox_users`.`user_level` FROM `groupgrant`, `sbox_group`, `sbox_users` WHERE `groupgrant`.`account` = "
    "@account and `groupgrant`.`role` >= @role and `sbox_group`.`id` = `groupgrant`.`gid` and "
    "`sbox_users`.`id` = `sbox_group`.`userid` UNION SELECT `sbox_group`.`id`, `inside`.`owner`, "
    "`inside`.`level` FROM `group_group`, `inside`, `sbox_group` WHERE `group_group`.`gid` = `inside`.`gid` "
    "and `sbox_group`.`id` = `group_group`.`member` and ( `sbox_group`.`userid` = `inside`.`owner` or "
    "`inside`.`level` = 1 ) ) ");
const QString SelectGroups = Within + QStringLiteral("SELECT DISTINCT `gid`, `owner` FROM `inside`;");
const QString SelectSpeakers =
    Within +
    QStringLiteral("SELECT DISTINCT `sbox_device_info`.`id` FROM `group_seed`, `inside`, `sbox_device_info` "
                   "WHERE `group_seed`.`gid` = `inside`.`gid` and `sbox_device_info`.`id` = "
                   "`group_seed`.`devid` and ( `sbox_device_info`.`user_id` = `inside`.`owner` or "
                   "`inside`.`level` = 1 );");

SqlResult granted(sqlite& database, const QString& statement, const Caller& caller, Role role) {
    return database.run(statement, {{QStringLiteral("@account"), caller.account},
                                    {QStringLiteral("@role"), static_cast<int>(role)}});
}

void addFirst(QSet<qint64>& ids, const SqlResult& rows) {
    for (const auto& row : rows.rows)
        ids.insert(row.first().toLongLong());
}

QSet<qint64> maskedSpeakers(sqlite& database, const Caller& caller) {
    QList<qint64> mask;
    for (const QString& id : QString(caller.mask).replace(u'|', u',').split(u',', Qt::SkipEmptyParts))
        mask += id.trimmed().toLongLong();
    if (caller.master == 0 || mask.isEmpty())
        return {};
    return ownDevices(database, static_cast<int>(caller.account), mask).value_or(QSet<qint64>());
}

Reachable reachOf(sqlite& database, const Caller& caller, Role role) {
    Reachable reach;
    reach.speakers.isAll = reach.groups.isAll = caller.isAdmin;
    reach.speakers.owner = reach.groups.owner = caller.account;
    if (caller.isAdmin)
        return reach;
    reach.speakers.ids = maskedSpeakers(database, caller);
    addFirst(reach.groups.ids, granted(database, SelectGroups, caller, role));
    if (!reach.groups.ids.isEmpty())
        addFirst(reach.speakers.ids, granted(database, SelectSpeakers, caller, role));
    return reach;
}

} // namespace

Reachable visible(sqlite& database, const Caller& caller) {
    return reachOf(database, caller, Role::Viewer);
}

Reachable playable(sqlite& database, const Caller& caller) {
    return reachOf(database, caller, Role::Operator);
}

std::optional<QList<qint64>> soundOwners(sqlite& database, const Caller& caller) {
    if (caller.isAdmin)
        return std::nullopt;
    QList<qint64> owners{caller.account};
    for (const auto& row : granted(database, SelectGroups, caller, Role::Operator).rows)
        owners += row[1].toLongLong();
    return owners;
}
