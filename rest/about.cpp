// What the interface tells about itself.
#include "rest/resources.h"
#include "rest/restcall.h"

#include <QFile>
#include <QJsonArray>
#include <set>

/// Outside any namespace, as the macro asks.
static void registerResources() {
    Q_INIT_RESOURCE(openapi);
}

namespace {

RestAnswer getDocument(RestCall& /*call*/) {
    static const QByteArray document = [] {
        registerResources();
        QFile file(QStringLiteral(":/rest/openapi.json"));
        return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
    }();
    return bytesAnswer("application/json", document);
}

QJsonArray offeredPaths() {
    std::set<QString> paths;
    for (const RestRoute& route : RestRoutes::all().rows())
        paths.insert(QString::fromLatin1(route.path));
    QJsonArray list;
    for (const QString& path : paths)
        list.append(path);
    return list;
}

/// So that a client shows what there is, and nothing else.
RestAnswer getAbout(RestCall& call) {
    if (!call.fits())
        return call.misfit();
    const int port = call.services().webSocketPort;
    return ok({{QStringLiteral("version"), QStringLiteral(SPEAKERD_VERSION)},
               {QStringLiteral("websocket"), port > 0 ? QJsonValue(port) : QJsonValue()},
               {QStringLiteral("paths"), offeredPaths()}});
}

} // namespace

void addAboutRoutes(RestRoutes& routes) {
    routes.add({
        {"GET", "/about", getAbout},
        {"GET", "/openapi.json", getDocument, Who::Anybody},
    });
}
