#include "rest/cors.h"

#include "http/httprequest.h"
#include "http/httpresponse.h"

#include <QUrl>

bool Cors::isAllowed(const QByteArray& origin) const {
    const QString host = QUrl(QString::fromUtf8(origin), QUrl::StrictMode).host();
    return !host.isEmpty() && m_hosts.contains(host, Qt::CaseInsensitive);
}

void Cors::apply(const HttpRequest& request, HttpResponse& response) const {
    if (m_hosts.isEmpty())
        return;
    response.setHeader("Vary", "Origin");
    const QByteArray origin = request.getHeader("Origin");
    if (!isAllowed(origin))
        return;
    response.setHeader("Access-Control-Allow-Origin", origin);
    response.setHeader("Access-Control-Expose-Headers", "Location, Retry-After");
    if (request.getMethod() != "OPTIONS" || request.getHeader("Access-Control-Request-Method").isEmpty())
        return;
    response.setHeader("Access-Control-Allow-Methods", "GET, POST, PATCH, DELETE");
    response.setHeader("Access-Control-Allow-Headers", "Authorization, Content-Type, Idempotency-Key");
    response.setHeader("Access-Control-Max-Age", "600");
}
