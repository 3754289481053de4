#pragma once

#include "core/loop/timingwheel.h"

#include <chrono>
#include <QHash>
#include <QString>

class Mp3Feeder;
class SpeakerEvents;

/// What every session shares. Owned by the registry, outlives the sessions.
struct SessionEnv {
    TimingWheel& wheel;
    SpeakerEvents& events;
    QString serverAddress; ///< dotted IPv4 that speakers connect back to; may be empty
    /// Between two commands to one speaker, which tells them apart by its reads; 0: none.
    std::chrono::milliseconds commandGap{0};
    /// A stop drops the plays that still wait for that pause, and goes before what else does.
    bool stopsFirst = false;
    /// What may wait unsent in a Wi-Fi speaker's socket, bytes; chunks beyond are lost.
    int wifiBacklog = 0;
    QHash<int, Mp3Feeder*> feeders{}; ///< by the id of their streams; not owned
};

/// Tuning values of the installation that the registry hands to each session.
struct SessionSettings {
    int AryLen = 20; ///< most chunks that wait for a speaker
    int Check_ = 3000;
    int Check_len = 10;
};
