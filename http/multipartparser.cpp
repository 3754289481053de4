#include "http/multipartparser.h"

#include <algorithm>
#include <QList>

namespace {

/// Value of a parameter of a header field ("form-data; name=\"x\""), unquoted; false when absent.
/// A backslash escapes only a quotation mark: browsers send Windows paths unescaped.
bool fieldParameter(const QByteArray& field, const QByteArray& wanted, QByteArray* value) {
    int at = field.indexOf(';');
    while (at >= 0 && at < field.size()) {
        const int equals = field.indexOf('=', at);
        if (equals < 0)
            return false;
        const QByteArray name = field.mid(at + 1, equals - at - 1).trimmed().toLower();
        QByteArray text;
        at = equals + 1;
        if (at < field.size() && field.at(at) == '"') {
            for (++at; at < field.size() && field.at(at) != '"'; ++at) {
                if (field.at(at) == '\\' && at + 1 < field.size() && field.at(at + 1) == '"')
                    ++at;
                text.append(field.at(at));
            }
            at = field.indexOf(';', at);
        } else {
            const int end = field.indexOf(';', at);
            text = field.mid(at, end < 0 ? -1 : end - at).trimmed();
            at = end;
        }
        if (name == wanted) {
            *value = text;
            return true;
        }
    }
    return false;
}

} // namespace

QByteArray MultipartParser::boundaryOf(const QByteArray& contentType) {
    QByteArray boundary;
    const bool legal = fieldParameter(contentType, "boundary", &boundary) && boundary.size() <= MaxBoundary &&
                       std::none_of(boundary.begin(), boundary.end(), [](char c) { return c < 0x20; });
    return legal ? boundary : QByteArray();
}

// The body is read as if a line break stood before it, so that the first boundary looks like the others.
MultipartParser::MultipartParser(const QByteArray& boundary, Sink* sink)
    : m_delimiter("\r\n--" + boundary)
    , m_sink(sink)
    , m_buffer("\r\n") {}

int MultipartParser::feed(const char* data, int size) {
    if (m_state == State::Epilogue)
        return 0;
    m_buffer.append(data, size);
    for (bool wantsMore = false; !wantsMore;) {
        if (const int status = step(&wantsMore))
            return status;
    }
    return 0;
}

int MultipartParser::step(bool* wantsMore) {
    switch (m_state) {
    case State::Preamble:
        return skipPreamble(wantsMore);
    case State::AfterBoundary:
        return readAfterBoundary(wantsMore);
    case State::PartHead:
        return readPartHead(wantsMore);
    case State::PartData:
        return readPartData(wantsMore);
    case State::Epilogue:
        m_buffer.clear();
        *wantsMore = true;
        return 0;
    }
    return 0;
}

int MultipartParser::skipPreamble(bool* wantsMore) {
    const int at = m_buffer.indexOf(m_delimiter);
    if (at < 0) {
        m_buffer = m_buffer.right(m_delimiter.size() - 1);
        *wantsMore = true;
        return 0;
    }
    m_buffer.remove(0, at + m_delimiter.size());
    m_state = State::AfterBoundary;
    return 0;
}

int MultipartParser::readAfterBoundary(bool* wantsMore) {
    if (m_buffer.size() < 2) {
        *wantsMore = true;
        return 0;
    }
    if (m_buffer.startsWith("--"))
        m_state = State::Epilogue;
    else if (m_buffer.startsWith("\r\n"))
        m_state = State::PartHead;
    else
        return 400;
    m_buffer.remove(0, 2);
    return 0;
}

int MultipartParser::readPartHead(bool* wantsMore) {
    const int end = m_buffer.indexOf("\r\n\r\n");
    if (end > MaxPartHead || (end < 0 && m_buffer.size() > MaxPartHead))
        return 400;
    if (end < 0) {
        *wantsMore = true;
        return 0;
    }
    const QByteArray head = m_buffer.left(end);
    m_buffer.remove(0, end + 4);
    m_state = State::PartData;
    return beginPart(head);
}

int MultipartParser::beginPart(const QByteArray& head) {
    if (++m_parts > MaxParts)
        return 400;
    for (const QByteArray& line : head.split('\n')) {
        const int colon = line.indexOf(':');
        if (colon < 0 || line.left(colon).trimmed().toLower() != "content-disposition")
            continue;
        const QByteArray field = line.mid(colon + 1).trimmed();
        QByteArray name;
        QByteArray fileName;
        if (!fieldParameter(field, "name", &name))
            return 400;
        const bool isFile = fieldParameter(field, "filename", &fileName);
        return m_sink->partBegins(name, isFile, fileName);
    }
    return 400;
}

int MultipartParser::readPartData(bool* wantsMore) {
    const int at = m_buffer.indexOf(m_delimiter);
    // Short of a boundary, its beginning may already be at the buffer's end: that much stays.
    const int certain = at >= 0 ? at : std::max(0, m_buffer.size() - m_delimiter.size() + 1);
    if (certain > 0) {
        if (const int status = m_sink->partData(m_buffer.constData(), certain))
            return status;
    }
    if (at < 0) {
        m_buffer.remove(0, certain);
        *wantsMore = true;
        return 0;
    }
    m_buffer.remove(0, at + m_delimiter.size());
    m_state = State::AfterBoundary;
    return m_sink->partEnds();
}
