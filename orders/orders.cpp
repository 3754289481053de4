#include "orders/orders.h"

#include "device/saobj.h"
#include "device/severinit.h"
#include "orders/ledger.h"
#include "orders/levelstore.h"

#include <algorithm>
#include <array>
#include <utility>

using zones::Action;

namespace {

QJsonObject reply(const char* word, const QString& info) {
    return {{QStringLiteral("res"), QLatin1String(word)}, {QStringLiteral("info"), info}};
}

} // namespace

Orders::Orders(Severinit* devices, Ledger& ledger, LevelStore* levels, Outbox::Send send, QObject* parent)
    : QObject(parent)
    , m_devices(devices)
    , m_ledger(ledger)
    , m_levels(levels)
    , m_outbox(std::move(send)) {
    for (QTimer* const timer : {&m_timer, &m_soon}) {
        timer->setSingleShot(true);
        timer->setTimerType(Qt::PreciseTimer);
    }
    connect(&m_timer, &QTimer::timeout, this, &Orders::takeDue);
    connect(&m_soon, &QTimer::timeout, this, &Orders::flush);
    devices->addPlayWatch(this);
    devices->addCommand(
        QLatin1String(OrderWord),
        [this](const QJsonObject& request, const QStringList& serials) { return order(request, serials); });
    devices->addCommand(QLatin1String(EndOrderWord),
                        [this](const QJsonObject& request, const QStringList& serials) {
                            return endOrder(request, serials);
                        });
    constexpr SpeakerEvents::Kinds kinds =
        SpeakerEvents::Online | SpeakerEvents::Offline | SpeakerEvents::Volume | SpeakerEvents::Reported;
    devices->events().listen(this, kinds, [this](const SpeakerEvents::Batch& batch) { heard(batch); });
}

Orders::~Orders() = default;

zones::Time Orders::now() {
    return std::chrono::duration_cast<zones::Time>(std::chrono::steady_clock::now().time_since_epoch());
}

quint64 Orders::holder(const QString& sn) const {
    const auto spot = m_spots.constFind(sn);
    return spot == m_spots.cend() || !spot->zone.holder() ? 0 : spot->zone.holder()->id;
}

// --- commands ---

QJsonObject Orders::order(const QJsonObject& request, const QStringList& serials) {
    QString why;
    const auto announcement = Announcement::read(request, why);
    if (!announcement)
        return reply("Data_error_7", why);
    if (m_running.count(announcement->id) > 0)
        return reply("Data_error_7", QStringLiteral("this broadcast runs already"));
    Broadcast foreign;
    foreign.kind = Broadcast::Kind::Announcement;
    foreign.name = announcement->name;
    foreign.priority = announcement->priority;
    foreign.endsByItself = false;
    m_ledger.join(announcement->id, foreign);
    Running& running = m_running[announcement->id];
    running.terms = announcement->terms();
    running.titles = announcement->titles;
    running.isBegun = true;
    startOn(running, serials);
    const int claims = running.claims;
    flush();
    return reply("WELL", QStringLiteral("wanted on %1 of %2").arg(claims).arg(serials.size()));
}

void Orders::startOn(Running& running, const QStringList& serials) {
    QStringList offline;
    QStringList disabled;
    zones::Actions actions;
    const zones::Time moment = now();
    m_spots.reserve(m_spots.size() + serials.size());
    for (const QString& sn : serials) {
        const SAobj* const session = m_devices->session(sn);
        if (!session || !session->isOnline()) {
            offline << sn;
        } else if (!session->isEnabled()) {
            disabled << sn;
        } else if (Spot& spot = spotOf(*session); !spot.zone.hasClaim(running.terms.id)) {
            actions.clear();
            ++running.claims;
            spot.zone.want(running.terms, moment, actions);
            carryOut(sn, spot, actions);
        }
    }
    const quint64 id = running.terms.id;
    if (!offline.isEmpty())
        m_ledger.mark(id, offline, ReceiptState::Offline, {}, 0);
    if (!disabled.isEmpty())
        m_ledger.mark(id, disabled, ReceiptState::Refused, QStringLiteral("disabled"), 0);
    if (running.claims == 0)
        m_ended.insert(id);
}

