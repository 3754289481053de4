#pragma once

#include <QByteArray>
#include <QString>

/// One request over a fresh TCP connection to a node's command server, with plain blocking sockets:
/// usable from any thread that may block, with or without a Qt event loop.
class NodeCall {
public:
    enum class Outcome {
        Answered, ///< `answer` is what stood before "\r\n"
        Sent,     ///< written whole, no answer asked for
        NotConnected,
        Failed, ///< connected, but not written or answered whole in time; `error` says which
    };
    struct Result {
        Outcome outcome = Outcome::NotConnected;
        QByteArray answer;
        QString error;
    };

    /// Blocks for at most 100 ms until connected and 30 s until written and answered; resolving a
    /// host name comes on top. `host` is an address or a name.
    static Result send(const QString& host, int port, const QByteArray& frame, bool waitForAnswer);
};
