#include "http/httprequesthandler.h"

#include <microhttpd.h>

HttpRequestHandler::HttpRequestHandler(QObject* parent)
    : QObject(parent) {}

HttpRequestHandler::~HttpRequestHandler() = default;

FileFate HttpRequestHandler::fateOfFile(const HttpRequest& /*head*/, const QByteArray& /*field*/,
                                        const QMap<QByteArray, QByteArray>& /*parameters*/) const {
    return FileFate::Ignored;
}

bool HttpRequestHandler::wants(const QByteArray& method, const QByteArray& path) const {
    Q_UNUSED(method)
    Q_UNUSED(path)
    return true;
}

JobLanes HttpRequestHandler::lanes(const HttpRequest& request) const {
    Q_UNUSED(request)
    return {};
}

bool HttpRequestHandler::takesFile(const QByteArray& /*method*/, const QByteArray& /*path*/) const {
    return false;
}

// Enough for who reads it in a terminal.
HttpRequestHandler::Page HttpRequestHandler::refusalPage(const QByteArray& /*path*/,
                                                         const Refusal& refusal) const {
    const char* const phrase = MHD_get_reason_phrase_for(static_cast<unsigned>(refusal.status));
    return {"text/plain", QByteArray::number(refusal.status) + ' ' + phrase + ": " + refusal.reason + '\n'};
}
