#include "service/visibility.h"

#include "core/sql/sqlite.h"
#include "service/grants.h"

namespace {

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

const QString SelectLent = QStringLiteral(
    "SELECT `id` FROM `sbox_device_info` WHERE ( `user_id` = @master and `id` in ( @mask ) );");

SqlResult granted(sqlite& database, const QString& statement, const Caller& caller, GroupRole role) {
    return database.run(statement, {{QStringLiteral("@account"), caller.account},
                                    {QStringLiteral("@role"), static_cast<int>(role)}});
}

void addFirst(QSet<qint64>& ids, const SqlResult& rows) {
    for (const auto& row : rows.rows)
        ids.insert(row.first().toLongLong());
}

/// Those of its master's that its mask names, as long as they are the master's.
QSet<qint64> lentSpeakers(sqlite& database, const Caller& caller) {
    QList<qint64> mask;
    for (const QString& id : QString(caller.mask).replace(u'|', u',').split(u',', Qt::SkipEmptyParts))
        mask += id.trimmed().toLongLong();
    QSet<qint64> ids;
    if (caller.master > 0 && !mask.isEmpty())
        addFirst(ids, database.run(SelectLent, {{QStringLiteral("@master"), caller.master},
                                                {QStringLiteral("@mask"), mask}}));
    return ids;
}

Reachable reachOf(sqlite& database, const Caller& caller, GroupRole role) {
    Reachable reach;
    reach.speakers.isAll = reach.groups.isAll = caller.isAdmin;
    reach.speakers.owner = reach.groups.owner = caller.account;
    if (caller.isAdmin)
        return reach;
    reach.speakers.ids = lentSpeakers(database, caller);
    addFirst(reach.groups.ids, granted(database, SelectGroups, caller, role));
    if (!reach.groups.ids.isEmpty())
        addFirst(reach.speakers.ids, granted(database, SelectSpeakers, caller, role));
    return reach;
}

} // namespace

Reachable visible(sqlite& database, const Caller& caller) {
    return reachOf(database, caller, GroupRole::Viewer);
}

Reachable reachable(sqlite& database, const Caller& caller) {
    return reachOf(database, caller, GroupRole::Operator);
}

std::optional<QList<qint64>> soundOwners(sqlite& database, const Caller& caller) {
    if (caller.isAdmin)
        return std::nullopt;
    QList<qint64> owners{caller.account};
    for (const auto& row : granted(database, SelectGroups, caller, GroupRole::Operator).rows)
        owners += row[1].toLongLong();
    return owners;
}
