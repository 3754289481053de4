#include "rest/broadcastobject.h"

#include "rest/timestamp.h"

#include <algorithm>

namespace {

QJsonObject originOf(const Broadcast::Origin& origin) {
    QJsonObject object;
    if (origin.account != 0)
        object.insert(QStringLiteral("account"), origin.account);
    if (origin.schedule != 0)
        object.insert(QStringLiteral("schedule"), origin.schedule);
    if (origin.input != 0)
        object.insert(QStringLiteral("input"), origin.input);
    if (!origin.line.isEmpty())
        object.insert(QStringLiteral("line"), origin.line);
    if (!origin.path.isEmpty())
        object.insert(QStringLiteral("path"), origin.path);
    return object;
}

QJsonObject countsOf(const Journal::Standing& standing) {
    QJsonObject counts{{QStringLiteral("targets"), standing.targets}};
    for (int state = 0; state < ReceiptStates; ++state)
        counts.insert(nameOf(static_cast<ReceiptState>(state)),
                      standing.counts.at(static_cast<size_t>(state)));
    return counts;
}

} // namespace

QJsonObject broadcastObject(const Journal::Standing& standing) {
    const Broadcast& broadcast = standing.broadcast;
    const bool isLate = broadcast.due != 0 && standing.started > broadcast.due;
    return {
        {QStringLiteral("id"), static_cast<qint64>(standing.id)},
        {QStringLiteral("kind"), nameOf(broadcast.kind)},
        {QStringLiteral("name"), broadcast.name},
        {QStringLiteral("priority"), broadcast.priority},
        {QStringLiteral("origin"), originOf(broadcast.origin)},
        {QStringLiteral("state"), nameOf(standing.state)},
        {QStringLiteral("reason"), standing.reason.isEmpty() ? QJsonValue() : QJsonValue(standing.reason)},
        {QStringLiteral("due"), timestampOrNull(broadcast.due)},
        {QStringLiteral("started"), timestampOrNull(standing.started)},
        {QStringLiteral("ended"), timestampOrNull(standing.ended)},
        {QStringLiteral("late"), isLate ? (standing.started - broadcast.due) / 1000 : 0},
        {QStringLiteral("counts"), countsOf(standing)}};
}