QJsonObject Orders::endOrder(const QJsonObject& request, const QStringList& serials) {
    const double number = request.value(QLatin1String("broadcast")).toDouble();
    const quint64 id = PlayOrders::isNumber(number) ? static_cast<quint64>(number) : 0;
    const bool isWhole = serials == QStringList{QLatin1String(Everybody)};
    const bool isKnown = isWhole ? stop(id) : stopOn(id, serials);
    return reply("WELL", isKnown ? QStringLiteral("stopped") : QStringLiteral("nobody plays it"));
}

bool Orders::stop(quint64 id) {
    const auto found = m_running.find(id);
    if (found == m_running.end())
        return false;
    found->second.isStopped = true;
    found->second.isEndTold = true;
    for (const QString& sn : m_spots.keys())
        endClaim(sn, id, zones::Fate::Stopped, Road::Outbox);
    m_ended.insert(id);
    flush();
    m_ledger.end(id, BroadcastState::Stopped, QStringLiteral("stopped by request"));
    return true;
}

bool Orders::stopOn(quint64 id, const QStringList& serials) {
    const auto found = m_running.find(id);
    if (found == m_running.end())
        return false;
    for (const QString& sn : serials) {
        found->second.left.insert(sn);
        endClaim(sn, id, zones::Fate::Stopped, Road::Outbox);
    }
    flush();
    return true;
}

void Orders::endClaim(const QString& sn, quint64 order, zones::Fate fate, Road road) {
    const auto spot = m_spots.find(sn);
    if (spot == m_spots.end() || !spot->zone.hasClaim(order))
        return;
    zones::Actions actions;
    spot->zone.end(order, fate, now(), actions);
    carryOut(sn, *spot, actions, road);
}

quint64 Orders::open(const Broadcast& broadcast) {
    return m_ledger.begin(broadcast);
}

void Orders::markUnreached(quint64 id, const QStringList& serials) {
    m_ledger.mark(id, serials, ReceiptState::Offline, QStringLiteral("the node does not answer"), 0);
}

void Orders::allGiven(quint64 id) {
    if (m_running.count(id) == 0)
        m_ledger.end(id, BroadcastState::Done, {});
}

// --- streams ---

void Orders::beginStream(quint64 id, const Stream& stream, const QStringList& serials, Hears hears) {
    Running& running = m_running[id];
    running.way = Way::Stream;
    running.isBegun = true;
    running.hears = std::move(hears);
    zones::Order& terms = running.terms;
    terms.id = id;
    terms.priority = stream.priority;
    terms.volume = stream.volume;
    terms.whenBusy = stream.whenBusy;
    terms.queueSpan = stream.queueSpan;
    terms.lastHolds = stream.lastHolds;
    terms.resume = zones::Resume::Position; // it just goes on
    terms.isDriven = terms.isStream = true;
    startOn(running, serials);
    flush();
}

void Orders::leaveStream(quint64 id, const QStringList& serials) {
    for (const QString& sn : serials)
        endClaim(sn, id, zones::Fate::Stopped, Road::Outbox);
    flush();
}

void Orders::endStream(quint64 id) {
    for (const QString& sn : m_spots.keys())
        endClaim(sn, id, zones::Fate::Completed, Road::NoStops); // what it was sent last is still to be heard
    m_ended.insert(id);
    flush();
}

// --- what speakers tell ---

void Orders::heard(const SpeakerEvents::Batch& batch) {
    for (const SpeakerEvents::Change& change : batch.speakers) {
        if (change.session && m_spots.contains(change.session->sn()))
            changed(*change.session, change.kinds);
    }
    for (const SpeakerEvents::Report& report : batch.reports)
        reported(report);
    flush();
}

void Orders::changed(const SAobj& session, SpeakerEvents::Kinds kinds) {
    Spot& spot = m_spots[session.sn()];
    zones::Actions actions;
    if ((kinds & SpeakerEvents::Offline) || !session.isOnline())
        spot.zone.lost(now(), actions);
    if (session.isOnline() && !spot.zone.isConnected())
        spot.zone.returned(session.vol(), now(), actions);
    else if (kinds & SpeakerEvents::Volume)
        spot.zone.levelIs(session.vol(), now());
    carryOut(session.sn(), spot, actions);
}

