#pragma once

#include "fronts/qwebsocktthread.h"

#include <list>
#include <memory>
#include <QMap>
#include <QTcpServer>
#include <QTimer>

class EventDesk;
class EventHub;
class QTcpSocket;
class RequestMapper;
class WorkerPool;

/// The sockets of the WebSocket front, on a thread of their own: what a client sends or leaves unread costs
/// the main loop nothing. Everything but the constructor on that thread.
class WebSocketFront : public QObject {
    Q_OBJECT
public:
    /// Connections, also those whose handshake is not done: clients are people's browsers and programs.
    static constexpr std::size_t MaxConnections = 512;
    /// Connections that the kernel holds for us while a storm of them arrives.
    static constexpr int Backlog = 4096;
    /// Without a request for so long, a connection makes room for another where there is none.
    static constexpr std::chrono::seconds Patience{1};

    struct Settings {
        quint16 port = 0;
        QString mediaAddress; ///< told to clients that ask for "/media", with its port
        int mediaPort = 0;
        QStringList origins; ///< hosts whose pages may connect
    };

    /// `events` may be null: there are none. All three outlive it.
    WebSocketFront(RequestMapper& router, WorkerPool& workers, EventDesk* events, Settings settings);
    ~WebSocketFront() override;

    /// The bound port; 0, with the reason in the log, when it can't be had.
    quint16 listen();
    /// Takes no more connections.
    void close();

private:
    class Request;

    void accept(QTcpSocket* socket);
    bool makeRoom();
    void forget(qwebsocktthread* connection);
    void tick();
    void run(qwebsocktthread* connection, const QByteArray& message);
    QByteArray media(const QMap<QByteArray, QByteArray>& parameters) const;

    RequestMapper& m_router;
    WorkerPool& m_workers;
    const Settings m_settings;
    QTcpServer m_listener;
    QTimer m_tick;
    WebSocketBudget m_budget;
    std::unique_ptr<EventHub> m_events;
    std::list<qwebsocktthread*> m_connections; ///< children, in the order of their coming
};
