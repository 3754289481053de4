#pragma once

#include <memory>
#include <QObject>

class HttpRequestHandler;
class StaticFileController;
class QSettings;
class sqlite;

/// The HTTP server: an epoll engine that parses requests and sends files, and a pool of `minThreads`
/// to `maxThreads` workers that run the handler. Each worker carries a database object of its own
/// (see sqlite::forThread), released when the worker has been idle for `cleanupInterval` ms.
/// Main loop; the handler and the file controller must outlive it.
class HttpListener : public QObject {
    Q_OBJECT
public:
    /// Starts listening with the keys of the group that `settings` stands in: `host`, `port`,
    /// `minThreads`, `maxThreads`, `cleanupInterval` (ms), `readTimeout` (ms), `maxRequestSize` and
    /// `maxMultiPartSize` (bytes). `settings` must outlive the listener.
    HttpListener(sqlite* database, const QSettings* settings, HttpRequestHandler* requestHandler,
                 QObject* parent = nullptr);
    ~HttpListener() override;

    void setStaticFiles(StaticFileController* files);
    void listen();
    void close();
    bool isListening() const;
    int serverPort() const; ///< the bound port; 0 when not listening

private:
    struct State;
    std::unique_ptr<State> m_state;
};
