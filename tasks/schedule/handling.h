#pragma once

#include <optional>
#include <QtGlobal>
#include <vector>

// Which seconds of the wall clock a tick handles, and what becomes of a bell that is late. Pure.

/// Which whole seconds each tick handles: every one since the last that was handled, once.
class SecondSequence {
public:
    /// A clock set back by more was changed, and counting begins again at the present second.
    static constexpr qint64 Tolerated = 60;
    /// Seconds that lie further back are looked at no more.
    static constexpr qint64 LookBack = 86400;

    /// The first second handled is the one after `epoch`.
    explicit SecondSequence(qint64 epoch)
        : m_last(epoch) {}

    struct Due {
        qint64 first = 1; ///< seconds of the epoch; nothing is due when first > last
        qint64 last = 0;
        qint64 forgotten = 0; ///< how many lie too far back
        qint64 setBack = 0;   ///< seconds by which the clock was set back, 0 when it was not
    };
    Due due(qint64 now);
    void handled(qint64 second) { m_last = second; }
    qint64 last() const { return m_last; }

private:
    qint64 m_last;
};

/// Why seconds passed without being handled.
enum class Absence { HeldUp, NotRunning, SetForward, DatabaseAway };
const char* absenceText(Absence absence);

/// Which seconds passed why. Kept until they are handled.
class Absences {
public:
    /// The seconds up to `last` that nothing was noted for yet.
    void note(qint64 last, Absence why);
    Absence of(qint64 second) const;
    void forgetUntil(qint64 second);
    void clear() { m_noted.clear(); }

private:
    struct Noted {
        qint64 last;
        Absence why;
    };
    std::vector<Noted> m_noted;
};

/// What a schedule wants for a bell whose second has passed: nothing (what it always was), or how many
/// seconds it may ring late.
struct MissedPolicy {
    static constexpr int Usual = 60; ///< s
    static constexpr int Longest = 3600;
    static constexpr int SkipGrace = 2; ///< this late is in time
    std::optional<int> within;          ///< 0: skip
    /// Whether a bell that is so late still rings.
    bool admits(qint64 late) const { return late < limit(); }
    /// s after its second from which on it does not ring any more.
    int limit() const;
};
