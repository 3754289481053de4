#include "api/dumpcontroller_add_user.h"
#include "api/filestore.h"
#include "api/program.h"

#include "api/strictsql.h"
#include "redis/core_corss.h"

#include <QDir>
#include <QJsonObject>
#include <QUuid>

namespace {

constexpr int LongestText = 10000; // characters: about half an hour of speech
constexpr int SpeechBitrate = 128; // kbit/s

/// What a speech endpoint was asked to say.
struct SpeechOrder {
    QString text;
    int volume; ///< 0 to 100
    int speed;  ///< 0 to 100, 50 is normal
    QString voice;
};

/// The text file that the speech program reads; gone when this object goes.
class TextFile {
public:
    TextFile(const QString& programDirectory, const QString& text)
        : m_name(QUuid::createUuid().toString(QUuid::Id128))
        , m_path(programDirectory + QStringLiteral("/tty/") + m_name + QStringLiteral(".txt")) {
        QFile file(m_path);
        const QByteArray bytes = text.toUtf8();
        m_written = QDir().mkpath(programDirectory + QStringLiteral("/tty")) &&
                    file.open(QIODevice::WriteOnly) && file.write(bytes) == bytes.size() && file.flush();
    }
    ~TextFile() { QFile::remove(m_path); }
    TextFile(const TextFile&) = delete;
    TextFile& operator=(const TextFile&) = delete;

    bool isWritten() const { return m_written; }
    QString argument() const { return QStringLiteral("./tty/") + m_name + QStringLiteral(".txt"); }

private:
    QString m_name;
    QString m_path;
    bool m_written = false;
};

bool speak(const sqlite::Site& site, const SpeechOrder& order, const QString& output) {
    const TextFile text(site.programdir, order.text);
    if (!text.isWritten())
        return false;
    ProgramRun run;
    run.program = QStringLiteral("node");
    run.directory = site.programdir;
    run.arguments = QStringList{QStringLiteral("tts.js"),
                                QString::number(order.volume),
                                QString::number(order.speed),
                                order.voice,
                                output,
                                text.argument()};
    // Everybody on the machine can read a program's arguments.
    run.environment.insert(QStringLiteral("ttsxfAPPID"), site.ttsxfAPPID);
    run.environment.insert(QStringLiteral("ttsxfAPISecret"), site.ttsxfAPISecret);
    run.environment.insert(QStringLiteral("ttsxfAPIKey"), site.ttsxfAPIKey);
    return runProgram(run).ok();
}

StoreResult speakAndStore(const StrictSql& database, const FileStore& store, const SpeechOrder& order,
                          const AudioUpload& upload) {
    const auto work = store.workDirectory();
    const QString spoken = QDir(work->path()).absoluteFilePath(QStringLiteral("speech.wav"));
    if (!work->isValid() || !speak(database.site, order, spoken))
        return {std::nullopt, QStringLiteral("exc_error_ext"), {}};
    return storeAudio(database, store, upload, spoken, *work);
}

SpeechOrder orderOf(const Call& call) {
    return {call.text("text"), qBound(0, call.number("vol"), 100), qBound(0, call.number("speed"), 100),
            call.text("shengyin")};
}

bool canBeSpoken(const SpeechOrder& order) {
    return !order.text.isEmpty() && order.text.size() <= LongestText;
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
    if (!canBeSpoken(order))
        return refusal(QStringLiteral("_FALSE7"));
    const FileStore store(db());
    const StoreResult result =
        speakAndStore(db(), store, order, {call.userid(), call.text("filename"), SpeechBitrate, true});
    if (!result.stored)
        return result.refusalReply();
    QJsonObject object = spokenReply(*result.stored, store, call.userid());
    object.insert(QStringLiteral("lastid"), result.stored->id);
    return reply(object);
}

QByteArray DumpController_add_user::user_play_tts(const Call& call) {
    const QStringList speakers = call.list("snlist");
    if (speakers.isEmpty())
        return noTargets();
    const SpeechOrder order = orderOf(call);
    if (!canBeSpoken(order))
        return refusal(QStringLiteral("_FALSE7"));
    const FileStore store(db());
    const bool lite = db().kind() == 0;
    const StoreResult result =
        speakAndStore(db(), store, order, {call.userid(), call.text("filename"), SpeechBitrate, !lite});
    if (!result.stored)
        return result.refusalReply();
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
