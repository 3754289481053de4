#include "device/commandframe.h"

namespace {

bool isBlank(char c) {
    return c == ' ' || c == '\n' || c == '\r' || c == '\t';
}

bool isDigit(char c) {
    return c >= '0' && c <= '9';
}

} // namespace

CommandFrameParser::Result CommandFrameParser::next() {
    if (m_broken)
        return broken(m_error);
    if (m_payload == 0 && m_scanned == 0)
        skipBlanks();
    if (m_begin == m_buffer.size())
        return {};
    const char first = m_buffer.at(static_cast<int>(m_begin));
    if (first == '{')
        return takeBareObject();
    if (isDigit(first))
        return takeFrame();
    return broken(QStringLiteral("neither a length line nor a JSON object: byte 0x%1")
                      .arg(static_cast<uint>(static_cast<unsigned char>(first)), 2, 16, QLatin1Char('0')));
}

void CommandFrameParser::skipBlanks() {
    while (m_begin < m_buffer.size() && isBlank(m_buffer.at(static_cast<int>(m_begin))))
        ++m_begin;
    if (m_begin == m_buffer.size()) {
        m_buffer.clear();
        m_begin = 0;
    }
}

CommandFrameParser::Result CommandFrameParser::takeFrame() {
    if (m_payload == 0) {
        qsizetype end = m_begin;
        while (end < m_buffer.size() && isDigit(m_buffer.at(static_cast<int>(end))))
            ++end;
        if (end - m_begin > MaxLengthDigits)
            return broken(QStringLiteral("length line of more than %1 digits").arg(MaxLengthDigits));
        if (end == m_buffer.size())
            return {};
        if (m_buffer.at(static_cast<int>(end)) != '\n')
            return broken(QStringLiteral("length line is not a number"));
        m_payloadLength = m_buffer.mid(static_cast<int>(m_begin), static_cast<int>(end - m_begin)).toInt();
        if (m_payloadLength > MaxRequestBytes)
            return broken(
                QStringLiteral("frame of %1 bytes exceeds %2").arg(m_payloadLength).arg(MaxRequestBytes));
        m_payload = end + 1;
    }
    if (m_buffer.size() - m_payload < m_payloadLength)
        return {};
    return take(m_payload, m_payloadLength);
}

CommandFrameParser::Result CommandFrameParser::takeBareObject() {
    const char* const bytes = m_buffer.constData();
    for (qsizetype at = m_begin + m_scanned; at < m_buffer.size(); ++at) {
        const char c = bytes[at];
        if (m_escaped) {
            m_escaped = false;
        } else if (m_inText) {
            m_escaped = c == '\\';
            m_inText = c != '"';
        } else if (c == '"') {
            m_inText = true;
        } else if (c == '{') {
            ++m_depth;
        } else if (c == '}' && --m_depth == 0) {
            const qsizetype size = at + 1 - m_begin;
            return size > MaxRequestBytes ? tooLongObject() : take(m_begin, size);
        }
    }
    m_scanned = m_buffer.size() - m_begin;
    return m_scanned > MaxRequestBytes ? tooLongObject() : Result{};
}

CommandFrameParser::Result CommandFrameParser::take(qsizetype begin, qsizetype size) {
    Result result{Status::Request, m_buffer.mid(static_cast<int>(begin), static_cast<int>(size)), {}};
    m_begin = begin + size;
    m_payload = m_payloadLength = m_scanned = 0;
    m_depth = 0;
    // Moving the rest down only when it is the smaller half keeps the cost linear however many
    // requests one read brought.
    if (m_begin > m_buffer.size() / 2) {
        m_buffer.remove(0, static_cast<int>(m_begin));
        m_begin = 0;
        if (m_buffer.isEmpty())
            m_buffer = QByteArray();
    }
    return result;
}

CommandFrameParser::Result CommandFrameParser::tooLongObject() {
    return broken(QStringLiteral("JSON object of more than %1 bytes").arg(MaxRequestBytes));
}

CommandFrameParser::Result CommandFrameParser::broken(const QString& why) {
    m_broken = true;
    m_error = why;
    m_buffer = QByteArray();
    m_begin = 0;
    return {Status::Broken, {}, why};
}
