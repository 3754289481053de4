#pragma once

#include "journal/broadcast.h"

#include <optional>
#include <QString>
#include <QStringList>

/// Where orders are told what has become of broadcasts, and ask what is known of them: the journal. Main loop
/// only.
class Ledger {
public:
    Ledger() = default;
    Ledger(const Ledger&) = delete;
    Ledger& operator=(const Ledger&) = delete;
    virtual ~Ledger() = default;

    /// What is known of a broadcast while it runs; nothing of one that another node has begun.
    virtual std::optional<Broadcast> broadcast(quint64 id) const = 0;
    /// A broadcast of this node; returns its number.
    virtual quint64 begin(const Broadcast& broadcast) = 0;
    /// Some speakers of this node belong to a broadcast that another node may have begun: it is recorded here
    /// too, unless it is known.
    virtual void join(quint64 id, const Broadcast& broadcast) = 0;
    virtual void mark(quint64 id, const QStringList& serials, ReceiptState state, const QString& reason,
                      quint64 by) = 0;
    virtual void end(quint64 id, BroadcastState how, const QString& reason) = 0;
};
