#include "service/grants.h"

namespace {

const QString List = QStringLiteral(
    "SELECT n.`id`, n.`account`, n.`gid`, n.`role`, g.`userid` AS `owner` FROM `groupgrant` n, `sbox_group` "
    "g "
    "WHERE (g.`id` = n.`gid` AND (@all = 1 OR g.`userid` = @caller OR n.`account` = @caller) AND n.`id` > "
    "@after) ORDER BY n.`id` LIMIT @limit;");
const QString Find = QStringLiteral(
    "SELECT n.`id`, n.`account`, n.`gid`, n.`role`, g.`userid` AS `owner` FROM `groupgrant` n, `sbox_group` "
    "g "
    "WHERE (g.`id` = n.`gid` AND (@all = 1 OR g.`userid` = @caller OR n.`account` = @caller) AND n.`id` = "
    "@id);");
const QString FindGroup = QStringLiteral("SELECT `userid` FROM `sbox_group` WHERE (`id` = @gid);");
const QString FindAccount = QStringLiteral("SELECT `id` FROM `sbox_users` WHERE (`id` = @account);");
const QString FindPair =
    QStringLiteral("SELECT `id` FROM `groupgrant` WHERE (`account` = @account AND `gid` = @gid);");
const QString Insert =
    QStringLiteral("INSERT INTO `groupgrant` (`account`, `gid`, `role`) VALUES (@account, @gid, @role);");
const QString Delete = QStringLiteral("DELETE FROM `groupgrant` WHERE (`id` = @id);");

SqlArg arg(const char* name, qint64 value) {
    return {QLatin1String(name), value};
}

/// Whether `caller` may give rights to the group.
GrantOutcome checkGroup(sqlite& database, const Caller& caller, qint64 account, qint64 group) {
    const SqlResult found = database.run(FindGroup, {arg("@gid", group)});
    const SqlResult given = database.run(FindPair, {arg("@account", caller.account), arg("@gid", group)});
    if (!found.ok || !given.ok)
        return GrantOutcome::Failed;
    const qint64 owner = found.integer(0, "userid");
    const bool isOwn = caller.isAdmin || owner == caller.account;
    if (found.isEmpty() || (!isOwn && given.isEmpty()))
        return GrantOutcome::NoGroup;
    if (!isOwn)
        return GrantOutcome::NotOwner;
    return owner == account ? GrantOutcome::OwnGroup : GrantOutcome::Done;
}

} // namespace

SqlResult listGrants(sqlite& database, const Caller& caller, qint64 after, int limit) {
    return database.run(List, {arg("@all", caller.isAdmin ? 1 : 0), arg("@caller", caller.account),
                               arg("@after", after), arg("@limit", limit)});
}

SqlResult findGrant(sqlite& database, const Caller& caller, qint64 id) {
    return database.run(
        Find, {arg("@all", caller.isAdmin ? 1 : 0), arg("@caller", caller.account), arg("@id", id)});
}

GrantOutcome addGrant(sqlite& database, const Caller& caller, qint64 account, qint64 group, GroupRole role,
                      qint64& id) {
    const GrantOutcome mayGive = checkGroup(database, caller, account, group);
    if (mayGive != GrantOutcome::Done)
        return mayGive;
    const SqlResult found = database.run(FindAccount, {arg("@account", account)});
    const SqlResult same = database.run(FindPair, {arg("@account", account), arg("@gid", group)});
    if (!found.ok || !same.ok)
        return GrantOutcome::Failed;
    if (found.isEmpty() || !same.isEmpty())
        return found.isEmpty() ? GrantOutcome::NoAccount : GrantOutcome::Exists;
    const SqlResult added = database.run(
        Insert, {arg("@account", account), arg("@gid", group), arg("@role", static_cast<int>(role))});
    id = added.lastId;
    return added.ok ? GrantOutcome::Done : GrantOutcome::Failed;
}

bool removeGrant(sqlite& database, qint64 id) {
    return database.run(Delete, {arg("@id", id)}).ok;
}
