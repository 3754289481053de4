#pragma once

#include <QByteArray>
#include <QMap>

/// What a handler answers; sent when service() returns. Owned by the connection.
class HttpResponse {
public:
    void setStatus(int code, const QByteArray& text = {});
    int getStatusCode() const { return m_status; }
    /// Replaces the header of that name. CR and LF in a value are refused (the header is dropped and logged).
    void setHeader(const QByteArray& name, const QByteArray& value);
    void setHeader(const QByteArray& name, int value);
    const QMap<QByteArray, QByteArray>& getHeaders() const { return m_headers; }
    void setCookie(const QByteArray& name, const QByteArray& value, int maxAge = 0);
    void redirect(const QByteArray& url);
    /// Appends to the body.
    void write(const QByteArray& data, bool lastPart = false);
    const QByteArray& body() const { return m_body; }
    bool hasSentLastPart() const { return m_lastPart; }

private:
    friend class HttpConnection;
    int m_status = 200;
    QByteArray m_statusText;
    QMap<QByteArray, QByteArray> m_headers;
    QList<QByteArray> m_cookies;
    QByteArray m_body;
    bool m_lastPart = false;
};
