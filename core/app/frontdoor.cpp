#include "core/app/frontdoor.h"

#include "http/httprequest.h"
#include "rest/restrouter.h"

FrontDoor::FrontDoor(HttpRequestHandler* rest, HttpRequestHandler* older)
    : m_rest(rest)
    , m_older(older) {}

HttpRequestHandler* FrontDoor::handlerFor(const QByteArray& path) const {
    return RestRouter::isForIt(path) ? m_rest : m_older;
}

bool FrontDoor::wants(const QByteArray& method, const QByteArray& path) const {
    return handlerFor(path)->wants(method, path);
}

JobLanes FrontDoor::lanes(const HttpRequest& request) const {
    return handlerFor(request.getPath())->lanes(request);
}

FileFate FrontDoor::fateOfFile(const HttpRequest& head, const QByteArray& field,
                               const QMap<QByteArray, QByteArray>& parameters) const {
    return handlerFor(head.getPath())->fateOfFile(head, field, parameters);
}

bool FrontDoor::takesFile(const QByteArray& method, const QByteArray& path) const {
    return handlerFor(path)->takesFile(method, path);
}

FrontDoor::Page FrontDoor::refusalPage(const QByteArray& path, const Refusal& refusal) const {
    return handlerFor(path)->refusalPage(path, refusal);
}

void FrontDoor::service(HttpRequest& request, HttpResponse& response) {
    handlerFor(request.getPath())->service(request, response);
}
