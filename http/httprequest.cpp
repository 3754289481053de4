#include "http/httprequest.h"

#include "http/workerdatabase.h"

HttpRequest::HttpRequest() = default;
HttpRequest::~HttpRequest() = default;

QByteArray HttpRequest::getHeader(const QByteArray& name) const {
    // The map lists equal names newest first; across spellings the order received is not kept.
    for (auto header = m_headers.begin(); header != m_headers.end(); ++header) {
        if (qstricmp(header.key().constData(), name.constData()) == 0)
            return header.value();
    }
    return {};
}

QByteArray HttpRequest::getCookie(const QByteArray& name) const {
    for (auto header = m_headers.begin(); header != m_headers.end(); ++header) {
        if (qstricmp(header.key().constData(), "cookie") != 0)
            continue;
        for (const QByteArray& pair : header.value().split(';')) {
            const int equals = pair.indexOf('=');
            if (equals > 0 && pair.left(equals).trimmed() == name)
                return pair.mid(equals + 1).trimmed();
        }
    }
    return {};
}

QTemporaryFile* HttpRequest::getUploadedFile(const QByteArray& fieldName) const {
    const auto upload = m_body.uploads.find(fieldName);
    return upload == m_body.uploads.end() ? nullptr : upload->second.file.get();
}

QByteArray HttpRequest::getUploadedFileName(const QByteArray& fieldName) const {
    const auto upload = m_body.uploads.find(fieldName);
    return upload == m_body.uploads.end() ? QByteArray() : upload->second.fileName;
}

sqlite* HttpRequest::database() const {
    return m_database ? m_database->get() : nullptr;
}
