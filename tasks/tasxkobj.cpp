#include "tasks/tasxkobj.h"

#include <algorithm>
#include <QDebug>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QRandomGenerator>

namespace {

// Named in the second stop document, where an address has to stand.
const QString NoFile = QStringLiteral("none.mp3");

constexpr int LongestPlay = 86400; ///< seconds
// QTimer counts in int milliseconds.
std::chrono::milliseconds timerSpan(int seconds) {
    return std::chrono::seconds(std::clamp(seconds, 0, LongestPlay));
}

QByteArray compact(const QJsonObject& command) {
    return QJsonDocument(command).toJson(QJsonDocument::Compact).replace('\n', QByteArray());
}

QByteArray withoutBlanks(const QJsonObject& command) {
    return compact(command).replace(' ', QByteArray());
}

// A play whose end is this near has not been cut short.
constexpr std::chrono::milliseconds AtItsEnd{500};

} // namespace

QJsonObject Tasxkobj::command(const char* word) const {
    QJsonObject object{{QStringLiteral("cmd"), QLatin1String(word)},
                       {QStringLiteral("snlist"), QJsonArray::fromStringList(seeds)}};
    if (order != 0)
        object.insert(QStringLiteral("order"), static_cast<double>(order));
    return object;
}

QJsonObject Tasxkobj::playCommand(const char* word, const QString& url) const {
    QJsonObject object = command(word);
    object.insert(QStringLiteral("filelist"), QJsonArray{url});
    if (order != 0 && terms().kind != PlayTerms::Kind::Direct)
        object.insert(QStringLiteral("terms"), terms().write());
    return object;
}

PlayTerms Tasxkobj::terms() const {
    using Kind = PlayTerms::Kind;
    const Kind kind = forcePlayAs ? Kind::Alarm : isTemporary ? Kind::Direct : Kind::Bell;
    return {kind, priority, volume, std::clamp(len, 0, LongestPlay)};
}

Tasxkobj::Tasxkobj(sqlite* /*database*/, QObject* parent)
    : QObject(parent) {
    for (QTimer* timer : {&m_taskTimer, &m_fileTimer}) {
        timer->setSingleShot(true);
        timer->setTimerType(Qt::PreciseTimer);
    }
    connect(&m_taskTimer, &QTimer::timeout, this, &Tasxkobj::TimerOut);
    connect(&m_fileTimer, &QTimer::timeout, this, &Tasxkobj::TimerNext);
}

bool Tasxkobj::endsWithin(std::chrono::milliseconds time) const {
    if (!isPlaying())
        return false;
    const bool lastFile = repeat != 0 && playlist.isEmpty() && m_fileTimer.isActive();
    return m_taskTimer.remainingTimeAsDuration() <= time ||
           (lastFile && m_fileTimer.remainingTimeAsDuration() <= time);
}

std::chrono::milliseconds Tasxkobj::playLeft() const {
    return std::min(m_fileSpan, m_taskTimer.remainingTimeAsDuration());
}

void Tasxkobj::Start() {
    if (repeat == 0) {
        randplay();
        return;
    }
    if (repeat < 0)
        return;
    repeat = std::min(repeat, MaxRepeat);
    playlist.clear();
    for (int i = 0; i < repeat; ++i)
        playlist += files;
    finished = false;
    m_taskTimer.start(timerSpan(len));
    ruderplay();
}

void Tasxkobj::randplay() {
    if (len == 0 && jiange == 0) {
        finished = true;
        emit Over(id);
        return;
    }
    if (len < 1 || files.isEmpty())
        return;
    finished = false;
    m_taskTimer.start(timerSpan(len));
    playAny();
}

void Tasxkobj::playAny() {
    play_file(files.at(QRandomGenerator::global()->bounded(files.size())));
}

void Tasxkobj::ruderplay() {
    if (!playlist.isEmpty()) {
        play_file(playlist.takeFirst());
        return;
    }
    stopPlaying();
    qInfo() << "云平台定时任务:" << name << id << "正常播放结束";
    emit Over(id);
}

void Tasxkobj::play_file(const QString& url) {
    const int length = fileLengths.value(url, 0);
    if (length < 1)
        return;
    qInfo() << "云平台定时任务 播放url：" << name << id << url << "文件播放时长" << length;
    m_fileSpan = timerSpan(length);
    play_JSON(url, length);
    m_fileTimer.start(m_fileSpan);
}

void Tasxkobj::play_JSON(const QString& url, int /*length*/) {
    play_JSON(url);
}

void Tasxkobj::play_JSON(const QString& url) {
    if (forcePlayAs)
        playAS_JSON(url);
    else
        emit Ocmd(compact(playCommand("PLAYOFF", url)));
}

void Tasxkobj::playAS_JSON(const QString& url) {
    emit Ocmd(compact(playCommand("PLAYAS", url)));
}

void Tasxkobj::playA5_JSON() {
    const auto stop = [this](QJsonObject object) {
        if (order != 0 && !wasStopped)
            object.insert(QStringLiteral("over"), true);
        return withoutBlanks(object);
    };
    emit Ocmd(stop(command(forcePlayAs ? "PLAYAS" : "FORCESTOP")));
    qInfo() << "云平台定时任务 停止命令已发送" << name << id;
    // Stops an alarm's "PLAYAS" too, and is the second chance when the first frame is lost.
    QJsonObject again = command("FORCESTOP");
    again.insert(QStringLiteral("filelist"), QJsonArray{NoFile});
    again.insert(QStringLiteral("level"), QStringLiteral("5"));
    emit Ocmd(stop(again));
}

void Tasxkobj::TimerNext() {
    if (finished)
        return;
    m_fileTimer.stop();
    if (repeat == 0)
        playAny();
    else
        ruderplay();
}

void Tasxkobj::TimerOut() {
    if (finished)
        return;
    wasStopped = isPlaying() && !endsWithin(AtItsEnd);
    stopPlaying();
    qInfo() << "云平台定时任务 到点结束" << name << id;
    emit Over(id);
}

void Tasxkobj::stopPlaying() {
    finished = true;
    m_taskTimer.stop();
    m_fileTimer.stop();
    playA5_JSON();
}
