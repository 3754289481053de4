#include "rest/restrouter.h"

#include "core/sql/sqlite.h"
#include "http/httprequest.h"
#include "http/httpresponse.h"
#include "rest/idempotency.h"
#include "rest/restcall.h"
#include "rest/restroutes.h"
#include "service/audit.h"
#include "service/changecounter.h"
#include "service/tokens.h"

#include <QDateTime>
#include <QThread>

namespace {

constexpr int WaitingHashes = 256;
constexpr int WaitingEncodings = 256; // in all; each is an upload on the disk
constexpr int EncodingsOfToken = 2;   // at once
constexpr int WaitingOfToken = 16;

RestAnswer unauthorized() {
    return problem(401, QStringLiteral("a valid token is needed, as \"Authorization: Bearer TOKEN\""))
        .header("WWW-Authenticate", "Bearer");
}

RestAnswer wrongMethod(const HttpRequest& request, const QList<QByteArray>& allowed) {
    const QByteArray list = allowed.join(", ") + ", OPTIONS";
    if (request.getMethod() == "OPTIONS")
        return noContent().header("Allow", list);
    return problem(405, QStringLiteral("this path does not take that method")).header("Allow", list);
}

void send(const RestAnswer& answer, HttpResponse& response) {
    response.setStatus(answer.status);
    if (answer.status != 204)
        response.setHeader("Content-Type", contentTypeOf(answer));
    response.setHeader("Cache-Control", "no-store");
    for (auto header = answer.headers.begin(); header != answer.headers.end(); ++header)
        response.setHeader(header.key(), header.value());
    response.write(bodyOf(answer), true);
}

/// The route's path with its values in their places; the new object's for what was created.
QString objectOf(const RestCall& call, const RestAnswer& answer) {
    constexpr int prefix = sizeof "/api/v1" - 1;
    const QByteArray location = answer.headers.value("Location");
    QString path =
        location.isEmpty() ? QString::fromLatin1(call.route().path) : QString::fromUtf8(location.mid(prefix));
    while (path.contains(u'{')) {
        const int from = path.indexOf(u'{');
        const int to = path.indexOf(u'}', from);
        path.replace(from, to - from + 1, call.value(path.mid(from + 1, to - from - 1).toUtf8()));
    }
    return path;
}

void audit(const RestCall& call, const RestAnswer& answer) {
    const QByteArray method = call.route().method;
    if (method == "GET" || !answer.isSuccess())
        return;
    const QString action = QString::fromLatin1(method + ' ' + call.route().path);
    writeAudit(call.database(), {QDateTime::currentMSecsSinceEpoch(), call.caller().account, call.address(),
                                 action, objectOf(call, answer), call.detail()});
}

RestAnswer run(RestCall& call) {
    RestAnswer answer = call.route().handler(call);
    if ((call.route().traits & Renames) && answer.isSuccess())
        call.services().changes->count();
    audit(call, answer);
    return answer;
}

} // namespace

RestRouter::RestRouter(const Services& services, const QStringList& origins, QObject* parent)
    : HttpRequestHandler(parent)
    , m_services(services)
    , m_cors(origins) {}

bool RestRouter::wants(const QByteArray& /*method*/, const QByteArray& path) const {
    return isForIt(path);
}

JobLanes RestRouter::lanes(const HttpRequest& request) const {
    const auto match = RestRoutes::all().find(request.getMethod(), request.getRawPath());
    const unsigned traits = match.route ? match.route->traits : 0;
    const int processors = qMax(1, QThread::idealThreadCount());
    if (traits & Hashes)
        return {{QByteArrayLiteral("passwords"), processors, WaitingHashes}};
    const QByteArray token = bearerOf(request);
    if ((traits & Encodes) && m_services.tokens->wasValid(token)) // others are refused at once
        return {{QByteArrayLiteral("encoding"), processors, WaitingEncodings},
                {"encoding " + token, EncodingsOfToken, WaitingOfToken}};
    return {};
}

bool RestRouter::takesFile(const QByteArray& method, const QByteArray& path) const {
    const auto match = RestRoutes::all().find(method, path);
    return match.route && match.route->takes == Takes::File;
}

// Whether the token holds is asked of the database later, on a worker; here only who was here before is told
// from strangers, whose files share less room.
FileFate RestRouter::fateOfFile(const HttpRequest& head, const QByteArray& field,
                                const QMap<QByteArray, QByteArray>& /*parameters*/) const {
    if (field != "file" || !takesFile(head.getMethod(), head.getRawPath()))
        return FileFate::Ignored;
    const QByteArray token = bearerOf(head);
    if (token.isEmpty())
        return FileFate::Refused;
    return m_services.tokens->wasValid(token) ? FileFate::FromUser : FileFate::FromStranger;
}

RestRouter::Page RestRouter::refusalPage(const QByteArray& /*path*/, const Refusal& refusal) const {
    const RestAnswer answer = problem(refusal.status, QString::fromUtf8(refusal.reason));
    return {contentTypeOf(answer), bodyOf(answer)};
}

void RestRouter::service(HttpRequest& request, HttpResponse& response) {
    send(answer(request), response);
    m_cors.apply(request, response);
}

RestAnswer RestRouter::answer(HttpRequest& request) const {
    const auto match = RestRoutes::all().find(request.getMethod(), request.getRawPath());
    if (!match.route)
        return match.allowed.isEmpty() ? notFound() : wrongMethod(request, match.allowed);
    sqlite* const database = request.database();
    if (!database)
        return unavailable();
    RestCall call(match, request, m_services, *database);
    if (const auto refused = admit(call))
        return *refused;
    if (const auto unreadable = call.readBody())
        return *unreadable;
    if (match.route->takes == Takes::Nothing && !call.fits())
        return call.misfit();
    return serve(call);
}

std::optional<RestAnswer> RestRouter::admit(RestCall& call) const {
    if (call.route().who == Who::Anybody)
        return std::nullopt;
    const TokenCheck check = m_services.tokens->check(call.database(), call.bearer());
    if (!check.isKnown)
        return unavailable();
    if (!check.caller)
        return unauthorized();
    call.setCaller(*check.caller);
    if (call.route().who == Who::Admin && !check.caller->isAdmin)
        return problem(403, QStringLiteral("this is for administrators"));
    return std::nullopt;
}

RestAnswer RestRouter::serve(RestCall& call) const {
    const QByteArray key = call.header("Idempotency-Key");
    const bool isKept =
        !key.isEmpty() && qstrcmp(call.route().method, "POST") == 0 && !(call.route().traits & Secret);
    return isKept ? onceFor(key, call, run) : run(call);
}
