#include "api/dumpcontroller_add_user.h"
#include "api/linebindings.h"
#include "api/plankeys.h"
#include "api/requestmapper.h"
#include "api/taskstore.h"

#include "api/strictsql.h"
#include "core/loop/mainloop.h"
#include "device/severinit.h"
#include "redis/core_corss.h"

#include <QJsonArray>
#include <QJsonObject>
#include <QRegularExpression>
#include <QUrl>

namespace {

/// What the column `kind` of `warregister` tells a binding's sort by.
enum class BindingKind { File = 0, Plan = 1 };

struct LineRegistration {
    QString sn;
    BindingKind kind;
    QString url;
    QString deviceName;
    QString fileName;
    int userid;
    QString line; ///< "B" or "F"
};

QByteArray done() {
    return reply({{QStringLiteral("res"), true}, {QStringLiteral("info"), QStringLiteral("done")}});
}

QByteArray doneWith(const char* key, const QJsonArray& list) {
    return reply({{QStringLiteral("res"), true},
                  {QStringLiteral("info"), QStringLiteral("done")},
                  {QString::fromLatin1(key), list}});
}

QByteArray rowsReply(const char* key, const SqlResult& rows) {
    return rows.ok ? doneWith(key, rows.objects()) : refusal(QStringLiteral("exec_error"));
}

bool isLine(const QString& text) {
    return text == QLatin1String("B") || text == QLatin1String("F");
}

/// Characters that can't leave their place in a line that the speaker's shell reads.
bool isPlain(const QString& text) {
    static const QRegularExpression allowed(QStringLiteral("\\A[A-Za-z0-9.:_/\\[\\]-]+\\z"));
    return allowed.match(text).hasMatch();
}

QString percentEncoded(const QString& text) {
    return QString::fromLatin1(QUrl::toPercentEncoding(text));
}

bool isOwnSpeaker(const StrictSql& database, int userid, const QString& sn) {
    const SqlResult rows =
        database.run(QStringLiteral("SELECT `id` FROM `sbox_device_info` WHERE (`device_seed` = "
                                    "'@sn' and `user_id` = '@userid');"),
                     {{QStringLiteral("@sn"), sn}, {QStringLiteral("@userid"), userid}});
    return rows.ok && !rows.isEmpty();
}

bool areOwnSpeakers(const StrictSql& database, int userid, const QStringList& serials) {
    for (const QString& sn : serials)
        if (!isOwnSpeaker(database, userid, sn))
            return false;
    return !serials.isEmpty();
}

bool areOnline(Severinit* devices, const QStringList& serials) {
    return callOnLoop(devices, [&] {
        for (const QString& sn : serials)
            if (!devices->isOnline(sn))
                return false;
        return true;
    });
}

void clearLine(Core_corss& commander, const QString& sn, const QString& line) {
    if (line == QLatin1String("B"))
        commander.WarningB_NONE(sn);
    else
        commander.WarningF_NONE(sn);
}

SqlArgs registrationArgs(const LineRegistration& line) {
    return {{QStringLiteral("@sn"), line.sn},
            {QStringLiteral("@kind"), static_cast<int>(line.kind)},
            {QStringLiteral("@url"), line.url},
            {QStringLiteral("@devname"), line.deviceName},
            {QStringLiteral("@filename"), line.fileName},
            {QStringLiteral("@userid"), line.userid},
            {QStringLiteral("@fb"), line.line}};
}

/// Stores the binding in place of the one that the line had before.
ShownResult storeRegistration(const StrictSql& database, const LineRegistration& line) {
    const SqlArgs args = registrationArgs(line);
    ShownResult result;
    const bool committed = database.transaction([&] {
        result =
            database.run(QStringLiteral("DELETE FROM `warregister` WHERE (`userid` = '@userid'  and  `sn` = "
                                        "'@sn' and  `fb` = '@fb');"),
                         args);
        if (result.ok)
            result =
                database.run(QStringLiteral("INSERT INTO `warregister` (`sn`, `kind`, `url`, `devname` , "
                                            "`filename`, `userid`, `fb`) VALUES ( '@sn' , '@kind', '@url', "
                                            "'@devname', '@filename' , '@userid' , '@fb' );"),
                             args);
        return result.ok;
    });
    result.ok = result.ok && committed;
    return result;
}

/// What a speaker fetches when a line that is bound to the plan fires; the line's letter comes behind.
QString planAddress(const RequestMapper& router, int plan) {
    const PlanKeys* keys = router.planKeys();
    const QString key = keys ? QStringLiteral("&key=") + keys->of(plan) : QString();
    return QStringLiteral("%1user/startwarning?pltid=%2%3&dd.mp3")
        .arg(router.database()->site.warningurl)
        .arg(plan)
        .arg(key);
}

/// With a secret the speaker need not know the password.
QString taskAddress(const Call& call, const QString& secret) {
    const QString login = secret.isEmpty()
                              ? QStringLiteral("passwd=") + percentEncoded(call.text("passwd"))
                              : QStringLiteral("lineid=%1&token=%2").arg(call.text("lineid"), secret);
    return QStringLiteral("http://%1/Startwaringtask.php?username=%2&%3&taskid=%4")
        .arg(call.text("host"), percentEncoded(call.text("username")), login,
             percentEncoded(call.text("taskid")));
}

/// The binding whose secret a call-back bears; nothing when there is none.
std::optional<LineBinding> boundBy(const sqlite& database, const Call& call) {
    const auto binding = LineBindings(database.site.waringdir).read(call.text("lineid"));
    const bool isIts = binding && !binding->secret.isEmpty() && binding->secret == call.text("token");
    return isIts ? binding : std::nullopt;
}

/// A line id that another account has bound; one that is gone holds none.
bool isOthers(const std::optional<LineBinding>& binding, int userid, const RequestMapper& accounts) {
    return binding && binding->userid != userid && accounts.token(binding->userid);
}

} // namespace

