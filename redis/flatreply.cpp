#include "redis/flatreply.h"

#include <algorithm>

namespace {

const QString Null = QStringLiteral("NULL");

QString typeWord(char first) {
    switch (first) {
    case '-':
        return QStringLiteral("error");
    case ':':
        return QStringLiteral("integer");
    case '$':
        return QStringLiteral("bulk");
    case '*':
        return QStringLiteral("list");
    default:
        return QStringLiteral("string");
    }
}

const QLatin1String LineEnd("\r\n");

/// Reads elements out of a chunk; what lies past its end is empty.
class ChunkCursor {
public:
    explicit ChunkCursor(const QString& chunk)
        : m_chunk(chunk) {}

    bool atEnd() const { return m_at >= m_chunk.size(); }
    QString line() {
        const int end = m_chunk.indexOf(LineEnd, m_at);
        const QString text = m_chunk.mid(m_at, end < 0 ? -1 : end - m_at);
        m_at = end < 0 ? m_chunk.size() : end + LineEnd.size();
        return text;
    }
    QString payload(int length) {
        if (length < 0)
            return Null;
        const QString text = m_chunk.mid(m_at, length);
        m_at += text.size() + LineEnd.size();
        return text;
    }
    QString element() {
        const QString head = line();
        const QString rest = head.mid(1);
        return head.startsWith(QLatin1Char('$')) ? payload(rest.toInt()) : rest;
    }

private:
    const QString& m_chunk;
    int m_at = 0;
};

} // namespace

QStringList flatReplyOfChunk(const QString& chunk) {
    const char first = chunk.isEmpty() ? '+' : chunk[0].toLatin1();
    QStringList list{typeWord(first)};
    if (first != '$' && first != '*')
        return list << chunk.mid(1);
    ChunkCursor cursor(chunk);
    if (first == '$')
        return list << cursor.element();
    const int count = cursor.line().midRef(1).toInt();
    for (int i = 0; i < count && !cursor.atEnd(); ++i)
        list << cursor.element();
    return list;
}

void ReplyStream::reset() {
    *this = ReplyStream();
}

ReplyStream::Result ReplyStream::next() {
    while (!m_broken && m_missing > 0) {
        const Step step = element();
        if (step == Step::NeedMore && m_buffer.size() <= MaxReplyBytes)
            return {Status::NeedMore, {}};
        m_broken = step != Step::Done;
    }
    if (m_broken)
        return {Status::Broken, {}};
    return finish();
}

ReplyStream::Result ReplyStream::finish() {
    Result result{Status::Reply, m_reply};
    m_buffer.remove(0, m_cursor);
    m_cursor = 0;
    m_missing = 1;
    m_reply.clear();
    return result;
}

/// Takes one header line, its CR LF left out of `line`.
ReplyStream::Step ReplyStream::header(QByteArray& line) {
    const int end = m_buffer.indexOf("\r\n", m_cursor);
    if (end < 0)
        return Step::NeedMore;
    line = m_buffer.mid(m_cursor, end - m_cursor);
    return line.isEmpty() ? Step::Broken : Step::Done;
}

ReplyStream::Step ReplyStream::element() {
    QByteArray line;
    const Step step = header(line);
    if (step != Step::Done)
        return step;
    if (line[0] != '$' && line[0] != '*') {
        simple(line);
        return Step::Done;
    }
    bool isNumber = false;
    const qint64 number = line.mid(1).toLongLong(&isNumber);
    if (!isNumber || number < -1 || number > MaxReplyBytes)
        return Step::Broken;
    const int start = m_cursor;
    m_cursor += line.size() + 2;
    const Step taken = line[0] == '*' ? aggregate(number) : bulk(number);
    if (taken == Step::NeedMore)
        m_cursor = start;
    return taken;
}

ReplyStream::Step ReplyStream::aggregate(qint64 count) {
    if (m_reply.isEmpty())
        m_reply << typeWord('*');
    m_missing += std::max<qint64>(count, 0) - 1;
    return m_missing > MaxReplyBytes ? Step::Broken : Step::Done;
}

ReplyStream::Step ReplyStream::bulk(qint64 length) {
    const auto size = static_cast<int>(length);
    if (size >= 0 && m_buffer.size() - m_cursor < size + 2)
        return Step::NeedMore;
    if (m_reply.isEmpty())
        m_reply << typeWord('$');
    m_reply << (size < 0 ? Null : QString::fromUtf8(m_buffer.constData() + m_cursor, size));
    m_cursor += size < 0 ? 0 : size + 2;
    --m_missing;
    return Step::Done;
}

/// A status, error or integer: alone it keeps its line end, as an array's entry it has none.
void ReplyStream::simple(const QByteArray& line) {
    const bool alone = m_reply.isEmpty();
    if (alone)
        m_reply << typeWord(line[0]);
    m_reply << QString::fromUtf8(line.mid(1)) + (alone ? QString(LineEnd) : QString());
    m_cursor += line.size() + 2;
    --m_missing;
}
