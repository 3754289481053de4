// Binding players to the pollers of their nodes.
#include "tasks/task_workque.h"

#include "tasks/arrivals.h"
#include "tasks/latecomers.h"
#include "tasks/nodeque.h"
#include "tasks/tasxkobj.h"

#include "core/sql/sqlite.h"
#include "journal/journal.h"

#include <algorithm>
#include <iterator>
#include <QDebug>
#include <QElapsedTimer>
#include <QSet>
#include <utility>

namespace {

using namespace std::chrono_literals;

constexpr qint64 TurnMs = 15;      ///< of one turn of the main loop: what is left starts in the next turns
constexpr qint64 GiveUpMs = 60000; ///< of what was asked for, and of a bell without a policy of its own
constexpr size_t Batch = 32;       ///< bells that are noted as rung in one transaction
constexpr qint64 InTimeMs = 2000;  ///< a bell that is no later was in time
// A play that ends this close to another's start ends first: its stop must not silence the next one.
constexpr auto SameMoment = 500ms;

const QString MarkPlaying = QStringLiteral("UPDATE  `task` SET `statu` = '1' WHERE (`id` = '@taskid');");
const QString CloseRequest = QStringLiteral("UPDATE  `taskpop` SET `status` = '0' WHERE (`id` = '@id') ;");

/// Moves the addresses of one host to another.
void moveFiles(Tasxkobj& player, const QString& from, const QString& to) {
    const QString source = QStringLiteral("//%1/").arg(from);
    for (QString& url : player.files) {
        if (!url.contains(source))
            continue;
        const int length = player.fileLengths.value(url);
        url.replace(url.indexOf(source), source.size(), QStringLiteral("//%1/").arg(to));
        player.fileLengths.insert(url, length);
    }
}

/// `due`: ms since 1970, 0 for a play that somebody has asked for.
Broadcast broadcastOf(const Tasxkobj& player, qint64 due) {
    Broadcast broadcast;
    broadcast.kind = player.forcePlayAs   ? Broadcast::Kind::Alarm
                     : player.isTemporary ? Broadcast::Kind::Direct
                                          : Broadcast::Kind::Bell;
    broadcast.name = player.name;
    broadcast.owner = player.userid;
    broadcast.priority = player.priority;
    broadcast.due = due;
    broadcast.endsByItself = false;
    if (!player.isTemporary)
        broadcast.origin.schedule = static_cast<qint64>(player.id);
    if (due == 0 && !player.forcePlayAs)
        broadcast.origin.account = player.userid;
    if (player.forcePlayAs)
        broadcast.origin.line = QStringLiteral("task");
    return broadcast;
}

} // namespace

void Task_workque::addPending(Start start) {
    const quint64 key = start.player->id;
    qInfo() << "-->Tasxkobj" << start.player->name << key;
    start.askedAt = m_clock.steadyMs();
    if (!pending.try_emplace(key, std::move(start)).second)
        qWarning() << "task start error" << key << "it is about to start already";
}

/// What was due first, then by key.
std::vector<quint64> Task_workque::pendingOrder() const {
    std::vector<quint64> keys;
    keys.reserve(pending.size());
    for (const auto& [key, start] : pending)
        keys.push_back(key);
    std::stable_sort(keys.begin(), keys.end(),
                     [this](quint64 a, quint64 b) { return pending.at(a).dueAt < pending.at(b).dueAt; });
    return keys;
}

void Task_workque::startPending() {
    if (pending.empty())
        return;
    for (const Node& node : qAsConst(m_nodes))
        node.poller->endDue(SameMoment);
    const std::vector<quint64> order = pendingOrder();
    QElapsedTimer clock;
    clock.start();
    for (auto next = order.begin(); next != order.end() && clock.elapsed() < TurnMs;) {
        const auto end = std::min<std::ptrdiff_t>(Batch, order.end() - next) + next;
        std::vector<Start> filled = fillNext({next, end});
        claim(filled);
        for (Start& start : filled)
            bind(std::move(start));
        next = end;
    }
    markPlaying();
    if (!pending.empty())
        QTimer::singleShot(0, this, &Task_workque::startPending);
}

/// Those of the pending starts whose speakers and files could be read.
std::vector<Task_workque::Start> Task_workque::fillNext(const std::vector<quint64>& keys) {
    std::vector<Start> filled;
    for (const quint64 key : keys) {
        auto node = pending.extract(key);
        if (node.empty())
            continue;
        if (fill(node.mapped()))
            filled.push_back(std::move(node.mapped()));
        else
            giveUpOrRetry(key, std::move(node.mapped()));
    }
    return filled;
}

