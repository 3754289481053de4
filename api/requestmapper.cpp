#include "api/requestmapper.h"

#include "api/dumpcontroller_add_user.h"
#include "api/examplecontrollers.h"
#include "api/plankeys.h"
#include "api/routes.h"
#include "core/sql/sqlite.h"
#include "http/httprequest.h"
#include "http/httpresponse.h"
#include "service/filestore.h"
#include "service/lanes.h"
#include "service/passwords.h"

#include <algorithm>
#include <array>
#include <QDebug>

namespace {
enum class Controller { None, Dump, Template, Management };

struct Prefix {
    const char* path;
    Controller controller;
};

/// What is not a file of the document root, tested from top to bottom; the first match wins.
constexpr std::array prefixes{
    Prefix{"/dump", Controller::Dump},
    Prefix{"/template", Controller::Template},
    Prefix{"/user", Controller::Management},
    Prefix{"/get_user_infoh.php", Controller::Management},
    Prefix{"/get_devicelistweb.php", Controller::Management},
    Prefix{"/get_user_infokvt.php", Controller::Management},
    Prefix{"/get_user_info.php", Controller::Management},
    Prefix{"/get_user_node.php", Controller::Management},
    Prefix{"/checkuser.php", Controller::Management},
    Prefix{"/add_user_devices_cross.php", Controller::Management},
    Prefix{"/Startwaringtask.php", Controller::Management},
};

Controller controllerFor(const QByteArray& path) {
    const auto* found = std::find_if(prefixes.begin(), prefixes.end(),
                                     [&](const Prefix& prefix) { return path.startsWith(prefix.path); });
    return found == prefixes.end() ? Controller::None : found->controller;
}

/// Which of these a path's row demands.
unsigned demandsOf(const QByteArray& path, int kind, unsigned which) {
    const Route* route = findRoute(postRoutes(), path, kind);
    return route ? route->guard.demands & which : 0;
}
} // namespace

RequestMapper::RequestMapper(QCoreApplication* /*application*/, int /*RDDATAPORT*/,
                             const QString& /*mediaAddress*/, sqlite* database, Severinit* devices,
                             Task_workque* tasks, QObject* parent)
    : HttpRequestHandler(parent)
    , m_database(database)
    , m_devices(devices)
    , m_tasks(tasks)
    , m_planKeys(database->site.tokenpaths ? std::make_unique<PlanKeys>(database->site.waringdir) : nullptr)
    , m_onlineList(devices)
    , m_ownPasswords(std::make_unique<Passwords>(false))
    , m_passwords(m_ownPasswords.get()) {
    FileStore::removeLeftovers(database->site.runingdir);
    loadTokens(*database);
    qDebug("RequestMapper: created");
}

RequestMapper::~RequestMapper() {
    qDebug("RequestMapper: deleted");
}

bool RequestMapper::wants(const QByteArray& /*method*/, const QByteArray& path) const {
    return controllerFor(path) != Controller::None;
}

JobLanes RequestMapper::lanes(const HttpRequest& request) const {
    if (request.getMethod() != "POST" ||
        !demandsOf(request.getPath(), m_database->kind(), Encodes | RunsQuery))
        return {};
    QByteArray error;
    const auto parameters = DumpController_add_user::parametersOf(request, error);
    return parameters ? lanes(request.getPath(), *parameters) : JobLanes();
}

JobLanes RequestMapper::lanes(const QByteArray& path, const Params& parameters) const {
    const unsigned work = demandsOf(path, m_database->kind(), Encodes | RunsQuery);
    if (work == RunsQuery)
        return queryLanes();
    Call call(parameters, *this);
    if (work != Encodes || !call.authenticate())
        return {}; // refused at once
    return encodingLanes(call.userid());
}

FileFate RequestMapper::fateOfFile(const HttpRequest& head, const QByteArray& field,
                                   const QMap<QByteArray, QByteArray>& parameters) const {
    const QByteArray path = head.getPath();
    if (field != "file" || controllerFor(path) != Controller::Management ||
        !demandsOf(path, m_database->kind(), WithFile))
        return FileFate::Ignored;
    Call call(parameters, *this);
    if (!call.has("id") || !call.has("token"))
        return FileFate::FromStranger;
    return call.authenticate() ? FileFate::FromUser : FileFate::Refused;
}

void RequestMapper::service(HttpRequest& request, HttpResponse& response) {
    switch (controllerFor(request.getPath())) {
    case Controller::Dump:
        DumpController().service(request, response);
        break;
    case Controller::Template:
        TemplateController(m_templates).service(request, response);
        break;
    case Controller::Management: {
        sqlite* database = request.database() ? request.database() : m_database;
        DumpController_add_user(database, m_tasks, m_devices, this).service(request, response);
        break;
    }
    case Controller::None:
        response.setStatus(404);
        response.write(QByteArrayLiteral("404"), true);
    }
}

RequestMapper::Answer RequestMapper::post(const QByteArray& path,
                                          const QMap<QByteArray, QByteArray>& parameters,
                                          const QString& address, sqlite* database) {
    if (controllerFor(path) != Controller::Management)
        return {refusal(QStringLiteral("path_error"))};
    DumpController_add_user controller(database, m_tasks, m_devices, this);
    Answer answer{controller.answer(QByteArrayLiteral("POST"), path, parameters)};
    answer.delay = controller.delay(address);
    return answer;
}

void RequestMapper::setAccounts(TokenTable* tokens, Passwords* passwords, Tokens* newTokens) {
    m_tokens = tokens;
    m_passwords = passwords;
    m_newTokens = newTokens;
    loadTokens(*m_database);
}
