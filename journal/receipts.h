#pragma once

#include "journal/broadcast.h"

/// What is heard of an order at one speaker.
enum class Evidence : quint8 {
    Expected,   ///< it is a target
    Sent,       ///< bytes were written; of a list each title again
    Away,       ///< it was not connected when it was to be sent
    Forbidden,  ///< it may not have it: out of use, or a rule says so
    Begun,      ///< it reports an address of the order, or that it plays
    Over,       ///< it reports that nothing plays
    OtherBegun, ///< it reports an address of something else
    Stop,       ///< it was told to stop
    Taken,      ///< another broadcast was sent to it
    LineEnded,  ///< its connection ended or was replaced
    NotHeard,   ///< no report for as long as one may take
    TimeOver,   ///< the order's time is over
    Held,       ///< it waits, or was interrupted and is to go on
};

/// The state that follows. Evidence that comes late corrects what was concluded from its absence; what can't
/// be of this order changes nothing. Pure.
ReceiptState stateAfter(ReceiptState state, Evidence evidence);

/// Whether something is still to come.
constexpr bool isOpen(ReceiptState state) {
    return state == ReceiptState::Waiting || state == ReceiptState::Sent || state == ReceiptState::Started;
}
