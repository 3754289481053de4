#include "journal/journalwriter.h"

#include "journal/journalstore.h"

#include "core/sql/sqlite.h"

#include <algorithm>
#include <QDebug>
#include <utility>

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr auto Gather = 100ms; ///< rows that come together are written together
constexpr auto RetryPause = 1000ms;
constexpr auto LastChance = 2s;
constexpr auto TidyingRest = 1h;
constexpr auto TidyingPause = 200ms; ///< between two steps of it
constexpr auto FailureLog = 60s;

template<typename Row>
std::vector<Row> takeFirst(std::deque<Row>& rows, size_t most) {
    const auto end = rows.begin() + static_cast<ptrdiff_t>(std::min(most, rows.size()));
    std::vector<Row> taken(std::make_move_iterator(rows.begin()), std::make_move_iterator(end));
    rows.erase(rows.begin(), end);
    return taken;
}

template<typename Row>
void putFirst(std::deque<Row>& rows, std::vector<Row>& taken) {
    rows.insert(rows.begin(), std::make_move_iterator(taken.begin()), std::make_move_iterator(taken.end()));
}

} // namespace

JournalWriter::JournalWriter(const sqlite& database, int node, Keep keep, BroadcastNumbers& numbers)
    : m_source(database)
    , m_node(node)
    , m_keep(keep)
    , m_numbers(numbers) {
    setObjectName(QStringLiteral("journal"));
}

JournalWriter::~JournalWriter() {
    {
        const std::lock_guard lock(m_mutex);
        m_isStopping = true;
        m_lastChance = Clock::now() + LastChance;
    }
    m_wake.notify_all();
    wait();
    if (kept() > 0)
        qWarning() << "journal: rows that were not written:" << kept();
}

// --- for any thread ---

void JournalWriter::add(std::vector<ReceiptRow> receipts) {
    if (receipts.empty())
        return;
    const std::lock_guard lock(m_mutex);
    m_receiptsIn += receipts.size();
    ++m_added;
    m_receipts.insert(m_receipts.end(), std::make_move_iterator(receipts.begin()),
                      std::make_move_iterator(receipts.end()));
    makeRoom();
    m_wake.notify_all();
}

void JournalWriter::add(const BroadcastRow& broadcast) {
    const std::lock_guard lock(m_mutex);
    ++m_added;
    m_broadcasts[broadcast.id] = {broadcast, broadcast.ended != 0 ? m_receiptsIn : 0};
    makeRoom();
    m_wake.notify_all();
}

void JournalWriter::add(const EntryRow& entry) {
    const std::lock_guard lock(m_mutex);
    ++m_added;
    m_entries.push_back(entry);
    makeRoom();
    m_wake.notify_all();
}

bool JournalWriter::settle(std::chrono::milliseconds limit) {
    std::unique_lock lock(m_mutex);
    const quint64 wanted = m_added;
    ++m_hurrying;
    m_wake.notify_all();
    const bool isStored = m_written.wait_for(lock, limit, [&] { return m_stored >= wanted; });
    --m_hurrying;
    return isStored;
}

/// The oldest receipts go first, then the oldest entries; what a broadcast came to is kept the longest.
void JournalWriter::makeRoom() {
    const size_t most = m_isDown ? MaxKept : MaxQueued;
    while (kept() > most && !m_receipts.empty()) {
        m_receipts.pop_front();
        ++m_receiptsOut;
        ++m_dropped;
    }
    while (kept() > most && !m_entries.empty())
        m_entries.pop_front();
    while (kept() > most)
        m_broadcasts.erase(m_broadcasts.begin());
}

// --- the thread ---

