#include "journal/journal.h"

#include "journal/journalstate.h"
#include "journal/journalwatch.h"

#include "core/loop/mainloop.h"
#include "core/sql/sqlite.h"
#include "device/saobj.h"
#include "device/severinit.h"

#include <algorithm>
#include <iterator>
#include <QDateTime>

namespace {

constexpr const char* Kinds[] = {"speaker", "service", "link", "live", "alarm"};
constexpr const char* Outcomes[] = {"", "played", "late", "skipped"};
constexpr qint64 InTime = 2'000; ///< ms behind its second in which a bell has been played
const auto NobodyThere = QStringLiteral("no speaker was connected");

/// Now on the journal's thread, otherwise behind what was posted to it before.
template<typename Work>
void onLoop(QObject& context, Work work) {
    if (QThread::currentThread() == context.thread())
        work();
    else
        QMetaObject::invokeMethod(&context, work, Qt::QueuedConnection);
}

} // namespace

Journal::Journal(Severinit* devices, sqlite* database, int node, Limits limits, QObject* parent)
    : QObject(parent)
    , m_state(std::make_unique<State>(*this, devices, node)) {
    qRegisterMetaType<std::vector<quint64>>("std::vector<quint64>");
    connect(&m_state->ticks, &QTimer::timeout, this, [this] { m_state->tick(); });
    m_state->watchClock();
    if (devices) {
        devices->addPlayWatch(m_state->watch.get());
        devices->events().listen(this,
                                 SpeakerEvents::Online | SpeakerEvents::Offline | SpeakerEvents::Reported,
                                 [this](const SpeakerEvents::Batch& batch) { m_state->heard(batch); });
    }
    if (!database)
        return;
    m_state->writer = std::make_unique<JournalWriter>(
        *database, node, JournalWriter::Keep{limits.journalDays, limits.receiptDays}, m_state->numbers);
    connect(m_state->writer.get(), &JournalWriter::linkChanged, this, [this](bool isUp) {
        note(NoteKind::Link, isUp ? QStringLiteral("back") : QStringLiteral("lost"),
             QStringLiteral("database"));
    });
    connect(m_state->writer.get(), &JournalWriter::receiptsLost, this, [this](int count) {
        note(NoteKind::Service, QStringLiteral("receipts lost"), QString(), QString::number(count));
    });
    m_state->writer->start();
}

Journal::~Journal() {
    m_state->storeAll();
}

Journal::State::State(Journal& owner, Severinit* registry, int nodeNumber)
    : journal(owner)
    , devices(registry)
    , node(nodeNumber)
    , numbers(nodeNumber)
    , watch(std::make_unique<Watch>(*this)) {}

Journal::State::~State() = default;

// --- broadcasts ---

Running* Journal::State::find(quint64 id) const {
    const auto found = broadcasts.find(id);
    return found == broadcasts.end() ? nullptr : found->second.get();
}

Running& Journal::State::open(quint64 id, const Broadcast& broadcast) {
    const qint64 now = steadyMs();
    auto& running = broadcasts[id];
    running = std::make_unique<Running>(id, broadcast, now, QDateTime::currentMSecsSinceEpoch() - now);
    touched(*running);
    return *running;
}

quint64 Journal::begin(const Broadcast& broadcast) {
    const quint64 id = m_state->numbers.next(QDateTime::currentMSecsSinceEpoch());
    onLoop(*this, [this, id, broadcast] { m_state->open(id, broadcast); });
    return id;
}

void Journal::expect(quint64 id, const QStringList& serials) {
    Running* const running = m_state->find(id);
    if (!running)
        return;
    running->setUsed();
    for (const QString& sn : serials)
        running->place(sn);
    m_state->touched(*running);
}

void Journal::join(quint64 id, const Broadcast& broadcast) {
    if (BroadcastNumbers::nodeOf(id) != m_state->node && !m_state->find(id))
        m_state->open(id, broadcast).isForeign = true;
}

void Journal::mark(quint64 id, const QStringList& serials, ReceiptState state, const QString& reason,
                   quint64 by) {
    Running* const running = m_state->find(id);
    if (!running)
        return;
    running->setUsed();
    const qint64 now = steadyMs();
    const bool isFirst = running->started() == 0;
    const quint16 number = m_state->reasons.numberOf(reason);
    for (const QString& sn : serials)
        running->set(running->place(sn), state, now, number, by);
    if (isFirst && running->started() != 0)
        m_state->decideBell(*running);
    m_state->touched(*running);
}

void Journal::sentElsewhere(quint64 id) {
    onLoop(*this, [this, id] {
        Running* const running = m_state->find(id);
        if (!running || running->started() != 0)
            return;
        running->start(steadyMs());
        m_state->decideBell(*running);
        m_state->touched(*running);
    });
}

void Journal::end(quint64 id, BroadcastState how, const QString& reason) {
    Running* const running = m_state->find(id);
    if (!running || running->isOver())
        return;
    const qint64 now = steadyMs();
    m_state->touched(*running);
    if (how == BroadcastState::Done) {
        running->isTimeOver = true;
        running->timeOverAt = now;
        return;
    }
    const quint16 number = m_state->reasons.numberOf(reason);
    for (const ReceiptState open : {ReceiptState::Waiting, ReceiptState::Sent, ReceiptState::Started})
        running->hearAll(open, Evidence::Stop, now, number);
    m_state->finish(*running, how, reason, now);
    m_state->store(*running, now, true);
}

