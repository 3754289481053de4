#pragma once

#include "rest/restanswer.h"

#include <optional>
#include <QByteArray>
#include <QMap>
#include <QStringList>

/// Reads the parameters of a query and notes what is wrong with them, as "?name". A parameter that is
/// missing or wrong gives nullopt.
class Query {
public:
    Query(QMap<QByteArray, QByteArray> parameters, FieldErrors& errors)
        : m_parameters(std::move(parameters))
        , m_errors(errors) {}

    std::optional<QString> text(const char* name, int longest = 200) const;
    std::optional<qint64> integer(const char* name, qint64 least, qint64 most) const;
    std::optional<qint64> id(const char* name) const; ///< an object's number
    std::optional<QString> word(const char* name, const QStringList& words) const;
    std::optional<qint64> time(const char* name) const; ///< RFC 3339; ms since 1970
    void refuse(const char* name, const QString& detail) const;
    /// Notes the parameters that are none of `known`.
    void refuseUnknown(const QList<QByteArray>& known) const;

private:
    std::optional<QString> given(const char* name) const;
    QMap<QByteArray, QByteArray> m_parameters;
    FieldErrors& m_errors;
};
