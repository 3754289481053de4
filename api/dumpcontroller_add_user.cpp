#include "api/dumpcontroller_add_user.h"

#include "api/requestmapper.h"
#include "api/routes.h"
#include "core/sql/sqlite.h"
#include "device/severinit.h"
#include "http/httprequest.h"
#include "http/httpresponse.h"
#include "journal/journal.h"
#include "redis/core_corss.h"
#include "service/changecounter.h"
#include "service/speakernodes.h"

#include <optional>

namespace {
const QByteArray unreadableBody = QByteArrayLiteral("{\"res\":\"false\",\"info\":\"uni_error2\"}");
const QByteArray emptyObject = QByteArrayLiteral("{\"res\":\"false\",\"info\":\"uni_error1\"}");

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
        response.write(answer(request.getMethod(), request.getPath(), *params, &request), true);
        response.setDelay(delay(request.getPeerAddress().toString()));
    } else {
        response.write(error);
    }
}

std::optional<Params> DumpController_add_user::parametersOf(const HttpRequest& request, QByteArray& error) {
    if (!isUniApp(request))
        return request.getParameterMap();
    Params params;
    const JsonText body = readParams(request.getBody(), params);
    if (!params.isEmpty())
        return params;
    error = body == JsonText::Unreadable ? unreadableBody : emptyObject;
    return std::nullopt;
}

std::chrono::milliseconds DumpController_add_user::delay(const QString& address) const {
    return m_wrongLogin ? m_mapper->wrongLogins().add(*m_wrongLogin, address) : std::chrono::milliseconds(0);
}

QByteArray DumpController_add_user::refuseLogin(const Call& call, const QString& word) {
    m_wrongLogin = call.text("username");
    return refusal(word);
}

QByteArray DumpController_add_user::answer(const QByteArray& method, const QByteArray& path,
                                           const Params& params, HttpRequest* uploads) {
    Call call(params, *m_mapper, path, uploads);
    QByteArray body;
    if (method == "GET") {
        if (const Route* route = findRoute(getRoutes(), path, db().kind())) {
            body = serve(*route, call);
            if (!route->appendMethod)
                return body;
        }
    }
    if (method != "POST")
        return body + method;
    const Route* route = findRoute(postRoutes(), path, db().kind());
    return route ? serve(*route, call) : fucktext(call);
}

QByteArray DumpController_add_user::serve(const Route& route, Call& call) {
    if (!passes(route.guard, call, db(), *m_devices))
        return call.refused();
    const QByteArray body = (this->*route.handler)(call);
    if ((route.guard.demands & Renames) && m_mapper->changes())
        m_mapper->changes()->count();
    return body;
}

QByteArray DumpController_add_user::dbtest(const Call& /*call*/) {
    return QByteArrayLiteral("dbtest");
}

std::unique_ptr<Core_corss> DumpController_add_user::commands(const Call& call, int alarmOf) const {
    const NodeAddress own{QStringLiteral("127.0.0.1"), m_devices->ps2};
    auto sender = std::make_unique<Core_corss>(own.host, own.port);
    sender->setGate(m_mapper->gate());
    sender->setWhereabouts([this, own](const QStringList& sns) {
        return splitByNode(*m_database, *m_mapper->gate(), own, sns);
    });
    sender->setSilentClip(db().site.silentclip);
    sender->setWarningFetch(db().site.waringfetch);
    if (Journal* const journal = m_mapper->journal()) {
        const bool isAlarm = alarmOf != 0;
        Broadcast play;
        play.kind = isAlarm ? Broadcast::Kind::Alarm : Broadcast::Kind::Direct;
        play.origin.account = isAlarm ? 0 : call.userid();
        play.origin.line = isAlarm ? call.text("pltid") : QString();
        play.origin.path = call.path();
        play.owner = isAlarm ? alarmOf : call.userid();
        sender->setOrders([journal, play](const QString& url) mutable {
            play.name = url.section(QLatin1Char('/'), -1);
            return journal->begin(play);
        });
    }
    return sender;
}
