#pragma once

#include "http/joblanes.h"
#include "http/requestbody.h"

#include <QObject>

class HttpRequest;
class HttpResponse;

/// What answers requests. service() runs on a worker thread, several at once, and may block.
class HttpRequestHandler : public QObject {
    Q_OBJECT
public:
    explicit HttpRequestHandler(QObject* parent = nullptr);
    ~HttpRequestHandler() override;

    /// True when service() wants this path. What it does not want is served as a static file,
    /// straight from the engine's threads. Called on an engine thread: must be quick and const.
    virtual bool wants(const QByteArray& method, const QByteArray& path) const;
    /// Lanes in which the request must wait for others before service(). Called on a worker, for requests
    /// that service() wants.
    virtual JobLanes lanes(const HttpRequest& request) const;
    /// Whether a body that is not multipart is a file, kept on disk as if it were the part "file". Called on
    /// an engine thread.
    virtual bool takesFile(const QByteArray& method, const QByteArray& path) const;
    /// What becomes of a file that the request carries in a part named `field`; of the request itself only
    /// what its head says is known, `parameters` are those of the query and of the parts before it. As it
    /// comes by default: nobody asked for it.
    /// Called on an engine thread: must be quick and const.
    virtual FileFate fateOfFile(const HttpRequest& head, const QByteArray& field,
                                const QMap<QByteArray, QByteArray>& parameters) const;
    /// The body with which a request for `path` is refused that never came to service(), and its type.
    /// Plain text by default. Called on an engine thread.
    struct Page {
        QByteArray type;
        QByteArray body;
    };
    virtual Page refusalPage(const QByteArray& path, const Refusal& refusal) const;
    virtual void service(HttpRequest& request, HttpResponse& response) = 0;
};
