#pragma once

#include <memory>
#include <QByteArray>
#include <QMap>
#include <QObject>
#include <QString>
#include <QTcpServer>
#include <QWebSocketServer>

class QTcpSocket;
class RequestMapper;
class WorkerPool;
class qwebsocktthread;

/// The WebSocket front: the management interface for clients that keep one connection open. Each text
/// message is one request, answered as a POST over HTTP is; see docs/websocket.md. Main loop; the
/// endpoints run on workers of its own.
class MainCellInit : public QObject {
    Q_OBJECT
public:
    /// Connections, also those whose handshake is not done: clients are people's browsers and programs.
    static constexpr int MaxConnections = 512;
    /// Connections that the kernel holds for us while a storm of them arrives.
    static constexpr int Backlog = 4096;

    /// `wbport` 0: does not listen. `Meida_ip` and `Meida_port` are told to clients that ask for
    /// "/media". With a null router it waits for setRouter().
    MainCellInit(RequestMapper* router, const QString& askey, int Meida_port, int wbport, QString Meida_ip,
                 QObject* parent = nullptr);
    ~MainCellInit() override;

    /// Starts to listen; a port that is taken is logged. The router outlives this object.
    void setRouter(RequestMapper* router);
    int serverPort() const { return m_listener.serverPort(); } ///< 0: not listening
    int connectionCount() const { return m_connections; }

private:
    class Request;

    void listen();
    void accept(QTcpSocket* socket);
    void greet();
    void run(qwebsocktthread* connection, const QByteArray& message);
    QByteArray media(const QMap<QByteArray, QByteArray>& parameters) const;

    RequestMapper* m_router = nullptr;
    int m_wbport;
    QString m_mediaAddress;
    int m_mediaPort;
    QTcpServer m_listener;
    QWebSocketServer m_handshakes; ///< never listens itself
    std::unique_ptr<WorkerPool> m_workers;
    int m_connections = 0;
};
