#pragma once

#include "nodes/nodeaddress.h"

#include <atomic>
#include <chrono>
#include <QByteArray>
#include <QString>

/// One request over a fresh TCP connection to a node's command server, with plain blocking sockets:
/// usable from any thread that may block, with or without a Qt event loop.
class NodeCall {
public:
    enum class Outcome {
        Answered, ///< `answer` is what stood before "\r\n"
        Sent,     ///< on its way, no answer asked for
        NotConnected,
        Failed, ///< connected, but not written or answered whole in time; `error` says which
    };
    struct Result {
        Outcome outcome = Outcome::NotConnected;
        QByteArray answer;
        QString error;
        bool isLost() const { return outcome == Outcome::NotConnected || outcome == Outcome::Failed; }
    };
    struct Limits {
        std::chrono::milliseconds connect{100};
        std::chrono::milliseconds answer{30000};      ///< to be written and answered
        const std::atomic<bool>* cancelled = nullptr; ///< looked at ten times a second
    };
    /// The longest answer is a LIST of 20,000 speakers, about 5 MB.
    static constexpr int MaxAnswerBytes = 64 * 1024 * 1024;

    /// A frame: the payload's length in decimal, one line feed and the payload.
    static QByteArray frame(const QByteArray& payload);

    /// Blocks up to the limits; resolving a host name comes on top.
    static Result send(const NodeAddress& node, const QByteArray& payload, bool waitForAnswer,
                       const Limits& limits);
};
