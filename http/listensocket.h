#pragma once

#include <QString>

/// Opens a listening TCP socket: `host` empty for every address (IPv6 and IPv4 in one socket where the
/// machine has IPv6), an address otherwise; `port` 0 for a free one. Non-blocking, with a backlog that
/// a whole fleet's rush fits in. -1 on failure, with `error` set.
int openListenSocket(const QString& host, quint16 port, QString* error);

/// The port that a socket is bound to.
quint16 boundPort(int socket);
