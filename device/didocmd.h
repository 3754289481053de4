#pragma once

#include "device/commandframe.h"

#include <chrono>
#include <functional>
#include <list>
#include <memory>
#include <QByteArray>
#include <QElapsedTimer>
#include <QHostAddress>
#include <QObject>
#include <QTimer>

class QSocketNotifier;

/// Runs one JSON request and gives the reply, compact JSON, to `reply`, at once or later. May run a nested
/// event loop.
using CommandHandler = std::function<void(const QByteArray& request, const QString& peer,
                                          const std::function<void(QByteArray reply)>& reply)>;

class didocmd;

/// What the connections of one server share.
struct CommandPeers {
    qsizetype buffered = 0;    ///< bytes in requests that have no reply yet
    std::list<didocmd*> byAge; ///< who was heard of last is last
};

/// One connection of a command server: reads requests, in the order in which they came hands each to
/// the handler, and writes the reply and "\r\n". Main loop only. Owns the descriptor; deletes itself
/// when the connection is over.
class didocmd : public QObject {
    Q_OBJECT
public:
    /// A peer that says nothing, stops in the middle of a request or does not read its replies is let
    /// go after this: 30 s is what the peers themselves wait for an answer.
    static constexpr std::chrono::milliseconds Patience{30000};
    /// No further request is read while so much of the replies waits: it holds one LIST of 20,000
    /// speakers.
    static constexpr int MaxUnsentBytes = 8 * 1024 * 1024;
    /// What all connections of a server together may have sent of requests that are not complete or have
    /// no reply yet: enough for many at full length, and no more than a small machine can spare.
    static constexpr qsizetype MaxBufferedBytes = 256 * 1024 * 1024;
    /// Work on one connection's requests goes on for so long before the others have their turn.
    static constexpr std::chrono::milliseconds TimeSlice{10};

    /// `tag` begins the log line of each reply.
    didocmd(int descriptor, const QHostAddress& peer, QString tag, CommandHandler handler,
            std::shared_ptr<CommandPeers> peers, QObject* parent);
    ~didocmd() override;

    /// Nothing is being done for this peer, and no reply waits for it.
    bool isSilent() const { return !m_busy && !m_waiting && m_unsent.isEmpty(); }
    const QHostAddress& peer() const { return m_peer; }

private:
    void readable();
    bool receive();
    void writable();
    void process();
    void processSlice();
    void processLater();
    void answer(const QByteArray& request);
    void answered(QByteArray reply, qint64 milliseconds);
    void send(QByteArray reply);
    void refuse(const QString& why);
    void flush();
    void settle();
    void drain();
    void late();
    void over();
    bool isFull() const { return m_unsent.size() - m_sent > MaxUnsentBytes; }
    void countBuffered();

    std::unique_ptr<QSocketNotifier> m_reader;
    std::unique_ptr<QSocketNotifier> m_writer;
    QTimer m_deadline;
    CommandFrameParser m_parser;
    QByteArray m_unsent;
    int m_sent = 0; ///< bytes of m_unsent that are
    CommandHandler m_handler;
    std::shared_ptr<CommandPeers> m_peers;
    std::list<didocmd*>::iterator m_place; ///< in m_peers->byAge
    qsizetype m_counted = 0;               ///< this connection's share of m_peers->buffered
    int m_running = 0;                     ///< bytes of the request that the handler has
    QHostAddress m_peer;
    QString m_tag;
    int m_descriptor;
    bool m_busy = false;     ///< the handler has a request and has not replied
    bool m_isInside = false; ///< the handler, which may run a nested loop
    bool m_waiting = false;  ///< a further slice of work is scheduled
    bool m_hasSpoken = false;
    bool m_ended = false;    ///< the peer will send no more
    bool m_isGone = false;   ///< nothing can be written to it any more
    bool m_closing = false;  ///< close when everything is sent
    bool m_draining = false; ///< everything is sent; what still arrives is discarded
};
