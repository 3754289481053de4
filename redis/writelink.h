#pragma once

#include "redis/flatreply.h"

#include <deque>
#include <QByteArray>
#include <QByteArrayList>
#include <QObject>
#include <QString>
#include <QTcpSocket>
#include <QTimer>

/// The connection for writes whose answers nobody reads: opened with CLIENT REPLY OFF, it sends what
/// one turn of the loop has collected in one batch. Every few seconds answers are switched on for one
/// PING, so that a server that vanished, hangs or refuses writes is noticed. Main loop only.
class WriteLink : public QObject {
    Q_OBJECT
public:
    /// What may be dropped first when the server stops reading: a refresh comes again by itself.
    enum class Kind { Refresh, Event };

    /// Requests kept while the server does not read: five refreshes of 20,000 speakers.
    static constexpr int MaxPendingBytes = 8 * 1024 * 1024;
    /// Handed to the socket at most before the next batch waits for it to drain.
    static constexpr int MaxSocketBytes = 1024 * 1024;

    explicit WriteLink(QObject* parent = nullptr);
    ~WriteLink() override;

    /// Connects, authenticates and waits for the server to take commands; ends in ready() or
    /// lost(). An empty password sends no AUTH.
    void open(const QString& host, quint16 port, const QByteArray& password);
    /// Drops the connection and everything pending, without a signal.
    void close();
    bool isReady() const { return m_phase == Phase::Ready; }

    /// Queues one request; dropped when not ready.
    void send(const QByteArrayList& arguments, Kind kind = Kind::Event);

    /// Bytes not yet taken by the system.
    qint64 backlog() const { return m_pendingBytes + m_socket.bytesToWrite(); }
    quint64 droppedRefreshes() const { return m_droppedRefreshes; }
    quint64 droppedEvents() const { return m_droppedEvents; }

signals:
    void ready();
    /// The connection or the attempt has ended; `reason` is for the log.
    void lost(const QString& reason);

private:
    enum class Phase { Closed, Opening, Ready };

    void shakeHands();
    void read();
    void take(const QStringList& reply);
    void heartbeat();
    void flush();
    void queueFlush();
    void dropOldest();
    void reportDropped();
    void fail(const QString& reason);

    QTcpSocket m_socket;
    QTimer m_heartbeat;
    QTimer m_answerDeadline;
    ReplyStream m_stream;
    QByteArray m_password;
    Phase m_phase = Phase::Closed;
    int m_expected = 0; ///< answers still to come; the last one is PING's
    bool m_flushQueued = false;
    std::deque<QByteArray> m_events;
    std::deque<QByteArray> m_refreshes;
    int m_pendingBytes = 0;
    quint64 m_droppedRefreshes = 0;
    quint64 m_droppedEvents = 0;
    quint64 m_reportedDrops = 0;
};
