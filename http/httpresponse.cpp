#include "http/httpresponse.h"

#include <algorithm>
#include <QDebug>
#include <unistd.h>

namespace {

bool fitsOneLine(const QByteArray& text) {
    return std::none_of(text.begin(), text.end(), [](char c) {
        return (static_cast<unsigned char>(c) < 0x20 && c != '\t') || c == 0x7f;
    });
}

bool isName(const QByteArray& name) {
    return !name.isEmpty() && fitsOneLine(name) && !name.contains(':') && !name.contains(' ');
}

} // namespace

HttpResponse::~HttpResponse() {
    if (m_file.descriptor >= 0)
        ::close(m_file.descriptor);
}

void HttpResponse::setStatus(int code, const QByteArray& text) {
    Q_UNUSED(text)
    m_status = std::clamp(code, 200, 599);
}

void HttpResponse::setHeader(const QByteArray& name, const QByteArray& value) {
    if (!isName(name) || !fitsOneLine(value)) {
        qWarning() << "HttpResponse: header refused, it would break its line:" << name.left(64);
        return;
    }
    m_headers.insert(name, value);
}

void HttpResponse::setHeader(const QByteArray& name, int value) {
    setHeader(name, QByteArray::number(value));
}

void HttpResponse::setCookie(const QByteArray& name, const QByteArray& value, int maxAge) {
    if (!isName(name) || !fitsOneLine(value) || value.contains(';')) {
        qWarning() << "HttpResponse: cookie refused:" << name.left(64);
        return;
    }
    QByteArray cookie = name + '=' + value + "; Path=/; HttpOnly; SameSite=Lax";
    if (maxAge > 0)
        cookie += "; Max-Age=" + QByteArray::number(maxAge);
    m_cookies.append(cookie);
}

void HttpResponse::redirect(const QByteArray& url) {
    setStatus(303);
    setHeader("Location", url);
    write("Redirect", true);
}

void HttpResponse::write(const QByteArray& data, bool lastPart) {
    if (!m_lastPart)
        m_body.append(data);
    m_lastPart = m_lastPart || lastPart;
}

void HttpResponse::setFile(int descriptor, qint64 offset, qint64 length, const QByteArray& head) {
    if (m_file.descriptor >= 0)
        ::close(m_file.descriptor);
    m_file = {descriptor, offset, length, head};
}