QByteArray DumpController_add_user::user_add_DOPlane(const Call& call) {
    if (call.list("snlist").isEmpty())
        return refusal(QStringLiteral("snlist_error"));
    const SqlResult added = db().run(
        QStringLiteral("INSERT INTO  `warningplant` (`snids`,`url`, `name`, `userid`) "
                       "VALUES ('@snids','@url','@name','@userid')"),
        {{QStringLiteral("@snids"), commandable(call.userid(), call.list("snlist")).join(QLatin1Char('|'))},
         {QStringLiteral("@url"), call.text("url")},
         {QStringLiteral("@name"), call.text("plantname")},
         {QStringLiteral("@userid"), call.userid()}});
    if (!added.ok)
        return refusal(QStringLiteral("exec_error"));
    return reply({{QStringLiteral("res"), true},
                  {QStringLiteral("info"), QStringLiteral("done")},
                  {QStringLiteral("pltid"), added.lastId}});
}

QByteArray DumpController_add_user::user_get_DOPlist(const Call& call) {
    const SqlResult rows =
        db().run(QStringLiteral("select * from  `warningplant` where `userid` =  '@userid' ;"),
                 {{QStringLiteral("@userid"), call.userid()}});
    const PlanKeys* keys = m_mapper->planKeys();
    if (!rows.ok || !keys)
        return rowsReply("plantlist", rows);
    QJsonArray plans;
    for (int row = 0; row < rows.rows.size(); ++row) {
        QJsonObject plan = rows.object(row);
        plan.insert(QStringLiteral("key"), keys->of(rows.integer(row, "id")));
        plans.append(plan);
    }
    return doneWith("plantlist", plans);
}

