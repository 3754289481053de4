#include "zones/zone.h"

#include <algorithm>
#include <functional>
#include <utility>

namespace zones {

namespace {
Time plus(Time a, Time b) {
    return a == Never || b == Never ? Never : a + b;
}
} // namespace

// --- claims ---

/// Which of two claims of m_rest goes on first; `other` came to be there before.
bool Zone::Claim::isBefore(const Claim& other) const {
    if (order->priority != other.order->priority)
        return order->priority > other.order->priority;
    return isInterrupted;
}

Time Zone::Claim::place(Time now) const {
    const Time length = order->length(title);
    const Time played = from + (now - since);
    return length > Time(0) ? std::min(played, length) : played;
}

/// When the title is over at the latest, as far as the zone knows.
Time Zone::Claim::over() const {
    if (order->isDriven)
        return Never;
    const Time length = order->length(title);
    if (length <= Time(0))
        return since + LongestUnknown;
    return since + std::max(length - from, Time(0)) + (hasBegun ? ReportGrace : Time(0));
}

/// What it would still have played.
Time Zone::Claim::left(Time now) const {
    if (order->isDriven)
        return Never;
    Time sum = -place(now);
    for (int i = title; i < order->count(); ++i)
        sum += order->length(i) > Time(0) ? order->length(i) : LongestUnknown;
    return std::max(sum, Time(0));
}

bool Zone::hasClaim(quint64 order) const {
    return (m_holder && m_holder->order->id == order) ||
           std::any_of(m_rest.begin(), m_rest.end(),
                       [order](const Claim& claim) { return claim.order->id == order; });
}

void Zone::tellInterrupted(const std::function<void(quint64, quint64)>& tell) const {
    for (const Claim& claim : m_rest) {
        if (claim.isInterrupted && !claim.isLost)
            tell(claim.order->id, claim.by);
    }
}

void Zone::tell(const Order& order, Fate fate, Actions& actions, quint64 by) {
    Action action{Action::Tell};
    action.order = &order;
    action.fate = fate;
    action.by = by;
    actions.push_back(action);
}

// --- who wants it ---

bool Zone::takes(const Order& order, const Order& holder) {
    if (order.lastHolds && holder.yieldsToLast())
        return true;
    if (order.priority != holder.priority)
        return order.priority > holder.priority;
    return order.whenBusy == WhenBusy::Interrupt || order.priority == Highest;
}

void Zone::want(const Order& order, Time now, Actions& actions) {
    expire(now, actions);
    if (m_holder && !takes(order, *m_holder->order))
        return refuseOrQueue(order, now, actions);
    if (m_holder)
        interrupt(order, now, actions);
    begin({&order}, now, actions);
}

void Zone::refuseOrQueue(const Order& order, Time now, Actions& actions) {
    if (order.whenBusy != WhenBusy::Queue)
        return tell(order, order.whenBusy == WhenBusy::Skip ? Fate::Busy : Fate::LowerPriority, actions,
                    m_holder->order->id);
    Claim claim{&order};
    claim.until = now + order.queueSpan;
    claim.by = m_holder->order->id;
    m_rest.push_back(claim);
    tell(order, Fate::Waiting, actions, claim.by);
}

void Zone::interrupt(const Order& by, Time now, Actions& actions) {
    Claim claim = *std::exchange(m_holder, std::nullopt);
    if (claim.order->isStream != by.isStream) {
        Action silence{Action::Silence};
        silence.order = claim.order;
        actions.push_back(silence);
    }
    if (claim.order->resume == Resume::None)
        return tell(*claim.order, Fate::Overruled, actions, by.id);
    claim.from = claim.place(now);
    claim.isInterrupted = true;
    claim.by = by.id;
    m_rest.push_back(claim);
    tell(*claim.order, Fate::Interrupted, actions, by.id);
}

void Zone::begin(Claim claim, Time now, Actions& actions) {
    const bool isSentAlready = claim.order->isSent && !claim.isInterrupted;
    if (claim.isInterrupted && claim.order->resume == Resume::Start) {
        claim.title = 0;
        claim.from = Time(0);
    }
    claim.until = Never;
    claim.isLost = false;
    claim.by = 0;
    m_holder = claim;
    setLevel(claim.order, now, actions);
    m_holder->since = now;
    m_holder->hasBegun = false;
    if (!isSentAlready)
        play(now, actions);
    tell(*claim.order, Fate::Playing, actions);
}

void Zone::play(Time now, Actions& actions) {
    m_holder->since = now;
    m_holder->hasBegun = false;
    Action action{Action::Play};
    action.order = m_holder->order;
    action.title = m_holder->title;
    action.from = m_holder->from;
    actions.push_back(action);
}

// --- its end ---

void Zone::end(quint64 order, Fate fate, Time now, Actions& actions) {
    if (m_holder && m_holder->order->id == order)
        return dropHolder(fate, true, now, actions);
    const auto found = std::find_if(m_rest.begin(), m_rest.end(),
                                    [order](const Claim& claim) { return claim.order->id == order; });
    if (found == m_rest.end())
        return;
    const Order* const ended = found->order;
    m_rest.erase(found);
    tell(*ended, fate, actions);
}

void Zone::stopYielding(Time now, Actions& actions) {
    const auto isStopped = [](const Claim& claim) {
        return claim.order->yieldsToLast();
    };
    const auto stopped = std::stable_partition(m_rest.begin(), m_rest.end(), std::not_fn(isStopped));
    for (auto claim = stopped; claim != m_rest.end(); ++claim)
        tell(*claim->order, Fate::Stopped, actions);
    m_rest.erase(stopped, m_rest.end());
    if (m_holder && isStopped(*m_holder))
        dropHolder(Fate::Stopped, true, now, actions);
}

/// `isPlaying`: the speaker may still do so.
void Zone::dropHolder(Fate fate, bool isPlaying, Time now, Actions& actions) {
    const Order* const order = m_holder->order;
    m_holder.reset();
    tell(*order, fate, actions);
    expire(now, actions);
    proceed(isPlaying ? order : nullptr, now, actions);
}

/// Somebody else's turn, or nobody's; what `silenced` plays gives way first.
void Zone::proceed(const Order* silenced, Time now, Actions& actions) {
    auto next = m_rest.end();
    for (auto claim = m_rest.begin(); m_isConnected && claim != m_rest.end(); ++claim) {
        if (next == m_rest.end() || claim->isBefore(*next))
            next = claim;
    }
    if (silenced && (next == m_rest.end() || next->order->isStream || silenced->isStream)) {
        Action silence{Action::Silence};
        silence.order = silenced;
        actions.push_back(silence);
    }
    if (next == m_rest.end()) {
        if (m_isConnected)
            setLevel(nullptr, now, actions);
        return;
    }
    const Claim claim = *next;
    m_rest.erase(next);
    begin(claim, now, actions);
}

// --- its connection ---

void Zone::lost(Time now, Actions& actions) {
    m_isConnected = false;
    if (!m_holder)
        return;
    Claim claim = *std::exchange(m_holder, std::nullopt);
    tell(*claim.order, Fate::Lost, actions);
    if (claim.order->resume == Resume::None)
        return;
    claim.until = plus(now, claim.left(now)); // away, it has no more than the time it had left
    claim.from = claim.place(now);
    claim.isInterrupted = true;
    claim.isLost = true;
    m_rest.push_back(claim);
}

void Zone::returned(int level, Time now, Actions& actions) {
    const bool wasConnected = std::exchange(m_isConnected, true);
    m_level = m_before = static_cast<quint8>(level);
    expire(now, actions);
    if (wasConnected)
        return;
    // It may have come back with any volume, and may not tell which.
    if (m_base != 0)
        m_level = 0;
    proceed(nullptr, now, actions);
    if (m_level == 0)
        m_level = static_cast<quint8>(level);
}

// --- what the speaker tells ---

void Zone::began(Time now) {
    if (!m_holder || m_holder->hasBegun)
        return;
    m_holder->hasBegun = true;
    m_holder->since = now;
}

void Zone::idle(Time now, Actions& actions) {
    if (m_holder && !m_holder->order->isDriven && (m_holder->hasBegun || now - m_holder->since >= DeafTime))
        nextTitle(now, actions, false);
}

/// `isCut`: the title before may still play.
void Zone::nextTitle(Time now, Actions& actions, bool isCut) {
    if (m_holder->title + 1 >= m_holder->order->count())
        return dropHolder(Fate::Completed, isCut, now, actions);
    ++m_holder->title;
    m_holder->from = Time(0);
    play(now, actions);
}

void Zone::levelIs(int level, Time now) {
    if (level == m_level || (level == m_before && m_base != 0 && now - m_levelSet < StaleVolume))
        return;
    m_level = static_cast<quint8>(level);
    if (m_base != 0)
        m_base = m_level;
}

/// Sets the volume that `order` asks for, and remembers the one before; without an order, or one that asks
/// for none, goes back to it.
void Zone::setLevel(const Order* order, Time now, Actions& actions) {
    const bool isAsked = order && order->volume > 0;
    if (isAsked && m_base == 0)
        m_base = m_level;
    const auto wanted = isAsked ? static_cast<quint8>(order->volume) : m_base;
    if (!isAsked)
        m_base = 0;
    if (wanted == 0 || wanted == m_level)
        return;
    m_before = std::exchange(m_level, wanted);
    m_levelSet = now;
    Action action{Action::Volume};
    action.level = wanted;
    actions.push_back(action);
}

// --- time ---

Time Zone::due() const {
    Time first = m_holder ? std::min(m_holder->over(), m_holder->order->ends) : Never;
    for (const Claim& claim : m_rest)
        first = std::min({first, claim.until, claim.order->ends});
    return first;
}

/// Drops what can't wait any longer.
void Zone::expire(Time now, Actions& actions) {
    const auto isOver = [now](const Claim& claim) {
        return claim.until <= now || claim.order->ends <= now;
    };
    const auto over = std::stable_partition(m_rest.begin(), m_rest.end(), std::not_fn(isOver));
    for (auto claim = over; claim != m_rest.end(); ++claim) {
        if (!claim->isInterrupted)
            tell(*claim->order, Fate::BusyTooLong, actions, claim->by);
        else
            tell(*claim->order, claim->isLost ? Fate::Lost : Fate::Overruled, actions, claim->by);
    }
    m_rest.erase(over, m_rest.end());
}

void Zone::passed(Time now, Actions& actions) {
    expire(now, actions);
    while (m_holder && std::min(m_holder->over(), m_holder->order->ends) <= now) {
        if (m_holder->order->ends <= now)
            dropHolder(Fate::Completed, true, now, actions);
        else
            nextTitle(now, actions, m_holder->order->length(m_holder->title) <= Time(0));
    }
}

} // namespace zones
