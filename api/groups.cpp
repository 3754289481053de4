// Endpoints for the named groups that an account gathers its speakers in.
#include "api/dumpcontroller_add_user.h"

#include "api/requestmapper.h"
#include "api/strictsql.h"
#include "service/groups.h"

#include <QHash>

namespace {
QByteArray failed() {
    return refusal(QStringLiteral("ER_EXE"));
}

/// Why the group is none of the caller's; empty when it is his.
QByteArray refusedGroup(const Call& call, const StrictSql& database) {
    const SqlResult own = database.run(
        QStringLiteral("SELECT * FROM  sbox_group where `id` = '@gid' and `userid` = '@userid' ;"),
        {{QStringLiteral("@gid"), call.number("gid")}, {QStringLiteral("@userid"), call.userid()}});
    if (!own.ok)
        return failed();
    return own.isEmpty() ? refusal(QStringLiteral("_FALSE7")) : QByteArray();
}

SqlResult deleteMembers(const StrictSql& database, const Call& call) {
    return database.run(
        QStringLiteral("Delete FROM  group_seed where gid = '@gid' and userid = '@userid';"),
        {{QStringLiteral("@gid"), call.number("gid")}, {QStringLiteral("@userid"), call.userid()}});
}

SqlResult listGroups(const StrictSql& database, const Call& call) {
    return database.run(QStringLiteral("SELECT * FROM  sbox_group where userid = '@userid' ;"),
                        {{QStringLiteral("@userid"), call.userid()}});
}

/// Makes the account's own devices among `ids` the members of the group. Returns how many they are,
/// -1 when a statement failed.
int insertMembers(const StrictSql& database, const Call& call, const QList<qint64>& ids) {
    if (ids.isEmpty())
        return 0;
    const SqlResult devices = database.run(
        QStringLiteral("SELECT * FROM  sbox_device_info where id in ( @ids ) and user_id = '@userid' ;"),
        {{QStringLiteral("@ids"), ids}, {QStringLiteral("@userid"), call.userid()}});
    if (!devices.ok)
        return -1;
    const int gid = call.number("gid");
    for (int row = 0; row < devices.rows.size(); ++row) {
        const QString seed = devices.text(row, "device_seed");
        const SqlResult insert = database.run(
            QStringLiteral(
                "INSERT INTO  `group_seed` (`gid`, `seed`, `userid`, `gidseed`, `devid`) VALUES ('@gid', "
                "'@seed', '@userid', '@gisdseed', '@devid' );"),
            {{QStringLiteral("@gid"), gid},
             {QStringLiteral("@seed"), seed},
             {QStringLiteral("@userid"), call.userid()},
             {QStringLiteral("@gisdseed"), QString::number(gid) + QLatin1Char('_') + seed},
             {QStringLiteral("@devid"), devices.integer(row, "id")}});
        if (!insert.ok)
            return -1;
    }
    return devices.rows.size();
}

QJsonObject member(const SqlResult& devices, int row) {
    const QJsonObject device = devices.object(row);
    QJsonObject result{{QStringLiteral("Dname"), device.value(QStringLiteral("device_name"))}};
    for (const char* column :
         {"id", "device_seed", "vol", "status", "kind", "iswarning", "updatetime", "changetime"})
        result.insert(QLatin1String(column), device.value(QLatin1String(column)));
    return result;
}
} // namespace

QByteArray DumpController_add_user::user_addgrep(const Call& call) {
    const SqlResult insert = db().run(
        QStringLiteral("INSERT INTO  `sbox_group` (`userid`, `group_name`, `nodeid`) VALUES ('@userid', "
                       "'@gname', '1');"),
        {{QStringLiteral("@userid"), call.userid()}, {QStringLiteral("@gname"), call.text("gname")}});
    return insert.ok ? success({{QStringLiteral("gid"), insert.lastId}}) : failed();
}

QByteArray DumpController_add_user::user_listgrep(const Call& call) {
    const SqlResult groups = listGroups(db(), call);
    return groups.ok ? success({{QStringLiteral("grouplist"), groups.objects()}}) : failed();
}

QByteArray DumpController_add_user::user_grpeditname(const Call& call) {
    const QByteArray refused = refusedGroup(call, db());
    if (!refused.isEmpty())
        return refused;
    const SqlResult update = db().run(
        QStringLiteral(
            "UPDATE  `sbox_group` SET `group_name` = '@gname' WHERE ( `id` = '@gid'  and  `userid` = "
            "'@userid' );"),
        {{QStringLiteral("@gname"), call.text("gname")},
         {QStringLiteral("@gid"), call.number("gid")},
         {QStringLiteral("@userid"), call.userid()}});
    return update.ok ? success() : failed();
}

QByteArray DumpController_add_user::user_grpeditdevs(const Call& call) {
    const QByteArray refused = refusedGroup(call, db());
    if (!refused.isEmpty())
        return refused;
    int members = 0;
    const bool stored = db().transaction([&] {
        if (!deleteMembers(db(), call).ok)
            return false;
        members = insertMembers(db(), call, numbersIn(call.text("devids")));
        return members >= 0;
    });
    return stored ? success({{QStringLiteral("info222"), members}}) : failed();
}

QByteArray DumpController_add_user::user_listdetailgroups(const Call& call) {
    const SqlResult groups = listGroups(db(), call);
    const SqlResult devices = db().run(
        QStringLiteral("SELECT group_seed.gid, sbox_device_info.* FROM  group_seed,sbox_device_info where  "
                       "sbox_device_info.id =  group_seed.devid and group_seed.userid = '@userid' order by "
                       "group_seed.id ;"),
        {{QStringLiteral("@userid"), call.userid()}});
    if (!groups.ok || !devices.ok)
        return failed();
    QHash<int, QJsonArray> members;
    QHash<int, QJsonArray> ids;
    for (int row = 0; row < devices.rows.size(); ++row) {
        const int gid = devices.integer(row, "gid");
        members[gid].append(member(devices, row));
        ids[gid].append(devices.integer(row, "id"));
    }
    QJsonArray list;
    for (int row = 0; row < groups.rows.size(); ++row) {
        QJsonObject group = groups.object(row);
        const int gid = groups.integer(row, "id");
        group.insert(QStringLiteral("idlist"), ids.value(gid));
        group.insert(QStringLiteral("members"), members.value(gid));
        list.append(group);
    }
    return success({{QStringLiteral("grouplist"), list}});
}

QByteArray DumpController_add_user::user_getonegdevs(const Call& call) {
    const QByteArray refused = refusedGroup(call, db());
    if (!refused.isEmpty())
        return refused;
    const SqlResult devices = db().run(
        QStringLiteral(
            "SELECT sbox_device_info.* FROM  group_seed,sbox_device_info where  sbox_device_info.id =  "
            "group_seed.devid and group_seed.userid = '@userid' and  group_seed.gid = '@gid' ;"),
        {{QStringLiteral("@userid"), call.userid()}, {QStringLiteral("@gid"), call.number("gid")}});
    return devices.ok ? success({{QStringLiteral("devsary"), devices.objects()}}) : failed();
}

QByteArray DumpController_add_user::user_rmgrep(const Call& call) {
    const QByteArray refused = refusedGroup(call, db());
    if (!refused.isEmpty())
        return refused;
    const bool removed = removeGroup(db(), call.number("gid"));
    return removed ? success() : failed();
}
