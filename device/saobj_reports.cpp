#include "device/packets.h"
#include "device/saobj.h"
#include "device/words.h"

#include <optional>
#include <QDateTime>
#include <QJsonDocument>

// What speakers report on their control connection, told apart by its first bytes.

namespace {
/// Longest text of a report that a session keeps; a fleet of sessions pays for it.
constexpr int MaxKeptText = 512;

QString firstLine(const QJsonValue& value) {
    return value.toString().section(QLatin1Char('\n'), 0, 0).trimmed().left(MaxKeptText);
}

/// Speakers write numbers as JSON numbers or as text.
std::optional<int> integer(const QJsonObject& info, QLatin1String key) {
    bool isNumber = false;
    const int number = info.value(key).toVariant().toInt(&isNumber);
    return isNumber ? std::optional(number) : std::nullopt;
}
} // namespace

struct SAobj::Report {
    const char* prefix;
    int length; ///< of the whole report; 0 for any
    void (SAobj::*handler)(const QByteArray& rest);
};

// The first row that fits takes the report; what fits none may be device information.
const SAobj::Report SAobj::Reports[] = {
    {words::StatusFormS, 0, &SAobj::reportDeviceForm}, {words::StatusFormColon, 0, &SAobj::reportDeviceForm},
    {words::StatusForm, 0, &SAobj::reportDeviceForm},  {words::Connecting, 3, &SAobj::reportConnectReply},
    {words::PathDone, 0, &SAobj::reportPathDone},      {words::Path, 0, &SAobj::reportPath},
    {words::Playing, 0, &SAobj::reportPlaying},        {words::Waiting, 0, &SAobj::reportWaiting},
    {words::Paused, 0, &SAobj::reportPaused},          {words::Preloaded, 0, &SAobj::reportPreloaded},
    {words::Purged, 0, &SAobj::reportPurged},          {words::TimeWanted, 0, &SAobj::reportTimeWanted},
    {words::Tasks, 0, &SAobj::reportTaskList},         {words::Updated, 0, &SAobj::reportUpdate},
    {words::Version, 0, &SAobj::reportVersion},        {words::Alarm, 0, &SAobj::reportAlarm},
    {words::OtherUpdate, 0, &SAobj::reportUpdate},
};

void SAobj::sn_onlinebackdata(const QByteArray& bytes) {
    if (bytes.contains(words::Mp3Path))
        return reportMp3Path(bytes);
    // Binary, so its first byte may be any letter: it is known by its length and end.
    const QByteArray trailer = packets::statusTrailer();
    if (bytes.size() == packets::StatusFormLength + trailer.size() && bytes.endsWith(trailer))
        return reportDeviceForm(bytes);
    for (const Report& report : Reports) {
        if (bytes.startsWith(report.prefix) && (report.length == 0 || report.length == bytes.size()))
            return (this->*report.handler)(bytes.mid(static_cast<int>(qstrlen(report.prefix))));
    }
    dido(bytes); // any first byte may stand before device information
}

void SAobj::reportMp3Path(const QByteArray& /*rest*/) {
    m_mp3.answerRequest();
}

void SAobj::reportDeviceForm(const QByteArray& form) {
    const QJsonObject fields = packets::statusFields(form);
    if (!fields.value(QLatin1String("res_____")).toBool())
        return;
    take(fields, "vol", m_vol, SpeakerEvents::Volume);
    note(SpeakerEvents::VolumeSet);
    take(fields, "xuhao", m_xuhao);
    for (const char* const field : {"status", "severip", "leixing", "xuhao", "severport"})
        mirror(field, fields.value(QLatin1String(field)).toString());
    mirror("sn", m_sn);
}

void SAobj::take(const QJsonObject& info, const char* key, int& value, SpeakerEvents::Kind kind) {
    if (const auto told = integer(info, QLatin1String(key)))
        change(value, *told, kind);
}

