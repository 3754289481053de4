// Endpoints for the service periods of speakers and what was paid for them.
#include "api/dumpcontroller_add_user.h"

#include "api/requestmapper.h"
#include "api/strictsql.h"

#include <QDate>

namespace {
/// "yyyy-MM-dd", with or without a time of day: periods are compared as text.
bool isEndOfPeriod(const QString& text) {
    return QDate::fromString(text.left(10), QStringLiteral("yyyy-MM-dd")).isValid();
}

/// The rows that a statement about one account gives.
QByteArray listFor(const StrictSql& database, const Call& call, const QString& statement) {
    const SqlResult rows = database.run(statement, {{QStringLiteral("@userid"), call.number("userid")}});
    if (!rows.ok)
        return refusal(QStringLiteral("ER_EXE"));
    return success({{QStringLiteral("data"), rows.objects()}});
}
} // namespace

QByteArray DumpController_add_user::odds_fuckpay(const Call& call) {
    if (!isEndOfPeriod(call.text("overtime")))
        return refusal(QStringLiteral("ParER"));
    int extended = 0;
    const bool stored = db().transaction([&] {
        const SqlResult period = db().run(
            QStringLiteral(
                "UPDATE `snover` SET `overtime` = '@overtime' , `statu` = 3 WHERE ( `id` > 0  and  "
                "sn = '@sn' );"),
            {{QStringLiteral("@overtime"), call.text("overtime")}, {QStringLiteral("@sn"), call.text("sn")}});
        extended = period.affected;
        return period.ok &&
               db().run(QStringLiteral(
                            "INSERT INTO `fei` (`userid`, `fei`, `info`) VALUES ( '@userid','@fei','@info')"),
                        {{QStringLiteral("@userid"), call.number("userid")},
                         {QStringLiteral("@fei"), call.text("fei")},
                         {QStringLiteral("@info"), call.text("info")}})
                   .ok;
    });
    if (!stored)
        return refusal(QStringLiteral("ER_EXE"));
    return success({{QStringLiteral("EF"), extended}});
}

QByteArray DumpController_add_user::seemyoder(const Call& call) {
    return listFor(
        db(), call,
        QStringLiteral("select *  from `fei` WHERE ( `userid` = '@userid' ) order by id desc limit 50 ;"));
}

QByteArray DumpController_add_user::seemydaoqishebei(const Call& call) {
    return listFor(
        db(), call,
        QStringLiteral("select `sbox_device_info`.`device_name`, `sbox_device_info`.`device_seed`, "
                       "`snover`.`overtime`, `snover`.`statu` from `snover`,`sbox_device_info` WHERE ( "
                       "`snover`.`sn` = `sbox_device_info`.`device_seed` and "
                       "`sbox_device_info`.`user_id` = '@userid' ) order by `snover`.`overtime` ;"));
}
