// Endpoints that make speakers play, stop and change their volume at once.
#include "api/dumpcontroller_add_user.h"

#include "api/plankeys.h"
#include "api/requestmapper.h"
#include "core/sqlite.h"
#include "redis/core_corss.h"

namespace {
constexpr int SerialLength = 32;
constexpr unsigned HighestDebugMode = 3;

QByteArray done() {
    return reply({{QStringLiteral("res"), true}});
}

QByteArray noTargets() {
    return refusal(QStringLiteral("snlist_error"), -1);
}

/// The steps that the endpoints for a list of speakers share; `send` gets the list.
template<typename Send>
QByteArray commandSpeakers(Call call, std::initializer_list<const char*> names, Send send) {
    if (!call.require(names, "Paruser"))
        return call.refused();
    const QStringList sns = call.list("snlist");
    if (sns.isEmpty())
        return noTargets();
    if (!call.authenticate())
        return call.refused();
    send(sns, call);
    return done();
}

/// False for a value outside 0..3, negative ones included.
bool isDebugMode(int value) {
    return static_cast<unsigned>(value) <= HighestDebugMode;
}
} // namespace

QByteArray DumpController_add_user::user_play_file(const Params& params) {
    return commandSpeakers(
        {params, *m_mapper}, {"url", "snlist"},
        [this](const QStringList& sns, const Call& call) { commands()->play_url(sns, call.text("url")); });
}

QByteArray DumpController_add_user::user_play_fileq39(const Params& params) {
    return commandSpeakers(
        {params, *m_mapper}, {"url", "snlist"},
        [this](const QStringList& sns, const Call& call) { commands()->play_urlq39(sns, call.text("url")); });
}

QByteArray DumpController_add_user::user_stop_file(const Params& params) {
    return commandSpeakers({params, *m_mapper}, {"snlist"},
                           [this](const QStringList& sns, const Call&) { commands()->Stop_url(sns); });
}

QByteArray DumpController_add_user::user_stop_fileq39(const Params& params) {
    return commandSpeakers({params, *m_mapper}, {"snlist"},
                           [this](const QStringList& sns, const Call&) { commands()->Stop_urlq39(sns); });
}

QByteArray DumpController_add_user::user_edit_vols(const Params& params) {
    return commandSpeakers(
        {params, *m_mapper}, {"vol", "snlist"},
        [this](const QStringList& sns, const Call& call) { commands()->edit_vols(sns, call.number("vol")); });
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
    commands()->Debug_(call.text("sn"), call.number("dsv"));
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
    commands()->play_urlq39(sns.split(QLatin1Char('|')), plan.text(0, "url"));
    return done();
}