void Orders::reported(const SpeakerEvents::Report& report) {
    const auto spot = m_spots.find(report.sn);
    if (spot == m_spots.end())
        return;
    using What = SpeakerEvents::Report::What;
    zones::Actions actions;
    if (report.what == What::Done)
        spot->zone.idle(now(), actions);
    else if (report.what == What::Playing)
        spot->zone.began(now());
    carryOut(report.sn, *spot, actions);
}

// --- carrying out ---

/// The speaker's, which is connected.
Orders::Spot& Orders::spotOf(const SAobj& session) {
    const auto found = m_spots.find(session.sn());
    if (found != m_spots.end())
        return *found;
    Spot& spot = m_spots[session.sn()];
    zones::Actions none;
    spot.zone.returned(session.vol(), now(), none);
    return spot;
}

void Orders::carryOut(const QString& sn, Spot& spot, const zones::Actions& actions, Road road) {
    const bool hasCommands = std::any_of(actions.begin(), actions.end(),
                                         [](const Action& action) { return action.kind != Action::Tell; });
    if (hasCommands && spot.batch == m_batch) { // what was gathered for the speaker goes out first
        ++m_batch;
        m_outbox.flush();
    }
    if (hasCommands)
        spot.batch = m_batch;
    for (const Action& action : actions) {
        switch (action.kind) {
        case Action::Play:
            sendPlay(sn, action);
            break;
        case Action::Silence:
            silence(sn, action.order->id, road);
            break;
        case Action::Volume:
            setVolume(sn, action.level, road);
            break;
        case Action::Tell:
            told(sn, action);
            break;
        }
    }
    after(sn, spot);
}

void Orders::silence(const QString& sn, quint64 order, Road road) {
    const Running& running = m_running[order];
    if (running.way == Way::Stream && road != Road::NoStops)
        running.hears(sn, false);
    else if (running.way != Way::Stream && road == Road::Outbox)
        m_outbox.silence(sn);
    else if (running.way != Way::Stream && road == Road::AtOnce)
        m_devices->session(sn)->stopcurl();
}

void Orders::setVolume(const QString& sn, int level, Road road) {
    if (road == Road::AtOnce)
        m_devices->session(sn)->set_vol_V(level);
    else
        m_outbox.volume(sn, level);
}

void Orders::sendPlay(const QString& sn, const Action& action) {
    Running& running = m_running[action.order->id];
    if (running.way == Way::Stream)
        return running.hears(sn, true);
    if (running.way == Way::Announced) {
        const auto& title = running.titles.at(static_cast<size_t>(action.title) % running.titles.size());
        const bool isCut = title.isSeekable && action.from > zones::Time(0);
        return m_outbox.play(sn, action.order->id, isCut ? Outbox::from(title.url, action.from) : title.url);
    }
    if (running.url.isEmpty())
        return;
    // Its player has gone on meanwhile: the speaker joins the others.
    const bool isCut = !m_filePrefix.isEmpty() && running.url.startsWith(m_filePrefix);
    m_outbox.play(sn, action.order->id,
                  isCut ? Outbox::from(running.url, now() - running.urlSince) : running.url);
}

void Orders::told(const QString& sn, const Action& action) {
    const quint64 id = action.order->id;
    Running& running = m_running[id];
    switch (action.fate) {
    case zones::Fate::Playing:
        if (running.way == Way::Stream)
            m_tellings[{id, action.fate, 0}] << sn;
        return;
    case zones::Fate::Waiting:
    case zones::Fate::Interrupted:
        break;
    case zones::Fate::Lost:
        if (m_spots[sn].zone.hasClaim(id))
            return; // it goes on when the speaker is back
        [[fallthrough]];
    default:
        if (--running.claims <= 0)
            m_ended.insert(id);
        if (running.way == Way::Stream && action.fate != zones::Fate::Completed)
            running.hears(sn, false);
    }
    if (action.fate != zones::Fate::Lost && action.fate != zones::Fate::Completed)
        m_tellings[{id, action.fate, action.by}] << sn;
}