void Task_workque::giveUpOrRetry(quint64 key, Start start) {
    const bool isOver = start.missed.within ? !start.missed.admits(m_clock.epochMs() / 1000 - start.dueAt)
                                            : m_clock.steadyMs() - start.askedAt >= GiveUpMs;
    if (isOver)
        refuse(start, "the database does not answer", QLatin1String(absenceText(Absence::DatabaseAway)));
    else
        m_retrying.emplace(key, std::move(start));
}

/// Leaves those that have not rung yet, all noted as rung.
void Task_workque::claim(std::vector<Start>& starts) {
    const auto bells = std::stable_partition(starts.begin(), starts.end(),
                                             [](const Start& start) { return !start.isScheduled(); });
    std::vector<TaskRuns::Run> runs;
    for (auto bell = bells; bell != starts.end(); ++bell)
        runs.push_back({static_cast<qint64>(bell->player->id), bell->due});
    const std::vector<bool> isOurs = m_runs.claim(runs);
    std::vector<Start> left(std::make_move_iterator(starts.begin()), std::make_move_iterator(bells));
    for (size_t i = 0; i < isOurs.size(); ++i) {
        Start& bell = *(bells + static_cast<std::ptrdiff_t>(i));
        if (isOurs[i])
            left.push_back(std::move(bell));
        else
            refuse(bell, "it played already", QStringLiteral("it played already"));
    }
    starts = std::move(left);
}

/// False when the database could not be asked.
bool Task_workque::fill(Start& start) {
    Tasxkobj& player = *start.player;
    return (player.isTemporary || m_reader.readNode(player.nodeid, start.node)) &&
           m_reader.readSeeds(player) && m_reader.readFiles(player);
}

void Task_workque::bind(Start start) {
    Tasxkobj& player = *start.player;
    const quint64 key = player.id;
    if (player.seeds.isEmpty() || player.files.isEmpty()) {
        refuse(start, player.seeds.isEmpty() ? "no devices" : "no files",
               player.seeds.isEmpty() ? QStringLiteral("no speakers") : QStringLiteral("no sounds"));
        return;
    }
    if (runningPlayer(key)) {
        refuse(start, "it plays already", QStringLiteral("it played already"));
        return;
    }
    Node* target = node(start.node);
    if (!target) {
        refuse(start, "no such node", QStringLiteral("no such node"));
        return;
    }
    if (!target->nocdn)
        moveFiles(player, m_sourceHost, m_cdnHost);
    if (!record(start))
        tell(start);
    if (start.isScheduled() && m_latecomers && isThisNode(start.node)) {
        const QStringList seeds = player.seeds;
        const auto wait = timeLeft(start);
        m_latecomers->keepAbsent(player, wait);
        recordAbsent(player, seeds, wait.value_or(Latecomers::Window));
        if (player.seeds.isEmpty())
            return;
    }
    qInfo() << "task start" << player.name << key << "speakers" << player.seeds.size() << "files"
            << player.files.size();
    if (!player.isTemporary)
        m_bound.push_back(key);
    if (Journal* const journal = m_relay.journal) // one that finds nothing to play is dropped without an end
        connect(&player, &QObject::destroyed, journal, [journal, order = player.order] {
            if (const auto standing = journal->standing(order);
                standing && standing->state == BroadcastState::Waiting)
                journal->end(order);
        });
    target->poller->insert(key, start.player.release());
    emit started(key);
}

/// Opens the play's broadcast, unless it goes on with one, and sees to its end. False without a journal,
/// which tells by the first byte whether a bell was in time.
bool Task_workque::record(Start& start) {
    Journal* const journal = m_relay.journal;
    if (!journal)
        return false;
    Tasxkobj& player = *start.player;
    if (player.order == 0) {
        player.order = journal->begin(broadcastOf(player, start.isScheduled() ? start.dueAt * 1000 : 0));
        if (start.isScheduled())
            journal->bell({static_cast<qint64>(player.id),
                           player.name,
                           start.dueAt * 1000,
                           Journal::Bell::Outcome::Open,
                           {},
                           player.order,
                           player.userid});
    }
    connect(&player, &Tasxkobj::Over, journal, [journal, &player] {
        journal->end(player.order, player.wasStopped ? BroadcastState::Stopped : BroadcastState::Done);
    });
    return true;
}

