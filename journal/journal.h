#pragma once

#include "device/playwatch.h"
#include "journal/broadcast.h"
#include "journal/health.h"

#include <chrono>
#include <memory>
#include <optional>
#include <QObject>
#include <QString>
#include <QStringList>
#include <vector>

class Severinit;
class sqlite;

/// The record of what was played where, and what was not: every order to play is a broadcast with a receipt
/// for each of its speakers (docs/journal.md). It watches the commands for speakers and their reports, and
/// has a thread of its own that writes to the database; nothing here waits for that. Lives on the main loop;
/// begin(), sentElsewhere(), note(), bell(), health() and settle() may be called from any thread. Owner:
/// start-up.
class Journal : public QObject {
    Q_OBJECT
public:
    struct Limits {
        int journalDays = 90; ///< broadcasts and entries are kept for so long; 0: always
        int receiptDays = 14; ///< receipts
    };
    /// Where a broadcast stands on this node.
    struct Standing {
        quint64 id = 0;
        Broadcast broadcast;
        BroadcastState state = BroadcastState::Waiting;
        QString reason;     ///< why it failed or was stopped; null
        qint64 started = 0; ///< ms since 1970-01-01 UTC, the first byte to a speaker; 0: not yet
        qint64 ended = 0;
        ReceiptCounts counts{};
        int targets = 0;
    };
    /// A bell that was due.
    struct Bell {
        enum class Outcome : quint8 {
            Open, ///< it rings as `broadcast`: the first byte out says whether it was played or late
            Played,
            Late,
            Skipped, ///< for `reason`
        };
        qint64 schedule = 0;
        QString name;
        qint64 due = 0; ///< ms since 1970-01-01 UTC
        Outcome outcome = Outcome::Open;
        QString reason;        ///< in words; null unless skipped
        quint64 broadcast = 0; ///< 0: none
        qint64 account = 0;    ///< the schedule's owner
        qint64 late = 0;       ///< ms, when it was; 0: it is now that it begins
    };
    /// A row of what is neither a broadcast nor a bell.
    enum class NoteKind : quint8 { Speaker, Service, Link, Live, Alarm };

    /// `database`: the journal's thread works on a clone of it; null: nothing is stored. `node`: 0 to 255,
    /// differs between nodes that share broadcasts. `devices` may be null; both outlive this object.
    Journal(Severinit* devices, sqlite* database, int node, Limits limits, QObject* parent = nullptr);
    /// Writes what is left, for two seconds at most.
    ~Journal() override;

    // --- broadcasts; main loop but for begin() and sentElsewhere() ---
    /// Opens a broadcast and returns its number, 1 to 2^53 - 1: later ones are higher, and no two nodes give
    /// out the same. Commands carry it as "order"; their speakers' receipts come about by themselves.
    quint64 begin(const Broadcast& broadcast);
    /// A broadcast that another node has begun reaches speakers of this one; does nothing for one that is
    /// known, or was this node's.
    void join(quint64 id, const Broadcast& broadcast);
    /// These speakers are its targets though nothing has been sent to them yet.
    void expect(quint64 id, const QStringList& serials);
    /// Its speakers are in this state for a reason that no command shows: waiting, refused, overruled by
    /// broadcast `by`, sent over a data path ... One that was no target becomes one.
    void mark(quint64 id, const QStringList& serials, ReceiptState state, const QString& reason = {},
              quint64 by = 0);
    /// Its first bytes have left for speakers of another node, which writes their receipts.
    void sentElsewhere(quint64 id);
    /// Its time is over. `Done` lets every speaker's last report come in; `Stopped` and `Failed` hold
    /// at once, with a reason in words.
    void end(quint64 id, BroadcastState how = BroadcastState::Done, const QString& reason = {});
    /// The speaker's state in the broadcast, while that is in memory.
    std::optional<ReceiptState> receipt(quint64 id, const QString& sn) const;
    std::optional<Standing> standing(quint64 id) const; ///< nothing once it is over and stored
    std::vector<Standing> running() const;
    /// Whether another node has begun it: little more than its number is known here.
    bool isForeign(quint64 id) const;

    // --- entries ---
    void bell(const Bell& bell);
    void note(NoteKind kind, const QString& state, const QString& name, const QString& reason = {},
              const QString& serial = {});
    SpeakerHealth health(const QString& sn) const;

    // --- reading ---
    /// Waits until all that has happened so far is in the database, at most for `limit`; false when it is
    /// not. For threads that may wait.
    bool settle(std::chrono::milliseconds limit);
    /// No speaker has reported a thing for an hour: a direct play that nobody ended is taken for over.
    static constexpr std::chrono::hours LongestUnended{1};

signals:
    /// Gathered: at most four times a second.
    void broadcastsChanged(const std::vector<quint64>& ids);
    void entriesAdded();
    /// Gathered likewise: speakers that play the broadcast from now on, and those that do not any more.
    void heard(quint64 id, const QString& name, const QStringList& playing, const QStringList& silent);
    void healthChanged(const QString& sn, SpeakerHealth health);

private:
    class Watch;
    struct State;
    std::unique_ptr<State> m_state;
};
