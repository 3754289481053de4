#pragma once

#include "journal/rows.h"

#include <optional>
#include <vector>

class BroadcastNumbers;
class sqlite;

/// The statements of the journal's tables. Belongs to the thread of its database.
class JournalStore {
public:
    JournalStore(sqlite& database, int node)
        : m_database(database)
        , m_node(node) {}

    // Each row takes the place of the one of the same key; false when the database did not take it.
    bool write(const std::vector<ReceiptRow>& rows);
    bool write(const std::vector<BroadcastRow>& rows);
    bool write(const std::vector<EntryRow>& rows);

    /// What an earlier run of this node left as playing has failed; from then on `numbers` are higher than
    /// those in the tables. False when the database can't be read or written.
    bool recover(BroadcastNumbers& numbers);
    /// Deletes some of what is older; whether there may be more.
    bool removeOld(int journalDays, int receiptDays);

private:
    bool failOne(const EntryRow& entry);
    bool removeSome(const QString& table, const QString& key, int days);

    sqlite& m_database;
    int m_node;
};
