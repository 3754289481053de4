#pragma once

#include "device/playwatch.h"

#include <chrono>
#include <map>
#include <optional>
#include <QByteArray>
#include <QHash>
#include <QJsonObject>
#include <QString>
#include <set>
#include <vector>

/// What waits to be relayed to one node, and which of it goes next. Of one speaker commands keep their
/// order. Otherwise plays go before stops, accounts take turns, equal stops go as one to the speakers of
/// all, equal plays likewise, and a play whose time is over does not go at all. Pure; one thread.
class RelayQueue {
public:
    using Time = std::chrono::milliseconds; ///< on a steady clock
    struct Command {
        QByteArray payload; ///< a command as the dispatcher takes it
        int account = 0;
        Time over = Time::max(); ///< when a play would have ended
    };

    void add(const Command& command);
    /// The payload to be relayed next; none when nothing is left.
    std::optional<QByteArray> take(Time now);

    bool isEmpty() const { return m_waiting.empty(); }
    qint64 bytes() const { return m_bytes; } ///< of the commands as they came
    /// Plays whose time was over since the last call.
    int takeDropped();

private:
    using Number = quint64; ///< in the order of coming
    enum class Kind { Play, Stop, Other };
    struct Entry {
        Kind kind = Kind::Other;
        QJsonObject document;          ///< a play's or stop's, without its speakers
        QByteArray payload;            ///< of Kind::Other
        std::vector<QString> speakers; ///< of the document
        PlayOrders orders;             ///< of the document; equal ones may belong to different orders
        int account = 0;
        Time over{};
        qint64 bytes = 0;
        std::set<Number> after; ///< the commands before it of its speakers; some may have gone
        // It is not sent itself any more, but still keeps what is behind it behind what is before it.
        bool isDone = false;
        // As of the last refresh().
        bool isBehindAny = false;
        bool isBehindPlay = false;
    };
    using Waiting = std::map<Number, Entry>;

    void refresh(Time now);
    Waiting::iterator remove(Waiting::iterator entry);
    Waiting::iterator next();
    Waiting::iterator firstBefore(Waiting::iterator entry);
    QByteArray joined(Number first);

    Waiting m_waiting;
    QHash<QString, Number> m_lastOf; ///< the last that waits, of each speaker
    QHash<int, quint64> m_turns;     ///< the last turn of each account
    quint64 m_turn = 0;
    Number m_number = 0;
    qint64 m_bytes = 0;
    int m_dropped = 0;
};
