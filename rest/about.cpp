// What the interface tells about itself.
#include "rest/resources.h"
#include "rest/restcall.h"

#include <QFile>

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

} // namespace

void addAboutRoutes(RestRoutes& routes) {
    routes.add({{"GET", "/openapi.json", getDocument, Who::Anybody}});
}
