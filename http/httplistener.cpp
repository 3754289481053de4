#include "http/httplistener.h"

#include "http/httpengine.h"
#include "http/listensocket.h"
#include "http/staticfilecontroller.h"

#include <QDebug>

struct HttpListener::State {
    const HttpListenerSettings settings;
    sqlite* const database;
    HttpRequestHandler* const handler;
    StaticFileController* files = nullptr;
    std::unique_ptr<HttpEngine> engine{};
    quint16 port = 0;
};

HttpListener::HttpListener(sqlite* database, const HttpListenerSettings& settings,
                           HttpRequestHandler* requestHandler, QObject* parent)
    : QObject(parent)
    , m_state(new State{settings, database, requestHandler}) {}

HttpListener::~HttpListener() {
    close();
}

void HttpListener::setStaticFiles(StaticFileController* files) {
    m_state->files = files;
}

void HttpListener::listen() {
    if (m_state->engine)
        return;
    const HttpListenerSettings& settings = m_state->settings;
    QString error;
    const int socket = openListenSocket(settings.host, settings.port, &error);
    if (socket < 0) {
        qCritical("HttpListener: Cannot bind on port %d: %s", settings.port, qPrintable(error));
        return;
    }
    const quint16 port = boundPort(socket);
    auto engine =
        std::make_unique<HttpEngine>(socket, settings, m_state->handler, m_state->files, m_state->database);
    if (!engine->isRunning())
        return;
    m_state->engine = std::move(engine);
    m_state->port = port;
    qDebug("HttpListener: Listening on port %d", port);
}

void HttpListener::close() {
    if (!m_state->engine)
        return;
    m_state->engine.reset();
    m_state->port = 0;
    qDebug("HttpListener: closed");
}

bool HttpListener::isListening() const {
    return m_state->engine != nullptr;
}

int HttpListener::serverPort() const {
    return m_state->port;
}

int HttpListener::workerCount() const {
    return m_state->engine ? m_state->engine->workers().threadCount() : 0;
}
