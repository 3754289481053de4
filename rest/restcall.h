#pragma once

#include "rest/fields.h"
#include "rest/page.h"
#include "rest/query.h"
#include "rest/restroutes.h"
#include "rest/services.h"
#include "service/caller.h"

class HttpRequest;
class QTemporaryFile;

/// The token of "Authorization: Bearer TOKEN"; empty without one.
QByteArray bearerOf(const HttpRequest& request);

/// One request to a route: who asks for what. Made by the router once the caller may use the route and the
/// body can be read; belongs to the worker that serves it.
class RestCall {
public:
    RestCall(const RestRoutes::Match& match, HttpRequest& request, const Services& services,
             sqlite& database);

    const RestRoute& route() const { return *m_match.route; }
    const Caller& caller() const { return m_caller; }
    void setCaller(const Caller& caller) { m_caller = caller; }
    QString address() const;                        ///< the client's, as a text
    sqlite& database() const { return m_database; } ///< the worker's own
    const Services& services() const { return m_services; }

    /// A "{name}" part of the path.
    QString value(const char* name) const { return m_match.values.value(name); }
    /// The same as an object's number; 0, which no object has, when it is none.
    qint64 id(const char* name = "id") const;

    /// The body, for Takes::Object. Once a handler has read what it knows, it asks fits().
    const Fields& body() const { return *m_body; }
    const Query& query() const { return m_query; }
    Page page() const; ///< for routes that are Paged
    /// Notes what is wrong although each value by itself is fit.
    void refuse(const QString& pointer, const QString& detail) { m_errors.push_back({pointer, detail}); }
    /// Whether body and query are as they must be: nothing wrong, nothing that was not asked for.
    bool fits();
    RestAnswer misfit() const; ///< 422 with what is wrong

    QByteArray bytes() const;     ///< the body as received
    QTemporaryFile* file() const; ///< for Takes::File: at its start; null without one
    QByteArray header(const char* name) const;
    QByteArray bearer() const; ///< the token that came with the request; may be empty

    /// What the audit line tells beside who, when and what; no secrets.
    void note(const QString& detail) { m_detail = detail; }
    QString detail() const { return m_detail; }

    /// The router's: reads the body as its route takes it. The refusal, when it can't be read.
    std::optional<RestAnswer> readBody();
    /// SHA-256 of method, path, query and body.
    QByteArray fingerprint() const;

private:
    std::optional<RestAnswer> readObject();
    QByteArray mediaType() const;

    const RestRoutes::Match& m_match;
    HttpRequest& m_request;
    const Services& m_services;
    sqlite& m_database;
    Caller m_caller;
    mutable FieldErrors m_errors;
    Query m_query;
    std::optional<Fields> m_body;
    QString m_detail;
    bool m_isChecked = false;
};
