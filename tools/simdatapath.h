#pragma once

#include <chrono>
#include <QByteArray>
#include <QHostAddress>
#include <QObject>
#include <QTcpSocket>
#include <QTimer>

namespace sim {

/// The speaker's audio connection: opened when the server asks for it, begun with the registration
/// packet, then pulled chunk by chunk with 5-byte requests.
class DataPath : public QObject {
    Q_OBJECT
public:
    struct Options {
        std::chrono::milliseconds pullDelay{0}; ///< pause between a chunk and the next request
        bool pulls = true;                      ///< false: connects but never asks
        bool keepBytes = true;                  ///< false: only counted
    };
    DataPath(Options options, QByteArray registration, const QHostAddress& localAddress, QObject* parent);

    void open(const QHostAddress& address, quint16 port);
    void close();
    bool isConnected() const { return m_socket.state() == QAbstractSocket::ConnectedState; }
    /// Asks for one chunk; done by itself after connecting and after every read when `pulls` is set.
    void pull();

    QByteArray bytes() const { return m_bytes; } ///< all audio bytes so far, in order
    qint64 received() const { return m_received; }
    int heartbeats() const { return m_heartbeats; } ///< reads that were exactly "HELL"
    int opened() const { return m_opened; }         ///< connections made so far
    void clear();

signals:
    void connected();
    void disconnected();
    void chunk(const QByteArray& bytes);

private:
    void readChunk();

    Options m_options;
    QByteArray m_registration;
    QHostAddress m_localAddress;
    QTcpSocket m_socket;
    QTimer m_pullTimer;
    QByteArray m_bytes;
    qint64 m_received = 0;
    int m_heartbeats = 0;
    int m_opened = 0;
};

} // namespace sim
