// What this service is and offers, so that a client shows what there is and nothing else.
#include "rest/resources.h"
#include "rest/restcall.h"

#include <QJsonArray>
#include <set>

namespace {

QJsonArray offeredPaths() {
    std::set<QString> paths;
    for (const RestRoute& route : RestRoutes::all().rows())
        paths.insert(QString::fromLatin1(route.path));
    QJsonArray list;
    for (const QString& path : paths)
        list.append(path);
    return list;
}

RestAnswer getAbout(RestCall& call) {
    if (!call.fits())
        return call.misfit();
    const int port = call.services().webSocketPort;
    return ok({{QStringLiteral("version"), QStringLiteral(SPEAKERD_VERSION)},
               {QStringLiteral("websocket"), port > 0 ? QJsonValue(port) : QJsonValue()},
               {QStringLiteral("paths"), offeredPaths()}});
}

} // namespace

void addServiceRoutes(RestRoutes& routes) {
    routes.add({{"GET", "/about", getAbout}});
}