QJsonObject SAobj::dido(const QByteArray& reply) {
    const QJsonDocument document = QJsonDocument::fromJson(reply.mid(1));
    QJsonObject info = document.object();
    if (document.isObject())
        takeInfo(info);
    info.insert(QStringLiteral("res"), document.isObject());
    return info;
}

void SAobj::takeInfo(const QJsonObject& info) {
    take(info, "kind", m_kind);
    take(info, "vol", m_vol, SpeakerEvents::Volume);
    take(info, "Mic_d", m_micD);
    take(info, "Mic_e", m_micE);
    take(info, "debug", m_debugState);
    take(info, "voltage", m_voltage);
    if (info.contains(QLatin1String("l_ip"))) {
        const QString address = firstLine(info.value(QLatin1String("l_ip")));
        if (std::exchange(m_localIp, address) != address)
            note(SpeakerEvents::Information);
    }
    m_clockUnset = firstLine(info.value(QLatin1String("Date"))).contains(QLatin1String("1970"));
    note(SpeakerEvents::Described);
    if (m_clockUnset)
        update_time();
}

/// The speaker has heard the request for its data connection; the connection itself says the rest.
void SAobj::reportConnectReply(const QByteArray& /*rest*/) {}

void SAobj::reportPathDone(const QByteArray& /*rest*/) {
    noteReport(SpeakerEvents::Report::What::Done);
    setBusy(false);
    m_playingPath = QStringLiteral("Nothing");
    mirror("Playing_local_path", m_playingPath);
}

void SAobj::reportPath(const QByteArray& path) {
    m_playingPath = QString::fromUtf8(path).left(MaxKeptText);
    noteReport(SpeakerEvents::Report::What::Path, m_playingPath);
    mirror("Playing_local_path", path);
}

void SAobj::reportLocalStatus(const QString& status, bool busy) {
    setBusy(busy);
    mirror("Playing_local_status", status);
}

void SAobj::reportPlaying(const QByteArray& /*rest*/) {
    noteReport(SpeakerEvents::Report::What::Playing);
    reportLocalStatus(QStringLiteral("Local_PLAYING"), true);
}

void SAobj::reportWaiting(const QByteArray& /*rest*/) {
    noteReport(SpeakerEvents::Report::What::Waiting);
    reportLocalStatus(QStringLiteral("Local_WAITING"), false);
}

void SAobj::reportPaused(const QByteArray& /*rest*/) {
    noteReport(SpeakerEvents::Report::What::Paused);
    reportLocalStatus(QStringLiteral("Local_PLUSE"), false);
}

void SAobj::reportPreloaded(const QByteArray& /*rest*/) {
    mirror("Preload", QStringLiteral("DONE"));
}

void SAobj::reportPurged(const QByteArray& /*rest*/) {
    mirror("Purge", QStringLiteral("DONE"));
}

void SAobj::reportTimeWanted(const QByteArray& /*rest*/) {
    update_time();
}

void SAobj::reportTaskList(const QByteArray& list) {
    mirror("Task_list", list);
}

void SAobj::reportUpdate(const QByteArray& /*rest*/) {
    if (m_env.events.wants(SpeakerEvents::Detailed))
        mirror("Update_Time", QDateTime::currentDateTime().toString(QStringLiteral("yyyy-MM-dd:hh:mm:ss")));
}

void SAobj::reportVersion(const QByteArray& number) {
    bool isNumber = false;
    const int version = number.trimmed().toInt(&isNumber, 10);
    if (!isNumber)
        return;
    change(m_version, version, SpeakerEvents::Information);
    mirror("Version", version);
}

void SAobj::reportAlarm(const QByteArray& rest) {
    const char first = rest.isEmpty() ? '\0' : rest.at(0);
    const char second = rest.size() < 2 ? '\0' : rest.at(1);
    m_env.events.noteAlarm(*this, first, second);
    emit sn_get_kg_back(m_sn, first, second);
}
