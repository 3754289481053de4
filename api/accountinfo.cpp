// Endpoints that show an account with its node, devices and groups in one reply.
#include "api/dumpcontroller_add_user.h"

#include "api/requestmapper.h"
#include "api/strictsql.h"

#include <optional>

namespace {
const QString allDevices =
    QStringLiteral("SELECT * FROM  sbox_device_info  WHERE ( `user_id` = '@user_id' );");
const QString alarmDevices = QStringLiteral(
    "SELECT * FROM  sbox_device_info  WHERE ( `user_id` = '@user_id'  and iswarning = '99' );");

/// The account's groups with their node and members; nothing when a statement failed.
std::optional<QJsonArray> groups(const StrictSql& database, int userid) {
    const SqlResult found = database.run(
        QStringLiteral(
            "SELECT sbox_group.*, sbox_node.nodeip, sbox_node.node_name, sbox_node.nodeport1, "
            "sbox_node.nodeport2, sbox_node.nodeport3, sbox_node.nodeport4, sbox_node.nodeport5 FROM  "
            "sbox_group,sbox_node where sbox_node.id = sbox_group.nodeid and sbox_group.userid = "
            "'@userid' ;"),
        {{QStringLiteral("@userid"), userid}});
    if (!found.ok)
        return std::nullopt;
    QJsonArray list;
    for (int row = 0; row < found.rows.size(); ++row) {
        const SqlResult members =
            database.run(QStringLiteral("SELECT * FROM  group_seed  WHERE ( `gid` = '@id' );"),
                         {{QStringLiteral("@id"), found.integer(row, "id")}});
        if (!members.ok)
            return std::nullopt;
        QJsonObject group = found.object(row);
        group.insert(QStringLiteral("members"), members.objects());
        list.append(group);
    }
    return list;
}
} // namespace

QJsonObject DumpController_add_user::accountInfo(const Call& call, const QString& devices) {
    const auto refused = [](const char* word) {
        return QJsonObject{{QStringLiteral("res"), false}, {QStringLiteral("info"), QLatin1String(word)}};
    };
    const SqlResult login = findLogin(call);
    if (!login.ok)
        return refused("ER_EXE");
    if (login.isEmpty()) {
        m_wrongLogin = call.text("username");
        return refused("ER_REJECT");
    }
    const SqlResult node = db().run(QStringLiteral("SELECT * FROM  sbox_node where  id = '1';"));
    const SqlResult owned = db().run(devices, {{QStringLiteral("@user_id"), login.integer(0, "id")}});
    if (!node.ok || !owned.ok)
        return refused("ER_EXE");
    QJsonObject user = login.object(0);
    user.remove(QStringLiteral("user_pass"));
    return {{QStringLiteral("res"), true},
            {QStringLiteral("user"), user},
            {QStringLiteral("node"), node.isEmpty() ? QJsonObject() : node.object(0)},
            {QStringLiteral("devlist"), owned.objects()}};
}

QByteArray DumpController_add_user::get_user_info(const Call& call) {
    return reply(accountInfo(call, allDevices));
}

QByteArray DumpController_add_user::get_user_infokvt(const Call& call) {
    return reply(accountInfo(call, alarmDevices));
}

QByteArray DumpController_add_user::get_user_infoh(const Call& call) {
    QJsonObject info = accountInfo(call, allDevices);
    if (!info.value(QStringLiteral("res")).toBool())
        return reply(info);
    const int userid = info.value(QStringLiteral("user")).toObject().value(QStringLiteral("id")).toInt();
    const std::optional<QJsonArray> list = groups(db(), userid);
    if (!list)
        return refusal(QStringLiteral("ER_EXE"));
    info.insert(QStringLiteral("grouplist"), *list);
    return reply(info);
}

QByteArray DumpController_add_user::get_user_node(const Call& /*call*/) {
    return {};
}
