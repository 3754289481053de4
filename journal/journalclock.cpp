#include "journal/journalstate.h"

#include <algorithm>
#include <chrono>
#include <QDateTime>
#include <utility>

// What happens to broadcasts with time: silence, ends, and when their rows are handed on.

namespace {

using namespace std::chrono_literals;

constexpr auto Tick = 250ms;
constexpr qint64 Silence = 10'000;    ///< ms without a report
constexpr qint64 LastReports = 1'000; ///< after the end of its time
/// Receipts are written soon after the first of an order, then seldom until it is over: a fleet's are
/// thousands.
constexpr qint64 FirstStored = 1'000;
constexpr qint64 StoredAgain = 10'000;
/// What has ended stays for evidence that comes late.
constexpr qint64 LateEvidence = 60'000;
/// No speaker of this node was ever commanded: all its speakers are other nodes'.
constexpr qint64 Unsent = 10'000;
constexpr size_t MaxReceipts = 500'000; ///< in memory, of what has ended too
constexpr auto ClockLook = 1s;
constexpr qint64 ClockJump = 2'000; ///< ms: less is how clocks are set right
const auto NotSent = QStringLiteral("it was not sent in its time");
const auto NoEnd = QStringLiteral("no end was reported");

} // namespace

qint64 steadyMs() {
    return std::chrono::duration_cast<std::chrono::milliseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

void Journal::State::touched(Running& running) {
    running.isRowDue = true;
    if (!ticks.isActive())
        ticks.start();
}

void Journal::State::tick() {
    const qint64 now = steadyMs();
    for (auto& [id, running] : broadcasts) {
        look(*running, now);
        const Running::Heard heard = running->takeHeard();
        if (!heard.playing.isEmpty() || !heard.silent.isEmpty())
            emit journal.heard(id, running->broadcast().name, heard.playing, heard.silent);
    }
    forgetOld(now);
    if (!changed.empty())
        emit journal.broadcastsChanged(std::exchange(changed, {}));
    if (std::exchange(hasNewEntries, false))
        emit journal.entriesAdded();
    if (broadcasts.empty())
        ticks.stop();
}

void Journal::State::look(Running& running, qint64 now) {
    for (const quint32 place : running.unheard(now - Silence, now))
        wasSilent(running.serial(place));
    const bool isUnended = running.broadcast().endsByItself && running.started() != 0 &&
                           now - std::max(running.lastHeard(), running.started()) >
                               std::chrono::milliseconds(LongestUnended).count();
    if (isUnended && !running.isTimeOver) {
        running.hearAll(ReceiptState::Started, Evidence::TimeOver, now, reasons.numberOf(NoEnd));
        running.isTimeOver = true;
        running.timeOverAt = now;
    }
    if (running.isTimeOver && !running.isOver() && now - running.timeOverAt >= LastReports) {
        running.hearAll(ReceiptState::Started, Evidence::TimeOver, now);
        running.hearAll(ReceiptState::Waiting, Evidence::TimeOver, now, reasons.numberOf(NotSent));
    }
    if (!running.isOver() && isDone(running, now))
        finish(running, BroadcastState::Done, {}, now);
    store(running, now, running.isOver());
}

bool Journal::State::isDone(const Running& running, qint64 now) const {
    if (running.commands > 0 || running.count(ReceiptState::Sent) + running.count(ReceiptState::Started) +
                                        running.count(ReceiptState::Waiting) >
                                    0)
        return false;
    const bool wasCommanded = !running.isFresh() || now - running.begun() > Unsent;
    return running.isTimeOver || (running.broadcast().endsByItself && wasCommanded);
}

void Journal::State::finish(Running& running, BroadcastState how, const QString& reason, qint64 now) {
    running.finish(how, reason, now);
    noteEnd(running);
}

/// Hands on what has changed, when it is time or at once.
void Journal::State::store(Running& running, qint64 now, bool isUrgent) {
    if (running.hasChanges() && running.firstChange == 0)
        running.firstChange = now;
    const qint64 pause = running.receiptsStored == 0 ? FirstStored : StoredAgain;
    const bool isTime = isUrgent || now - running.firstChange >= pause;
    if (running.hasChanges() && isTime) {
        std::vector<ReceiptRow> rows = running.takeChanges(reasons);
        running.receiptsStored = now;
        running.firstChange = 0;
        running.isRowDue = true;
        if (writer)
            writer->add(std::move(rows));
    } else if (running.hasChanges() && running.receiptsStored != 0) {
        return; // the row counts what the table holds
    }
    if (!std::exchange(running.isRowDue, false))
        return;
    changed.push_back(running.id());
    if (writer)
        writer->add(running.row());
}

void Journal::State::storeAll() {
    for (auto& [id, running] : broadcasts)
        store(*running, steadyMs(), true);
}

void Journal::State::forgetOld(qint64 now) {
    size_t receipts = 0;
    for (const auto& [id, running] : broadcasts)
        receipts += static_cast<size_t>(running->targets());
    for (auto entry = broadcasts.begin(); entry != broadcasts.end();) {
        const Running& running = *entry->second;
        const qint64 age = running.isOver() ? now - running.ended() : 0;
        const bool isOld = age > LateEvidence || (running.isOver() && receipts > MaxReceipts);
        const bool isStored = !running.hasChanges() && !running.isRowDue;
        if (isOld && isStored)
            receipts -= static_cast<size_t>(running.targets());
        entry = isOld && isStored ? broadcasts.erase(entry) : std::next(entry);
    }
}

// --- the machine's clock, and health that only time brings ---

void Journal::State::watchClock() {
    const auto look = [this] {
        const qint64 offset = QDateTime::currentMSecsSinceEpoch() - steadyMs();
        const qint64 jump = offset - std::exchange(clockOffset, offset);
        if (std::abs(jump) > ClockJump)
            journal.note(NoteKind::Service,
                         jump > 0 ? QStringLiteral("clock set forward") : QStringLiteral("clock set back"),
                         QString(), QStringLiteral("%1 s").arg(std::abs(jump) / 1000));
        std::vector<HealthBook::Change> recovered;
        {
            const std::lock_guard lock(healthLock);
            recovered = health.recovered(HealthBook::Time(steadyMs()));
        }
        for (const HealthBook::Change& change : recovered)
            tellHealth(change.sn, change.health);
    };
    ticks.setInterval(Tick);
    clockOffset = QDateTime::currentMSecsSinceEpoch() - steadyMs();
    QObject::connect(&clockWatch, &QTimer::timeout, &journal, look);
    clockWatch.start(ClockLook);
}
