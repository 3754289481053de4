#include "redis/core_corss.h"

#include "nodes/gate.h"

#include <QDebug>
#include <QJsonArray>
#include <QJsonDocument>

namespace {

/// Number of the group volume command.
constexpr int VolumeMode = 1009;

QJsonObject onSpeakers(const char* word, const QStringList& sns) {
    return {{QStringLiteral("cmd"), QLatin1String(word)},
            {QStringLiteral("snlist"), QJsonArray::fromStringList(sns)}};
}

QJsonObject withFile(const char* word, const QStringList& sns, const QString& file) {
    QJsonObject request = onSpeakers(word, sns);
    request.insert(QStringLiteral("filelist"), QJsonArray{file});
    return request;
}

/// The tabulator, unlike a blank, survives the stripping of the request.
QString fetchCommand(const QString& address) {
    return QStringLiteral("curl\t\"") + address;
}

QByteArray stripped(const QJsonObject& request) {
    return QJsonDocument(request).toJson(QJsonDocument::Compact).replace(" ", "").replace("\n", "");
}

} // namespace

Core_corss::Core_corss(QString host, int port, QObject* parent)
    : QObject(parent)
    , m_host(std::move(host))
    , m_port(port) {}

QByteArray Core_corss::useingenable(const QStringList& sns) {
    return send(onSpeakers("useing_enable", sns), true);
}

QByteArray Core_corss::useingdisable(const QStringList& sns) {
    return send(onSpeakers("useing_disable", sns), true);
}

QByteArray Core_corss::enable_device(const QStringList& sns) {
    return useingenable(sns);
}

QByteArray Core_corss::disable_device(const QStringList& sns) {
    return useingdisable(sns);
}

QByteArray Core_corss::edit_vols(const QStringList& sns, int vol) {
    return send({{QStringLiteral("mode"), VolumeMode},
                 {QStringLiteral("snlist"), QJsonArray::fromStringList(sns)},
                 {QStringLiteral("vol"), vol},
                 {QStringLiteral("vols"), vol}},
                true);
}

QByteArray Core_corss::play_url(const QStringList& sns, const QString& url) {
    return send(withFile("PLAYOFF", sns, url), true);
}

QByteArray Core_corss::play_urlq39(const QStringList& sns, const QString& url) {
    return send(withFile("PLAYAS", sns, url + QLatin1Char('A')), true);
}

QByteArray Core_corss::play_urlsetwarning(const QStringList& sns, const QString& target,
                                          const QString& text) {
    const QString line =
        fetchCommand(m_warningFetch) + text + QStringLiteral("\" > ") + target + QStringLiteral("  &&");
    return send(withFile("PLAYASCMD", sns, line), true);
}

QByteArray Core_corss::play_urlrmwarning(const QStringList& sns, const QString& target) {
    const QString line =
        fetchCommand(m_warningFetch) + QStringLiteral(" && rm ") + target + QStringLiteral("  &&");
    return send(withFile("PLAYASCMD", sns, line), true);
}

QByteArray Core_corss::Stop_url(const QStringList& sns) {
    QByteArray answer = send(onSpeakers("FORCESTOP", sns), true);
    qInfo().noquote() << "why here" << answer;
    return answer;
}

QByteArray Core_corss::Stop_urlq39(const QStringList& sns) {
    return send(withFile("PLAYAS", sns, m_silentClip + QLatin1Char('5')), true);
}

QByteArray Core_corss::Debug_(const QString& sn, int v) {
    return send({{QStringLiteral("cmd"), QStringLiteral("DEBUG")},
                 {QStringLiteral("sn"), sn},
                 {QStringLiteral("dev_ks"), v}},
                true);
}

QByteArray Core_corss::Debugkillall_(int v) {
    return send({{QStringLiteral("cmd"), QStringLiteral("DEBUGALL")}, {QStringLiteral("dev_ks"), v}}, true);
}

void Core_corss::WarningF(const QString& sn, const QString& file) {
    send(withFile("PLAYAS", {sn}, file + QLatin1Char('F')), false);
}

void Core_corss::WarningF_NONE(const QString& sn) {
    send(withFile("PLAYAS", {sn}, QStringLiteral("F_NONE.mp3")), false);
}

void Core_corss::WarningB(const QString& sn, const QString& file) {
    send(withFile("PLAYAS", {sn}, file + QLatin1Char('B')), false);
}

void Core_corss::WarningB_NONE(const QString& sn) {
    send(withFile("PLAYAS", {sn}, QStringLiteral("B_NONE.mp3")), false);
}

void Core_corss::WarningAS(const QString& sn, const QString& file) {
    send(withFile("PLAYAS", {sn}, file), false);
}

QByteArray Core_corss::frame(const QJsonObject& request) {
    return NodeCall::frame(stripped(request));
}

QByteArray Core_corss::send(const QJsonObject& request, bool waitForAnswer) {
    const NodeAddress node{m_host, m_port};
    const QByteArray payload = stripped(request);
    if (m_gate)
        return m_gate->runAndWait(node, payload, waitForAnswer).answer;
    const NodeCall::Result result = NodeCall::send(node, payload, waitForAnswer, {});
    if (result.isLost())
        qWarning().noquote() << "Core_corss:" << m_host << m_port << result.error;
    return result.answer;
}
