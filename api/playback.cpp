// Endpoints that make speakers play, stop and change their volume at once.
#include "api/dumpcontroller_add_user.h"

#include "api/requestmapper.h"
#include "core/sql/sqlite.h"
#include "redis/core_corss.h"
#include "tasks/ownership.h"

#include <QDebug>

namespace {
QByteArray done() {
    return reply({{QStringLiteral("res"), true}});
}
} // namespace

/// The steps that the endpoints for a list of speakers share; `send` gets the list.
template<typename Send>
QByteArray DumpController_add_user::commandSpeakers(const Call& call, Send send) {
    const QStringList own = commandable(call.userid(), call.list("snlist"));
    if (!own.isEmpty())
        send(own);
    return done();
}

QStringList DumpController_add_user::commandable(int userid, const QStringList& sns) const {
    if (!isOwnOnly(db()))
        return sns;
    const QStringList own = ownSerials(db(), userid, sns).value_or(QStringList());
    if (own.size() < sns.size())
        qWarning() << "account" << userid
                   << "commands speakers of others, left out:" << sns.size() - own.size();
    return own;
}

QByteArray DumpController_add_user::user_play_file(const Call& call) {
    return commandSpeakers(call,
                           [&](const QStringList& sns) { commands(call)->play_url(sns, call.text("url")); });
}

QByteArray DumpController_add_user::user_play_fileq39(const Call& call) {
    return commandSpeakers(
        call, [&](const QStringList& sns) { commands(call)->play_urlq39(sns, call.text("url")); });
}

QByteArray DumpController_add_user::user_stop_file(const Call& call) {
    return commandSpeakers(call, [&](const QStringList& sns) { commands(call)->Stop_url(sns); });
}

QByteArray DumpController_add_user::user_stop_fileq39(const Call& call) {
    return commandSpeakers(call, [&](const QStringList& sns) { commands(call)->Stop_urlq39(sns); });
}

QByteArray DumpController_add_user::user_edit_vols(const Call& call) {
    return commandSpeakers(
        call, [&](const QStringList& sns) { commands(call)->edit_vols(sns, call.number("vol")); });
}

QByteArray DumpController_add_user::user_edit_debug(const Call& call) {
    for (const QString& sn : commandable(call.userid(), {call.text("sn")}))
        commands(call)->Debug_(sn, call.number("dsv"));
    return done();
}

/// Reached by no route, and unguarded therefore.
QByteArray DumpController_add_user::user_edit_alldebug(const Call& call) {
    commands(call)->Debugkillall_(call.number("dsv"));
    return done();
}

QByteArray DumpController_add_user::user_play_wplant(const Call& call) {
    const SqlResult plan = db().run(QStringLiteral("SELECT * FROM  warningplant where id ='@pltid';"),
                                    {{QStringLiteral("@pltid"), call.number("pltid")}});
    if (!plan.ok)
        return refusal(QStringLiteral("ER_EXE"));
    const QString sns = plan.text(0, "snids");
    if (sns.isEmpty())
        return noTargets();
    if (!isPlayable(plan.text(0, "url"), *m_mapper))
        return refusal(QStringLiteral("Paruser"));
    const QStringList own = commandable(plan.integer(0, "userid"), sns.split(QLatin1Char('|')));
    if (!own.isEmpty())
        commands(call, plan.integer(0, "userid"))->play_urlq39(own, plan.text(0, "url"));
    return done();
}
