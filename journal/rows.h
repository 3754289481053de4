#pragma once

#include "journal/broadcast.h"

#include <QString>

// What the journal's thread writes: a row of each of its tables (docs/journal.md). Times are ms since
// 1970-01-01 UTC, 0: none.

struct BroadcastRow {
    quint64 id = 0;
    Broadcast broadcast;
    BroadcastState state = BroadcastState::Waiting;
    QString reason; ///< null: none
    qint64 started = 0;
    qint64 ended = 0;
    int targets = 0;
    ReceiptCounts counts{};
};

struct ReceiptRow {
    quint64 broadcast = 0;
    QString serial;
    QString reason; ///< null: none
    quint64 by = 0;
    qint64 sent = 0;
    qint64 started = 0;
    qint64 ended = 0;
    ReceiptState state = ReceiptState::Waiting;
};

struct EntryRow {
    quint64 id = 0;
    qint64 at = 0;
    QString kind;
    QString state;
    QString name;
    QString reason; ///< null: none
    qint64 due = 0;
    qint64 lateMs = 0;
    quint64 broadcast = 0;
    qint64 schedule = 0;
    qint64 account = 0; ///< whose it is; 0: nobody's
    QString serial;
};
