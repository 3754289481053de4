#include "journal/health.h"

#include <iterator>

namespace {
constexpr const char* Names[] = {"ok", "flaky", "silent", "offline"};
} // namespace

QString nameOf(SpeakerHealth health) {
    return QLatin1String(Names[static_cast<int>(health)]);
}

/// What is told of a speaker that comes and goes is that it is flaky, not each time.
SpeakerHealth HealthBook::told(const Record& record) {
    if (record.isFlaky)
        return SpeakerHealth::Flaky;
    if (record.isOffline)
        return SpeakerHealth::Offline;
    return record.isSilent ? SpeakerHealth::Silent : SpeakerHealth::Ok;
}

SpeakerHealth HealthBook::of(const QString& sn) const {
    const auto found = m_records.constFind(sn);
    if (found == m_records.constEnd())
        return SpeakerHealth::Ok;
    return found->isOffline ? SpeakerHealth::Offline : told(*found);
}

std::optional<SpeakerHealth> HealthBook::changed(const QString& sn, SpeakerHealth before) {
    const auto record = m_records.find(sn);
    const SpeakerHealth now = told(*record);
    const bool isWell = now == SpeakerHealth::Ok && record->losses.empty() && record->silentOrders == 0;
    if (isWell)
        m_records.erase(record);
    return now == before ? std::nullopt : std::optional(now);
}

std::optional<SpeakerHealth> HealthBook::wentOffline(const QString& sn, Time now) {
    Record& record = m_records[sn];
    const SpeakerHealth before = told(record);
    if (record.isOffline)
        return std::nullopt;
    record.isOffline = true;
    record.lastTrouble = now;
    record.losses.push_back(now);
    if (record.losses.size() > Losses)
        record.losses.erase(record.losses.begin());
    record.isFlaky |= record.losses.size() == Losses && now - record.losses.front() <= LossWindow;
    return changed(sn, before);
}

std::optional<SpeakerHealth> HealthBook::cameOnline(const QString& sn, Time /*now*/) {
    const auto record = m_records.find(sn);
    if (record == m_records.end())
        return std::nullopt;
    const SpeakerHealth before = told(*record);
    record->isOffline = false;
    return changed(sn, before);
}

std::optional<SpeakerHealth> HealthBook::wasSilent(const QString& sn, Time now) {
    Record& record = m_records[sn];
    const SpeakerHealth before = told(record);
    record.lastTrouble = now;
    record.isSilent |= ++record.silentOrders >= SilentOrders;
    return changed(sn, before);
}

/// One report is not yet health: only the time without trouble is.
std::optional<SpeakerHealth> HealthBook::reported(const QString& sn, Time /*now*/) {
    const auto record = m_records.find(sn);
    if (record == m_records.end() || record->isSilent || record->silentOrders == 0)
        return std::nullopt;
    const SpeakerHealth before = told(*record);
    record->silentOrders = 0;
    return changed(sn, before);
}

std::vector<HealthBook::Change> HealthBook::recovered(Time now) {
    std::vector<Change> changes;
    for (auto record = m_records.begin(); record != m_records.end();) {
        if (now - record->lastTrouble < Recovery) {
            ++record;
            continue;
        }
        const SpeakerHealth before = told(*record);
        const bool isOffline = record->isOffline;
        *record = Record();
        record->isOffline = isOffline;
        record->lastTrouble = now;
        const SpeakerHealth after = told(*record);
        if (after != before)
            changes.push_back({record.key(), after});
        record = isOffline ? std::next(record) : m_records.erase(record);
    }
    return changes;
}
