// Endpoints for the speakers of an account.
#include "api/dumpcontroller_add_user.h"

#include "api/requestmapper.h"
#include "api/strictsql.h"
#include "core/loop/mainloop.h"
#include "device/saobj.h"
#include "device/severinit.h"
#include "redis/core_corss.h"
#include "service/speakercommands.h"
#include "service/speakers.h"

#include <algorithm>
#include <QVector>

namespace {
/// The word that refuses a serial number; null when it is fit.
const char* wordOf(SerialFault fault) {
    switch (fault) {
    case SerialFault::None:
        break;
    case SerialFault::Missing:
        return "_FALSE2";
    case SerialFault::Length:
        return "_FALSE3";
    case SerialFault::Digits:
        return "_FALSE4";
    case SerialFault::Blocked:
        return "_FALSE1";
    }
    return nullptr;
}

/// Refusal that names the first unfit serial; empty when all are fit.
QByteArray refusedSerial(const QStringList& sns, const Severinit& devices) {
    for (const QString& sn : sns) {
        if (const char* fault = wordOf(serialFault(sn, devices)))
            return reply({{QStringLiteral("res"), false},
                          {QStringLiteral("sn"), sn},
                          {QStringLiteral("info"), QLatin1String(fault)}});
    }
    return {};
}

/// Reply of a statement that acts on one row; `nothing` is the word when it met none.
QByteArray changed(const SqlResult& result, int userid, const char* nothing) {
    if (!result.ok)
        return refusal(QStringLiteral("ER_EXE"));
    if (result.affected <= 0)
        return refusal(QLatin1String(nothing));
    return success({{QStringLiteral("userid"), userid}, {QStringLiteral("EF"), result.affected}});
}

/// What the registry knows of a speaker that is not only a stored record.
struct LiveState {
    bool online = false;
    int voltage = 0;
};

/// The live state of the result's speakers, row by row, asked in one go.
QVector<LiveState> liveStates(Severinit* devices, const SqlResult& rows) {
    QStringList sns;
    for (int row = 0; row < rows.rows.size(); ++row)
        sns.append(rows.text(row, "device_seed"));
    if (sns.isEmpty())
        return {};
    return callOnLoop(devices, [&] {
        QVector<LiveState> states;
        states.reserve(sns.size());
        for (const QString& sn : qAsConst(sns)) {
            const SAobj* session = devices->session(sn);
            states.append(session ? LiveState{session->isOnline(), session->voltage()} : LiveState{});
        }
        return states;
    });
}

/// The steps that enabling and disabling share.
template<typename Send>
QByteArray switchDevices(const Call& call, Send send) {
    const QStringList sns = call.list("snlist");
    if (sns.isEmpty())
        return noTargets();
    send(sns);
    return reply({{QStringLiteral("res"), true}});
}
} // namespace

QByteArray DumpController_add_user::user_add_dev(const Call& call) {
    const QStringList sns = call.text("sn").split(QLatin1Char('|'));
    QByteArray refused = refusedSerial(sns, *m_devices);
    if (!refused.isEmpty())
        return refused;
    const NewSpeakers added{call.userid(), call.text("name"), sns,
                            call.number("device_kind") == 1 ? AlarmSpeaker : 0};
    if (!db().takes(added.name) || !addSpeakers(db(), *m_devices, added))
        return refusal(QStringLiteral("ER_EXE"));
    return success({{QStringLiteral("userid"), call.userid()}});
}

QByteArray DumpController_add_user::user_get_devlist(const Call& call) {
    const SqlResult rows =
        db().run(QStringLiteral("SELECT *   FROM `sbox_device_info` where user_id = '@userid'"),
                 {{QStringLiteral("@userid"), call.userid()}});
    if (!rows.ok)
        return refusal(QStringLiteral("ER_EXE"));
    const QVector<LiveState> states = liveStates(m_devices, rows);
    QJsonArray list;
    for (int row = 0; row < rows.rows.size(); ++row) {
        QJsonObject device = rows.object(row);
        device.insert(QStringLiteral("regTime"), device.value(QStringLiteral("ctime")));
        device.insert(QStringLiteral("voltage"), states.value(row).voltage);
        device.insert(QStringLiteral("online"), states.value(row).online);
        list.append(device);
    }
    return reply({{QStringLiteral("res"), true}, {QStringLiteral("devlist"), list}});
}

QByteArray DumpController_add_user::user_deldevs(const Call& call) {
    const QString sn = serialOf(db(), call.number("snid"));
    const SqlResult result = db().run(
        QStringLiteral("DELETE FROM  `sbox_device_info`  WHERE (`id` = '@snid'  and user_id = '@userid') ;"),
        {{QStringLiteral("@snid"), call.number("snid")}, {QStringLiteral("@userid"), call.userid()}});
    tellIfForgotten(db(), *m_devices, sn);
    return changed(result, call.userid(), "No Need to del device");
}

