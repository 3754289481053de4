#pragma once

#include <chrono>
#include <functional>
#include <QByteArray>
#include <QObject>
#include <QQueue>
#include <QString>
#include <QTimer>

class QWebSocket;

/// One WebSocket connection, despite its name on the main loop like everything else here: hands its
/// requests on one at a time and sends the replies in the order of the requests. Deletes itself when
/// the connection is over.
class qwebsocktthread : public QObject {
    Q_OBJECT
public:
    /// Silence that is borne after connecting.
    static constexpr std::chrono::seconds FirstMessage{30};
    /// A peer that has not answered a ping by the next is gone.
    static constexpr std::chrono::seconds PingInterval{60};
    /// Longest message: a request with 20,000 serials is 0.7 MB.
    static constexpr int MaxMessageBytes = 1024 * 1024;
    /// Requests that wait for the one before them, in number and in bytes; a client that sends faster
    /// than it is answered is closed.
    static constexpr int MaxWaiting = 64;
    static constexpr qint64 MaxWaitingBytes = 4 * MaxMessageBytes;
    /// What may wait for a client that does not read: a few lists of a large fleet.
    static constexpr qint64 MaxUnsentBytes = 32 * 1024 * 1024;

    /// Takes `socket` as its child.
    qwebsocktthread(QWebSocket* socket, QObject* parent);
    ~qwebsocktthread() override;

    QString address() const; ///< of the peer
    /// The reply to the request under way, sent after `delay`.
    void reply(const QByteArray& text, std::chrono::milliseconds delay = {});

signals:
    /// A text message whose turn has come; the next follows after reply().
    void request(const QByteArray& message);

private:
    void send(const QByteArray& text);
    void take(const QString& message);
    void next();
    void ping();
    void refuse(int code, const QString& why);

    QWebSocket* m_socket;
    QTimer m_first;
    QTimer m_ping;
    QQueue<QByteArray> m_waiting;
    qint64 m_waitingBytes = 0;
    bool m_isBusy = false;
    bool m_hasAnswered = true; ///< the last ping
};
