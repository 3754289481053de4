#include "service/announcer.h"

#include "service/caller.h"
#include "service/filestore.h"
#include "service/speakernodes.h"
#include "service/visibility.h"

#include "core/loop/mainloop.h"
#include "core/sql/sqlite.h"
#include "device/severinit.h"
#include "journal/broadcast.h"
#include "nodes/gate.h"
#include "orders/orders.h"

#include <algorithm>
#include <QDateTime>
#include <QDebug>
#include <QJsonArray>
#include <QJsonDocument>
#include <QSet>

namespace {

const QString InsertRequest = QStringLiteral(
    "INSERT INTO `announcement` (`id`, `account`, `at`, `body`) VALUES (@id, @account, @at, '@body');");
const QString SelectRequest = QStringLiteral("SELECT `body` FROM `announcement` WHERE `id` = @id;");
const QString SelectOld =
    QStringLiteral("SELECT `id`, `body` FROM `announcement` WHERE `at` < @before ORDER BY `at` LIMIT 10;");
const QString DeleteRequest = QStringLiteral("DELETE FROM `announcement` WHERE `id` = @id;");
const QString SelectTargets = QStringLiteral("SELECT `serial` FROM `receipt` WHERE `broadcast` = @id;");
const QString SelectNodes = QStringLiteral("SELECT `nodeip`, `nodeport3` FROM `sbox_node`;");

QJsonObject bodyOf(const AnnouncementRequest& request) {
    QJsonArray groups;
    for (const qint64 group : request.targets.groups)
        groups.append(group);
    return {{QStringLiteral("all"), request.targets.isAll},
            {QStringLiteral("speakers"), QJsonArray::fromStringList(request.targets.speakers)},
            {QStringLiteral("groups"), groups},
            {QStringLiteral("order"), request.announcement.write()}};
}

std::optional<AnnouncementRequest> requestOf(const QJsonObject& body) {
    AnnouncementRequest request;
    request.targets.isAll = body.value(QLatin1String("all")).toBool();
    for (const QJsonValue serial : body.value(QLatin1String("speakers")).toArray())
        request.targets.speakers << serial.toString();
    for (const QJsonValue group : body.value(QLatin1String("groups")).toArray())
        request.targets.groups << static_cast<qint64>(group.toDouble());
    QString why;
    const auto announcement = Announcement::read(body.value(QLatin1String("order")).toObject(), why);
    if (!announcement)
        return std::nullopt;
    request.announcement = *announcement;
    return request;
}

} // namespace

Announcer::Announcer(sqlite& database, Gate& gate, const Severinit& devices, Orders& orders)
    : m_database(database)
    , m_gate(gate)
    , m_orders(orders)
    , m_own{QStringLiteral("127.0.0.1"), devices.ps2} {}

Announcer::Outcome Announcer::announce(const Caller& caller, AnnouncementRequest request, quint64& id) {
    const auto serials = resolve(m_database, reachable(m_database, caller), request.targets);
    if (!serials)
        return Outcome::Unavailable;
    if (serials->isEmpty())
        return Outcome::Nobody;
    Broadcast broadcast;
    broadcast.kind = Broadcast::Kind::Announcement;
    broadcast.name = request.announcement.name;
    broadcast.priority = request.announcement.priority;
    broadcast.origin.account = caller.account;
    broadcast.owner = caller.account;
    broadcast.endsByItself = false;
    id = callOnLoop(&m_orders, [&] { return m_orders.open(broadcast); });
    request.announcement.id = id;
    if (!keep(caller, request))
        qWarning() << "announcement" << id << "can't be repeated: the database did not take it";
    give(request, *serials);
    return Outcome::Done;
}

/// To all nodes at once, so that a slow one holds up no other.
void Announcer::give(const AnnouncementRequest& request, const QStringList& serials) {
    std::vector<std::pair<Gate::PendingPtr, QStringList>> pending;
    for (const NodeShare& share : splitByNode(m_database, m_gate, m_own, serials))
        pending.emplace_back(
            m_gate.begin(share.node, request.announcement.command(share.sns), Gate::Until::Answered),
            share.sns);
    for (const auto& [call, sns] : pending) {
        if (!Gate::await(call).isLost())
            continue;
        callOnLoop(&m_orders, [&, &lost = sns] { m_orders.markUnreached(request.announcement.id, lost); });
    }
    callOnLoop(&m_orders, [&] { m_orders.allGiven(request.announcement.id); });
}

