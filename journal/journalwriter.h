#pragma once

#include "journal/rows.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <QThread>
#include <vector>

class BroadcastNumbers;
class JournalStore;
class sqlite;

/// The journal's thread: writes rows in batches, each a transaction, over a connection of its own. What the
/// database does not take waits, and beyond MaxKept the oldest receipts are dropped. A broadcast that has
/// ended is written behind the last of its receipts. Adding rows and settle() are for any thread.
class JournalWriter : public QThread {
    Q_OBJECT
public:
    /// Rows kept while the database does not take them; about 10 MB.
    static constexpr size_t MaxKept = 100'000;
    /// While it does: orders to the largest fleet one on top of the other.
    static constexpr size_t MaxQueued = 1'000'000;
    /// Receipts of one transaction: others who write wait a few milliseconds for it.
    static constexpr size_t BatchRows = 2'000;

    struct Keep {
        int journalDays = 90; ///< 0: always
        int receiptDays = 14;
    };

    /// Works on a clone of `database`. `numbers` go on from what the database holds.
    JournalWriter(const sqlite& database, int node, Keep keep, BroadcastNumbers& numbers);
    /// Writes what is left, at most for two seconds.
    ~JournalWriter() override;

    void add(std::vector<ReceiptRow> receipts);
    void add(const BroadcastRow& broadcast);
    void add(const EntryRow& entry);
    /// Waits until all that was added before is written; false when it takes longer.
    bool settle(std::chrono::milliseconds limit);

signals:
    /// The database takes what is written, or does not any more.
    void linkChanged(bool isUp);
    /// So many receipts were dropped since the last time it took any.
    void receiptsLost(int count);

protected:
    void run() override;

private:
    struct Pending {
        BroadcastRow row;
        quint64 behind; ///< written once so many receipts have been taken or dropped
    };
    struct Batch {
        std::vector<ReceiptRow> receipts;
        std::vector<BroadcastRow> broadcasts;
        std::vector<EntryRow> entries;
        quint64 upTo = 0; ///< all additions before this one are in it or were before
        bool isEmpty() const { return receipts.empty() && broadcasts.empty() && entries.empty(); }
    };
    bool waitForRows(std::unique_lock<std::mutex>& lock);
    Batch take();
    void putBack(Batch batch);
    void done(const Batch& batch);
    void makeRoom();
    void noteSuccess(bool isOk);
    void pause(std::chrono::milliseconds time);
    void tidyUp(JournalStore& store);
    size_t kept() const { return m_receipts.size() + m_broadcasts.size() + m_entries.size(); }

    const sqlite& m_source;
    const int m_node;
    const Keep m_keep;
    BroadcastNumbers& m_numbers;

    std::mutex m_mutex; ///< guards all that follows
    std::condition_variable m_wake;
    std::condition_variable m_written;
    std::deque<ReceiptRow> m_receipts;
    std::map<quint64, Pending> m_broadcasts; ///< the newest row of each
    std::deque<EntryRow> m_entries;
    quint64 m_receiptsIn = 0;  ///< added so far
    quint64 m_receiptsOut = 0; ///< taken out for good or dropped
    quint64 m_added = 0;       ///< additions of any kind
    quint64 m_stored = 0;      ///< as of which all are written
    int m_dropped = 0;
    int m_hurrying = 0; ///< threads in settle()
    bool m_isDown = false;
    bool m_isStopping = false;
    std::chrono::steady_clock::time_point m_lastChance; ///< to write, once it is stopping

    std::chrono::steady_clock::time_point m_nextTidying{}; ///< the thread's own
};
