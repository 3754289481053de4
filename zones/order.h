#pragma once

#include <chrono>
#include <QtGlobal>
#include <vector>

namespace zones {

/// Milliseconds of any clock that only goes forward.
using Time = std::chrono::milliseconds;

constexpr Time Never = Time::max();
/// A title without a known length holds its speaker until it is told to be over, at most so long.
constexpr Time LongestUnknown = std::chrono::hours(1);
/// A speaker that has said that a title began is expected to say that it ended; so long after its length the
/// word has got lost.
constexpr Time ReportGrace = std::chrono::seconds(5);
/// "Nothing plays" belongs to what played before, unless the speaker has said that the new title began or so
/// much of it has passed.
constexpr Time DeafTime = std::chrono::seconds(2);
/// The volume that was there before may still be reported for so long after a new one was set.
constexpr Time StaleVolume = std::chrono::seconds(3);

/// From here on a claim yields to nothing but the rules: the last command of an older path does not take it,
/// unless the claim is such a path's itself.
constexpr int Forced = 224;
/// At the highest priority the newer claim always takes the speaker.
constexpr int Highest = 255;

/// What an order does where something of its own priority plays, or (but for Interrupt, which is then
/// refused) of a higher one.
enum class WhenBusy : quint8 { Interrupt, Queue, Skip };
/// How it goes on after something else has taken the speaker.
enum class Resume : quint8 { None, Start, Position };

/// What all speakers of one order share. Must outlive the claims made of it.
struct Order {
    quint64 id = 0;
    int priority = 100; ///< 0 to 255
    WhenBusy whenBusy = WhenBusy::Interrupt;
    Resume resume = Resume::None;
    int volume = 0;                    ///< 1 to 25; 0: as the speaker has it
    Time queueSpan{0};                 ///< how long it waits for a busy speaker
    Time ends = Never;                 ///< when its own time is over, whatever has interrupted it
    std::vector<Time> titles{Time(0)}; ///< lengths in order; 0: not known
    int rounds = 1;                    ///< how often the titles are played
    bool lastHolds = false;            ///< an older path's: see `Forced`
    bool isDriven = false;             ///< titles and end are told from outside, not by the zone
    bool isSent = false;               ///< whoever orders it sends the first play command too
    bool isStream = false; ///< fed over the data path: two of them, or two others, replace each other

    /// Whether the last command of an older path takes what this order holds.
    bool yieldsToLast() const { return lastHolds || priority < Forced; }
    int count() const { return static_cast<int>(titles.size()) * rounds; }
    Time length(int title) const { return titles[static_cast<size_t>(title) % titles.size()]; }
};

} // namespace zones
