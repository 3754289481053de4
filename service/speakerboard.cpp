#include "service/speakerboard.h"

#include "device/saobj.h"
#include "device/severinit.h"
#include "device/speakerevents.h"

#include <algorithm>
#include <QDateTime>
#include <utility>

namespace {

constexpr SpeakerEvents::Kinds Told = SpeakerEvents::Online | SpeakerEvents::Offline | SpeakerEvents::Volume |
                                      SpeakerEvents::Playing | SpeakerEvents::Idle |
                                      SpeakerEvents::StreamBegun | SpeakerEvents::StreamEnded |
                                      SpeakerEvents::Information;
/// Speakers written while readers wait: about a tenth of a millisecond.
constexpr size_t AtOnce = 256;
/// Entries without a session that may stay before they are looked for: made-up serials leave them.
constexpr size_t MaxEnded = 10'000;

SpeakerState::State stateOf(const SAobj& session) {
    if (!session.isOnline())
        return SpeakerState::State::Offline;
    if (session.onlineState() == SAobj::Streaming)
        return SpeakerState::State::Live;
    return session.isBusy() ? SpeakerState::State::Playing : SpeakerState::State::Idle;
}

template<typename T>
bool set(T& field, const T& value) {
    if (field == value)
        return false;
    field = value;
    return true;
}

qint64 nowMs() {
    return QDateTime::currentMSecsSinceEpoch();
}

} // namespace

SpeakerBoard::SpeakerBoard(Severinit* devices, QObject* parent)
    : QObject(parent)
    , m_devices(devices)
    , m_began(nowMs()) {
    for (const SAobj* const session : m_devices->sessions())
        update(*session, m_began);
    m_devices->events().listen(this, Told, [this](const SpeakerEvents::Batch& batch) {
        const qint64 now = nowMs();
        for (size_t from = 0; from < batch.speakers.size(); from += AtOnce) {
            const std::lock_guard lock(m_mutex);
            const size_t end = std::min(batch.speakers.size(), from + AtOnce);
            for (size_t i = from; i < end; ++i) {
                if (batch.speakers[i].session)
                    update(*batch.speakers[i].session, now);
            }
        }
        if (m_entries.size() - m_free.size() > static_cast<size_t>(m_devices->sessions().size()) + MaxEnded)
            dropEnded();
    });
}

void SpeakerBoard::update(const SAobj& session, qint64 now) {
    const quint32 slot = slotOf(session.sn());
    if (take(session, now, m_entries[slot].speaker))
        changed(slot);
}

bool SpeakerBoard::take(const SAobj& session, qint64 now, SpeakerState& speaker) {
    const SpeakerState::State before = speaker.state;
    bool isOther = set(speaker.state, stateOf(session));
    if (isOther) {
        speaker.since = now;
        --m_counts.at(static_cast<size_t>(before));
        ++m_counts.at(static_cast<size_t>(speaker.state));
        if (before != SpeakerState::State::Offline)
            speaker.lastSeen = now;
    }
    const bool isLive = speaker.state == SpeakerState::State::Live;
    if (isLive && speaker.broadcast == 0)
        isOther |= set(speaker.playing, session.taskName());
    else if (isOther && (speaker.state == SpeakerState::State::Idle || !speaker.isOnline())) {
        speaker.playing.clear();
        speaker.broadcast = 0;
    }
    isOther |= set(speaker.isEnabled, session.isEnabled());
    isOther |= set(speaker.volume, session.vol());
    isOther |= set(speaker.battery, session.voltage());
    isOther |= set(speaker.firmware, session.version());
    isOther |= set(speaker.address, session.localIp().isEmpty() ? session.remoteIp() : session.localIp());
    return isOther;
}

quint32 SpeakerBoard::slotOf(const QString& serial) {
    const auto known = m_slots.constFind(serial);
    if (known != m_slots.constEnd())
        return *known;
    quint32 slot = static_cast<quint32>(m_entries.size());
    if (m_free.empty()) {
        m_entries.emplace_back();
    } else {
        slot = m_free.back();
        m_free.pop_back();
        m_entries[slot] = {};
    }
    m_slots.insert(serial, slot);
    m_entries[slot].speaker.serial = serial;
    m_entries[slot].speaker.since = m_began;
    ++m_counts.at(static_cast<size_t>(SpeakerState::State::Offline));
    changed(slot);
    return slot;
}

