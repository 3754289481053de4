#pragma once

#include "journal/receipts.h"
#include "journal/rows.h"

#include <optional>
#include <QHash>
#include <QSet>
#include <QString>
#include <QStringList>
#include <vector>

/// Texts that many receipts share, by a small number; 0: none. When too many are told, a new one is none.
class Reasons {
public:
    quint16 numberOf(const QString& text);
    QString textOf(quint16 number) const { return number == 0 ? QString() : m_texts.at(number - 1U); }

private:
    static constexpr size_t MaxTexts = 10'000;
    std::vector<QString> m_texts;
    QHash<QString, quint16> m_numbers;
};

/// One broadcast with its receipts on this node, 40 bytes for each speaker and as much again once a speaker
/// is looked for by its serial. No event loop; times are ms of a steady clock, the rows' ms since 1970-01-01
/// UTC.
class Running {
public:
    /// `toWall`: what makes a time of the wall clock of one of the steady clock's.
    Running(quint64 id, Broadcast broadcast, qint64 now, qint64 toWall)
        : m_id(id)
        , m_broadcast(std::move(broadcast))
        , m_begun(now)
        , m_toWall(toWall) {}

    quint64 id() const { return m_id; }
    const Broadcast& broadcast() const { return m_broadcast; }
    void setBroadcast(const Broadcast& broadcast) { m_broadcast = broadcast; }
    const ReceiptCounts& counts() const { return m_counts; }
    int count(ReceiptState state) const { return m_counts[static_cast<size_t>(state)]; }
    int targets() const { return static_cast<int>(m_receipts.size()); }
    qint64 begun() const { return m_begun; }

    // --- receipts ---
    /// Place of the speaker's receipt; -1: none. `hint` is tried first.
    int find(const QString& sn, quint32 hint = ~0U);
    /// The same; a receipt is made for one that has none. While isFresh() a speaker that the hint does not
    /// show is taken for new.
    quint32 place(const QString& sn, std::optional<quint32> hint = {});
    /// So far every speaker came once, from one command.
    bool isFresh() const { return m_isFresh; }
    void setUsed() { m_isFresh = false; }
    ReceiptState state(quint32 place) const { return m_receipts[place].state; }
    QString serial(quint32 place) const { return m_receipts[place].sn; }
    /// Returns whether the state is another now.
    bool hear(quint32 place, Evidence evidence, qint64 now, quint16 reason = 0, quint64 by = 0);
    /// Sets the state as somebody who knows it says.
    void set(quint32 place, ReceiptState state, qint64 now, quint16 reason, quint64 by);
    /// The same evidence for every receipt in the state; returns their places.
    std::vector<quint32> hearAll(ReceiptState state, Evidence evidence, qint64 now, quint16 reason = 0);
    /// Those that are sent and have been waited for since before `latest`.
    std::vector<quint32> unheard(qint64 latest, qint64 now);
    /// The rows of what has changed since the last call.
    std::vector<ReceiptRow> takeChanges(const Reasons& reasons);
    bool hasChanges() const { return !m_changed.empty(); }
    /// Speakers whose state is another since the last call: those that play it now and those that don't.
    struct Heard {
        QStringList playing;
        QStringList silent;
    };
    Heard takeHeard();

    // --- what it plays ---
    void addFiles(const QStringList& files);
    /// Whether an address that a speaker reports is one of the order's: speakers tell the whole of it, or its
    /// path, or the name that they stored it by.
    bool isOwnFile(const QString& path) const;

    // --- its life ---
    BroadcastState state() const { return m_state; }
    QString reason() const { return m_reason; }
    qint64 started() const { return m_started; }
    qint64 ended() const { return m_ended; }
    qint64 lastHeard() const { return m_lastHeard; }
    void start(qint64 now);
    void finish(BroadcastState state, const QString& reason, qint64 now);
    bool isOver() const { return m_ended != 0; }
    BroadcastRow row() const;
    qint64 wall(qint64 time) const { return time == 0 ? 0 : time + m_toWall; }

    // The record's own notes of it; see Journal.
    bool isForeign = false;  ///< another node's: this one has some of its speakers
    int commands = 0;        ///< on their way through their speakers
    bool isTimeOver = false; ///< its time is; late reports may come
    qint64 timeOverAt = 0;
    bool isRowDue = true;      ///< its row is to be written
    qint64 receiptsStored = 0; ///< when they were last handed on
    qint64 firstChange = 0;    ///< since then

private:
    struct Receipt {
        QString sn;
        quint64 by = 0;
        quint32 sent = 0; ///< these four: ms since the beginning, and 1; 0: not
        quint32 lastSent = 0;
        quint32 started = 0;
        quint32 ended = 0;
        quint16 reason = 0;
        ReceiptState state = ReceiptState::Waiting;
        bool isChanged = false;
    };
    quint32 offset(qint64 now) const;
    qint64 timeOf(quint32 offset) const { return offset == 0 ? 0 : m_begun + offset - 1; }
    void note(quint32 place, ReceiptState after, qint64 now);
    static QString fileName(const QString& address);

    const quint64 m_id;
    Broadcast m_broadcast;
    const qint64 m_begun;
    const qint64 m_toWall;
    std::vector<Receipt> m_receipts;
    QHash<QString, quint32> m_places; ///< of all; empty until one is looked for
    std::vector<quint32> m_changed;
    std::vector<quint32> m_heard; ///< places, some of them twice
    ReceiptCounts m_counts{};
    QSet<QString> m_files;
    BroadcastState m_state = BroadcastState::Waiting;
    QString m_reason;
    qint64 m_started = 0;
    qint64 m_ended = 0;
    qint64 m_lastHeard = 0;
    bool m_isFresh = true;
};
