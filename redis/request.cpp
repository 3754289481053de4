#include "redis/request.h"

namespace {

/// Arguments of a line, one character at a time.
class Splitter {
public:
    void take(QChar c, bool escapesQuote) {
        if (escapesQuote)
            add(QLatin1Char('"'));
        else if (c == QLatin1Char('"'))
            toggleQuotes();
        else if (c.isSpace() && !m_quoted)
            finish();
        else
            add(c);
    }
    bool quoted() const { return m_quoted; }
    QStringList result() {
        finish();
        return m_arguments;
    }

private:
    void add(QChar c) {
        m_argument += c;
        m_open = true;
    }
    void toggleQuotes() {
        m_quoted = !m_quoted;
        m_open = true; // so that "" is an argument without characters
    }
    void finish() {
        if (m_open)
            m_arguments += m_argument;
        m_argument.clear();
        m_open = false;
    }

    QStringList m_arguments;
    QString m_argument;
    bool m_quoted = false;
    bool m_open = false;
};

void appendBlock(QByteArray& out, const QByteArray& bytes, int announced) {
    out += '$';
    out += QByteArray::number(announced);
    out += "\r\n";
    out += bytes;
    out += "\r\n";
}

QByteArray header(int count) {
    return '*' + QByteArray::number(count) + "\r\n";
}

} // namespace

QStringList splitCommandLine(const QString& line) {
    Splitter splitter;
    for (int i = 0; i < line.size(); ++i) {
        const bool escapesQuote = splitter.quoted() && line[i] == QLatin1Char('\\') && i + 1 < line.size() &&
                                  line[i + 1] == QLatin1Char('"');
        splitter.take(line[i], escapesQuote);
        i += escapesQuote ? 1 : 0;
    }
    return splitter.result();
}

QByteArray encodeCharacters(const QStringList& arguments) {
    QByteArray out = header(arguments.size());
    for (const QString& argument : arguments)
        appendBlock(out, argument.toUtf8(), argument.size());
    return out;
}

QByteArray encodeBytes(const QByteArrayList& arguments) {
    constexpr int OverheadPerArgument = 16; // "$", length and two line ends
    int size = OverheadPerArgument;
    for (const QByteArray& argument : arguments)
        size += argument.size() + OverheadPerArgument;
    QByteArray out;
    out.reserve(size);
    out += header(arguments.size());
    for (const QByteArray& argument : arguments)
        appendBlock(out, argument, argument.size());
    return out;
}
