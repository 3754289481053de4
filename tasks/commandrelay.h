#pragma once

#include <atomic>
#include <chrono>
#include <QByteArray>
#include <QObject>
#include <QString>

// Getting one command to a node's command server: a frame is the payload's length in decimal, one
// line feed and the payload.

struct NodeAddress {
    QString host;
    int port = 0;
};

QByteArray commandFrame(const QByteArray& payload);

constexpr std::chrono::milliseconds RelayConnectLimit{1000};
/// For the whole frame to leave: a list of 20,000 speakers is 700 kB.
constexpr std::chrono::milliseconds RelayWriteLimit{5000};

/// Connects, sends one frame and closes; no reply is read. Blocks the calling thread up to the two
/// limits. False when the frame did not leave; logged.
bool relayCommand(const NodeAddress& node, const QByteArray& payload);

/// The same from the main loop, which it does not block: the frame leaves as the socket gets ready.
/// Nothing is left of it after `RelayConnectLimit` and `RelayWriteLimit`. `context` owns the socket.
void relayCommandFromLoop(const NodeAddress& node, const QByteArray& payload, QObject* context);

/// Sends one command and reads its reply, up to the "\r\n" that ends it (not included). Blocks the
/// calling thread; looks at `cancelled` ten times a second. Empty when the node can't be reached,
/// does not answer within `limit` or answers more than `maxReply` bytes.
QByteArray askNode(const NodeAddress& node, const QByteArray& payload, std::chrono::milliseconds limit,
                   qint64 maxReply, const std::atomic<bool>& cancelled);
