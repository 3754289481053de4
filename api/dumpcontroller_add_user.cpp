#include "api/dumpcontroller_add_user.h"

#include "api/requestmapper.h"
#include "api/routes.h"
#include "api/speakernodes.h"
#include "core/sql/sqlite.h"
#include "device/severinit.h"
#include "http/httprequest.h"
#include "http/httpresponse.h"
#include "redis/core_corss.h"

#include <optional>
#include <QJsonDocument>

namespace {
const QByteArray unreadableBody = QByteArrayLiteral("{\"res\":\"false\",\"info\":\"uni_error2\"}");
const QByteArray emptyObject = QByteArrayLiteral("{\"res\":\"false\",\"info\":\"uni_error1\"}");

/// Parameters of a uni-app request, whose body is one JSON object. Every value must be a JSON string;
/// another type counts as the empty text. On failure `error` is the reply.
std::optional<Params> uniAppParameters(const QByteArray& body, QByteArray& error) {
    QJsonParseError parseError{};
    const QJsonDocument document = QJsonDocument::fromJson(body, &parseError);
    if (parseError.error != QJsonParseError::NoError) {
        error = unreadableBody;
        return std::nullopt;
    }
    Params params;
    const QJsonObject object = document.object();
    for (auto entry = object.begin(); entry != object.end(); ++entry)
        params.insert(entry.key().toLocal8Bit(), entry.value().toString().toLocal8Bit());
    if (params.isEmpty()) {
        error = emptyObject;
        return std::nullopt;
    }
    return params;
}

bool isUniApp(const HttpRequest& request) {
    return request.getHeader(QByteArrayLiteral("from-header")) == "uniapp";
}
} // namespace

DumpController_add_user::DumpController_add_user(sqlite* database, Task_workque* tasks, Severinit* devices,
                                                 RequestMapper* mapper)
    : m_database(database)
    , m_tasks(tasks)
    , m_devices(devices)
    , m_mapper(mapper) {}

void DumpController_add_user::service(HttpRequest& request, HttpResponse& response) {
    response.setHeader("Content-Type", "application/json");
    response.setHeader("Access-Control-Allow-Origin", "*");
    QByteArray error;
    if (const std::optional<Params> params = parametersOf(request, error)) {
        response.write(answer(request.getMethod(), request.getPath(), *params, request), true);
        response.setDelay(delay(request.getPeerAddress().toString()));
    } else {
        response.write(error);
    }
}

std::optional<Params> DumpController_add_user::parametersOf(const HttpRequest& request, QByteArray& error) {
    if (isUniApp(request))
        return uniAppParameters(request.getBody(), error);
    return request.getParameterMap();
}

std::chrono::milliseconds DumpController_add_user::delay(const QString& address) const {
    return m_wrongLogin ? m_mapper->wrongLogins().add(*m_wrongLogin, address) : std::chrono::milliseconds(0);
}

QByteArray DumpController_add_user::refuseLogin(const Call& call, const QString& word) {
    m_wrongLogin = call.text("username");
    return refusal(word);
}

QByteArray DumpController_add_user::answer(const QByteArray& method, const QByteArray& path,
                                           const Params& params, HttpRequest& uploads) {
    QByteArray body;
    if (method == "GET") {
        if (const Route* route = findRoute(getRoutes(), path)) {
            body = call(*route, path, params, uploads);
            if (!route->appendMethod)
                return body;
        }
    }
    if (method != "POST")
        return body + method;
    const Route* route = findRoute(postRoutes(), path);
    return route ? call(*route, path, params, uploads) : fucktext(params);
}

QByteArray DumpController_add_user::call(const Route& route, const QByteArray& path, const Params& params,
                                         HttpRequest& uploads) {
    const Handler& handler = handlerFor(route, db().kind());
    if (const auto* endpoint = std::get_if<Endpoint>(&handler))
        return (this->**endpoint)(params);
    if (const auto* endpoint = std::get_if<UploadEndpoint>(&handler))
        return (this->**endpoint)(params, uploads);
    if (const auto* endpoint = std::get_if<PathEndpoint>(&handler))
        return (this->**endpoint)(params, QString::fromUtf8(path));
    const auto* fixedBody = std::get_if<const char*>(&handler);
    return fixedBody ? QByteArray(*fixedBody) : QByteArray();
}

std::unique_ptr<Core_corss> DumpController_add_user::commands() const {
    const NodeAddress own{QStringLiteral("127.0.0.1"), m_devices->ps2};
    auto sender = std::make_unique<Core_corss>(own.host, own.port);
    sender->setGate(m_mapper->gate());
    sender->setWhereabouts([this, own](const QStringList& sns) {
        return splitByNode(*m_database, *m_mapper->gate(), own, sns);
    });
    sender->setSilentClip(db().site.silentclip);
    sender->setWarningFetch(db().site.waringfetch);
    return sender;
}