/// Whatever has happened to a spot: its next deadline, and the volume that must outlive this run.
void Orders::after(const QString& sn, Spot& spot) {
    const zones::Time due = spot.zone.due();
    if (due < spot.due) {
        spot.due = due;
        m_due.emplace(due, sn);
    }
    if (m_levels && spot.base != spot.zone.base()) {
        spot.base = spot.zone.base();
        m_levels->set(sn, spot.base);
    }
    if (spot.zone.isIdle())
        m_idle.insert(sn);
    if (!m_soon.isActive())
        m_soon.start(0);
}

void Orders::restore(const QHash<QString, int>& levels) {
    for (auto level = levels.cbegin(); level != levels.cend(); ++level) {
        if (m_spots.contains(level.key()))
            continue;
        Spot& spot = m_spots[level.key()];
        spot.zone.setBase(level.value());
        spot.base = level.value();
        if (const SAobj* const session = m_devices->session(level.key()); session && session->isOnline())
            changed(*session, SpeakerEvents::Online);
    }
    flush();
}

void Orders::flush() {
    m_soon.stop();
    ++m_batch;
    m_outbox.flush();
    tellLedger();
    dropEnded();
    dropIdle();
    arm();
}

/// What nobody waits for any more leaves the memory: after everything that has pointed to it.
void Orders::dropEnded() {
    for (const quint64 id : std::exchange(m_ended, {})) {
        const auto found = m_running.find(id);
        if (found == m_running.end() || found->second.claims > 0)
            continue;
        const Running& running = found->second;
        if ((running.way == Way::Announced || running.way == Way::Stream) && !running.isEndTold)
            m_ledger.end(id, BroadcastState::Done, {});
        if (running.way != Way::Relayed || running.isOver)
            m_running.erase(found);
    }
}

void Orders::dropIdle() {
    for (const QString& sn : std::exchange(m_idle, {})) {
        const auto spot = m_spots.find(sn);
        if (spot != m_spots.end() && spot->zone.isIdle())
            m_spots.erase(spot);
    }
}

void Orders::tellLedger() {
    struct Row {
        zones::Fate fate;
        ReceiptState state;
        const char* reason;
    };
    static constexpr std::array<Row, 8> rows{{
        {zones::Fate::Playing, ReceiptState::Sent, ""},
        {zones::Fate::Waiting, ReceiptState::Waiting, "the speaker is busy"},
        {zones::Fate::Interrupted, ReceiptState::Waiting, "interrupted"},
        {zones::Fate::Stopped, ReceiptState::Stopped, ""},
        {zones::Fate::Overruled, ReceiptState::Overruled, ""},
        {zones::Fate::Busy, ReceiptState::Refused, "busy"},
        {zones::Fate::BusyTooLong, ReceiptState::Refused, "busy for too long"},
        {zones::Fate::LowerPriority, ReceiptState::Refused, "a higher priority holds the speaker"},
    }};
    for (const auto& [what, serials] : std::exchange(m_tellings, {})) {
        const auto& [id, fate, by] = what;
        const auto row = std::find_if(rows.begin(), rows.end(),
                                      [told = fate](const Row& one) { return one.fate == told; });
        if (row != rows.end())
            m_ledger.mark(id, serials, row->state, QString::fromLatin1(row->reason), by);
    }
}

// --- time ---

void Orders::arm() {
    if (m_due.empty())
        return m_timer.stop();
    m_timer.start(static_cast<int>(std::clamp<qint64>((m_due.top().first - now()).count(), 0, 3'600'000)));
}

void Orders::takeDue() {
    const zones::Time moment = now();
    zones::Actions actions;
    while (!m_due.empty() && m_due.top().first <= moment) {
        const auto [time, sn] = m_due.top();
        m_due.pop();
        const auto spot = m_spots.find(sn);
        if (spot == m_spots.end() || spot->due != time)
            continue;
        spot->due = zones::Never;
        actions.clear();
        spot->zone.passed(moment, actions);
        carryOut(sn, *spot, actions);
    }
    flush();
}
