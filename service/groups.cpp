#include "service/groups.h"

#include "core/sql/sqlite.h"

#include <algorithm>
#include <QMap>

namespace {

/// Values of one statement.
constexpr int AtOnce = 1000;
constexpr qint64 Nobody = -1; ///< rows without an owner bear the number 0

const QString SelectGroups =
    QStringLiteral("SELECT `id`, `userid`, `group_name` FROM `sbox_group` WHERE ( `id` > @after and ( @all = "
                   "1 or `userid` = @owner or `id` in ( @ids ) ) ) ORDER BY `id` LIMIT @most;");
const QString SelectOwners =
    QStringLiteral("SELECT `id`, `userid` FROM `sbox_group` WHERE ( `id` in ( @ids ) );");
const QString SelectSpeakers = QStringLiteral(
    "SELECT `group_seed`.`gid`, `sbox_device_info`.`id`, `sbox_device_info`.`user_id`, "
    "`sbox_device_info`.`device_seed` FROM `group_seed`, `sbox_device_info` WHERE ( `group_seed`.`gid` in ( "
    "@ids ) and `sbox_device_info`.`id` = `group_seed`.`devid` ) ORDER BY `group_seed`.`id`;");
const QString SelectInner = QStringLiteral(
    "SELECT `group_group`.`gid`, `sbox_group`.`id`, `sbox_group`.`userid` FROM `group_group`, `sbox_group` "
    "WHERE ( `group_group`.`gid` in ( @ids ) and `sbox_group`.`id` = `group_group`.`member` ) ORDER BY "
    "`sbox_group`.`id`;");
const QString InsertGroup = QStringLiteral(
    "INSERT INTO `sbox_group` (`userid`, `group_name`, `nodeid`) VALUES (@owner, '@name', 1);");
const QString RenameGroup =
    QStringLiteral("UPDATE `sbox_group` SET `group_name` = '@name' WHERE ( `id` = @id );");
const QString DeleteGroup = QStringLiteral("DELETE FROM `sbox_group` WHERE ( `id` = @id );");
const QString DeleteSpeakers = QStringLiteral("DELETE FROM `group_seed` WHERE ( `gid` = @id );");
const QString DeleteInner = QStringLiteral("DELETE FROM `group_group` WHERE ( `gid` = @id );");
const QString DeleteGrants = QStringLiteral("DELETE FROM `groupgrant` WHERE ( `gid` = @id );");
const QString DeleteOuter = QStringLiteral("DELETE FROM `group_group` WHERE ( `member` = @id );");
const QString DeleteAims = QStringLiteral("DELETE FROM `taskaim` WHERE ( `gid` = @id );");
const QString SelectDevices = QStringLiteral(
    "SELECT `id`, `device_seed` FROM `sbox_device_info` WHERE ( `device_seed` in ('@serials') );");
const QString InsertSpeaker = QStringLiteral(
    "INSERT INTO `group_seed` (`gid`, `seed`, `userid`, `gidseed`, `devid`) VALUES (@id, '@serial', @owner, "
    "'@id_@serial', @devid);");
const QString InsertInner =
    QStringLiteral("INSERT INTO `group_group` (`gid`, `member`) VALUES (@id, @member);");
// A circle, should there be one, comes to an end: UNION takes each group once.
const QString SelectWithin = QStringLiteral(
    "WITH RECURSIVE `inside` (`gid`) AS (SELECT `id` FROM `sbox_group` WHERE `id` in ( @ids ) UNION SELECT "
    "`group_group`.`member` FROM `group_group`, `inside` WHERE `group_group`.`gid` = `inside`.`gid`) SELECT "
    "`gid` FROM `inside`;");
const QString SelectSpeakersWithin = QStringLiteral(
    "WITH RECURSIVE `inside` (`gid`) AS (SELECT `id` FROM `sbox_group` WHERE `id` in ( @ids ) UNION SELECT "
    "`group_group`.`member` FROM `group_group`, `inside` WHERE `group_group`.`gid` = `inside`.`gid`) SELECT "
    "DISTINCT `group_seed`.`devid` AS `devid` FROM `group_seed`, `inside` WHERE `group_seed`.`gid` = "
    "`inside`.`gid` ORDER BY `devid`;");
const QString SelectGroupsOf = QStringLiteral(
    "SELECT `group_seed`.`devid`, `sbox_group`.`id`, `sbox_group`.`userid` FROM `group_seed`, `sbox_group` "
    "WHERE ( `group_seed`.`devid` in ( @ids ) and `sbox_group`.`id` = `group_seed`.`gid` ) ORDER BY "
    "`sbox_group`.`id`;");

const QString SelectMemberships = QStringLiteral(
    "SELECT `group_seed`.`devid`, `sbox_group`.`id`, `sbox_group`.`userid` FROM `group_seed`, `sbox_group` "
    "WHERE ( `sbox_group`.`id` = `group_seed`.`gid` ) ORDER BY `sbox_group`.`id`;");

SqlArg idArg(qint64 id) {
    return {QStringLiteral("@id"), id};
}

SqlArg idsArg(const QList<qint64>& ids) {
    return {QStringLiteral("@ids"), ids};
}

/// Calls `add` with the first column's number and the row, for rows whose object, in the second and third
/// column, is within the scope.
template<typename Add>
bool readWithin(sqlite& database, const QString& statement, const Scope& scope, const QList<qint64>& ids,
                Add add) {
    const SqlResult rows = database.run(statement, {idsArg(ids)});
    for (const auto& row : rows.rows) {
        if (scope.holds(row[1].toLongLong(), row[2].toLongLong()))
            add(row[0].toLongLong(), row);
    }
    return rows.ok;
}

std::optional<std::vector<Group>> withMembers(sqlite& database, const GroupQuery& query,
                                              const SqlResult& rows) {
    using Row = QVector<QVariant>;
    std::vector<Group> groups;
    QHash<qint64, size_t> places;
    for (const Row& row : rows.rows) {
        places.insert(row[0].toLongLong(), groups.size());
        groups.push_back({row[0].toLongLong(), row[1].toInt(), row[2].toString(), {}, {}});
    }
    const QList<qint64> ids = places.keys();
    const auto addSpeaker = [&](qint64 gid, const Row& row) {
        groups[places.value(gid)].speakers += row[3].toString();
    };
    const auto addGroup = [&](qint64 gid, const Row& row) {
        groups[places.value(gid)].groups += row[1].toLongLong();
    };
    const bool isRead = rows.ok && readWithin(database, SelectSpeakers, query.speakers, ids, addSpeaker) &&
                        readWithin(database, SelectInner, query.scope, ids, addGroup);
    return isRead ? std::optional(groups) : std::nullopt;
}

bool insertSpeakers(sqlite& database, qint64 id, int owner, const QStringList& serials) {
    for (int from = 0; from < serials.size(); from += AtOnce) {
        const QStringList some = serials.mid(from, AtOnce);
        const SqlResult devices = database.run(SelectDevices, {{QStringLiteral("@serials"), some}});
        if (!devices.ok)
            return false;
        QHash<QString, qint64> ids;
        for (int row = 0; row < devices.rows.size(); ++row)
            ids.insert(devices.text(row, "device_seed"), devices.value(row, "id").toLongLong());
        for (const QString& serial : some) {
            const auto device = ids.constFind(serial);
            if (device != ids.constEnd() && !database
                                                 .run(InsertSpeaker, {idArg(id),
                                                                      {QStringLiteral("@serial"), serial},
                                                                      {QStringLiteral("@owner"), owner},
                                                                      {QStringLiteral("@devid"), *device}})
                                                 .ok)
                return false;
        }
    }
    return true;
}

bool insertGroups(sqlite& database, qint64 id, const QList<qint64>& groups) {
    return std::all_of(groups.begin(), groups.end(), [&](qint64 member) {
        return database.run(InsertInner, {idArg(id), {QStringLiteral("@member"), member}}).ok;
    });
}

template<typename Value, typename Step>
bool ifNamed(const std::optional<Value>& value, Step step) {
    return !value || step(*value);
}

bool write(sqlite& database, qint64 id, int owner, const GroupChange& change) {
    return ifNamed(change.name,
                   [&](const QString& name) {
                       return database.run(RenameGroup, {idArg(id), {QStringLiteral("@name"), name}}).ok;
                   }) &&
           ifNamed(change.speakers,
                   [&](const QStringList& serials) {
                       return database.run(DeleteSpeakers, {idArg(id)}).ok &&
                              insertSpeakers(database, id, owner, serials);
                   }) &&
           ifNamed(change.groups, [&](const QList<qint64>& groups) {
               return database.run(DeleteInner, {idArg(id)}).ok && insertGroups(database, id, groups);
           });
}

} // namespace

