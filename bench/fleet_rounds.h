#pragma once

#include "fleet_load.h"

/// What one round of cut-off and return came to. The fleet's first storm is a round without a cut-off.
struct Round {
    double offlineMs = 0;    ///< cut-off to LIST telling every speaker offline; 0 in the first round
    double stormMs = 0;      ///< first connect() to last speaker admitted
    double onlineMs = 0;     ///< last speaker admitted to LIST telling every speaker online
    long kilobytes = 0;      ///< resident memory of the server after the rest
    bool statesRight = true; ///< LIST told what it should, within its time and after the rest
};

/// Connects the fleet, then cuts it off and brings it back `rounds` times. `each` is called after every rest,
/// first for the first storm.
void runRounds(const Wire& wire, const Fleet::Options& options, int rounds,
               const std::function<void(const Round&)>& each);
