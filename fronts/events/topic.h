#pragma once

#include "service/caller.h"

#include <QHash>

class Feed;
class sqlite;

/// Who watches, by account.
using Watchers = QHash<qint64, Caller>;

/// How much a topic has to look at.
enum class Look {
    News,   ///< what tells of its changes by itself
    Polled, ///< also what other nodes and programs may have written to the database
    Rights, ///< also who sees what
};

/// What one topic tells, for all who watch it. Used by one thread at a time, which may block.
class Topic {
public:
    virtual ~Topic() = default;
    /// Takes over what has changed, for these watchers and no others; what the database does not tell stays
    /// as it was.
    virtual void refresh(sqlite& database, const Watchers& watchers, Look look) = 0;
    /// What the account sees; null while the database has not told it.
    virtual const Feed* feedOf(qint64 account) const = 0;
};