void JournalWriter::run() {
    const std::unique_ptr<sqlite> database = m_source.forThread();
    database->logFailuresEvery(FailureLog);
    JournalStore store(*database, m_node);
    while (true) {
        const bool isRecovered = store.recover(m_numbers);
        noteSuccess(isRecovered);
        if (isRecovered)
            break;
        pause(RetryPause);
        const std::lock_guard lock(m_mutex);
        if (m_isStopping)
            return;
    }
    std::unique_lock lock(m_mutex);
    while (waitForRows(lock)) {
        Batch batch = take();
        lock.unlock();
        const bool isOk = batch.isEmpty() || database->transaction([&] {
            return store.write(batch.receipts) && store.write(batch.broadcasts) && store.write(batch.entries);
        });
        if (!batch.isEmpty())
            noteSuccess(isOk);
        else
            tidyUp(store);
        if (!isOk)
            pause(RetryPause);
        lock.lock();
        if (isOk)
            done(batch);
        else
            putBack(std::move(batch));
    }
}

/// True when there is something to do; false when it is time to end.
bool JournalWriter::waitForRows(std::unique_lock<std::mutex>& lock) {
    const auto hasWork = [this] {
        return m_isStopping || kept() > 0;
    };
    if (!hasWork())
        m_wake.wait_until(lock, std::max(m_nextTidying, Clock::now()), hasWork);
    const auto isHurried = [this] {
        return m_isStopping || m_hurrying > 0 || m_receipts.size() >= BatchRows;
    };
    if (kept() > 0 && !isHurried())
        m_wake.wait_for(lock, Gather, isHurried);
    return !m_isStopping || (kept() > 0 && Clock::now() < m_lastChance);
}

JournalWriter::Batch JournalWriter::take() {
    Batch batch;
    batch.receipts = takeFirst(m_receipts, BatchRows);
    batch.entries = takeFirst(m_entries, BatchRows);
    const quint64 out = m_receiptsOut + batch.receipts.size();
    for (auto pending = m_broadcasts.begin(); pending != m_broadcasts.end();) {
        if (pending->second.behind > out || batch.broadcasts.size() >= BatchRows) {
            ++pending;
            continue;
        }
        batch.broadcasts.push_back(std::move(pending->second.row));
        pending = m_broadcasts.erase(pending);
    }
    batch.upTo = kept() == 0 ? m_added : m_stored;
    return batch;
}

void JournalWriter::putBack(Batch batch) {
    putFirst(m_receipts, batch.receipts);
    putFirst(m_entries, batch.entries);
    for (BroadcastRow& row : batch.broadcasts) // a newer one may have come
        m_broadcasts.emplace(row.id, Pending{row, 0});
    makeRoom();
}

void JournalWriter::done(const Batch& batch) {
    m_receiptsOut += batch.receipts.size();
    m_stored = std::max(m_stored, batch.upTo);
    m_written.notify_all();
}

void JournalWriter::noteSuccess(bool isOk) {
    int dropped = 0;
    bool isChange = false;
    {
        const std::lock_guard lock(m_mutex);
        isChange = std::exchange(m_isDown, !isOk) == isOk;
        if (isOk)
            dropped = std::exchange(m_dropped, 0);
    }
    if (isChange && isOk)
        qInfo() << "journal: the database takes what is written again";
    if (isChange && !isOk)
        qWarning() << "journal: the database does not take what is written; up to" << MaxKept
                   << "rows are kept";
    if (dropped > 0)
        qWarning() << "journal: receipts dropped:" << dropped;
    if (isChange)
        emit linkChanged(isOk);
    if (dropped > 0)
        emit receiptsLost(dropped);
}

void JournalWriter::pause(std::chrono::milliseconds time) {
    std::unique_lock lock(m_mutex);
    m_wake.wait_for(lock, time, [this] { return m_isStopping; });
}

/// One step a turn, with nothing to write.
void JournalWriter::tidyUp(JournalStore& store) {
    if (Clock::now() < m_nextTidying)
        return;
    const bool isMore = store.removeOld(m_keep.journalDays, m_keep.receiptDays);
    m_nextTidying = Clock::now() + (isMore ? std::chrono::milliseconds(TidyingPause) : TidyingRest);
}
