#include "fronts/websockethandshake.h"

#include <QCryptographicHash>
#include <QList>
#include <QMap>
#include <QUrl>

namespace websocket {

namespace {

using Headers = QMap<QByteArray, QByteArray>; ///< by name in lower case; repeated ones joined by commas

Headers headersOf(const QList<QByteArray>& lines) {
    Headers headers;
    for (const QByteArray& line : lines.mid(1)) {
        const int colon = line.indexOf(':');
        const QByteArray name = line.left(colon).trimmed().toLower();
        const QByteArray value = colon < 0 ? QByteArray() : line.mid(colon + 1).trimmed();
        headers[name] = headers.contains(name) ? headers[name] + ", " + value : value;
    }
    return headers;
}

bool hasToken(const QByteArray& list, const QByteArray& token) {
    for (const QByteArray& entry : list.split(',')) {
        if (entry.trimmed().toLower() == token)
            return true;
    }
    return false;
}

bool isAllowed(const Headers& headers, const QStringList& origins) {
    if (!headers.contains("origin"))
        return true;
    const QString origin = QUrl(QString::fromUtf8(headers["origin"]), QUrl::StrictMode).host();
    const QString own =
        QUrl(QStringLiteral("ws://") + QString::fromUtf8(headers["host"]), QUrl::StrictMode).host();
    return !origin.isEmpty() && (origin == own || origins.contains(origin, Qt::CaseInsensitive));
}

QByteArray acceptanceOf(const QByteArray& key) {
    const QByteArray salted = key + "258EAFA5-E914-47DA-95CA-C5AB0DC85B11"; // RFC 6455, section 1.3
    return QCryptographicHash::hash(salted, QCryptographicHash::Sha1).toBase64();
}

Handshake refused(int status, const char* phrase, const QByteArray& headers = {}) {
    return {status, refusedHandshake(status, phrase, headers)};
}

} // namespace

QByteArray refusedHandshake(int status, const char* phrase, const QByteArray& headers) {
    return "HTTP/1.1 " + QByteArray::number(status) + ' ' + phrase + "\r\n" + headers +
           "Content-Length: 0\r\nConnection: close\r\n\r\n";
}

Handshake answerHandshake(const QByteArray& head, const QStringList& origins) {
    constexpr int keySize = 16;
    const QList<QByteArray> lines = head.trimmed().split('\n');
    const QList<QByteArray> first = lines.first().trimmed().split(' ');
    const Headers headers = headersOf(lines);
    if (first.size() != 3 || first[0] != "GET" || first[2] != "HTTP/1.1" || headers.value("host").isEmpty())
        return refused(400, "Bad Request");
    if (!hasToken(headers["upgrade"], "websocket") || !hasToken(headers["connection"], "upgrade") ||
        headers["sec-websocket-version"] != "13")
        return refused(426, "Upgrade Required", "Upgrade: websocket\r\nSec-WebSocket-Version: 13\r\n");
    const QByteArray key = headers["sec-websocket-key"];
    if (QByteArray::fromBase64(key).size() != keySize)
        return refused(400, "Bad Request");
    if (!isAllowed(headers, origins))
        return refused(403, "Forbidden");
    return {101, "HTTP/1.1 101 Switching Protocols\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
                 "Sec-WebSocket-Accept: " +
                     acceptanceOf(key) + "\r\n\r\n"};
}

} // namespace websocket
