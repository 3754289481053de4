#include "fronts/maincellinit.h"

#include "core/logthrottle.h"
#include "fronts/qwebsocktthread.h"

#include "api/call.h"
#include "api/requestmapper.h"
#include "http/workerdatabase.h"
#include "http/workerpool.h"

#include <chrono>
#include <optional>
#include <QCoreApplication>
#include <QDebug>
#include <QJsonDocument>
#include <QPointer>
#include <QTcpSocket>
#include <QTimer>
#include <QWebSocket>
#include <sys/socket.h>

using namespace std::chrono_literals;

namespace {

constexpr auto HandshakeTime = 10s;
/// Pause after the system ran out of descriptors, so as not to spin on the waiting queue.
constexpr auto ExhaustedPause = 200ms;
/// Browsers wait for each other's slow requests (programs, speech) no longer than that many at once.
constexpr int MaxWorkers = 8;

/// The parameters of a message; on failure `error` is the reply. As with the mobile client, every value
/// is a text and another type counts as the empty text.
std::optional<Params> parametersOf(const QByteArray& message, QByteArray& error) {
    QJsonParseError parseError{};
    const QJsonDocument document = QJsonDocument::fromJson(message, &parseError);
    if (parseError.error != QJsonParseError::NoError || !document.isObject()) {
        error = refusal(QStringLiteral("uni_error2"));
        return std::nullopt;
    }
    Params params;
    const QJsonObject object = document.object();
    for (auto entry = object.begin(); entry != object.end(); ++entry)
        params.insert(entry.key().toUtf8(), entry.value().toString().toUtf8());
    if (params.value("path").isEmpty()) {
        error = refusal(QStringLiteral("uni_error1"));
        return std::nullopt;
    }
    return params;
}

} // namespace

/// One request on its way through the pool. Deletes itself once it is answered.
class MainCellInit::Request final : public WorkerPool::Job {
public:
    Request(MainCellInit* front, qwebsocktthread* connection, Params parameters)
        : m_front(front)
        , m_router(front->m_router)
        , m_connection(connection)
        , m_address(connection->address())
        , m_path(parameters.take(QByteArrayLiteral("path")))
        , m_parameters(std::move(parameters)) {}

    void run(WorkerDatabase& database) override {
        finish(m_router->post(m_path, m_parameters, m_address, database.get()));
    }
    void cancel() override { finish({refusal(QStringLiteral("busy"))}); }

private:
    void finish(const RequestMapper::Answer& answer) {
        // The connection may be gone by then: only the main loop looks.
        QMetaObject::invokeMethod(
            m_front,
            [connection = m_connection, answer] {
                if (connection)
                    connection->reply(answer.body, answer.delay);
            },
            Qt::QueuedConnection);
        delete this;
    }

    MainCellInit* m_front;
    RequestMapper* m_router;
    QPointer<qwebsocktthread> m_connection;
    QString m_address;
    QByteArray m_path;
    Params m_parameters;
};

MainCellInit::MainCellInit(RequestMapper* router, const QString& /*askey*/, int Meida_port, int wbport,
                           QString Meida_ip, QObject* parent)
    : QObject(parent)
    , m_wbport(wbport)
    , m_mediaAddress(std::move(Meida_ip))
    , m_mediaPort(Meida_port)
    , m_handshakes(QStringLiteral("speakerd"), QWebSocketServer::NonSecureMode) {
    m_handshakes.setHandshakeTimeout(HandshakeTime);
    m_handshakes.setMaxPendingConnections(MaxConnections);
    m_listener.setMaxPendingConnections(MaxConnections);
    connect(&m_handshakes, &QWebSocketServer::newConnection, this, &MainCellInit::greet);
    connect(&m_listener, &QTcpServer::newConnection, this, [this] {
        while (QTcpSocket* socket = m_listener.nextPendingConnection())
            accept(socket);
    });
    connect(&m_listener, &QTcpServer::acceptError, this, [this] {
        if (mayLog("WebSocket: accept", QString()))
            qWarning().noquote() << "WebSocket: accept:" << m_listener.errorString();
        QTimer::singleShot(ExhaustedPause, &m_listener, &QTcpServer::resumeAccepting);
    });
    if (router)
        setRouter(router);
}

MainCellInit::~MainCellInit() {
    m_listener.close();
    if (!m_workers)
        return;
    m_workers->stop();
    constexpr auto turn = 10ms;
    while (!m_workers->waitIdle(turn)) // a worker may be waiting for this loop
        QCoreApplication::processEvents(QEventLoop::AllEvents, static_cast<int>(turn.count()));
}

void MainCellInit::setRouter(RequestMapper* router) {
    m_router = router;
    if (m_wbport <= 0 || m_listener.isListening())
        return;
    WorkerPool::Settings settings;
    settings.minThreads = 1;
    settings.maxThreads = MaxWorkers;
    m_workers = std::make_unique<WorkerPool>(settings, router->database());
    listen();
}

void MainCellInit::listen() {
    const auto port = static_cast<quint16>(m_wbport);
    if ((m_listener.listen(QHostAddress::Any, port) || m_listener.listen(QHostAddress::AnyIPv4, port)) &&
        ::listen(static_cast<int>(m_listener.socketDescriptor()), Backlog) == 0)
        qInfo() << "WebSocket: listening on port" << m_listener.serverPort();
    else
        qWarning().noquote() << "WebSocket: can't listen on port" << port << m_listener.errorString();
}

void MainCellInit::accept(QTcpSocket* socket) {
    if (m_connections >= MaxConnections) {
        if (mayLog("WebSocket: refused", socket->peerAddress()))
            qWarning().noquote() << "WebSocket: refused, too many connections:"
                                 << socket->peerAddress().toString();
        socket->abort();
        socket->deleteLater();
        return;
    }
    ++m_connections;
    connect(socket, &QObject::destroyed, this, [this] { --m_connections; });
    socket->setSocketOption(QAbstractSocket::KeepAliveOption, 1);
    m_handshakes.handleConnection(socket);
}

/// The handshakes that are done.
void MainCellInit::greet() {
    while (QWebSocket* socket = m_handshakes.nextPendingConnection()) {
        auto* connection = new qwebsocktthread(socket, this);
        connect(connection, &qwebsocktthread::request, this,
                [this, connection](const QByteArray& message) { run(connection, message); });
    }
}

void MainCellInit::run(qwebsocktthread* connection, const QByteArray& message) {
    QByteArray error;
    const auto parameters = parametersOf(message, error);
    if (!parameters) {
        connection->reply(error);
    } else if (parameters->value("path") == "/media") {
        connection->reply(media(*parameters));
    } else {
        auto* request = new Request(this, connection, *parameters);
        if (!m_workers->submit(request))
            request->cancel();
    }
}

QByteArray MainCellInit::media(const Params& parameters) const {
    Call call(parameters, *m_router);
    if (!call.require({}, "ParER") || !call.authenticate())
        return call.refused();
    return ::reply({{QStringLiteral("res"), true},
                    {QStringLiteral("info"), QStringLiteral("SUC")},
                    {QStringLiteral("ip"), m_mediaAddress},
                    {QStringLiteral("port"), m_mediaPort}});
}