void SpeakerBoard::changed(quint32 slot) {
    Entry& entry = m_entries[slot];
    if (entry.change != 0)
        unlink(slot);
    entry.change = ++m_changes;
    entry.before = m_newest;
    entry.after = None;
    (m_newest == None ? m_oldest : m_entries[m_newest].after) = slot;
    m_newest = slot;
}

void SpeakerBoard::unlink(quint32 slot) {
    const Entry& entry = m_entries[slot];
    (entry.before == None ? m_oldest : m_entries[entry.before].after) = entry.after;
    (entry.after == None ? m_newest : m_entries[entry.after].before) = entry.before;
}

/// A whole fleet's worth at most, and only after thousands of strangers.
void SpeakerBoard::dropEnded() {
    const std::lock_guard lock(m_mutex);
    for (auto known = m_slots.begin(); known != m_slots.end();) {
        if (m_devices->session(known.key())) {
            ++known;
            continue;
        }
        Entry& entry = m_entries[*known];
        unlink(*known);
        --m_counts.at(static_cast<size_t>(entry.speaker.state));
        m_gone.emplace_back(++m_changes, known.key());
        m_free.push_back(*known);
        entry = {};
        known = m_slots.erase(known);
    }
    if (m_gone.size() > 2 * MaxEnded) {
        const auto end = m_gone.end() - static_cast<ptrdiff_t>(MaxEnded);
        m_goneBefore = std::prev(end)->first;
        m_gone.erase(m_gone.begin(), end);
    }
}

SpeakerState SpeakerBoard::state(const QString& serial) const {
    return states({serial}).front();
}

std::vector<SpeakerState> SpeakerBoard::states(const QStringList& serials) const {
    std::vector<SpeakerState> found;
    found.reserve(static_cast<size_t>(serials.size()));
    const std::lock_guard lock(m_mutex);
    for (const QString& serial : serials) {
        const auto slot = m_slots.constFind(serial);
        if (slot != m_slots.constEnd()) {
            found.push_back(m_entries[*slot].speaker);
        } else {
            found.emplace_back();
            found.back().serial = serial;
            found.back().since = m_began;
        }
    }
    return found;
}

std::array<int, 4> SpeakerBoard::counts() const {
    const std::lock_guard lock(m_mutex);
    return m_counts;
}

quint64 SpeakerBoard::lastChange() const {
    const std::lock_guard lock(m_mutex);
    return m_changes;
}

quint32 SpeakerBoard::firstAfter(quint64 change) const {
    quint32 first = None;
    for (quint32 slot = m_newest; slot != None && m_entries[slot].change > change;
         slot = m_entries[slot].before)
        first = slot;
    return first;
}

SpeakerBoard::Changes SpeakerBoard::changesSince(const Mark& mark, size_t most) const {
    Changes changes;
    const std::lock_guard lock(m_mutex);
    changes.isWhole = mark.gone == 0 || mark.gone < m_goneBefore;
    quint32 slot = changes.isWhole ? m_oldest : firstAfter(mark.change);
    for (; slot != None && changes.speakers.size() < most; slot = m_entries[slot].after)
        changes.speakers.push_back(m_entries[slot].speaker);
    changes.isMore = slot != None;
    changes.mark = {changes.isMore ? m_entries[slot].change - 1 : m_changes, m_changes};
    for (auto gone = m_gone.rbegin(); gone != m_gone.rend() && gone->first > mark.gone; ++gone) {
        if (!changes.isWhole && !m_slots.contains(gone->second))
            changes.gone.push_back(gone->second);
    }
    return changes;
}

void SpeakerBoard::setPlaying(quint64 broadcast, const QString& name, const QStringList& playing,
                              const QStringList& silent) {
    const std::lock_guard lock(m_mutex);
    const auto put = [this](quint32 slot, quint64 number, const QString& text) {
        SpeakerState& speaker = m_entries[slot].speaker;
        const bool isOther = set(speaker.broadcast, number);
        if (set(speaker.playing, text) || isOther)
            changed(slot);
    };
    for (const QString& serial : playing)
        put(slotOf(serial), broadcast, name);
    for (const QString& serial : silent) {
        const quint32 slot = slotOf(serial);
        if (m_entries[slot].speaker.broadcast == broadcast)
            put(slot, 0, QString());
    }
}

void SpeakerBoard::setHealth(const QString& serial, SpeakerState::Health health) {
    const std::lock_guard lock(m_mutex);
    const quint32 slot = slotOf(serial);
    if (set(m_entries[slot].speaker.health, health))
        changed(slot);
}
