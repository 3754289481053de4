#pragma once

#include "device/commandframe.h"

#include <chrono>
#include <functional>
#include <memory>
#include <QByteArray>
#include <QElapsedTimer>
#include <QHostAddress>
#include <QObject>
#include <QTimer>

class QSocketNotifier;

/// Runs one JSON request and returns the reply as compact JSON. May run a nested event loop.
using CommandHandler = std::function<QByteArray(const QByteArray& request)>;

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
    /// What all connections of a server together may have sent of requests that are not complete:
    /// enough for many at full length, and no more than a small machine can spare.
    static constexpr qsizetype MaxBufferedBytes = 256 * 1024 * 1024;
    /// Work on one connection's requests goes on for so long before the others have their turn.
    static constexpr std::chrono::milliseconds TimeSlice{10};

    /// `tag` begins the log line of each reply. `buffered` is the server's count of bytes in
    /// incomplete requests; it outlives this object.
    didocmd(int descriptor, const QHostAddress& peer, QString tag, CommandHandler handler,
            std::shared_ptr<qsizetype> buffered, QObject* parent);
    ~didocmd() override;

private:
    void readable();
    bool receive();
    void writable();
    void process();
    void processSlice();
    void answer(const QByteArray& request);
    void send(const QByteArray& reply);
    void refuse(const QString& why);
    void flush();
    void settle();
    void drain();
    void late();
    void over();
    bool isFull() const { return m_unsent.size() > MaxUnsentBytes; }
    void countBuffered();

    std::unique_ptr<QSocketNotifier> m_reader;
    std::unique_ptr<QSocketNotifier> m_writer;
    QTimer m_deadline;
    CommandFrameParser m_parser;
    QByteArray m_unsent;
    CommandHandler m_handler;
    std::shared_ptr<qsizetype> m_buffered;
    qsizetype m_counted = 0; ///< this connection's share of *m_buffered
    QHostAddress m_peer;
    QString m_tag;
    int m_descriptor;
    bool m_busy = false;    ///< inside the handler, which may run a nested loop
    bool m_waiting = false; ///< a further slice of work is scheduled
    bool m_hasSpoken = false;
    bool m_ended = false;    ///< the peer will send no more
    bool m_isGone = false;   ///< nothing can be written to it any more
    bool m_closing = false;  ///< close when everything is sent
    bool m_draining = false; ///< everything is sent; what still arrives is discarded
};
