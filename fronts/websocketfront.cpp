#include "fronts/websocketfront.h"

#include "fronts/eventhub.h"
#include "fronts/websockethandshake.h"

#include "api/call.h"
#include "api/requestmapper.h"
#include "http/workerdatabase.h"
#include "http/workerpool.h"

#include <algorithm>
#include <QDebug>
#include <QJsonDocument>
#include <QJsonObject>
#include <QPointer>
#include <QTcpSocket>
#include <sys/socket.h>

using namespace std::chrono_literals;

namespace {

constexpr auto Tick = 1s;
/// Pause after the system ran out of descriptors, so as not to spin on the waiting queue.
constexpr auto ExhaustedPause = 200ms;

} // namespace

/// One request on its way through the pool. Deletes itself once it is answered.
class WebSocketFront::Request final : public WorkerPool::Job {
public:
    Request(WebSocketFront* front, qwebsocktthread* connection, Params parameters)
        : m_front(front)
        , m_connection(connection)
        , m_address(connection->address())
        , m_path(parameters.take(QByteArrayLiteral("path")))
        , m_parameters(std::move(parameters)) {}

    void run(WorkerDatabase& database) override {
        finish(m_front->m_router.post(m_path, m_parameters, m_address, database.get()));
    }
    JobLanes lanes() override { return m_front->m_router.lanes(m_path, m_parameters); }
    void cancel() override { finish({refusal(QStringLiteral("busy"))}); }

private:
    void finish(const RequestMapper::Answer& answer) {
        // The connection may be gone by then: only the front's thread looks.
        QMetaObject::invokeMethod(
            m_front,
            [connection = m_connection, answer] {
                if (connection)
                    connection->reply(answer.body, answer.delay);
            },
            Qt::QueuedConnection);
        delete this;
    }

    WebSocketFront* m_front;
    QPointer<qwebsocktthread> m_connection;
    QString m_address;
    QByteArray m_path;
    Params m_parameters;
};

WebSocketFront::WebSocketFront(RequestMapper& router, WorkerPool& workers, EventDesk* events,
                               Settings settings)
    : m_router(router)
    , m_workers(workers)
    , m_settings(std::move(settings))
    , m_listener(this)
    , m_tick(this)
    , m_events(events ? std::make_unique<EventHub>(*events, workers, m_budget, this) : nullptr) {
    m_listener.setMaxPendingConnections(int(MaxConnections));
    connect(&m_listener, &QTcpServer::newConnection, this, [this] {
        while (QTcpSocket* socket = m_listener.nextPendingConnection())
            accept(socket);
    });
    connect(&m_listener, &QTcpServer::acceptError, this, [this] {
        qWarning().noquote() << "WebSocket: accept:" << m_listener.errorString();
        QTimer::singleShot(ExhaustedPause, &m_listener, &QTcpServer::resumeAccepting);
    });
    connect(&m_tick, &QTimer::timeout, this, &WebSocketFront::tick);
}

WebSocketFront::~WebSocketFront() {
    qDeleteAll(m_connections); // while the budget lives
}

quint16 WebSocketFront::listen() {
    const quint16 port = m_settings.port;
    if ((m_listener.listen(QHostAddress::Any, port) || m_listener.listen(QHostAddress::AnyIPv4, port)) &&
        ::listen(static_cast<int>(m_listener.socketDescriptor()), Backlog) == 0) {
        qInfo() << "WebSocket: listening on port" << m_listener.serverPort();
        m_tick.start(Tick);
        return m_listener.serverPort();
    }
    qWarning().noquote() << "WebSocket: can't listen on port" << port << m_listener.errorString();
    return 0;
}

void WebSocketFront::close() {
    m_listener.close();
}

void WebSocketFront::accept(QTcpSocket* socket) {
    if (m_connections.size() >= MaxConnections && !makeRoom()) {
        qWarning().noquote() << "WebSocket: refused, too many connections:"
                             << socket->peerAddress().toString();
        connect(socket, &QTcpSocket::disconnected, socket, &QObject::deleteLater);
        socket->write(websocket::refusedHandshake(503, "Service Unavailable", "Retry-After: 1\r\n"));
        socket->disconnectFromHost();
        return;
    }
    auto* connection = new qwebsocktthread(socket, m_settings.origins, m_budget, this);
    m_connections.push_back(connection);
    connect(connection, &qwebsocktthread::ended, this, [this, connection] { forget(connection); });
    connect(connection, &qwebsocktthread::request, this,
            [this, connection](const QByteArray& message) { run(connection, message); });
}

bool WebSocketFront::makeRoom() {
    const auto idle = std::find_if(m_connections.begin(), m_connections.end(),
                                   [](const qwebsocktthread* connection) { return !connection->hasAsked(); });
    if (idle == m_connections.end() || qwebsocktthread::Clock::now() - (*idle)->begin() < Patience)
        return false;
    (*idle)->drop();
    return true;
}

void WebSocketFront::forget(qwebsocktthread* connection) {
    m_connections.remove(connection);
    if (m_events)
        m_events->forget(connection);
    connection->disconnect(this);
    connection->deleteLater();
}

void WebSocketFront::tick() {
    const auto now = qwebsocktthread::Clock::now();
    const auto connections = m_connections; // a deadline may end one
    for (qwebsocktthread* connection : connections)
        connection->tick(now);
}

void WebSocketFront::run(qwebsocktthread* connection, const QByteArray& message) {
    Params parameters;
    if (readParams(message, parameters) != JsonText::Object) {
        connection->reply(refusal(QStringLiteral("uni_error2")));
    } else if (parameters.value("path").isEmpty()) {
        connection->reply(refusal(QStringLiteral("uni_error1")));
    } else if (m_events && parameters.value("path") == EventHub::Path) {
        m_events->subscribe(connection, QJsonDocument::fromJson(message).object());
    } else if (parameters.value("path") == "/media") {
        connection->reply(media(parameters));
    } else {
        auto* request = new Request(this, connection, parameters);
        if (!m_workers.submit(request))
            request->cancel();
    }
}

QByteArray WebSocketFront::media(const Params& parameters) const {
    Call call(parameters, m_router);
    if (!call.require({}, "ParER") || !call.authenticate())
        return call.refused();
    return ::reply({{QStringLiteral("res"), true},
                    {QStringLiteral("info"), QStringLiteral("SUC")},
                    {QStringLiteral("ip"), m_settings.mediaAddress},
                    {QStringLiteral("port"), m_settings.mediaPort}});
}
