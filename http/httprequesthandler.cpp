#include "http/httprequesthandler.h"

HttpRequestHandler::HttpRequestHandler(QObject* parent)
    : QObject(parent) {}

HttpRequestHandler::~HttpRequestHandler() = default;

FileFate HttpRequestHandler::fateOfFile(const QByteArray& /*path*/, const QByteArray& /*field*/,
                                        const QMap<QByteArray, QByteArray>& /*parameters*/) const {
    return FileFate::Ignored;
}

bool HttpRequestHandler::wants(const QByteArray& method, const QByteArray& path) const {
    Q_UNUSED(method)
    Q_UNUSED(path)
    return true;
}
