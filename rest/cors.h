#pragma once

#include <QByteArray>
#include <QStringList>

class HttpRequest;
class HttpResponse;

/// Cross-origin requests of pages whose host is in `weborigins`: their
/// origin is named back, all others get no header, so that their browser keeps the answer from them. There
/// are no cookies, and credentials are never allowed. Immutable.
class Cors {
public:
    explicit Cors(const QStringList& hosts)
        : m_hosts(hosts) {}

    /// Adds what the answer needs; to a preflight also what may be asked.
    void apply(const HttpRequest& request, HttpResponse& response) const;

private:
    bool isAllowed(const QByteArray& origin) const;
    QStringList m_hosts;
};
