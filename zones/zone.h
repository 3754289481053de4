#pragma once

#include "zones/order.h"

#include <functional>
#include <optional>
#include <vector>

namespace zones {

/// What has become of an order on one speaker.
enum class Fate : quint8 {
    Playing,       ///< it holds the speaker
    Waiting,       ///< in the queue
    Interrupted,   ///< by `by`, and to go on
    Completed,     //
    Stopped,       //
    Overruled,     ///< by `by`, and not to go on
    Lost,          ///< the connection broke; with a claim left it goes on when the speaker is back in time
    Busy,          ///< refused: it does not wait
    BusyTooLong,   ///< refused: it has waited for its time
    LowerPriority, ///< refused: it would have had to interrupt something higher
};

/// What is to be done with the speaker, or told of it.
struct Action {
    enum Kind : quint8 { Play, Silence, Volume, Tell };
    Kind kind;
    const Order* order = nullptr; ///< null for a volume
    int title = 0;                ///< of a play: its number, counted over all rounds
    Time from{0};                 ///< and where in it
    int level = 0;                ///< of a volume
    Fate fate = Fate::Playing;    ///< what is told
    quint64 by = 0;               ///< the order that did it, 0 for none

    bool operator==(const Action& other) const {
        return kind == other.kind && order == other.order && title == other.title && from == other.from &&
               level == other.level && fate == other.fate && by == other.by;
    }
};
using Actions = std::vector<Action>;

/// Who gets one speaker: the claims of all orders that want it, the one that holds it now, and the volume to
/// go back to. Pure: what happened and when in, what is to be done out; it neither sends nor waits.
///
/// A higher priority takes the speaker, an equal one as its `whenBusy` says. Whoever was interrupted goes on
/// when nothing of a higher priority wants the speaker, before what waits at the same priority, the latest
/// first; what waits comes in the order of its arrival. `now` never goes back.
class Zone {
public:
    /// The speaker is (again) connected, with this volume; 0: not known.
    void returned(int level, Time now, Actions& actions);
    void lost(Time now, Actions& actions);
    bool isConnected() const { return m_isConnected; }

    /// The order wants the speaker, which is connected.
    void want(const Order& order, Time now, Actions& actions);
    /// It does not want it any more: it is told as `fate`. Nothing happens when it has no claim.
    void end(quint64 order, Fate fate, Time now, Actions& actions);
    /// An older path stops what its last command may: every claim that yields to it.
    void stopYielding(Time now, Actions& actions);

    // --- what the speaker tells ---
    /// It has begun with what it was sent last.
    void began(Time now);
    /// Nothing plays any more.
    void idle(Time now, Actions& actions);
    /// Its volume is another one.
    void levelIs(int level, Time now);

    /// Does what has become due. To be called when due() is reached; any time is right.
    void passed(Time now, Actions& actions);
    Time due() const; ///< `Never` when nothing will become due

    const Order* holder() const { return m_holder ? m_holder->order : nullptr; }
    bool hasClaim(quint64 order) const;
    /// Calls `tell` with each order that was interrupted and is to go on, and with the one that did it.
    void tellInterrupted(const std::function<void(quint64 order, quint64 by)>& tell) const;
    int claims() const { return static_cast<int>(m_rest.size()) + (m_holder ? 1 : 0); }
    /// The volume to go back to when no order has set one; 0: the present one.
    int base() const { return m_base; }
    /// What an earlier run of the service could not put back.
    void setBase(int level) { m_base = static_cast<quint8>(level); }
    /// Nothing would be lost with it.
    bool isIdle() const { return !m_holder && m_rest.empty() && m_base == 0; }

private:
    struct Claim {
        const Order* order;
        Time since{0};      ///< of the holder: when `from` was played
        Time from{0};       ///< place in the title
        Time until = Never; ///< of one that waits: then it is refused
        int title = 0;
        bool hasBegun = false;      ///< the speaker says so
        bool isInterrupted = false; ///< it has held the speaker
        bool isLost = false;        ///< and was left with a broken connection
        quint64 by = 0;

        bool isBefore(const Claim& other) const;
        Time place(Time now) const;
        Time over() const;
        Time left(Time now) const;
    };

    static bool takes(const Order& order, const Order& holder);
    void refuseOrQueue(const Order& order, Time now, Actions& actions);
    void interrupt(const Order& by, Time now, Actions& actions);
    void begin(Claim claim, Time now, Actions& actions);
    void play(Time now, Actions& actions);
    void nextTitle(Time now, Actions& actions, bool isCut);
    void dropHolder(Fate fate, bool isPlaying, Time now, Actions& actions);
    void proceed(const Order* silenced, Time now, Actions& actions);
    void expire(Time now, Actions& actions);
    void setLevel(const Order* order, Time now, Actions& actions);
    static void tell(const Order& order, Fate fate, Actions& actions, quint64 by = 0);

    std::optional<Claim> m_holder;
    std::vector<Claim> m_rest; ///< waiting or interrupted, in the order in which they came to be so
    Time m_levelSet{0};
    quint8 m_level = 0;
    quint8 m_before = 0; ///< what `m_level` replaced
    quint8 m_base = 0;
    bool m_isConnected = false;
};

} // namespace zones
