#include "ics/zones.h"

#include "ics/civil.h"

#include <algorithm>
#include <libical/ical.h>
#include <QDateTime>
#include <QTimeZone>
#include <vector>

namespace {

constexpr qint64 Day = 86400;
constexpr int MaxOffset = 16 * 3600; ///< s; no zone is further from UTC

/// A zone by its offsets.
class OffsetZone : public FileZone {
public:
    qint64 epochOf(qint64 local) override {
        const int before = offsetAt(local - Day);
        const int after = offsetAt(local + Day);
        for (const int offset : {before, after}) {
            if (offsetAt(local - offset) == offset)
                return local - offset;
        }
        return local - before;
    }
    qint64 localOf(qint64 epoch) override { return epoch + offsetAt(epoch); }
    virtual int offsetAt(qint64 epoch) = 0;
};

class UtcZone : public OffsetZone {
public:
    int offsetAt(qint64 /*epoch*/) override { return 0; }
};

/// The moments at which the offset changes, read once: asking for each time is what costs.
class KnownZone : public OffsetZone {
public:
    explicit KnownZone(const QTimeZone& zone) {
        const QDateTime from(QDate(1969, 1, 1), QTime(0, 0), Qt::UTC);
        const QDateTime until(QDate(2200, 1, 1), QTime(0, 0), Qt::UTC);
        m_changes.push_back({from.toSecsSinceEpoch(), zone.offsetFromUtc(from)});
        const auto transitions = zone.transitions(from, until);
        for (const QTimeZone::OffsetData& change : transitions)
            m_changes.push_back({change.atUtc.toSecsSinceEpoch(), change.offsetFromUtc});
    }
    int offsetAt(qint64 epoch) override {
        const auto next = std::upper_bound(m_changes.begin(), m_changes.end(), epoch,
                                           [](qint64 at, const Change& change) { return at < change.at; });
        return next == m_changes.begin() ? next->offset : std::prev(next)->offset;
    }

private:
    struct Change {
        qint64 at;
        int offset;
    };
    std::vector<Change> m_changes;
};

/// By the definition in the file.
class DefinedZone : public OffsetZone {
public:
    explicit DefinedZone(icalcomponent* definition)
        : m_zone(icaltimezone_new()) {
        m_isGood = icaltimezone_set_component(m_zone, icalcomponent_new_clone(definition)) != 0;
    }
    ~DefinedZone() override { icaltimezone_free(m_zone, 1); }
    bool isGood() const { return m_isGood; }
    int offsetAt(qint64 epoch) override {
        const qint64 day = (epoch >= 0 ? epoch : epoch - Day + 1) / Day;
        const int second = static_cast<int>(epoch - day * Day);
        const CivilDate date = civilOf(day);
        icaltimetype time = icaltime_null_time();
        time.year = date.year;
        time.month = date.month;
        time.day = date.day;
        time.hour = second / 3600;
        time.minute = second / 60 % 60;
        time.second = second % 60;
        time.zone = icaltimezone_get_utc_timezone();
        return std::clamp(icaltimezone_get_utc_offset_of_utc_time(m_zone, &time, nullptr), -MaxOffset,
                          MaxOffset);
    }

private:
    icaltimezone* m_zone;
    bool m_isGood = false;
};

/// The name in the tz database that stands in or behind the name; empty when there is none.
QByteArray knownName(const QByteArray& name) {
    const auto known = [](const QByteArray& id) {
        return !id.isEmpty() && QTimeZone::isTimeZoneIdAvailable(id);
    };
    if (known(name))
        return name;
    const QByteArray fromMail = QTimeZone::windowsIdToDefaultIanaId(name);
    if (known(fromMail))
        return fromMail;
    // "/example.org/2026a/Europe/Berlin"
    const QList<QByteArray> parts = name.split('/');
    for (int first = parts.size() - 1; first > 0; --first) {
        const QByteArray tail = name.mid(static_cast<int>(name.size()) - parts.mid(first).join('/').size());
        if (tail.contains('/') && known(tail))
            return tail;
    }
    return {};
}

} // namespace

FileZones::FileZones()
    : m_utc(std::make_unique<UtcZone>()) {}

FileZones::~FileZones() {
    qDeleteAll(m_byName);
    for (icalcomponent* definition : qAsConst(m_definitions))
        icalcomponent_free(definition);
}

void FileZones::define(const QByteArray& name, icalcomponent* definition) {
    if (!m_definitions.contains(name) && m_definitions.size() < MaxZones)
        m_definitions.insert(name, icalcomponent_new_clone(definition));
}

FileZone* FileZones::utc() {
    return m_utc.get();
}

FileZone* FileZones::find(const QByteArray& name) {
    const auto found = m_byName.constFind(name);
    if (found != m_byName.constEnd())
        return *found;
    if (m_byName.size() >= MaxZones)
        return nullptr;
    return *m_byName.insert(name, make(name).release());
}

std::unique_ptr<FileZone> FileZones::make(const QByteArray& name) {
    const QByteArray known = knownName(name);
    if (!known.isEmpty())
        return std::make_unique<KnownZone>(QTimeZone(known));
    if (!m_definitions.contains(name))
        return nullptr;
    auto defined = std::make_unique<DefinedZone>(m_definitions.value(name));
    return defined->isGood() ? std::move(defined) : nullptr;
}
