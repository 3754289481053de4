#include "service/targets.h"

#include "service/groups.h"
#include "service/speakers.h"

#include <limits>

namespace {

using Faults = std::vector<TargetFault>;
constexpr size_t Everybody = std::numeric_limits<size_t>::max();

QString pointerTo(const char* list, int index) {
    return QStringLiteral("/%1/%2").arg(QLatin1String(list)).arg(index);
}

bool findSpeakerFaults(sqlite& database, const Scope& scope, const QStringList& serials, Faults& faults) {
    const auto found = findSpeakers(database, serials);
    if (!found)
        return false;
    QSet<QString> known;
    for (const Speaker& speaker : *found) {
        if (scope.holds(speaker.id, speaker.owner))
            known.insert(speaker.serial);
    }
    for (int i = 0; i < serials.size(); ++i) {
        if (!known.contains(serials.at(i)))
            faults.push_back({pointerTo("speakers", i), QStringLiteral("no such speaker")});
    }
    return true;
}

bool findGroupFaults(sqlite& database, const Scope& scope, const QList<qint64>& ids, Faults& faults) {
    const auto known = groupsAmong(database, scope, ids);
    for (int i = 0; known && i < ids.size(); ++i) {
        if (!known->contains(ids.at(i)))
            faults.push_back({pointerTo("groups", i), QStringLiteral("no such group")});
    }
    return known.has_value();
}

/// Adds the serials of a list that are not among them yet.
bool add(sqlite& database, const SpeakerQuery& query, QStringList& serials, QSet<QString>& seen) {
    const auto found = listSpeakers(database, query, Everybody);
    if (!found)
        return false;
    for (const Speaker& speaker : *found) {
        if (seen.contains(speaker.serial))
            continue;
        seen.insert(speaker.serial);
        serials += speaker.serial;
    }
    return true;
}

bool addNamed(sqlite& database, const Reachable& reachable, const Targets& targets, QStringList& serials,
              QSet<QString>& seen) {
    const auto named = findSpeakers(database, targets.speakers);
    if (!named)
        return false;
    for (const Speaker& speaker : *named) {
        if (reachable.speakers.holds(speaker.id, speaker.owner) && !seen.contains(speaker.serial)) {
            seen.insert(speaker.serial);
            serials += speaker.serial;
        }
    }
    return true;
}

} // namespace

std::optional<Faults> membersOutOf(sqlite& database, const Reachable& reachable, const Targets& targets) {
    Faults faults;
    const bool isKnown = findSpeakerFaults(database, reachable.speakers, targets.speakers, faults) &&
                         findGroupFaults(database, reachable.groups, targets.groups, faults);
    return isKnown ? std::optional(faults) : std::nullopt;
}

std::optional<Faults> faultsOf(sqlite& database, const Reachable& reachable, const Targets& targets) {
    auto faults = membersOutOf(database, reachable, targets);
    if (!faults || !faults->empty())
        return faults;
    const auto serials = resolve(database, reachable, targets);
    if (!serials)
        return std::nullopt;
    if (serials->isEmpty())
        faults->push_back({QString(), QStringLiteral("names no speaker")});
    return faults;
}

std::optional<QStringList> resolve(sqlite& database, const Reachable& reachable, const Targets& targets) {
    QStringList serials;
    QSet<QString> seen;
    if (targets.isAll)
        return add(database, {reachable.speakers}, serials, seen) ? std::optional(serials) : std::nullopt;
    if (!addNamed(database, reachable, targets, serials, seen))
        return std::nullopt;
    if (targets.groups.isEmpty())
        return serials;
    const auto groups = groupsAmong(database, reachable.groups, targets.groups);
    const auto members = groups ? speakersWithin(database, groups->values()) : std::nullopt;
    if (!members || !add(database, {reachable.speakers, *members}, serials, seen))
        return std::nullopt;
    return serials;
}
