#include "redis/core_corss.h"

#include "nodes/gate.h"

#include <QByteArrayList>
#include <QDebug>
#include <QJsonArray>
#include <QJsonDocument>

namespace {

/// Number of the group volume command.
constexpr int VolumeMode = 1009;

QJsonObject command(const char* word) {
    return {{QStringLiteral("cmd"), QLatin1String(word)}};
}

QJsonObject withFile(const char* word, const QString& file) {
    QJsonObject request = command(word);
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
    , m_node{std::move(host), port} {}

QByteArray Core_corss::useingenable(const QStringList& sns) {
    return onSpeakers(sns, command("useing_enable"));
}

QByteArray Core_corss::useingdisable(const QStringList& sns) {
    return onSpeakers(sns, command("useing_disable"));
}

QByteArray Core_corss::enable_device(const QStringList& sns) {
    return useingenable(sns);
}

QByteArray Core_corss::disable_device(const QStringList& sns) {
    return useingdisable(sns);
}

QByteArray Core_corss::edit_vols(const QStringList& sns, int vol) {
    return onSpeakers(
        sns,
        {{QStringLiteral("mode"), VolumeMode}, {QStringLiteral("vol"), vol}, {QStringLiteral("vols"), vol}});
}

QByteArray Core_corss::play_url(const QStringList& sns, const QString& url) {
    return onSpeakers(sns, play("PLAYOFF", url));
}

QByteArray Core_corss::play_urlq39(const QStringList& sns, const QString& url) {
    return onSpeakers(sns, play("PLAYAS", url + QLatin1Char('A')));
}

QByteArray Core_corss::play_urlsetwarning(const QStringList& sns, const QString& target,
                                          const QString& text) {
    const QString line =
        fetchCommand(m_warningFetch) + text + QStringLiteral("\" > ") + target + QStringLiteral("  &&");
    return onSpeakers(sns, withFile("PLAYASCMD", line));
}

QByteArray Core_corss::play_urlrmwarning(const QStringList& sns, const QString& target) {
    const QString line =
        fetchCommand(m_warningFetch) + QStringLiteral(" && rm ") + target + QStringLiteral("  &&");
    return onSpeakers(sns, withFile("PLAYASCMD", line));
}

QByteArray Core_corss::Stop_url(const QStringList& sns) {
    QByteArray answer = onSpeakers(sns, command("FORCESTOP"));
    qInfo().noquote() << "why here" << answer;
    return answer;
}

QByteArray Core_corss::Stop_urlq39(const QStringList& sns) {
    return onSpeakers(sns, noPlay(m_silentClip + QLatin1Char('5'), "stop"));
}

QByteArray Core_corss::Debug_(const QString& sn, int v) {
    QJsonObject request = command("DEBUG");
    request.insert(QStringLiteral("sn"), sn);
    request.insert(QStringLiteral("dev_ks"), v);
    return send({{sharesOf({sn}).front().node, request}}, Wait::Yes);
}

QByteArray Core_corss::Debugkillall_(int v) {
    QJsonObject request = command("DEBUGALL");
    request.insert(QStringLiteral("dev_ks"), v);
    return send({{m_node, request}}, Wait::Yes);
}

void Core_corss::WarningF(const QString& sn, const QString& file) {
    onSpeakers({sn}, noPlay(file + QLatin1Char('F')), Wait::No);
}

void Core_corss::WarningF_NONE(const QString& sn) {
    onSpeakers({sn}, noPlay(QStringLiteral("F_NONE.mp3")), Wait::No);
}

void Core_corss::WarningB(const QString& sn, const QString& file) {
    onSpeakers({sn}, noPlay(file + QLatin1Char('B')), Wait::No);
}

void Core_corss::WarningB_NONE(const QString& sn) {
    onSpeakers({sn}, noPlay(QStringLiteral("B_NONE.mp3")), Wait::No);
}

void Core_corss::WarningAS(const QString& sn, const QString& file) {
    onSpeakers({sn}, noPlay(file), Wait::No);
}

QJsonObject Core_corss::play(const char* word, const QString& file) const {
    QJsonObject request = withFile(word, file);
    if (m_begin)
        request.insert(QStringLiteral("order"), static_cast<double>(m_begin(file)));
    return request;
}

/// A "PLAYAS" that binds a line or silences.
QJsonObject Core_corss::noPlay(const QString& file, const char* what) const {
    QJsonObject request = withFile("PLAYAS", file);
    if (m_begin)
        request.insert(QStringLiteral("order"), QLatin1String(what));
    return request;
}

std::vector<NodeShare> Core_corss::sharesOf(const QStringList& sns) const {
    return m_whereabouts ? m_whereabouts(sns) : std::vector<NodeShare>{{m_node, sns}};
}

QByteArray Core_corss::onSpeakers(const QStringList& sns, const QJsonObject& request, Wait wait) {
    std::vector<Order> orders;
    for (const NodeShare& share : sharesOf(sns)) {
        QJsonObject part = request;
        part.insert(QStringLiteral("snlist"), QJsonArray::fromStringList(share.sns));
        orders.push_back({share.node, part});
    }
    return send(orders, wait);
}

/// To all nodes at once, so that a slow one holds up no other.
QByteArray Core_corss::send(const std::vector<Order>& orders, Wait wait) {
    std::vector<Gate::PendingPtr> pending;
    for (const Order& order : orders) {
        const QByteArray payload = stripped(order.request);
        if (m_gate && wait == Wait::Yes)
            pending.push_back(m_gate->begin(order.node, payload, Gate::Until::Answered));
        else if (m_gate)
            m_gate->run(order.node, payload);
    }
    QByteArrayList answers;
    for (const Gate::PendingPtr& call : pending)
        answers += Gate::await(call).answer;
    return answers.join('\n');
}