QByteArray DumpController_add_user::user_rm_DOPlane(const Call& call) {
    const SqlResult gone =
        db().run(QStringLiteral("DELETE FROM `warningplant` WHERE (`id` = '@id'  and userid = '@userid') ;"),
                 {{QStringLiteral("@id"), call.number("pltid")}, {QStringLiteral("@userid"), call.userid()}});
    return gone.ok && gone.affected > 0 ? done() : refusal(QStringLiteral("exec_error"));
}

QByteArray DumpController_add_user::user_reg_DOPane(const Call& call) {
    const QString sn = call.text("sn");
    const QString line = call.text("fb");
    if (!isLine(line))
        return refusal(QStringLiteral("Paruser"));
    const SqlResult plan = db().run(
        QStringLiteral("select * from  `warningplant` where `userid` =  '@userid' and  id = '@id'  ; "),
        {{QStringLiteral("@userid"), call.userid()}, {QStringLiteral("@id"), call.number("pltid")}});
    if (!plan.ok || plan.isEmpty() || !isOwnSpeaker(db(), call.userid(), sn))
        return refusal(QStringLiteral("exec_error"));
    if (!areOnline(m_devices, {sn}))
        return refusal(QStringLiteral("unline_error"));
    const QString address = planAddress(*m_mapper, call.number("pltid"));
    const ShownResult stored = storeRegistration(db(), {sn, BindingKind::Plan, address, call.text("dname"),
                                                        plan.text(0, "name"), call.userid(), line});
    if (!stored.ok)
        return refusal(QStringLiteral("exec_error"));
    commands(call)->WarningAS(sn, address + line);
    return done();
}

QByteArray DumpController_add_user::user_reg_DOFile(const Call& call) {
    const QString sn = call.text("sn");
    const QString line = call.text("fb");
    if (!isLine(line))
        return refusal(QStringLiteral("Paruser"));
    if (!isOwnSpeaker(db(), call.userid(), sn))
        return refusal(QStringLiteral("exec_error"));
    if (!areOnline(m_devices, {sn}))
        return refusal(QStringLiteral("unline_error"));
    const ShownResult stored =
        storeRegistration(db(), {sn, BindingKind::File, call.text("url"), call.text("dname"),
                                 call.text("filename"), call.userid(), line});
    if (!stored.ok)
        return reply({{QStringLiteral("res"), false},
                      {QStringLiteral("info"), QStringLiteral("exec_error")},
                      {QStringLiteral("sqline"), stored.sql}});
    if (line == QLatin1String("B"))
        commands(call)->WarningB(sn, call.text("url"));
    else
        commands(call)->WarningF(sn, call.text("url"));
    return done();
}

QByteArray DumpController_add_user::user_reg_listDOFile(const Call& call) {
    return rowsReply("filelist",
                     db().run(QStringLiteral("select * from `warregister` where  `userid` =  '@userid' ;"),
                              {{QStringLiteral("@userid"), call.userid()}}));
}

/// A speaker that is the caller's must be there to be cleared: a line that stays bound would still
/// raise the alarm. Of a speaker that is no longer his only the row goes.
QByteArray DumpController_add_user::user_unreg_DO(const Call& call) {
    const QString sn = call.text("sn");
    const QString line = call.text("fb");
    if (!isLine(line))
        return refusal(QStringLiteral("Paruser"));
    const bool own = isOwnSpeaker(db(), call.userid(), sn);
    if (own && !areOnline(m_devices, {sn}))
        return refusal(QStringLiteral("unline_error"));
    const SqlResult gone =
        db().run(QStringLiteral("DELETE FROM `warregister` WHERE (`id` = '@rgid'  and `userid` = "
                                "'@userid'  and  `sn` = '@sn' and  `fb` = '@fb');"),
                 {{QStringLiteral("@rgid"), call.number("rgid")},
                  {QStringLiteral("@userid"), call.userid()},
                  {QStringLiteral("@sn"), sn},
                  {QStringLiteral("@fb"), line}});
    if (!gone.ok || gone.affected < 1)
        return refusal(QStringLiteral("exec_error"));
    if (own) {
        clearLine(*commands(call), sn, line);
    }
    return reply({{QStringLiteral("res"), true},
                  {QStringLiteral("info"), QStringLiteral("done")},
                  {QStringLiteral("EF"), gone.affected}});
}

