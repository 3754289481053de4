#pragma once

#include <functional>
#include <QString>

/// What became of a bell that was due.
struct BellOutcome {
    enum class State { Played, Late, Skipped };
    qint64 schedule = 0;
    QString name; ///< the schedule's
    int userid = 0;
    qint64 due = 0; ///< seconds since 1970-01-01 UTC
    State state = State::Played;
    qint64 late = 0;       ///< s
    QString reason;        ///< why it was skipped, in words
    quint64 broadcast = 0; ///< as which it rang; 0: none, or not known
};

/// Gets each of them once, on the main loop.
using BellSink = std::function<void(const BellOutcome& outcome)>;
