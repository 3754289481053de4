// Endpoints for plays that are asked for once and kept nowhere: requests to the task queue.
#include "api/dumpcontroller_add_user.h"

#include "api/requestmapper.h"
#include "api/taskstore.h"
#include "core/sql/sqlite.h"
#include "device/severinit.h"

#include <QJsonArray>

namespace {

const QString SelectDevices =
    QStringLiteral("SELECT * FROM  sbox_device_info where id in (@idstr) and user_id = '@userid';");
const QString SelectFiles =
    QStringLiteral("SELECT * FROM  userfile where id in (@fidstr) and userid = '@userid';");
const QString InsertPlay = QStringLiteral(
    "INSERT INTO  `taskpop` (`taskid`, `status`, `userid`, `seeds`, `urls`, `kind`, `jiange`, `ip`, `port`, "
    "`len`, `playmode`, `info`)VALUES ('0', '1', '@userid', '@seeds', '@urls', '2', '@jiange', '@IPTASK', "
    "'@PS2', '@len', '@playmode', 'temp_task_start');");
const QString SelectPlays =
    QStringLiteral("SELECT * FROM  taskpop where (`userid`= '@userid' and `status` = '11'    );");
const QString SelectPlay = QStringLiteral(
    "SELECT * FROM  taskpop where (`userid`= '@userid' and `id` = '@id'  and  `status` = '11'  );");
const QString InsertStop = QStringLiteral(
    "INSERT INTO  `taskpop` ( `taskid` , `status`, `userid`,  `kind`,  `ip` , `port` , `info`)VALUES "
    "('@tpid', '12', '@userid',   '2',   '@IPTASK', '@PS2',  'temp_task_start');");

const QString NamePrefix = QStringLiteral("PLAYTMP_");

/// One column of the rows, joined by "|".
QString joined(const SqlResult& rows, const char* column) {
    QStringList texts;
    for (int row = 0; row < rows.rows.size(); ++row)
        texts += rows.text(row, column);
    return texts.join(QLatin1Char('|'));
}

/// Addresses in the order in which the caller named the files.
QString addresses(const SqlResult& files, const QList<qint64>& order) {
    QHash<qint64, QString> urls;
    for (int row = 0; row < files.rows.size(); ++row)
        urls.insert(files.value(row, "id").toLongLong(), files.text(row, "url"));
    QStringList list;
    for (const qint64 id : order) {
        if (urls.contains(id))
            list += urls.value(id);
    }
    return list.join(QLatin1Char('|'));
}

} // namespace

QByteArray DumpController_add_user::user_play_tmp_on_time_once(const Call& call) {
    const auto deviceIds = idList(call.text("snids"));
    const auto fileIds = idList(call.text("fileids"));
    if (!deviceIds || !fileIds)
        return refusal(QStringLiteral("Parer"));
    const int playmode = call.text("playmode").isEmpty() ? 1 : call.number("playmode");
    const auto length = playLength(db(), call, *fileIds, playmode);
    if (!length || playmode < 0)
        return refusal(QStringLiteral("_FALSE7"));
    const SqlArg user{QStringLiteral("@userid"), call.userid()};
    const SqlResult devices = db().run(SelectDevices, {user, {QStringLiteral("@idstr"), *deviceIds}});
    const SqlResult files = db().run(SelectFiles, {user, {QStringLiteral("@fidstr"), *fileIds}});
    if (!devices.ok || !files.ok)
        return refusal(QStringLiteral("ER_EXE"));
    if (devices.isEmpty() || files.isEmpty())
        return refusal(QStringLiteral("ER_REJECT"));
    const SqlResult asked = db().run(InsertPlay, {user,
                                                  {QStringLiteral("@seeds"), joined(devices, "device_seed")},
                                                  {QStringLiteral("@urls"), addresses(files, *fileIds)},
                                                  {QStringLiteral("@jiange"), call.number("jiange")},
                                                  {QStringLiteral("@IPTASK"), db().site.ownAddress},
                                                  {QStringLiteral("@PS2"), m_devices->ps2},
                                                  {QStringLiteral("@len"), *length},
                                                  {QStringLiteral("@playmode"), playmode}});
    if (!asked.ok)
        return refusal(QStringLiteral("ER_EXE"));
    return success({{QStringLiteral("tmpid"), asked.lastId}});
}

QByteArray DumpController_add_user::user_list_tmp_on_time_once(const Call& call) {
    const SqlResult plays = db().run(SelectPlays, {{QStringLiteral("@userid"), call.userid()}});
    if (!plays.ok)
        return refusal(QStringLiteral("ER_EXE"));
    QJsonArray list;
    for (int row = 0; row < plays.rows.size(); ++row) {
        QJsonObject play = plays.object(row);
        play.insert(QStringLiteral("tmpid"), plays.integer(row, "id"));
        play.insert(QStringLiteral("task_name"), NamePrefix + plays.text(row, "id"));
        list.append(play);
    }
    return success({{QStringLiteral("list"), list}});
}

QByteArray DumpController_add_user::user_stop_tmp_on_time_once(const Call& call) {
    QString named = call.text("tpid");
    if (named.startsWith(NamePrefix))
        named.remove(0, NamePrefix.size());
    const SqlArg user{QStringLiteral("@userid"), call.userid()};
    const SqlResult play = db().run(SelectPlay, {user, {QStringLiteral("@id"), named.toInt()}});
    if (!play.ok)
        return refusal(QStringLiteral("ER_EXE"));
    if (play.isEmpty())
        return refusal(QStringLiteral("ER_REJECT"));
    const SqlResult asked = db().run(InsertStop, {user,
                                                  {QStringLiteral("@tpid"), named.toInt()},
                                                  {QStringLiteral("@IPTASK"), db().site.ownAddress},
                                                  {QStringLiteral("@PS2"), m_devices->ps2}});
    if (!asked.ok)
        return refusal(QStringLiteral("ER_EXE"));
    return success();
}