bool Announcer::keep(const Caller& caller, const AnnouncementRequest& request) {
    forgetOld();
    const QByteArray body = QJsonDocument(bodyOf(request)).toJson(QJsonDocument::Compact);
    return m_database
        .run(InsertRequest, {{QStringLiteral("@id"), static_cast<qint64>(request.announcement.id)},
                             {QStringLiteral("@account"), caller.account},
                             {QStringLiteral("@at"), QDateTime::currentMSecsSinceEpoch()},
                             {QStringLiteral("@body"), QString::fromUtf8(body)}})
        .ok;
}

/// With the speech that was made for them.
void Announcer::forgetOld() {
    const qint64 before = QDateTime::currentDateTime().addDays(-DaysKept).toMSecsSinceEpoch();
    const SqlResult old = m_database.run(SelectOld, {{QStringLiteral("@before"), before}});
    const FileStore store(m_database);
    for (int row = 0; row < old.rows.size(); ++row) {
        const auto request = requestOf(QJsonDocument::fromJson(old.text(row, "body").toUtf8()).object());
        for (const Announcement::Title& title :
             request ? request->announcement.titles : std::vector<Announcement::Title>())
            if (!title.ownFile.isEmpty())
                store.remove(title.ownFile);
        m_database.run(DeleteRequest, {{QStringLiteral("@id"), old.value(row, "id").toLongLong()}});
    }
}

std::optional<AnnouncementRequest> Announcer::find(quint64 id) {
    const SqlResult found = m_database.run(SelectRequest, {{QStringLiteral("@id"), static_cast<qint64>(id)}});
    if (found.isEmpty())
        return std::nullopt;
    return requestOf(QJsonDocument::fromJson(found.text(0, "body").toUtf8()).object());
}

Announcer::Outcome Announcer::stop(quint64 id) {
    callOnLoop(&m_orders, [&] { m_orders.stop(id); });
    const SqlResult nodes = m_database.run(SelectNodes);
    std::vector<Gate::PendingPtr> pending;
    for (int row = 0; row < nodes.rows.size(); ++row) {
        const NodeAddress node{nodes.text(row, "nodeip"), nodes.integer(row, "nodeport3")};
        if (node.port > 0 && !node.host.isEmpty() && !m_gate.isThisNode(node))
            pending.push_back(m_gate.begin(node, Announcement::endCommand(id), Gate::Until::Written));
    }
    for (const auto& call : pending)
        Gate::await(call);
    return nodes.ok ? Outcome::Done : Outcome::Unavailable;
}

Announcer::Outcome Announcer::stopForOwn(const Caller& caller, quint64 id) {
    Targets everybody;
    everybody.isAll = true;
    const auto reached = resolve(m_database, reachable(m_database, caller), everybody);
    const SqlResult receipts =
        m_database.run(SelectTargets, {{QStringLiteral("@id"), static_cast<qint64>(id)}});
    if (!reached || !receipts.ok)
        return Outcome::Unavailable;
    const QSet<QString> own(reached->begin(), reached->end());
    QStringList serials;
    for (int row = 0; row < receipts.rows.size(); ++row) {
        if (const QString serial = receipts.text(row, "serial"); own.contains(serial))
            serials << serial;
    }
    if (serials.isEmpty())
        return Outcome::Nobody;
    std::vector<Gate::PendingPtr> pending;
    for (const NodeShare& share : splitByNode(m_database, m_gate, m_own, serials))
        pending.push_back(
            m_gate.begin(share.node, Announcement::endCommand(id, share.sns), Gate::Until::Answered));
    const bool isLost = std::count_if(pending.begin(), pending.end(), [](const Gate::PendingPtr& call) {
                            return Gate::await(call).isLost();
                        }) > 0;
    return isLost ? Outcome::Unavailable : Outcome::Done;
}
