#pragma once

#include "core/pooled.h"
#include "core/socketwatch.h"

#include <QByteArray>
#include <QHostAddress>
#include <QObject>

/// One accepted TCP connection of a speaker, over the bare descriptor. It keeps no read buffer and,
/// as long as the peer reads, no write buffer: a fleet of them costs a few hundred bytes each, where
/// QTcpSocket costs kilobytes. Main loop only, which is an EpollEventDispatcher's. Owns and closes the
/// descriptor.
class DeviceSocket : public QObject, private DescriptorListener, public Pooled<DeviceSocket> {
    Q_OBJECT
public:
    /// What may wait for a speaker that has stopped reading. It holds more than any command or chunk
    /// that a speaker is sent in a minute; beyond it the speaker is gone for all purposes.
    static constexpr int MaxBacklog = 256 * 1024;
    /// Most bytes handed on by one readyRead(). Reports are a few hundred bytes.
    static constexpr int MaxRead = 64 * 1024;

    /// `descriptor` is connected and non-blocking.
    DeviceSocket(int descriptor, const QHostAddress& peer, QObject* parent = nullptr);
    ~DeviceSocket() override;

    /// The bytes that arrived; to be called from readyRead(). Empty when there are none.
    QByteArray readAll();
    /// Looks for bytes or the end now, without waiting for the event loop to tell; signals as it does.
    void readNow();
    /// Reads what has arrived now for its length alone; 0 when there is nothing. Signals the end only.
    int countNow();
    /// Whether the event loop tells of bytes and the end, as it does from the beginning. Unwatched, the
    /// owner looks for them himself and saves the loop a wake-up a message.
    void setWatched(bool watched);
    /// Sends at once what the kernel takes and keeps the rest. Returns bytes.size(), or -1 when the
    /// connection is broken or its backlog full; disconnected() then follows from the event loop.
    int write(const QByteArray& bytes);
    /// False once the connection is closed or known to be broken.
    bool isConnected() const { return m_descriptor >= 0 && !m_broken; }
    int backlog() const { return m_backlog.size(); }

    /// Closes at once; no signal follows. What the kernel has taken is still delivered.
    void close();
    /// Closes at once and discards what the peer has not been sent yet.
    void abort();

    const QHostAddress& peerAddress() const { return m_peer; }
    /// The address at which the peer reached this machine; null when the connection is closed.
    QHostAddress localAddress() const;
    /// Why the connection broke, for the log.
    QString errorText() const;

    /// An IPv4 address mapped into IPv6 is given as plain IPv4.
    static QHostAddress plainAddress(const struct sockaddr_storage& address);

signals:
    void readyRead();
    /// The peer closed, or the connection broke. Emitted once, never from inside write().
    void disconnected();

private:
    void descriptorReady(bool readable, bool writable) override;
    void listenAnew();
    int receive(char* buffer, int flags);
    void writable();
    void breakDown(int error);
    void announceEnd();
    int fail(int error);
    int sendNow(const char* data, int size);

    int m_descriptor;
    int m_error = 0;
    bool m_broken = false;
    bool m_watched = true;
    QByteArray m_backlog; ///< while it holds anything, the loop tells when there is room
    QByteArray m_input;
    QHostAddress m_peer;
};