std::optional<std::vector<Group>> listGroups(sqlite& database, const GroupQuery& query, int most) {
    const SqlResult rows = database.run(
        SelectGroups, {{QStringLiteral("@after"), query.after},
                       {QStringLiteral("@all"), query.scope.isAll ? 1 : 0},
                       {QStringLiteral("@owner"), query.scope.owner > 0 ? query.scope.owner : Nobody},
                       idsArg(query.scope.ids.values()),
                       {QStringLiteral("@most"), most}});
    return withMembers(database, query, rows);
}

std::optional<Group> findGroup(sqlite& database, GroupQuery query, qint64 id) {
    query.after = id - 1;
    const auto groups = listGroups(database, query, 1);
    return groups && !groups->empty() && groups->front().id == id ? std::optional(groups->front())
                                                                  : std::nullopt;
}

GroupOutcome addGroup(sqlite& database, int owner, const GroupChange& group, qint64& id) {
    const bool isStored = database.transaction([&] {
        const SqlResult added =
            database.run(InsertGroup, {{QStringLiteral("@owner"), owner},
                                       {QStringLiteral("@name"), group.name.value_or(QString())}});
        id = added.lastId;
        return added.ok && write(database, id, owner, {std::nullopt, group.speakers, group.groups});
    });
    return isStored ? GroupOutcome::Done : GroupOutcome::Failed;
}

