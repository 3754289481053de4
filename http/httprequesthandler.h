#pragma once

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
    /// What becomes of a file that the request for `path` carries in a part named `field`; `parameters`
    /// are those of the query and of the parts before it. As it comes by default: nobody asked for it.
    /// Called on an engine thread: must be quick and const.
    virtual FileFate fateOfFile(const QByteArray& path, const QByteArray& field,
                                const QMap<QByteArray, QByteArray>& parameters) const;
    virtual void service(HttpRequest& request, HttpResponse& response) = 0;
};
