#pragma once

#include <array>
#include <QString>

/// One order to play and what is known of it from the start. Pure values.
struct Broadcast {
    enum class Kind : quint8 { Announcement, Bell, Live, Alarm, Direct };
    /// Who or what ordered it; 0 or empty where it has none.
    struct Origin {
        qint64 account = 0;
        qint64 schedule = 0;
        qint64 input = 0;
        QString line; ///< alarm line or source
        QString path; ///< of a request, or the address of the node or program that sent the command
    };
    Kind kind = Kind::Direct;
    QString name;
    int priority = 100; ///< 0 to 255
    Origin origin;
    qint64 due = 0; ///< when it was to sound, ms since 1970-01-01 UTC; 0: at once
    /// It is over when no speaker plays it any more; otherwise Journal::end() says when.
    bool endsByItself = true;
    qint64 owner = 0; ///< account whose order or schedule it is; 0: nobody's
};

/// What became of an order at one speaker.
enum class ReceiptState : quint8 {
    Waiting = 0,   ///< in the queue, or interrupted and to go on
    Offline = 1,   ///< not connected
    Sent = 2,      ///< written to the speaker
    Started = 3,   ///< the speaker said so
    Completed = 4, ///< it said that it is over, or its time was
    Stopped = 5,
    Overruled = 6, ///< another broadcast took the speaker
    Lost = 7,      ///< the connection broke while it played
    Silent = 8,    ///< sent, and no report
    Refused = 9,   ///< the speaker may not have it
};
constexpr int ReceiptStates = 10;
/// Receipts in each state; they add up to the targets.
using ReceiptCounts = std::array<int, ReceiptStates>;

/// "waiting", "playing" and so on, as they stand in the tables.
enum class BroadcastState : quint8 { Waiting, Playing, Done, Stopped, Failed };

QString nameOf(Broadcast::Kind kind);
QString nameOf(BroadcastState state);
QString nameOf(ReceiptState state);
