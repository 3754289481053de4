#pragma once

#include "journal/journalstate.h"

/// Makes receipts of commands on their way to speakers.
class Journal::Watch : public PlayWatch {
public:
    explicit Watch(State& state)
        : m_state(state) {}

    quint64 begin(const PlayCommand& command) override;
    void cameOf(const PlayCommand& command, const QString& sn, SAobj* session, Fate fate,
                const Refusal* refusal) override;
    void end(const PlayCommand& command) override;

private:
    quint64 orderOf(const PlayCommand& command) const;
    void sent(Running& running, SAobj& session, qint64 now);
    void notSent(Running& running, const QString& sn, SAobj* session, Fate fate, const Refusal* refusal);

    State& m_state;
    Running* m_last = nullptr; ///< of the command that is under way, looked up once for many speakers
};
