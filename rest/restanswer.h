#pragma once

#include <chrono>
#include <QByteArray>
#include <QJsonObject>
#include <QMap>
#include <QString>
#include <vector>

/// What a handler answers.
struct RestAnswer {
    int status = 200;
    QJsonObject json;
    QByteArray bytes; ///< instead of `json` when `contentType` is not empty
    QByteArray contentType;
    QMap<QByteArray, QByteArray> headers;

    bool isSuccess() const { return status < 300; }
    RestAnswer& header(const QByteArray& name, const QByteArray& value);
};

/// One thing that is wrong with a body (a JSON pointer) or with the query ("?name").
struct FieldError {
    QString pointer;
    QString detail;
};
using FieldErrors = std::vector<FieldError>;

RestAnswer ok(const QJsonObject& object);
/// 201; `path` is below /api/v1, "/groups/7".
RestAnswer created(const QString& path, const QJsonObject& object);
RestAnswer accepted(const QJsonObject& object = {}); ///< 202: it goes on after the answer
RestAnswer noContent();                              ///< 204
RestAnswer bytesAnswer(const QByteArray& contentType, const QByteArray& bytes);

/// application/problem+json (RFC 9457).
RestAnswer problem(int status, const QString& detail, const FieldErrors& errors = {});
/// 404, also for what the caller may not see.
RestAnswer notFound();
/// 503: the database does not answer. What it said itself is in the log alone.
RestAnswer unavailable();
/// 429 or 503 with the seconds after which to try again.
RestAnswer later(int status, const QString& detail, std::chrono::seconds retryAfter);

/// The whole body as it is sent.
QByteArray bodyOf(const RestAnswer& answer);
QByteArray contentTypeOf(const RestAnswer& answer);
