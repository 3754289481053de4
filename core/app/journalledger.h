#pragma once

#include "journal/journal.h"
#include "orders/ledger.h"

/// The journal as orders see it.
class JournalLedger : public Ledger {
public:
    explicit JournalLedger(Journal& journal)
        : m_journal(journal) {}

    std::optional<Broadcast> broadcast(quint64 id) const override {
        const auto standing = m_journal.standing(id);
        return standing && !m_journal.isForeign(id) ? std::optional(standing->broadcast) : std::nullopt;
    }
    quint64 begin(const Broadcast& broadcast) override { return m_journal.begin(broadcast); }
    void join(quint64 id, const Broadcast& broadcast) override { m_journal.join(id, broadcast); }
    void mark(quint64 id, const QStringList& serials, ReceiptState state, const QString& reason,
              quint64 by) override {
        m_journal.mark(id, serials, state, reason, by);
    }
    void end(quint64 id, BroadcastState how, const QString& reason) override {
        m_journal.end(id, how, reason);
    }

private:
    Journal& m_journal;
};
