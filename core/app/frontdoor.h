#pragma once

#include "http/httprequesthandler.h"

/// The listener's one handler: gives each request to the interface v1 or to the older paths, by the
/// beginning of its path. Owns neither.
class FrontDoor : public HttpRequestHandler {
    Q_OBJECT
public:
    FrontDoor(HttpRequestHandler* rest, HttpRequestHandler* older);

    bool wants(const QByteArray& method, const QByteArray& path) const override;
    JobLanes lanes(const HttpRequest& request) const override;
    FileFate fateOfFile(const HttpRequest& head, const QByteArray& field,
                        const QMap<QByteArray, QByteArray>& parameters) const override;
    bool takesFile(const QByteArray& method, const QByteArray& path) const override;
    Page refusalPage(const QByteArray& path, const Refusal& refusal) const override;
    void service(HttpRequest& request, HttpResponse& response) override;

private:
    HttpRequestHandler* handlerFor(const QByteArray& path) const;
    HttpRequestHandler* m_rest;
    HttpRequestHandler* m_older;
};
