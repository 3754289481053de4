#pragma once

#include <memory>
#include <QObject>
#include <QString>
#include <QStringList>
#include <QThread>

class EventDesk;
class RequestMapper;
class WebSocketFront;
class WorkerPool;

/// The WebSocket front: the management interface for clients that keep one connection open. Each text
/// message is one request, answered as a POST over HTTP is; see docs/websocket.md. This object belongs to the
/// main loop; its sockets live on a thread of their own, and the endpoints run on workers of its own.
class MainCellInit : public QObject {
    Q_OBJECT
public:
    /// `wbport` 0: does not listen. `Meida_ip` and `Meida_port` are told to clients that ask for
    /// "/media". With a null router it waits for setRouter().
    MainCellInit(RequestMapper* router, const QString& askey, int Meida_port, int wbport, QString Meida_ip,
                 QObject* parent = nullptr);
    ~MainCellInit() override;

    /// Hosts whose web pages may connect beside the service's own, separated by commas. Before the router.
    void setOrigins(const QString& hosts);
    /// What clients may subscribe to; before the router. Outlives this object.
    void setEvents(EventDesk* events) { m_events = events; }
    /// Starts to listen; a port that is taken is logged. The router outlives this object.
    void setRouter(RequestMapper* router);
    int serverPort() const { return m_boundPort; } ///< 0: not listening

private:
    const int m_wbport;
    const QString m_mediaAddress;
    const int m_mediaPort;
    QStringList m_origins;
    EventDesk* m_events = nullptr;
    std::unique_ptr<WorkerPool> m_workers;
    QThread m_thread;
    WebSocketFront* m_front = nullptr; ///< on m_thread, deleted at its end
    int m_boundPort = 0;
};
