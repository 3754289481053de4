#include "rest/restcall.h"

#include "http/httprequest.h"

#include <QCryptographicHash>
#include <QJsonDocument>
#include <QTemporaryFile>

namespace {

QList<QByteArray> knownParameters(const RestRoute& route) {
    QList<QByteArray> known = route.query;
    if (route.traits & Paged)
        known << "limit"
              << "cursor";
    if (route.traits & TokenInQuery)
        known << "token";
    return known;
}

constexpr qint64 MaxId = (qint64{1} << 53) - 1; ///< of a broadcast

} // namespace

QByteArray bearerOf(const HttpRequest& request) {
    constexpr char scheme[] = "bearer ";
    const QByteArray given = request.getHeader("Authorization");
    return given.left(sizeof scheme - 1).toLower() == scheme ? given.mid(sizeof scheme - 1).trimmed()
                                                             : QByteArray();
}

RestCall::RestCall(const RestRoutes::Match& match, HttpRequest& request, const Services& services,
                   sqlite& database)
    : m_match(match)
    , m_request(request)
    , m_services(services)
    , m_database(database)
    , m_query(request.getParameterMap(), m_errors) {
    m_query.refuseUnknown(knownParameters(route()));
}

QString RestCall::address() const {
    return m_request.getPeerAddress().toString();
}

qint64 RestCall::id(const char* name) const {
    bool isNumber = false;
    const qint64 number = value(name).toLongLong(&isNumber);
    return isNumber && number > 0 && number <= MaxId ? number : 0;
}

Page RestCall::page() const {
    Page page;
    page.limit = static_cast<int>(m_query.integer("limit", 1, Page::MaxLimit).value_or(Page::DefaultLimit));
    const auto cursor = m_query.text("cursor", 1000);
    const auto key = cursor ? keyOf(*cursor) : std::nullopt;
    if (cursor && !key)
        m_query.refuse("cursor", QStringLiteral("is not one that was given"));
    page.after = key.value_or(QString());
    return page;
}

bool RestCall::fits() {
    if (m_body && !m_isChecked)
        m_body->refuseUnknown();
    m_isChecked = true;
    return m_errors.empty();
}

RestAnswer RestCall::misfit() const {
    return problem(422, QStringLiteral("some values do not fit"), m_errors);
}

QByteArray RestCall::bytes() const {
    return m_request.getBody();
}

QTemporaryFile* RestCall::file() const {
    return m_request.getUploadedFile("file");
}

QByteArray RestCall::header(const char* name) const {
    return m_request.getHeader(name);
}

QByteArray RestCall::bearer() const {
    const QByteArray token = bearerOf(m_request);
    return token.isEmpty() && (route().traits & TokenInQuery) ? m_request.getParameter("token") : token;
}

QByteArray RestCall::mediaType() const {
    return header("Content-Type").split(';').first().trimmed().toLower();
}

std::optional<RestAnswer> RestCall::readBody() {
    switch (route().takes) {
    case Takes::Nothing:
        return bytes().trimmed().isEmpty() ? std::nullopt : readObject();
    case Takes::Object:
        return readObject();
    case Takes::Calendar:
        if (mediaType() != "text/calendar")
            return problem(415, QStringLiteral("the body must be text/calendar"));
        break;
    case Takes::File:
        break;
    }
    return std::nullopt;
}

std::optional<RestAnswer> RestCall::readObject() {
    const QByteArray type = mediaType();
    if (!type.isEmpty() && type != "application/json" && type != "application/merge-patch+json")
        return problem(415, QStringLiteral("the body must be application/json"));
    QJsonParseError error{};
    const QJsonDocument document = QJsonDocument::fromJson(bytes(), &error);
    if (error.error != QJsonParseError::NoError)
        return problem(
            400,
            QStringLiteral("the body is no JSON: %1 at byte %2").arg(error.errorString()).arg(error.offset));
    if (!document.isObject())
        return problem(422, QStringLiteral("the body must be an object"),
                       {{QString(), QStringLiteral("must be an object")}});
    m_body.emplace(document.object(), m_errors);
    return std::nullopt;
}

QByteArray RestCall::fingerprint() const {
    QCryptographicHash hash(QCryptographicHash::Sha256);
    const auto add = [&hash](const QByteArray& part) {
        hash.addData(QByteArray::number(part.size()) + ' ' + part);
    };
    add(m_request.getMethod());
    add(m_request.getRawPath());
    const auto parameters = m_request.getParameterMap();
    for (auto parameter = parameters.begin(); parameter != parameters.end(); ++parameter) {
        add(parameter.key());
        add(parameter.value());
    }
    add(bytes());
    if (QTemporaryFile* upload = file()) {
        hash.addData(upload);
        upload->seek(0);
    }
    return hash.result().toHex();
}
