#pragma once

#include "http/httprequesthandler.h"
#include "rest/cors.h"
#include "rest/restanswer.h"
#include "rest/services.h"

#include <QStringList>

class RestCall;

/// Answers everything under "/api/": finds the route, the caller and the body, refuses what may not be, runs
/// the handler once a key and writes the audit line. Made by start-up, after what `services` names.
class RestRouter : public HttpRequestHandler {
    Q_OBJECT
public:
    /// `origins`: hosts whose pages may ask beside the service's own.
    RestRouter(const Services& services, const QStringList& origins, QObject* parent = nullptr);

    /// All below "/api/" but the files of the page that shows the document.
    static bool isForIt(const QByteArray& path);

    bool wants(const QByteArray& method, const QByteArray& path) const override;
    JobLanes lanes(const HttpRequest& request) const override;
    FileFate fateOfFile(const HttpRequest& head, const QByteArray& field,
                        const QMap<QByteArray, QByteArray>& parameters) const override;
    bool takesFile(const QByteArray& method, const QByteArray& path) const override;
    Page refusalPage(const QByteArray& path, const Refusal& refusal) const override;
    void service(HttpRequest& request, HttpResponse& response) override;

private:
    RestAnswer answer(HttpRequest& request) const;
    RestAnswer serve(RestCall& call) const;
    std::optional<RestAnswer> admit(RestCall& call) const;

    const Services m_services;
    const Cors m_cors;
};
