#pragma once

#include "core/timingwheel.h"
#include "device/statemirror.h"

#include <QString>

/// What every session shares. Owned by the registry, outlives the sessions.
struct SessionEnv {
    TimingWheel& wheel;
    QString serverAddress;         ///< dotted IPv4 that speakers connect back to; may be empty
    StateMirror* mirror = nullptr; ///< not owned; null without Redis

    /// The mirror while writes reach it, otherwise null.
    StateMirror* connectedMirror() const { return mirror && mirror->isConnected() ? mirror : nullptr; }
};

/// Tuning values of the installation that the registry hands to each session.
struct SessionSettings {
    int AryLen = 20;
    int Check_ = 3000;
    int Check_len = 10;
};
