#pragma once

#include <optional>
#include <QStringList>
#include <utility>
#include <vector>

class QJsonObject;
class QJsonValue;
class SAobj;

/// What a command does to what its speakers play.
enum class PlayKind : quint8 { None, Play, Stop };

/// The key "terms" of a command: what a node that has not begun the broadcast "order" itself can't know of
/// it.
struct PlayTerms {
    enum class Kind : quint8 { Direct, Bell, Alarm };
    Kind kind = Kind::Direct;
    int priority = 100; ///< 0 to 255
    int volume = 0;     ///< 1 to 25; 0: as it is
    int seconds = 0;    ///< of its own time, from its first command on; 0: until its stop

    /// Nothing when there are none, or any is out of range.
    static std::optional<PlayTerms> read(const QJsonValue& value);
    QJsonObject write() const;
};

/// A play or a stop on its way to speakers.
struct PlayCommand {
    PlayKind kind = PlayKind::None;
    quint64 order = 0; ///< number of the broadcast that it belongs to; 0: it names none
    QStringList files; ///< "filelist" of a play
    QString peer;      ///< address of who sent it; empty: this service itself
    std::optional<PlayTerms> terms;
    /// A stop that comes because the order's time is over ("over" of the command).
    bool isOver = false;
};

/// Asked before a play or a stop goes to a speaker, and told afterwards what came of it. The registry may
/// have several (Severinit::addPlayWatch()): the first refusal holds, and all are told. Main loop only; must
/// not add or remove sessions.
class PlayWatch {
public:
    enum class Fate : quint8 {
        Sent,     ///< written, or waiting for its turn behind the commands before
        Offline,  ///< known and not connected
        Unknown,  ///< no such speaker on this node
        Disabled, ///< taken out of use
        Broken,   ///< the connection broke as it was written
        Refused,  ///< by a watch
    };
    /// Why a speaker does not get the command.
    struct Refusal {
        QString reason;
        quint64 by = 0; ///< the broadcast that holds the speaker; 0: none
    };

    PlayWatch() = default;
    PlayWatch(const PlayWatch&) = delete;
    PlayWatch& operator=(const PlayWatch&) = delete;
    virtual ~PlayWatch() = default;

    /// The command is about to go through its speakers. Returns the order's number: a watch may give one to a
    /// play that names none.
    virtual quint64 begin(const PlayCommand& command) { return command.order; }
    /// Null: the speaker may have it. Valid until the next call.
    virtual const Refusal* refusal(const PlayCommand& /*command*/, SAobj& /*session*/) { return nullptr; }
    /// `session` is null when there is none; `refusal` only with Fate::Refused.
    virtual void cameOf(const PlayCommand& /*command*/, const QString& /*sn*/, SAobj* /*session*/,
                        Fate /*fate*/, const Refusal* /*refusal*/) {}
    /// The command has gone through all its speakers.
    virtual void end(const PlayCommand& /*command*/) {}
};

/// What a session was last ordered to play; what it derives from. The record of orders alone writes it.
struct PlayLink {
    quint64 order = 0;         ///< 0: nothing
    quint32 place = 0;         ///< of the speaker in the order's record
    bool isOnSameLine = false; ///< sent over the connection that the session has now
};

/// The key "order" of a command: a broadcast's number, or a list of [number, count] for as many speakers of
/// the command's list one after the other; "stop" for a play that only ends what plays, "none" for a command
/// that has the form of a play and is none. Pure.
class PlayOrders {
public:
    PlayOrders() = default;
    explicit PlayOrders(quint64 order)
        : m_runs{{order, -1}} {}
    /// What can't be read names no order.
    static PlayOrders read(const QJsonValue& value);
    QJsonValue write() const;
    bool namesAny() const; ///< an order by its number

    /// The kind that a command of this kind is with this key.
    PlayKind kindOf(PlayKind kind) const;
    quint64 at(int index) const; ///< of the speaker at this place of the list; 0: none
    const std::vector<std::pair<quint64, int>>& runs() const { return m_runs; }
    /// The next `count` speakers belong to this order.
    void append(quint64 order, int count);

    /// Whether it is a number that a JSON number holds exactly: 1 to 2^53 - 1.
    static bool isNumber(double value);

private:
    enum class Word : quint8 { Numbers, Stop, None };
    Word m_word = Word::Numbers;
    std::vector<std::pair<quint64, int>> m_runs; ///< -1: all the rest
};
