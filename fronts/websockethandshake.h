#pragma once

#include <QByteArray>
#include <QStringList>

namespace websocket {

/// The outcome of a client's opening request (RFC 6455, section 4.2).
struct Handshake {
    int status = 400;  ///< 101: the connection is a WebSocket from here on
    QByteArray answer; ///< to send, whatever the status
};

/// `head` is the whole request head with its blank line. A page of a browser may connect when the host of its
/// origin is the one that it has connected to, or one of `origins`; ports don't count. Who sends no origin is
/// no browser.
Handshake answerHandshake(const QByteArray& head, const QStringList& origins);
/// An answer without a body that closes the connection; `headers` are whole lines.
QByteArray refusedHandshake(int status, const char* phrase, const QByteArray& headers = {});

} // namespace websocket
