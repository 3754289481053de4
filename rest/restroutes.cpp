#include "rest/restroutes.h"

#include "rest/resources.h"

#include <algorithm>
#include <QUrl>

namespace {

constexpr char Prefix[] = "/api/v1";

bool isParameter(const QByteArray& part) {
    return part.startsWith('{');
}

QString decoded(const QByteArray& part) {
    return QUrl::fromPercentEncoding(part);
}

/// The values of the "{name}" parts, when the path is of this pattern.
std::optional<QMap<QByteArray, QString>> match(const QByteArray& pattern, const QList<QByteArray>& parts) {
    const QList<QByteArray> wanted = pattern.split('/');
    if (wanted.size() != parts.size())
        return std::nullopt;
    QMap<QByteArray, QString> values;
    for (int at = 0; at < parts.size(); ++at) {
        if (isParameter(wanted.at(at)))
            values.insert(wanted.at(at).mid(1, wanted.at(at).size() - 2), decoded(parts.at(at)));
        else if (wanted.at(at) != parts.at(at))
            return std::nullopt;
    }
    return values;
}

} // namespace

const RestRoutes& RestRoutes::all() {
    static const RestRoutes table = [] {
        RestRoutes routes;
        addResources(routes);
        return routes;
    }();
    return table;
}

void RestRoutes::add(std::initializer_list<RestRoute> routes) {
    m_routes.insert(m_routes.end(), routes.begin(), routes.end());
}

RestRoutes::Match RestRoutes::find(const QByteArray& method, const QByteArray& rawPath) const {
    Match result;
    if (!rawPath.startsWith(Prefix))
        return result;
    const QList<QByteArray> parts = rawPath.mid(sizeof Prefix - 1).split('/');
    const QByteArray wanted = method == "HEAD" ? QByteArrayLiteral("GET") : method;
    int fewest = std::numeric_limits<int>::max(); // "{name}" parts of what is found
    for (const RestRoute& route : m_routes) {
        const auto values = match(route.path, parts);
        if (!values || values->size() > fewest)
            continue;
        if (values->size() < fewest)
            result = {};
        fewest = values->size();
        result.allowed.append(route.method);
        if (wanted == route.method) {
            result.route = &route;
            result.values = *values;
        }
    }
    if (result.allowed.contains("GET"))
        result.allowed.append("HEAD");
    return result;
}