std::optional<ReceiptState> Journal::receipt(quint64 id, const QString& sn) const {
    Running* const running = m_state->find(id);
    const int place = running ? running->find(sn) : -1;
    return place < 0 ? std::nullopt : std::optional(running->state(static_cast<quint32>(place)));
}

namespace {
Journal::Standing standingOf(const Running& running) {
    const BroadcastRow row = running.row();
    return {row.id, row.broadcast, row.state, row.reason, row.started, row.ended, row.counts, row.targets};
}
} // namespace

std::optional<Journal::Standing> Journal::standing(quint64 id) const {
    const Running* const running = m_state->find(id);
    return running ? std::optional(standingOf(*running)) : std::nullopt;
}

bool Journal::isForeign(quint64 id) const {
    const Running* const running = m_state->find(id);
    return running && running->isForeign;
}

std::vector<Journal::Standing> Journal::running() const {
    std::vector<Standing> all;
    for (const auto& [id, running] : m_state->broadcasts) {
        if (!running->isOver())
            all.push_back(standingOf(*running));
    }
    std::sort(all.begin(), all.end(), [](const Standing& a, const Standing& b) { return a.id < b.id; });
    return all;
}

// --- entries ---

void Journal::State::write(EntryRow entry) {
    entry.at = QDateTime::currentMSecsSinceEpoch();
    entry.id = numbers.next(entry.at);
    hasNewEntries = true;
    if (!ticks.isActive())
        ticks.start();
    if (writer)
        writer->add(entry);
}

void Journal::State::noteEnd(const Running& running) {
    const auto bell = openBells.find(running.id());
    if (bell != openBells.end())
        return closeBell(running);
    const Broadcast& broadcast = running.broadcast();
    if (running.isForeign || (broadcast.kind == Broadcast::Kind::Bell && broadcast.due != 0))
        return; // another node's, or told by its bell
    EntryRow entry;
    entry.kind = nameOf(broadcast.kind);
    entry.state = nameOf(running.state());
    entry.name = broadcast.name;
    entry.reason = running.reason();
    entry.due = broadcast.due;
    entry.broadcast = running.id();
    entry.schedule = broadcast.origin.schedule;
    entry.account = broadcast.owner;
    write(entry);
}

void Journal::State::write(const Bell& bell, qint64 lateMs) {
    EntryRow entry;
    entry.kind = QStringLiteral("bell");
    entry.state = QLatin1String(Outcomes[static_cast<int>(bell.outcome)]);
    entry.name = bell.name;
    entry.reason = bell.reason;
    entry.due = bell.due;
    entry.lateMs = lateMs;
    entry.broadcast = bell.broadcast;
    entry.schedule = bell.schedule;
    entry.account = bell.account;
    write(entry);
}

/// The first byte is out.
void Journal::State::decideBell(const Running& running) {
    const auto entry = openBells.find(running.id());
    if (entry == openBells.end())
        return;
    Bell bell = entry->second;
    openBells.erase(entry);
    const qint64 late = std::max<qint64>(0, running.wall(running.started()) - bell.due);
    bell.outcome = late < InTime ? Bell::Outcome::Played : Bell::Outcome::Late;
    write(bell, bell.outcome == Bell::Outcome::Late ? late : 0);
}

void Journal::State::closeBell(const Running& running) {
    const auto entry = openBells.find(running.id());
    Bell bell = entry->second;
    openBells.erase(entry);
    bell.outcome = Bell::Outcome::Skipped;
    bell.reason = running.reason().isNull() ? NobodyThere : running.reason();
    write(bell, 0);
}

void Journal::bell(const Bell& bell) {
    onLoop(*this, [this, bell] {
        if (bell.outcome != Bell::Outcome::Open)
            return m_state->write(bell, bell.outcome != Bell::Outcome::Late ? 0
                                        : bell.late != 0                    ? bell.late
                                                         : QDateTime::currentMSecsSinceEpoch() - bell.due);
        m_state->openBells[bell.broadcast] = bell;
        const Running* const running = m_state->find(bell.broadcast);
        if (!running || running->started() != 0) {
            const Running none(bell.broadcast, {}, 0, 0);
            return running ? m_state->decideBell(*running) : m_state->closeBell(none);
        }
    });
}

void Journal::note(NoteKind kind, const QString& state, const QString& name, const QString& reason,
                   const QString& serial) {
    EntryRow entry;
    entry.kind = QLatin1String(Kinds[static_cast<int>(kind)]);
    entry.state = state;
    entry.name = name;
    entry.reason = reason;
    entry.serial = serial;
    onLoop(*this, [this, entry] { m_state->write(entry); });
}

SpeakerHealth Journal::health(const QString& sn) const {
    const std::lock_guard lock(m_state->healthLock);
    return m_state->health.of(sn);
}

bool Journal::settle(std::chrono::milliseconds limit) {
    callOnLoop(this, [this] { m_state->storeAll(); });
    return !m_state->writer || m_state->writer->settle(limit);
}
