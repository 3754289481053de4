#pragma once

#include <chrono>
#include <QByteArray>
#include <QList>
#include <QMap>

/// What a handler answers; sent when service() returns. Owned by the connection.
class HttpResponse {
public:
    HttpResponse() = default;
    ~HttpResponse();
    HttpResponse(const HttpResponse&) = delete;
    HttpResponse& operator=(const HttpResponse&) = delete;

    /// 200 to 599; the standard phrase goes with it on the wire, whatever `text` says.
    void setStatus(int code, const QByteArray& text = {});
    int getStatusCode() const { return m_status; }
    /// Replaces the header of that name. A name or value that would break out of its line is refused
    /// (the header is dropped and logged). Lengths, Date and Connection are the listener's.
    void setHeader(const QByteArray& name, const QByteArray& value);
    void setHeader(const QByteArray& name, int value);
    const QMap<QByteArray, QByteArray>& getHeaders() const { return m_headers; }
    /// `maxAge` in seconds; 0 keeps the cookie until the browser is closed.
    void setCookie(const QByteArray& name, const QByteArray& value, int maxAge = 0);
    /// 303 to another place.
    void redirect(const QByteArray& url);
    /// Appends to the body. Nothing is appended after the last part.
    void write(const QByteArray& data, bool lastPart = false);
    const QByteArray& body() const { return m_body; }
    bool hasSentLastPart() const { return m_lastPart; }

    /// Sends the answer so much later than service() returns; no worker waits meanwhile.
    void setDelay(std::chrono::milliseconds delay) { m_delay = delay; }

    /// Sends `length` bytes of an open file from `offset` on, instead of the body; takes the descriptor.
    /// `head` goes before them.
    void setFile(int descriptor, qint64 offset, qint64 length, const QByteArray& head = {});

private:
    friend class HttpConnection;
    struct File {
        int descriptor = -1;
        qint64 offset = 0;
        qint64 length = 0;
        QByteArray head;
    };
    int m_status = 200;
    QMap<QByteArray, QByteArray> m_headers;
    QList<QByteArray> m_cookies;
    QByteArray m_body;
    File m_file;
    bool m_lastPart = false;
    std::chrono::milliseconds m_delay{0};
};
