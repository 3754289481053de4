// Endpoints that make speakers play, stop and change their volume at once.
#include "api/dumpcontroller_add_user.h"

#include "api/plankeys.h"
#include "api/requestmapper.h"
#include "core/sql/sqlite.h"
#include "redis/core_corss.h"
#include "tasks/ownership.h"

#include <QDebug>

namespace {
constexpr int SerialLength = 32;
constexpr unsigned HighestDebugMode = 3;

QByteArray done() {
    return reply({{QStringLiteral("res"), true}});
}

QByteArray noTargets() {
    return refusal(QStringLiteral("snlist_error"), -1);
}

/// False for a value outside 0..3, negative ones included.
bool isDebugMode(int value) {
    return static_cast<unsigned>(value) <= HighestDebugMode;
}
} // namespace

/// The steps that the endpoints for a list of speakers share; `send` gets the list.
template<typename Send>
QByteArray DumpController_add_user::commandSpeakers(const Params& params,
                                                    std::initializer_list<const char*> names, Send send) {
    Call call(params, *m_mapper);
    if (!call.require(names, "Paruser"))
        return call.refused();
    const QStringList sns = call.list("snlist");
    if (sns.isEmpty())
        return noTargets();
    if (!call.authenticate())
        return call.refused();
    const QStringList own = commandable(call.userid(), sns);
    if (!own.isEmpty())
        send(own, call);
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

QByteArray DumpController_add_user::user_play_file(const Params& params) {
    return commandSpeakers(params, {"url", "snlist"}, [this](const QStringList& sns, const Call& call) {
        commands()->play_url(sns, call.text("url"));
    });
}

QByteArray DumpController_add_user::user_play_fileq39(const Params& params) {
    return commandSpeakers(params, {"url", "snlist"}, [this](const QStringList& sns, const Call& call) {
        commands()->play_urlq39(sns, call.text("url"));
    });
}

QByteArray DumpController_add_user::user_stop_file(const Params& params) {
    return commandSpeakers(params, {"snlist"},
                           [this](const QStringList& sns, const Call&) { commands()->Stop_url(sns); });
}

QByteArray DumpController_add_user::user_stop_fileq39(const Params& params) {
    return commandSpeakers(params, {"snlist"},
                           [this](const QStringList& sns, const Call&) { commands()->Stop_urlq39(sns); });
}

QByteArray DumpController_add_user::user_edit_vols(const Params& params) {
    return commandSpeakers(params, {"vol", "snlist"}, [this](const QStringList& sns, const Call& call) {
        commands()->edit_vols(sns, call.number("vol"));
    });
}

QByteArray DumpController_add_user::user_edit_debug(const Params& params) {
    Call call(params, *m_mapper);
    if (!call.require({"sn", "dsv"}, "Paruser"))
        return call.refused();
    if (!isDebugMode(call.number("dsv")))
        return refusal(QStringLiteral("Range ER"), -3);
    if (call.text("sn").size() != SerialLength)
        return noTargets();
    if (!call.authenticate())
        return call.refused();
    for (const QString& sn : commandable(call.userid(), {call.text("sn")}))
        commands()->Debug_(sn, call.number("dsv"));
    return done();
}

QByteArray DumpController_add_user::user_edit_alldebug(const Params& params) {
    Call call(params, *m_mapper);
    if (!call.require({"dsv"}, "Paruser"))
        return call.refused();
    if (!isDebugMode(call.number("dsv")))
        return refusal(QStringLiteral("Range ER"), -3);
    if (!call.authenticate())
        return call.refused();
    commands()->Debugkillall_(call.number("dsv"));
    return done();
}

QByteArray DumpController_add_user::user_play_wplant(const Params& params) {
    const Call call(params, *m_mapper);
    if (!call.has("pltid"))
        return refusal(QStringLiteral("Paruser"));
    const PlanKeys* keys = m_mapper->planKeys();
    if (keys && call.text("key") != keys->of(call.number("pltid")))
        return refusal(QStringLiteral("_FALSE6"), -2);
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
        commands()->play_urlq39(own, plan.text(0, "url"));
    return done();
}
