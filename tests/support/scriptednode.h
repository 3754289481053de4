#pragma once

#include <QElapsedTimer>
#include <QJsonDocument>
#include <QJsonObject>
#include <QList>
#include <QTcpServer>
#include <QTcpSocket>
#include <sys/socket.h>

/// A node's command server as a test wants it: keeps the requests it gets, and counts the connections whose
/// bytes were not whole frames.
class ScriptedNode {
public:
    struct Request {
        QByteArray bytes;
        qint64 at; ///< ms since the node was made
        QJsonObject json() const { return QJsonDocument::fromJson(bytes).object(); }
        QString word() const { return json().value(QLatin1String("cmd")).toString(); }
    };

    ScriptedNode() {
        m_clock.start();
        m_server.listen(QHostAddress::LocalHost);
        ::listen(static_cast<int>(m_server.socketDescriptor()), 4096); // as the service's own
        QObject::connect(&m_server, &QTcpServer::newConnection, &m_server, [this] {
            while (QTcpSocket* socket = m_server.nextPendingConnection())
                take(socket);
        });
    }
    quint16 port() const { return m_server.serverPort(); }
    void close() { m_server.close(); }
    /// Requests in the order of their connections.
    const QList<Request>& requests() const { return m_requests; }
    int brokenFrames() const { return m_broken; }

private:
    void take(QTcpSocket* socket) {
        auto bytes = std::make_shared<QByteArray>();
        QObject::connect(socket, &QTcpSocket::readyRead, &m_server, [this, socket, bytes] {
            *bytes += socket->readAll();
            parse(*bytes);
        });
        QObject::connect(socket, &QTcpSocket::disconnected, &m_server, [this, socket, bytes] {
            m_broken += !bytes->isEmpty();
            socket->deleteLater();
        });
        *bytes += socket->readAll();
        parse(*bytes);
    }
    void parse(QByteArray& bytes) {
        const int line = bytes.indexOf('\n');
        const int length = bytes.left(line).toInt();
        if (line < 0 || bytes.size() < line + 1 + length)
            return;
        const Request request{bytes.mid(line + 1, length), m_clock.elapsed()};
        bytes.remove(0, line + 1 + length);
        m_requests += request;
    }

    QTcpServer m_server;
    QElapsedTimer m_clock;
    QList<Request> m_requests;
    int m_broken = 0;
};
