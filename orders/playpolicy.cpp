// Plays and stops of other ways in, on their way to speakers: what the claims say to them.
#include "device/saobj.h"
#include "device/severinit.h"
#include "orders/ledger.h"
#include "orders/orders.h"

#include <algorithm>

namespace {

/// No play is longer.
constexpr std::chrono::hours LongestPlay{24};
/// The stop of another node's player comes at the end of its time; when it has got lost, so much later its
/// time holds.
constexpr std::chrono::seconds EndGrace{5};
/// Of an alarm line: that of an alarm file without a level, so that the newer of both is heard.
constexpr int LinePriority = 225;
/// Players whose stop never comes (their node has gone down) are forgotten beyond so many.
constexpr size_t MostRunning = 10'000;

} // namespace

quint64 Orders::begin(const PlayCommand& command) {
    if (command.kind == PlayKind::Play && command.order != 0)
        relayed(command);
    return command.order;
}

/// The record of a play's broadcast, with what it plays now; null for an announcement that is over.
Orders::Running* Orders::relayed(const PlayCommand& command) {
    const auto known = m_running.find(command.order);
    const QString url = command.files.value(0);
    if (known != m_running.end()) {
        Running& running = known->second;
        if (running.way != Way::Announced && !Outbox::isFrom(url, running.url)) {
            running.url = url;
            running.urlSince = now();
        }
        return &running;
    }
    const auto broadcast = m_ledger.broadcast(command.order);
    if (broadcast && broadcast->kind == Broadcast::Kind::Announcement)
        return nullptr;
    prune();
    Running& running = m_running[command.order];
    running.terms.id = command.order;
    running.url = url;
    running.urlSince = now();
    describe(running, command, broadcast ? &*broadcast : nullptr);
    return &running;
}

/// `broadcast` is null for one that another node has begun: of that the command tells.
void Orders::describe(Running& running, const PlayCommand& command, const Broadcast* broadcast) {
    const PlayTerms given = command.terms.value_or(PlayTerms());
    const bool isBell =
        broadcast ? broadcast->kind == Broadcast::Kind::Bell : given.kind == PlayTerms::Kind::Bell;
    const bool isAlarm =
        broadcast ? broadcast->kind == Broadcast::Kind::Alarm : given.kind == PlayTerms::Kind::Alarm;
    zones::Order& terms = running.terms;
    terms.isSent = true;
    running.way = broadcast && broadcast->endsByItself ? Way::Direct : Way::Relayed;
    // A player tells its end; without a word of whose play it is only the speakers do.
    terms.isDriven = broadcast ? !broadcast->endsByItself : isBell || isAlarm;
    if (terms.isDriven)
        terms.ends = now() + (!broadcast && given.seconds > 0 ? std::chrono::seconds(given.seconds) + EndGrace
                                                              : std::chrono::seconds(LongestPlay));
    terms.priority = broadcast ? broadcast->priority : given.priority;
    if (isAlarm)
        terms.priority = std::max(terms.priority, LinePriority);
    terms.volume = given.volume;
    terms.lastHolds = !isBell;
    terms.resume = isBell ? zones::Resume::Position : zones::Resume::None;
}

void Orders::prune() {
    for (auto running = m_running.begin(); m_running.size() >= MostRunning && running != m_running.end();) {
        const bool isForgotten = running->second.claims <= 0 && running->second.way == Way::Relayed;
        running = isForgotten ? m_running.erase(running) : std::next(running);
    }
}

const PlayWatch::Refusal* Orders::refusal(const PlayCommand& command, SAobj& session) {
    if (!session.isOnline() || !session.isEnabled())
        return nullptr; // it does not get anything anyway
    if (command.kind == PlayKind::Stop)
        return mayStop(command.order, session);
    if (command.kind != PlayKind::Play || command.order == 0)
        return nullptr;
    const auto running = m_running.find(command.order);
    return running == m_running.end() ? refused(nullptr, QStringLiteral("its broadcast is over"))
                                      : mayPlay(running->second, session);
}

const PlayWatch::Refusal* Orders::refused(const zones::Order* by, const QString& reason) {
    m_refusal = {reason, by ? by->id : 0};
    return &m_refusal;
}

const PlayWatch::Refusal* Orders::mayPlay(Running& running, SAobj& session) {
    const zones::Order& terms = running.terms;
    Spot& spot = spotOf(session);
    const zones::Order* const holder = spot.zone.holder();
    if (holder == &terms)
        return nullptr;
    if (running.left.contains(session.sn()))
        return refused(holder, QStringLiteral("it was stopped here"));
    if (running.isStopped || running.way == Way::Announced)
        return refused(holder, QStringLiteral("another broadcast holds the speaker"));
    if (spot.zone.hasClaim(terms.id))
        return refused(holder, QStringLiteral("interrupted"));
    if (running.isBegun && holder && holder->priority >= terms.priority)
        return refused(holder, QStringLiteral("another broadcast has taken the speaker"));
    zones::Actions actions;
    ++running.claims;
    spot.zone.want(terms, now(), actions);
    carryOut(session.sn(), spot, actions, Road::AtOnce);
    return spot.zone.holder() == &terms
               ? nullptr
               : refused(spot.zone.holder(), QStringLiteral("a higher priority holds the speaker"));
}

const PlayWatch::Refusal* Orders::mayStop(quint64 order, SAobj& session) {
    const auto spot = m_spots.constFind(session.sn());
    const zones::Order* const holder = spot == m_spots.cend() ? nullptr : spot->zone.holder();
    const bool isMeant = !holder || (order == 0 ? holder->yieldsToLast() : holder->id == order);
    return isMeant ? nullptr : refused(holder, QStringLiteral("it plays something else"));
}

void Orders::cameOf(const PlayCommand& command, const QString& sn, SAobj* /*session*/, Fate fate,
                    const Refusal* /*refusal*/) {
    const auto spot = m_spots.find(sn);
    if (spot == m_spots.end())
        return;
    if (command.kind == PlayKind::Play) {
        // Who keeps the record takes what was sent to the speaker before for overruled, a title for refused.
        spot->zone.tellInterrupted([&](quint64 order, quint64 by) {
            m_tellings[{order, zones::Fate::Interrupted, by}] << sn;
            m_soon.start(0);
        });
        const bool isLost = fate == PlayWatch::Fate::Broken || fate == PlayWatch::Fate::Disabled;
        if (isLost && holder(sn) == command.order)
            endClaim(sn, command.order, zones::Fate::Lost, Road::NoStops);
    } else if (command.order != 0) {
        endClaim(sn, command.order, zones::Fate::Completed, Road::NoStops);
    } else if (fate == PlayWatch::Fate::Sent) {
        zones::Actions actions;
        spot->zone.stopYielding(now(), actions);
        carryOut(sn, *spot, actions, Road::NoStops);
    }
}

void Orders::end(const PlayCommand& command) {
    const auto running = m_running.find(command.order);
    if (running == m_running.end())
        return;
    running->second.isBegun = true;
    running->second.isOver = command.kind == PlayKind::Stop;
    m_ended.insert(command.order);
    m_soon.start(0);
}
