#pragma once

#include <QString>

class QHostAddress;

/// Keeps what a peer provokes from filling the log: call it before a line that anybody outside can cause,
/// and write the line only if it returns true. At most LinesPerPeer lines a second of one kind and peer
/// pass, and LinesPerKind of one kind; what did not pass is counted and told in one line when the second is
/// over and the next throttled line comes. Any thread.
/// `kind` names the sort of line in that count; `peer` is an address, a serial, or empty.
bool mayLog(const char* kind, const QString& peer);
bool mayLog(const char* kind, const QHostAddress& peer);

namespace logthrottle {
constexpr int LinesPerPeer = 10;
constexpr int LinesPerKind = 1000; ///< a fleet that comes back at once tells of most of its speakers
constexpr int MaxPeers = 10000;    ///< told apart within a second; further ones count as one
} // namespace logthrottle
