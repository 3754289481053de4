#include "http/httprequesthandler.h"

HttpRequestHandler::HttpRequestHandler(QObject* parent)
    : QObject(parent) {}

HttpRequestHandler::~HttpRequestHandler() = default;

bool HttpRequestHandler::wants(const QByteArray& method, const QByteArray& path) const {
    Q_UNUSED(method)
    Q_UNUSED(path)
    return true;
}

JobLanes HttpRequestHandler::lanes(const HttpRequest& request) const {
    Q_UNUSED(request)
    return {};
}
