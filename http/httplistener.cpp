#include "http/httplistener.h"

#include "http/httpengine.h"
#include "http/listensocket.h"
#include "http/staticfilecontroller.h"

#include <algorithm>
#include <QDebug>
#include <QSettings>

namespace {

std::chrono::milliseconds duration(const QSettings& settings, const QString& key, int fallback) {
    constexpr int least = 100; // shorter ones would cut off honest clients
    return std::chrono::milliseconds(std::max(least, settings.value(key, fallback).toInt()));
}

HttpEngine::Settings engineSettings(const QSettings& settings) {
    HttpEngine::Settings result;
    result.readTimeout = duration(settings, QStringLiteral("readTimeout"), 60'000);
    // A list of twenty thousand serials is 660 kB; an hour of speech at 128 kbit/s is 58 MB.
    result.limits.request = settings.value(QStringLiteral("maxRequestSize"), 2'000'000).toLongLong();
    result.limits.multiPart = settings.value(QStringLiteral("maxMultiPartSize"), 134'217'728).toLongLong();
    result.workers.minThreads = std::max(1, settings.value(QStringLiteral("minThreads"), 4).toInt());
    result.workers.maxThreads =
        std::max(result.workers.minThreads, settings.value(QStringLiteral("maxThreads"), 100).toInt());
    result.workers.idleTime = duration(settings, QStringLiteral("cleanupInterval"), 60'000);
    return result;
}

} // namespace

struct HttpListener::State {
    sqlite* database;
    HttpRequestHandler* handler;
    StaticFileController* files = nullptr;
    QString host;
    quint16 wantedPort = 0;
    HttpEngine::Settings settings;
    std::unique_ptr<HttpEngine> engine;
    quint16 port = 0;
};

HttpListener::HttpListener(sqlite* database, const QSettings* settings, HttpRequestHandler* requestHandler,
                           QObject* parent)
    : QObject(parent)
    , m_state(std::make_unique<State>()) {
    m_state->database = database;
    m_state->handler = requestHandler;
    m_state->host = settings->value(QStringLiteral("host")).toString();
    m_state->wantedPort = static_cast<quint16>(settings->value(QStringLiteral("port"), 12080).toUInt());
    m_state->settings = engineSettings(*settings);
}

HttpListener::~HttpListener() {
    close();
}

void HttpListener::setStaticFiles(StaticFileController* files) {
    m_state->files = files;
}

void HttpListener::listen() {
    if (m_state->engine)
        return;
    QString error;
    const int socket = openListenSocket(m_state->host, m_state->wantedPort, &error);
    if (socket < 0) {
        qCritical("HttpListener: Cannot bind on port %d: %s", m_state->wantedPort, qPrintable(error));
        return;
    }
    const quint16 port = boundPort(socket);
    auto engine = std::make_unique<HttpEngine>(socket, m_state->settings, m_state->handler, m_state->files,
                                               m_state->database);
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