QByteArray DumpController_add_user::user_unreg_DO_foce(const Call& call) {
    const QString line = call.text("fb");
    if (!isLine(line))
        return refusal(QStringLiteral("Paruser"));
    if (!isOwnSpeaker(db(), call.userid(), call.text("sn")))
        return refusal(QStringLiteral("exec_error"));
    clearLine(*commands(call), call.text("sn"), line);
    return done();
}

QByteArray DumpController_add_user::setwaringlinetaskid(const Call& call) {
    const QString lineid = call.text("lineid");
    if (!isPlain(call.text("host")) || !LineBindings::isLineId(lineid) || call.number("taskid") <= 0)
        return refusal(QStringLiteral("Paruser"));
    const QStringList serials = call.list("sn");
    const LineBindings bindings(db().site.waringdir);
    if (isOthers(bindings.read(lineid), call.userid(), *m_mapper) ||
        !areOwnSpeakers(db(), call.userid(), serials))
        return refusal(QStringLiteral("exec_error"));
    if (!areOnline(m_devices, serials))
        return refusal(QStringLiteral("unline_error"));
    const bool hasSecret = db().site.callbacktokens;
    if (hasSecret && ownTask(db(), call.userid(), call.number("taskid")).isEmpty())
        return refusal(QStringLiteral("exec_error")); // its call-back could start nothing
    const QString secret = hasSecret ? RequestMapper::randomToken() : QString();
    const QString address = taskAddress(call, secret);
    if (!bindings.write({call.userid(), lineid, serials, call.number("taskid"), address, secret}))
        return refusal(QStringLiteral("exec_error"));
    commands(call)->play_urlsetwarning(serials, lineid, address);
    return done();
}

QByteArray DumpController_add_user::rmwaringlinetaskid(const Call& call) {
    const QString lineid = call.text("lineid");
    if (!LineBindings::isLineId(lineid))
        return refusal(QStringLiteral("Paruser"));
    const QStringList serials = call.list("sn");
    const LineBindings bindings(db().site.waringdir);
    if (isOthers(bindings.read(lineid), call.userid(), *m_mapper) ||
        !areOwnSpeakers(db(), call.userid(), serials) || !bindings.remove(lineid))
        return refusal(QStringLiteral("exec_error"));
    commands(call)->play_urlrmwarning(serials, lineid);
    return done();
}

/// What a speaker requests when a line that is bound to a stored task fires.
QByteArray DumpController_add_user::Startwaringtask(const Call& call) {
    const QString info = QStringLiteral("Waringstart");
    const QJsonObject oneRow{{QStringLiteral("EF"), 1}};
    if (call.has("lineid") && call.has("token") && !call.has("passwd")) {
        const auto binding = boundBy(db(), call);
        if (!binding || !m_mapper->token(binding->userid)) // the account may be gone
            return refusal(QStringLiteral("token 不对"));
        const bool isItsTask = binding->taskid == call.number("taskid");
        return startReply(isItsTask ? requestStart(db(), binding->userid, binding->taskid, info)
                                    : StartRequest::NotOwn,
                          oneRow);
    }
    for (const char* name : {"username", "passwd", "taskid"})
        if (!call.has(name))
            return refusal(QStringLiteral("Parer"));
    const SqlResult account = findLogin(call);
    if (!account.ok || account.isEmpty())
        return refuseLogin(call, QStringLiteral("账号密码不正确"));
    if (call.has("token") && call.text("token") != account.text(0, "token"))
        return refusal(QStringLiteral("token 不对"));
    return startReply(requestStart(db(), account.integer(0, "id"), call.number("taskid"), info), oneRow);
}
