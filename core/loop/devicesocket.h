#pragma once

#include "core/loop/pooled.h"
#include "core/loop/socketwatch.h"

#include <QByteArray>
#include <QHostAddress>
#include <QString>

/// One accepted TCP connection of a speaker, over the bare descriptor. It keeps no read buffer and,
/// as long as the peer reads, no write buffer: a fleet of them costs a few hundred bytes each, where
/// QTcpSocket costs kilobytes. Main loop only, which is an EpollEventDispatcher's. Owns and closes the
/// descriptor.
class DeviceSocket final : private DescriptorListener, public Pooled<DeviceSocket> {
public:
    /// Is told what the connection brings, a call instead of a signal: a fleet's beats come by the
    /// thousand a second. The callee may do anything, deleting the socket included.
    class Owner {
    public:
        /// At most MaxRead bytes that arrived, there until the event loop is entered or another socket
        /// is read from.
        virtual void socketRead(const char* bytes, int size) = 0;
        /// The peer closed, or the connection broke. Told once, never from inside write().
        virtual void socketEnded() = 0;

    protected:
        ~Owner() = default;
    };

    /// What may wait for a speaker that has stopped reading. It holds more than any command or chunk
    /// that a speaker is sent in a minute; beyond it the speaker is gone for all purposes.
    static constexpr int MaxBacklog = 256 * 1024;
    /// Most bytes handed on at once. Reports are a few hundred bytes.
    static constexpr int MaxRead = 64 * 1024;

    /// `descriptor` is connected and non-blocking. Nothing is read before there is an owner.
    DeviceSocket(int descriptor, const QHostAddress& peer);
    ~DeviceSocket();
    DeviceSocket(const DeviceSocket&) = delete;
    DeviceSocket& operator=(const DeviceSocket&) = delete;

    /// Null: nobody is told any more. Not owned; outlives the socket or lets go of it.
    void setOwner(Owner* owner);
    /// Looks for bytes or the end now, without waiting for the event loop to tell; calls as it does.
    void readNow();
    /// Reads what has arrived now for its length alone; 0 when there is nothing. Tells of the end only.
    int countNow();
    /// Whether the event loop tells of bytes and the end, as it does from the beginning. Unwatched, the
    /// owner looks for them himself and saves the loop a wake-up a message.
    void setWatched(bool watched);
    /// Sends at once what the kernel takes and keeps the rest. Returns bytes.size(), or -1 when the
    /// connection is broken or its backlog full; the end is then told from the event loop.
    int write(const QByteArray& bytes);
    /// False once the connection is closed or known to be broken.
    bool isConnected() const { return m_descriptor >= 0 && !m_broken; }
    int backlog() const { return m_backlog.size(); }

    /// Closes at once; no call follows. What the kernel has taken is still delivered.
    void close();
    /// Closes at once and discards what the peer has not been sent yet.
    void abort();

    const QHostAddress& peerAddress() const { return m_peer; }
    /// The address at which the peer reached this machine; null when the connection is closed.
    QHostAddress localAddress() const;
    /// Why the connection broke, for the log.
    QString errorText() const;

private:
    void descriptorReady(bool readable, bool writable) override;
    void descriptorSoon() const override;
    void listenAnew();
    int receive(char* buffer, int flags);
    void writable();
    void breakDown(int error);
    void tellEnd();
    int fail(int error);
    int sendNow(const char* data, int size);

    Owner* m_owner = nullptr;
    int m_descriptor;
    int m_error = 0;
    bool m_broken = false;
    bool m_endIsDue = false; ///< broken, and the owner does not know yet
    bool m_watched = true;
    QByteArray m_backlog; ///< while it holds anything, the loop tells when there is room
    QHostAddress m_peer;
};