GroupOutcome changeGroup(sqlite& database, qint64 id, const GroupChange& change) {
    bool isCircle = false;
    const bool isStored = database.transaction([&] {
        const SqlResult group = database.run(SelectOwners, {idsArg({id})});
        const auto within = change.groups ? groupsWithin(database, *change.groups) : QSet<qint64>();
        isCircle = within && within->contains(id);
        return !group.isEmpty() && within && !isCircle &&
               write(database, id, group.integer(0, "userid"), change);
    });
    if (isCircle)
        return GroupOutcome::Circle;
    return isStored ? GroupOutcome::Done : GroupOutcome::Failed;
}

bool removeGroup(sqlite& database, qint64 id) {
    return database.transaction([&] {
        const QStringList statements{DeleteSpeakers, DeleteInner, DeleteOuter,
                                     DeleteGrants,   DeleteAims,  DeleteGroup};
        return std::all_of(statements.begin(), statements.end(),
                           [&](const QString& statement) { return database.run(statement, {idArg(id)}).ok; });
    });
}

std::optional<QSet<qint64>> groupsAmong(sqlite& database, const Scope& scope, const QList<qint64>& ids) {
    const SqlResult rows = database.run(SelectOwners, {idsArg(ids)});
    if (!rows.ok)
        return std::nullopt;
    QSet<qint64> found;
    for (const auto& row : rows.rows) {
        if (scope.holds(row[0].toLongLong(), row[1].toLongLong()))
            found.insert(row[0].toLongLong());
    }
    return found;
}

std::optional<QSet<qint64>> groupsWithin(sqlite& database, const QList<qint64>& ids) {
    const SqlResult rows = database.run(SelectWithin, {idsArg(ids)});
    if (!rows.ok)
        return std::nullopt;
    QSet<qint64> found;
    for (const auto& row : rows.rows)
        found.insert(row.first().toLongLong());
    return found;
}

std::optional<QList<qint64>> speakersWithin(sqlite& database, const QList<qint64>& ids) {
    const SqlResult rows = database.run(SelectSpeakersWithin, {idsArg(ids)});
    if (!rows.ok)
        return std::nullopt;
    QList<qint64> found;
    found.reserve(rows.rows.size());
    for (const auto& row : rows.rows)
        found += row.first().toLongLong();
    return found;
}

QHash<qint64, QList<qint64>> groupsOf(sqlite& database, const Scope& scope, const QList<qint64>& speakers) {
    QHash<qint64, QList<qint64>> found;
    readWithin(database, SelectGroupsOf, scope, speakers,
               [&](qint64 speaker, const QVector<QVariant>& row) { found[speaker] += row[1].toLongLong(); });
    return found;
}

std::optional<Memberships> allMemberships(sqlite& database) {
    const SqlResult rows = database.run(SelectMemberships);
    if (!rows.ok)
        return std::nullopt;
    Memberships all;
    for (const auto& row : rows.rows) {
        all.groups[row[0].toLongLong()] += row[1].toLongLong();
        all.owners.insert(row[1].toLongLong(), row[2].toInt());
    }
    return all;
}
