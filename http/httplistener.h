#pragma once

#include "http/httpsettings.h"

#include <memory>
#include <QObject>

class HttpRequestHandler;
class sqlite;
class StaticFileController;

/// The HTTP server: an epoll engine that parses requests and sends files, and a pool of `minThreads`
/// to `maxThreads` workers that run the handler. Each worker carries a database object of its own
/// (see sqlite::forThread), released when the worker has been idle for `cleanupInterval` ms.
/// Main loop; the handler, the file controller and the database must outlive it.
class HttpListener : public QObject {
    Q_OBJECT
public:
    /// `database` may be null.
    HttpListener(sqlite* database, const HttpListenerSettings& settings, HttpRequestHandler* requestHandler,
                 QObject* parent = nullptr);
    ~HttpListener() override;

    /// What the handler doesn't want is served from here. Before listen().
    void setStaticFiles(StaticFileController* files);
    /// Starts serving; a failure is logged with its reason. No effect while listening.
    void listen();
    /// Ends serving: requests that run are finished and answered, later ones refused. The main loop's
    /// events are processed meanwhile, so that handlers which wait for it come to their end.
    void close();
    bool isListening() const;
    int serverPort() const;  ///< the bound port; 0 when not listening
    int workerCount() const; ///< threads in the worker pool now

private:
    struct State;
    std::unique_ptr<State> m_state;
};
