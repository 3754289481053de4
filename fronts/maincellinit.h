#pragma once

#include <QObject>
#include <QString>

class QWebSocketServer;
class RequestMapper;

/// The WebSocket front: the management interface for clients that keep one connection open.
/// Main loop.
class MainCellInit : public QObject {
    Q_OBJECT
public:
    MainCellInit(RequestMapper* router, QString askey, int Meida_port, int wbport, QString Meida_ip,
                 QObject* parent = nullptr);
    void setRouter(RequestMapper* router) { m_router = router; }

private:
    RequestMapper* m_router;
};
