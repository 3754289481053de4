#pragma once

#include "redis/owedwrites.h"

#include <deque>
#include <QByteArray>
#include <QByteArrayList>
#include <QObject>
#include <QSet>
#include <QString>
#include <QTcpSocket>
#include <QTimer>
#include <string_view>

/// The connection for writes that nobody waits for: it sends what one turn of the loop has collected in
/// one batch and reads the answers as they come. A PING every few seconds shows a server that vanished or
/// hangs. What the server refuses, or what had to be dropped, is owed to it: it is written as soon as the
/// server takes it, unless there is something newer. Main loop only.
class WriteLink : public QObject {
    Q_OBJECT
public:
    /// What may be dropped first when the server stops reading: a refresh comes again by itself.
    enum class Kind { Refresh, Event };

    /// Requests kept while the server does not read: five refreshes of 20,000 speakers.
    static constexpr int MaxPendingBytes = 8 * 1024 * 1024;
    /// An answer is a short line.
    static constexpr int MaxAnswerBytes = 64 * 1024;
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
    /// Requests that the server has not answered yet.
    size_t unanswered() const { return m_inFlight.size(); }
    quint64 droppedRefreshes() const { return m_droppedRefreshes; }
    quint64 droppedEvents() const { return m_droppedEvents; }

signals:
    void ready();
    /// The connection or the attempt has ended; `reason` is for the log.
    void lost(const QString& reason);
    /// So much was refused or dropped that it could not be kept; writes are taken again.
    void incomplete();

private:
    enum class Phase { Closed, Opening, Ready };
    struct Request {
        QByteArray bytes;
        Kind kind = Kind::Event;
        bool isPing = false;
    };

    void shakeHands();
    void read();
    void take(std::string_view answer);
    void takeOpening(bool isError, const QString& text);
    void refused(const Request& request, const QString& reason);
    void keep(const Request& request, OwedWrites::Why why);
    void enqueue(Request request);
    void payOwed();
    void heartbeat();
    void lookForEndOfRefusals();
    void flush();
    void queueFlush();
    void dropOldest();
    void reportDropped();
    void fail(const QString& reason);

    QTcpSocket m_socket;
    QTimer m_heartbeat;
    QTimer m_answerDeadline;
    QByteArray m_received; ///< of an answer that is not whole yet
    QByteArray m_password;
    Phase m_phase = Phase::Closed;
    int m_expected = 0; ///< while it opens: answers still to come; the last one is PING's
    bool m_isPinging = false;
    bool m_flushQueued = false;
    std::deque<Request> m_events;
    std::deque<Request> m_refreshes;
    std::deque<Request> m_inFlight; ///< in the order of their answers
    OwedWrites m_owed;
    bool m_isIncomplete = false; ///< more was owed than could be kept
    QSet<QString> m_reasons;     ///< of refusals, as far as logged
    quint64 m_refusals = 0;
    quint64 m_refusalsAtBeat = 0;
    int m_pendingBytes = 0;
    quint64 m_droppedRefreshes = 0;
    quint64 m_droppedEvents = 0;
    quint64 m_reportedDrops = 0;
};
