#include "tasks/commandrelay.h"

#include <QDeadlineTimer>
#include <QDebug>
#include <QTcpSocket>
#include <QTimer>

namespace {

constexpr int LoggedBytes = 256; ///< of a payload; the list of speakers in it may be long

void logConnectFailure(const NodeAddress& node, const QTcpSocket& socket) {
    qWarning() << "sck连接失败" << node.host << node.port << socket.errorString();
}

void logWritten(const NodeAddress& node, const QByteArray& payload) {
    qInfo() << "writedata" << node.host << node.port << payload.size() << payload.left(LoggedBytes);
}

bool connectTo(QTcpSocket& socket, const NodeAddress& node) {
    socket.connectToHost(node.host, static_cast<quint16>(node.port));
    if (socket.waitForConnected(static_cast<int>(RelayConnectLimit.count())))
        return true;
    logConnectFailure(node, socket);
    socket.abort();
    return false;
}

bool writeAll(QTcpSocket& socket, const QByteArray& bytes) {
    const QDeadlineTimer deadline(RelayWriteLimit);
    socket.write(bytes);
    socket.flush();
    while (socket.bytesToWrite() > 0) {
        if (!socket.waitForBytesWritten(static_cast<int>(deadline.remainingTime())))
            return false;
    }
    return true;
}

} // namespace

QByteArray commandFrame(const QByteArray& payload) {
    return QByteArray::number(payload.size()) + '\n' + payload;
}

bool relayCommand(const NodeAddress& node, const QByteArray& payload) {
    QTcpSocket socket;
    if (!connectTo(socket, node))
        return false;
    const bool written = writeAll(socket, commandFrame(payload));
    if (written)
        logWritten(node, payload);
    else
        qWarning() << "writedata failed" << node.host << node.port << payload.size() << socket.errorString();
    socket.close();
    return written;
}

void relayCommandFromLoop(const NodeAddress& node, const QByteArray& payload, QObject* context) {
    auto* socket = new QTcpSocket(context);
    QObject::connect(socket, &QTcpSocket::connected, socket, [socket, node, payload] {
        socket->write(commandFrame(payload));
        socket->flush();
        logWritten(node, payload);
        socket->disconnectFromHost(); // once everything is written
    });
    QObject::connect(socket, &QTcpSocket::disconnected, socket, &QObject::deleteLater);
    QObject::connect(socket, &QTcpSocket::errorOccurred, socket, [socket, node] {
        if (socket->state() != QAbstractSocket::ConnectedState)
            logConnectFailure(node, *socket);
        socket->deleteLater();
    });
    QTimer::singleShot(RelayConnectLimit, socket, [socket, node] {
        if (socket->state() != QAbstractSocket::HostLookupState &&
            socket->state() != QAbstractSocket::ConnectingState)
            return;
        logConnectFailure(node, *socket);
        socket->abort();
        socket->deleteLater();
    });
    QTimer::singleShot(RelayConnectLimit + RelayWriteLimit, socket, &QObject::deleteLater);
    socket->connectToHost(node.host, static_cast<quint16>(node.port));
}

QByteArray askNode(const NodeAddress& node, const QByteArray& payload, std::chrono::milliseconds limit,
                   qint64 maxReply, const std::atomic<bool>& cancelled) {
    QTcpSocket socket;
    if (!connectTo(socket, node) || !writeAll(socket, commandFrame(payload)))
        return {};
    const QDeadlineTimer deadline(limit);
    QByteArray reply;
    while (!reply.endsWith("\r\n")) {
        if (cancelled || deadline.hasExpired() || reply.size() > maxReply)
            return {};
        if (socket.waitForReadyRead(100))
            reply += socket.readAll();
        else if (socket.state() != QAbstractSocket::ConnectedState)
            return {};
    }
    reply.chop(2);
    return reply;
}