QByteArray DumpController_add_user::user_renamedevs(const Call& call) {
    return changed(
        db().run(QStringLiteral(
                     "UPDATE  `sbox_device_info`  SET  `device_name` = '@newname' WHERE (`id` = '@devid' "
                     "and user_id = '@user_id');"),
                 {{QStringLiteral("@newname"), call.text("newname")},
                  {QStringLiteral("@devid"), call.number("devid")},
                  {QStringLiteral("@user_id"), call.userid()}}),
        call.userid(), "ER_REJECT");
}

QByteArray DumpController_add_user::user_resndevs(const Call& call) {
    QByteArray refused = refusedSerial({call.text("newsn")}, *m_devices);
    if (!refused.isEmpty())
        return refused;
    const QString oldSn = serialOf(db(), call.number("devid"));
    const SqlResult result = db().run(
        QStringLiteral("UPDATE  `sbox_device_info`  SET  `device_seed` = '@newsn' WHERE (`id` = '@devid' "
                       "and user_id = '@user_id');"),
        {{QStringLiteral("@newsn"), call.text("newsn")},
         {QStringLiteral("@devid"), call.number("devid")},
         {QStringLiteral("@user_id"), call.userid()}});
    if (result.ok && result.affected > 0)
        m_devices->tellAgain({call.text("newsn")});
    tellIfForgotten(db(), *m_devices, oldSn);
    return changed(result, call.userid(), "ER_REJECT");
}

QByteArray DumpController_add_user::user_enable_device(const Call& call) {
    return switchDevices(call, [this, &call](const QStringList& sns) {
        forgetDisabled(db(), sns);
        commands(call)->enable_device(sns);
    });
}

QByteArray DumpController_add_user::user_disable_device(const Call& call) {
    return switchDevices(call,
                         [this, &call](const QStringList& sns) { commands(call)->disable_device(sns); });
}

QByteArray DumpController_add_user::user_LIST(const Call& /*call*/) {
    return m_mapper->onlineList().reply();
}

QByteArray DumpController_add_user::get_devicelistweb(const Call& call) {
    const SqlResult login = findLogin(call);
    if (login.isEmpty())
        return login.ok ? refuseLogin(call) : refusal(QStringLiteral("ER_EXE"));
    const SqlResult rows =
        db().run(QStringLiteral(
                     "SELECT sbox_device_info.*, sbox_node.nodeip, sbox_node.node_name, sbox_node.nodeport3, "
                     "sbox_node.nodeport4, sbox_node.nodeport5 FROM  sbox_device_info,sbox_node where "
                     "sbox_node.id = sbox_device_info.node_id and sbox_device_info.user_id = '@userid' ;"),
                 {{QStringLiteral("@userid"), login.integer(0, "id")}});
    if (!rows.ok)
        return refusal(QStringLiteral("ER_EXE"));
    return reply({{QStringLiteral("res"), true}, {QStringLiteral("dataJson"), rows.objects()}});
}

QByteArray DumpController_add_user::add_user_devices_cross(const Call& call) {
    const SqlResult login = findLogin(call);
    if (login.isEmpty())
        return login.ok ? refuseLogin(call) : refusal(QStringLiteral("ER_EXE"));
    const QString sn = call.text("sed");
    QByteArray refused = refusedSerial({sn}, *m_devices);
    if (!refused.isEmpty())
        return refused;
    const int userid = login.integer(0, "id");
    const SqlResult insert = db().run(
        QStringLiteral(
            "INSERT INTO  `sbox_device_info` (`user_id`, `device_type`,   `device_name`, `device_seed`, "
            "`node_id`, `tag1`, `tag2`, `userid_seed` ,`iswarning` ,`device_code` )VALUES ('$user_id', "
            "'1',  '$name', '$sed', '$nodeid', 'tg1', 'tg2', '$userid_seed','99','$device_code')"),
        {{QStringLiteral("$user_id"), userid},
         {QStringLiteral("$name"), call.text("name")},
         {QStringLiteral("$sed"), sn},
         {QStringLiteral("$nodeid"), 1},
         {QStringLiteral("$userid_seed"), accountSerial(userid, sn)},
         {QStringLiteral("$device_code"), call.has("device_code") ? call.text("device_code") : sn}});
    if (!insert.ok)
        return refusal(QStringLiteral("ER_EXE"));
    m_devices->tellAgain({sn});
    return success({{QStringLiteral("userid"), userid}});
}
