#pragma once

#include "core/sql/sqlite.h"
#include "service/caller.h"

#include <optional>
#include <QString>

// What the journal's tables tell a caller: an administrator everything, an owner his own orders, schedules
// and speakers, who has a right to a group its speakers, a sub-account those of its mask (docs/journal.md).
// Any thread that may block, on its own database object.

/// Which broadcasts; every field that is empty or 0 admits all.
struct BroadcastQuery {
    QString state;
    QString kind;
    qint64 from = 0; ///< ms since 1970; when they were opened
    qint64 until = 0;
    qint64 before = 0; ///< number: only older ones
    qint64 id = 0;     ///< this one alone
    int limit = 100;
};

/// The newest first, one row each: the columns of table `broadcast`, the counts those of the speakers that
/// the caller may see, of all nodes.
SqlResult findBroadcasts(sqlite& database, const Caller& caller, const BroadcastQuery& query);

/// Receipts of a broadcast that the caller may see, by serial.
SqlResult findReceipts(sqlite& database, const Caller& caller, qint64 broadcast, std::optional<int> state,
                       const QString& after, int limit);

struct EntryQuery {
    QString state;
    QString kind;
    qint64 from = 0;
    qint64 until = 0;
    qint64 before = 0;
    int limit = 100;
};
SqlResult findEntries(sqlite& database, const Caller& caller, const EntryQuery& query);
