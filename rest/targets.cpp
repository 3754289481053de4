#include "rest/targets.h"

#include "rest/restcall.h"
#include "service/visibility.h"

#include <QJsonArray>

namespace {
constexpr auto Name = "targets";
constexpr int MostSpeakers = 20'000;
constexpr int MostGroups = 1000;
} // namespace

std::optional<Targets> readTargets(RestCall& call, const Fields& body, bool& isAway) {
    const auto given = body.object(Name);
    if (!given)
        return std::nullopt;
    Targets targets;
    targets.isAll = given->flag("all").value_or(false);
    const auto speakers = given->serials("speakers", MostSpeakers);
    const auto groups = given->ids("groups", MostGroups);
    targets.speakers = speakers.value_or(QStringList());
    targets.groups = groups.value_or(QList<qint64>());
    const bool isBoth = targets.isAll && (speakers || groups);
    if (isBoth)
        body.refuse(Name, QStringLiteral("names all and some"));
    if (isBoth || (given->has("speakers") && !speakers) || (given->has("groups") && !groups))
        return std::nullopt;
    const auto faults = faultsOf(call.database(), reachable(call.database(), call.caller()), targets);
    isAway = !faults;
    if (!faults || !faults->empty()) {
        for (const TargetFault& fault : faults.value_or(std::vector<TargetFault>()))
            call.refuse(QStringLiteral("/targets") + fault.pointer, fault.detail);
        return std::nullopt;
    }
    return targets;
}

QJsonObject targetsObject(const Targets& targets) {
    if (targets.isAll)
        return {{QStringLiteral("all"), true}};
    QJsonArray groups;
    for (const qint64 id : targets.groups)
        groups.append(id);
    return {{QStringLiteral("speakers"), QJsonArray::fromStringList(targets.speakers)},
            {QStringLiteral("groups"), groups}};
}
