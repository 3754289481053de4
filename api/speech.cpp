#include "service/speech.h"
#include "api/dumpcontroller_add_user.h"
#include "api/strictsql.h"
#include "redis/core_corss.h"
#include "service/filestore.h"

#include <QJsonObject>

namespace {

SpeechOrder orderOf(const Call& call) {
    return {call.text("text"), qBound(0, call.number("vol"), 100), qBound(0, call.number("speed"), 100),
            call.text("shengyin")};
}

QJsonObject spokenReply(const StoredAudio& stored, const FileStore& store, int userid) {
    return {{QStringLiteral("res"), true},
            {QStringLiteral("info"), QStringLiteral("SUC")},
            {QStringLiteral("userid"), userid},
            {QStringLiteral("url"), stored.url},
            {QStringLiteral("playurl"), store.playUrl(stored.url)},
            {QStringLiteral("len"), stored.measure.seconds},
            {QStringLiteral("filesize"), stored.measure.bytes}};
}

} // namespace

QByteArray DumpController_add_user::user_save_ttsfile(const Call& call) {
    const SpeechOrder order = orderOf(call);
    if (!canBeSpoken(order.text))
        return refusal(QStringLiteral("_FALSE7"));
    const FileStore store(db());
    const StoreResult result = speakAndStore(
        db(), store, order, {call.userid(), call.text("filename"), SpeechBitrate, Keep::ByCleanName});
    if (!result.stored)
        return storeRefusal(result);
    QJsonObject object = spokenReply(*result.stored, store, call.userid());
    object.insert(QStringLiteral("lastid"), result.stored->id);
    return reply(object);
}

QByteArray DumpController_add_user::user_play_tts(const Call& call) {
    const QStringList speakers = call.list("snlist");
    if (speakers.isEmpty())
        return noTargets();
    const SpeechOrder order = orderOf(call);
    if (!canBeSpoken(order.text))
        return refusal(QStringLiteral("_FALSE7"));
    const FileStore store(db());
    const bool lite = db().kind() == 0;
    const StoreResult result = speakAndStore(
        db(), store, order,
        {call.userid(), call.text("filename"), SpeechBitrate, lite ? Keep::FileAlone : Keep::ByCleanName});
    if (!result.stored)
        return storeRefusal(result);
    const QStringList own = commandable(call.userid(), speakers);
    if (!own.isEmpty())
        commands(call)->play_url(own, store.playUrl(result.stored->url));
    QJsonObject object = spokenReply(*result.stored, store, call.userid());
    if (lite)
        object.insert(QStringLiteral("info"), QStringLiteral("Lite mode suc"));
    else
        object.insert(QStringLiteral("lastid"), result.stored->id);
    return reply(object);
}
