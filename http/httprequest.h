#pragma once

#include <map>
#include <memory>
#include <QByteArray>
#include <QHostAddress>
#include <QMap>
#include <QMultiMap>
#include <QTemporaryFile>

class sqlite;

/// One parsed request. Owned by the connection, lent to the handler for the time of service().
class HttpRequest {
public:
    HttpRequest();
    ~HttpRequest();
    HttpRequest(const HttpRequest&) = delete;
    HttpRequest& operator=(const HttpRequest&) = delete;

    QByteArray getMethod() const { return m_method; }
    QByteArray getPath() const { return m_path; }       ///< percent-decoded, without the query
    QByteArray getRawPath() const { return m_rawPath; } ///< as received
    QByteArray getVersion() const { return m_version; }
    /// Header by name, case-insensitive; empty when absent, the last one when repeated.
    QByteArray getHeader(const QByteArray& name) const;
    QMultiMap<QByteArray, QByteArray> getHeaderMap() const { return m_headers; } ///< names as received
    /// Query string and form fields (URL-encoded and multipart), decoded; the last value wins.
    QByteArray getParameter(const QByteArray& name) const { return m_parameters.value(name); }
    QMap<QByteArray, QByteArray> getParameterMap() const { return m_parameters; }
    /// The body of a request that is not a form; at most `maxRequestSize` bytes.
    QByteArray getBody() const { return m_body; }
    QByteArray getCookie(const QByteArray& name) const { return m_cookies.value(name); }
    QHostAddress getPeerAddress() const { return m_peer; }
    /// Uploaded file of a multipart field, streamed to disk as it arrived, positioned at its start;
    /// null when there is none. Lives as long as the request.
    QTemporaryFile* getUploadedFile(const QByteArray& fieldName) const;
    /// File name the client gave for that field, as sent: never use it as a path.
    QByteArray getUploadedFileName(const QByteArray& fieldName) const;

    /// The serving worker's own database object; null when the listener carries none.
    sqlite* database() const { return m_database; }

private:
    friend class HttpConnection;
    QByteArray m_method, m_path, m_rawPath, m_version, m_body;
    QMultiMap<QByteArray, QByteArray> m_headers;
    QMap<QByteArray, QByteArray> m_parameters;
    QMap<QByteArray, QByteArray> m_cookies;
    struct Upload {
        QByteArray fileName;
        std::unique_ptr<QTemporaryFile> file;
    };
    std::map<QByteArray, Upload> m_uploads;
    QHostAddress m_peer;
    sqlite* m_database = nullptr;
};
