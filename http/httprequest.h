#pragma once

#include "http/requestbody.h"

#include <memory>
#include <QByteArray>
#include <QHostAddress>
#include <QMap>
#include <QMultiMap>

class QTemporaryFile;
class sqlite;
class WorkerDatabase;

/// One parsed request. Owned by the connection, lent to the handler for the time of service().
class HttpRequest {
public:
    HttpRequest();
    ~HttpRequest();
    HttpRequest(const HttpRequest&) = delete;
    HttpRequest& operator=(const HttpRequest&) = delete;

    QByteArray getMethod() const { return m_method; }
    QByteArray getPath() const { return m_path; } ///< percent-decoded, without the query; begins with "/"
    QByteArray getRawPath() const { return m_rawPath; } ///< as received
    QByteArray getVersion() const { return m_version; }
    /// Header by name, case-insensitive; empty when absent, the last one when repeated.
    QByteArray getHeader(const QByteArray& name) const;
    QMultiMap<QByteArray, QByteArray> getHeaderMap() const { return m_headers; } ///< names as received
    /// Query string and form fields (URL-encoded and multipart), decoded; the last value wins.
    QByteArray getParameter(const QByteArray& name) const { return m_parameters.value(name); }
    QMap<QByteArray, QByteArray> getParameterMap() const { return m_parameters; }
    /// The body as received, unless it was multipart; at most `maxRequestSize` bytes.
    QByteArray getBody() const { return m_body.bytes; }
    QByteArray getCookie(const QByteArray& name) const;
    QHostAddress getPeerAddress() const { return m_peer; }
    /// Uploaded file of a multipart field, streamed to disk as it arrived, positioned at its start;
    /// null when there is none. Lives as long as the request.
    QTemporaryFile* getUploadedFile(const QByteArray& fieldName) const;
    /// File name the client gave for that field, as sent: never use it as a path.
    QByteArray getUploadedFileName(const QByteArray& fieldName) const;

    /// The serving worker's own database object, made at its first use; null when the listener
    /// carries none, and outside a worker.
    sqlite* database() const;

private:
    friend class HttpConnection;
    QByteArray m_method, m_path, m_rawPath, m_version;
    QMultiMap<QByteArray, QByteArray> m_headers;
    QMap<QByteArray, QByteArray> m_parameters;
    RequestBody m_body;
    QHostAddress m_peer;
    WorkerDatabase* m_database = nullptr;
};
