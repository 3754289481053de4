#pragma once

#include "redis/flatreply.h"

#include <chrono>
#include <QAbstractSocket>
#include <QByteArrayList>
#include <QObject>
#include <QString>
#include <QTcpSocket>
#include <QVariant>

/// One TCP connection to a Redis server: command lines out, flat reply lists in. Belongs to the thread
/// that made it.
class Reader : public QObject {
    Q_OBJECT
public:
    /// Chunk: whatever one readyRead delivers is one reply; nothing is kept between two. Whole:
    /// bytes are collected until a reply is complete, and each reply is reported by itself.
    enum class Framing { Chunk, Whole };

    Reader(QString host, int port);
    ~Reader() override;

    /// Starts to connect; does nothing while connected or while an attempt is under way.
    void connectHost(const QString& host, quint16 port);
    bool isConnected() const { return m_connected; }
    void disconnectHost();
    /// Drops the connection or the attempt at once; ends in disconnected() or in
    /// error(SocketTimeoutError).
    void giveUp();

    /// Writes a command line; lengths count characters. Drops it when not connected.
    void sendData(const QString& command);
    /// Writes arguments as they are; lengths count bytes. Drops them when not connected.
    void sendArguments(const QByteArrayList& arguments);

    /// Reads one chunk as one reply and reports it.
    void readLine(const QString& chunk);
    void setFraming(Framing framing) { m_framing = framing; }
    /// Waits on the socket alone, without an event loop, until something arrived or `limit` is over.
    void waitForData(std::chrono::milliseconds limit);
    void waitForConnected(std::chrono::milliseconds limit);

signals:
    void connected();
    void disconnected();
    void error(QAbstractSocket::SocketError error);
    /// A QStringList: the flat reply list.
    void response(const QVariant& list);

private slots:
    void socketConnected();
    void socketConnectionClosed();
    void socketReadyRead();
    void socketError(QAbstractSocket::SocketError error);

private:
    void reportWholeReplies();

    QString m_host;
    int m_port;
    QTcpSocket m_socket;
    bool m_connected = false;
    Framing m_framing = Framing::Chunk;
    ReplyStream m_stream;
};
