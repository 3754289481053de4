// Endpoints for accounts and tokens.
#include "api/dumpcontroller_add_user.h"

#include "api/requestmapper.h"
#include "api/strictsql.h"
#include "device/severinit.h"
#include "service/accounts.h"
#include "service/passwords.h"
#include "tasks/task_workque.h"

#include <QCryptographicHash>
#include <QDateTime>
#include <QFile>

namespace {
/// Where the static files stand, below the service's working directory.
const QString documentRoot = QStringLiteral("etc/docroot/");

constexpr int RandomPart = 16; ///< bytes

/// 40 hexadecimal digits; without a random part a login in the same second gives the same token again.
QString newToken(const QString& username, const QString& passwd, bool withRandom) {
    QCryptographicHash hash(QCryptographicHash::Sha1);
    hash.addData(QDateTime::currentDateTime().toString(Qt::TextDate).toUtf8());
    hash.addData(username.toUtf8());
    hash.addData(passwd.toUtf8());
    if (withRandom)
        hash.addData(QByteArray::fromHex(RequestMapper::randomToken().toLatin1()).left(RandomPart));
    return QString::fromLatin1(hash.result().toHex());
}

/// 0 is an account of its own, another number an existing account.
bool isUsableMaster(const StrictSql& database, const Call& call) {
    if (call.text("preid").isEmpty() || call.text("preid") == QLatin1String("0"))
        return true;
    return !database
                .run(QStringLiteral("SELECT * FROM  sbox_users where ( `id` = '@userid' );"),
                     {{QStringLiteral("@userid"), call.number("preid")}})
                .isEmpty();
}
} // namespace

SqlResult DumpController_add_user::findLogin(const Call& call) const {
    SqlResult account = db().run(
        QStringLiteral("select * from  `sbox_users` where ( `user_name` = '@username' )"),
        {{QStringLiteral("@username"), call.text("username")},
         {QStringLiteral("@passwd"), call.text("passwd")}}); // not in the statement, but no quotes either
    comparePassword(db(), m_mapper->passwords(), call.text("passwd"), account);
    return account;
}

QByteArray DumpController_add_user::user_gtoken(const Call& call) {
    const QString token = newToken(call.text("username"), call.text("passwd"), db().site.randomtokens);
    const SqlResult login = findLogin(call);
    if (!login.ok && !login.refused)
        return refusal(QStringLiteral("ER_EXE"));
    if (login.isEmpty())
        return refuseLogin(call);
    const int userid = login.integer(0, "id");
    const ShownResult update =
        db().run(QStringLiteral("UPDATE  `sbox_users` SET `token`='@token' WHERE (`id`= '@userid')"),
                 {{QStringLiteral("@token"), token}, {QStringLiteral("@userid"), userid}});
    if (!update.ok)
        return reply({{QStringLiteral("res"), false},
                      {QStringLiteral("sqline"), update.sql},
                      {QStringLiteral("info"), QStringLiteral("ER_EXE")}});
    if (update.affected == 0 && login.text(0, "token") != token)
        return refusal(QStringLiteral("ER_UPS")); // the account has just been deleted
    m_mapper->refreshToken(db(), userid);
    return success({{QStringLiteral("userid"), userid},
                    {QStringLiteral("master_id"), login.integer(0, "master_id")},
                    {QStringLiteral("token"), token}});
}

QByteArray DumpController_add_user::user_onlygtoken(const Call& call) {
    const SqlResult login = findLogin(call);
    if (!login.ok)
        return refusal(QStringLiteral("ER_EXE"));
    if (login.isEmpty())
        return refuseLogin(call);
    const QJsonObject row = login.object(0);
    QJsonObject answer{{QStringLiteral("res"), true},
                       {QStringLiteral("userid"), login.integer(0, "id")},
                       {QStringLiteral("info"), QStringLiteral("SUC")}};
    for (const char* column : {"token", "user_level", "master_id", "mask", "nickname", "beizhu", "ctime"})
        answer.insert(QLatin1String(column), row.value(QLatin1String(column)));
    return reply(answer);
}

QByteArray DumpController_add_user::user_add(const Call& /*call*/) {
    return {};
}

QByteArray DumpController_add_user::user_add_lite(const Call& call) {
    if (!isUsableMaster(db(), call))
        return refusal(QStringLiteral("REID_ER"));
    const QString token = newToken(call.text("username"), call.text("passwd"), db().site.randomtokens);
    const SqlResult insert = db().run(
        QStringLiteral("INSERT INTO  `sbox_users` (`user_name`, `user_pass`, `master_id`,`token`) VALUES "
                       "('@username', '@passwd', '@master_id', '@token')"),
        {{QStringLiteral("@username"), call.text("username")},
         {QStringLiteral("@passwd"), m_mapper->passwords().asStored(call.text("passwd"))},
         {QStringLiteral("@master_id"), call.number("preid")},
         {QStringLiteral("@token"), token}});
    if (!insert.ok)
        return refusal(QStringLiteral("ER_EXE"));
    const int userid = static_cast<int>(insert.lastId);
    m_mapper->refreshToken(db(), userid);
    return reply({{QStringLiteral("res"), true},
                  {QStringLiteral("username"), call.text("username")},
                  {QStringLiteral("userid"), userid},
                  {QStringLiteral("token"), token}});
}

QByteArray DumpController_add_user::user_dbini(const Call& /*call*/) {
    if (db().kind() != 0 && db().kind() != 1)
        return refusal(QStringLiteral("config.ini_dbk_ER"));
    QFile script(db().kind() == 0 ? QStringLiteral(":/etc/ttys/sqlite3main.sql")
                                  : QStringLiteral(":/etc/ttys/elvor1.sql"));
    const int affected =
        script.open(QIODevice::ReadOnly) ? db().runScript(QString::fromUtf8(script.readAll())) : -1;
    if (affected < 0)
        return reply({{QStringLiteral("res"), false},
                      {QStringLiteral("info"), QStringLiteral("excvp_ER")},
                      {QStringLiteral("infors"), affected}});
    m_mapper->loadTokens(db());
    if (m_tasks) // this node's row must hold its own address again
        QMetaObject::invokeMethod(m_tasks, &Task_workque::systeminit, Qt::QueuedConnection);
    return reply({{QStringLiteral("res"), true}, {QStringLiteral("info"), affected}});
}

QByteArray DumpController_add_user::fucktext(const Call& /*call*/) {
    return reply({{QStringLiteral("res"), false},
                  {QStringLiteral("info"), QStringLiteral("ER_")},
                  {QStringLiteral("docroot"), documentRoot}});
}