/// Those of the speakers that are not there; if there are no others, the bell is over when none can come late
/// any more.
void Task_workque::recordAbsent(const Tasxkobj& player, const QStringList& seeds,
                                std::chrono::milliseconds wait) {
    Journal* const journal = m_relay.journal;
    if (!journal || player.seeds.size() == seeds.size())
        return;
    const QSet<QString> present(player.seeds.begin(), player.seeds.end());
    QStringList absent;
    std::copy_if(seeds.begin(), seeds.end(), std::back_inserter(absent),
                 [&](const QString& sn) { return !present.contains(sn); });
    journal->mark(player.order, absent, ReceiptState::Offline);
    if (player.seeds.isEmpty())
        QTimer::singleShot(wait, journal, [journal, order = player.order] { journal->end(order); });
}

void Task_workque::refuse(const Start& start, const char* why, const QString& reason) {
    const Tasxkobj& player = *start.player;
    qWarning() << "task start error" << player.name << player.id << why;
    if (player.isTemporary && player.requestRow != 0)
        instsqk(sqlLine(CloseRequest, {{QStringLiteral("@id"), player.requestRow}}));
    tell(start, reason.isEmpty() ? QLatin1String(why) : reason);
}

/// How long speakers that are away have to come for a bell; nothing for what it always was.
std::optional<std::chrono::milliseconds> Task_workque::timeLeft(const Start& start) const {
    if (!start.missed.within)
        return std::nullopt;
    const qint64 end = (start.dueAt + start.missed.limit()) * 1000;
    return std::chrono::milliseconds(std::max<qint64>(0, end - m_clock.epochMs()));
}

/// Without a reason it rings now.
void Task_workque::tell(const Start& start, const QString& reason) {
    if (!start.isScheduled())
        return;
    const qint64 lateMs = m_clock.epochMs() - start.dueAt * 1000;
    if (reason.isEmpty() && lateMs > InTimeMs)
        m_runs.noteLate({static_cast<qint64>(start.player->id), start.due}, lateMs / 1000);
    if (!m_tellBell)
        return;
    BellOutcome outcome{static_cast<qint64>(start.player->id),
                        start.player->name,
                        start.player->userid,
                        start.dueAt,
                        BellOutcome::State::Skipped,
                        0,
                        reason,
                        0};
    if (reason.isEmpty()) {
        outcome.state = lateMs <= InTimeMs ? BellOutcome::State::Played : BellOutcome::State::Late;
        outcome.late = outcome.state == BellOutcome::State::Late ? lateMs / 1000 : 0;
    }
    tellOnce(outcome);
}

void Task_workque::bindLate(std::unique_ptr<Tasxkobj> play) {
    const quint64 task = play->id;
    if (runningPlayer(task)) {
        play->id = ++m_lastLateKey;
        play->isTemporary = true; // the task's row tells of the first play
        m_latePlays.insert(task, play->id);
    }
    Start start;
    start.player = std::move(play);
    start.node = {m_ownAddress, m_PS2};
    bind(std::move(start));
    markPlaying();
}

void Task_workque::endLate(quint64 task) {
    if (m_latecomers)
        m_latecomers->forget(task);
    for (const quint64 key : m_latePlays.values(task)) {
        if (Tasxkobj* player = runningPlayer(key))
            player->TimerOut();
    }
    m_latePlays.remove(task);
}

// Through the write-back, behind an end of the same task that still waits there.
void Task_workque::markPlaying() {
    for (const quint64 key : std::exchange(m_bound, {})) {
        if (runningPlayer(key)) // one that is over already has its end in the write-back queue
            instsqk(sqlLine(MarkPlaying, {{QStringLiteral("@taskid"), static_cast<qint64>(key)}}));
    }
    fndout();
}

QString Task_workque::nodeKey(const NodeAddress& address) {
    return address.host + QLatin1Char('_') + QString::number(address.port);
}

Task_workque::Node* Task_workque::node(const NodeAddress& address, bool nocdn) {
    const QString key = nodeKey(address);
    auto found = m_nodes.find(key);
    if (found == m_nodes.end()) {
        if (address.port < 1 || address.port > 65535 || m_nodes.size() >= MaxNodes)
            return nullptr;
        auto* poller =
            new Nodeque(m_devices, m_database->kind(), m_database, address.host, address.port, m_relay, this);
        poller->start();
        qInfo() << "Node ADD:" << key << (nocdn ? "nocdn" : "usecdn");
        found = m_nodes.insert(key, {poller, nocdn});
        forNodeout();
    }
    return &*found;
}

Tasxkobj* Task_workque::runningPlayer(quint64 key) const {
    for (const Node& node : m_nodes) {
        if (Tasxkobj* player = node.poller->player(key))
            return player;
    }
    return nullptr;
}
