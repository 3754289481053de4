#include "service/speech.h"

#include "service/filestore.h"
#include "service/program.h"

#include "core/sql/sqlite.h"

#include <algorithm>
#include <mutex>
#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <QUuid>

namespace {

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

/// A line of the list: "Pty Language Age/Gender VoiceName File ...", blanks between, none within.
std::vector<Voice> readVoices(const QByteArray& list) {
    std::vector<Voice> found;
    QStringList lines = QString::fromUtf8(list).split(QLatin1Char('\n'), Qt::SkipEmptyParts);
    if (!lines.isEmpty())
        lines.removeFirst(); // the heading
    for (const QString& line : qAsConst(lines)) {
        const QStringList columns = line.simplified().split(QLatin1Char(' '));
        if (columns.size() < 5)
            continue;
        const QString& language = columns.at(1);
        found.push_back({language, QString(columns.at(3)).replace(QLatin1Char('_'), QLatin1Char(' ')),
                         language.section(QLatin1Char('-'), 0, 0)});
    }
    const auto byId = [](const Voice& a, const Voice& b) {
        return a.id < b.id;
    };
    std::stable_sort(found.begin(), found.end(), byId);
    const auto isSame = [](const Voice& a, const Voice& b) {
        return a.id == b.id;
    };
    found.erase(std::unique(found.begin(), found.end(), isSame), found.end());
    return found;
}

} // namespace

bool canBeSpoken(const QString& text) {
    return !text.isEmpty() && text.size() <= LongestSpeech;
}

StoreResult speakAndStore(sqlite& database, const FileStore& store, const SpeechOrder& order,
                          const AudioUpload& upload) {
    const auto work = store.workDirectory();
    const QString spoken = QDir(work->path()).absoluteFilePath(QStringLiteral("speech.wav"));
    if (!work->isValid() || !speak(database.site, order, spoken))
        return {std::nullopt, StoreFault::NotStored, {}};
    return storeAudio(database, store, upload, spoken, *work);
}

std::vector<Voice> voices() {
    static std::mutex mutex;
    static std::vector<Voice> kept;
    const std::lock_guard lock(mutex);
    if (!kept.empty())
        return kept;
    ProgramRun run;
    run.program = QStringLiteral("espeak-ng");
    run.arguments = QStringList{QStringLiteral("--voices")};
    run.limit = std::chrono::seconds(10);
    kept = readVoices(runProgram(run).output);
    return kept;
}
