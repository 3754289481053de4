#include "rest/restanswer.h"

#include <QJsonArray>
#include <QJsonDocument>

namespace {

constexpr std::chrono::seconds DatabasePause{5}; ///< a lost server is rarely back sooner

QString titleOf(int status) {
    switch (status) {
    case 400:
        return QStringLiteral("Bad request");
    case 401:
        return QStringLiteral("No valid token");
    case 403:
        return QStringLiteral("Not allowed");
    case 404:
        return QStringLiteral("Not found");
    case 405:
        return QStringLiteral("Method not allowed");
    case 409:
        return QStringLiteral("Conflict");
    case 413:
        return QStringLiteral("Too large");
    case 415:
        return QStringLiteral("Unsupported media type");
    case 422:
        return QStringLiteral("Unfit values");
    case 429:
        return QStringLiteral("Too many requests");
    case 503:
        return QStringLiteral("Not available now");
    default:
        return QStringLiteral("Refused");
    }
}

RestAnswer withObject(int status, const QJsonObject& object) {
    RestAnswer answer;
    answer.status = status;
    answer.json = object;
    return answer;
}

} // namespace

RestAnswer& RestAnswer::header(const QByteArray& name, const QByteArray& value) {
    headers.insert(name, value);
    return *this;
}

RestAnswer ok(const QJsonObject& object) {
    return withObject(200, object);
}

RestAnswer created(const QString& path, const QJsonObject& object) {
    return withObject(201, object).header("Location", "/api/v1" + path.toUtf8());
}

RestAnswer accepted(const QJsonObject& object) {
    return withObject(202, object);
}

RestAnswer noContent() {
    return withObject(204, {});
}

RestAnswer bytesAnswer(const QByteArray& contentType, const QByteArray& bytes) {
    RestAnswer answer;
    answer.contentType = contentType;
    answer.bytes = bytes;
    return answer;
}

RestAnswer problem(int status, const QString& detail, const FieldErrors& errors) {
    QJsonObject object{{QStringLiteral("status"), status},
                       {QStringLiteral("title"), titleOf(status)},
                       {QStringLiteral("detail"), detail}};
    if (!errors.empty()) {
        QJsonArray list;
        for (const FieldError& error : errors)
            list.append(QJsonObject{{QStringLiteral("pointer"), error.pointer},
                                    {QStringLiteral("detail"), error.detail}});
        object.insert(QStringLiteral("errors"), list);
    }
    return withObject(status, object);
}

RestAnswer notFound() {
    return problem(404, QStringLiteral("there is nothing of that name, or it is not yours to see"));
}

RestAnswer unavailable() {
    return later(503, QStringLiteral("the database does not answer"), DatabasePause);
}

RestAnswer later(int status, const QString& detail, std::chrono::seconds retryAfter) {
    return problem(status, detail).header("Retry-After", QByteArray::number(qint64(retryAfter.count())));
}

QByteArray bodyOf(const RestAnswer& answer) {
    if (answer.status == 204 || !answer.contentType.isEmpty())
        return answer.bytes;
    return QJsonDocument(answer.json).toJson(QJsonDocument::Compact);
}

QByteArray contentTypeOf(const RestAnswer& answer) {
    if (!answer.contentType.isEmpty())
        return answer.contentType;
    return answer.isSuccess() ? "application/json" : "application/problem+json";
}
