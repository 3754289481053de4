#include "redis/request.h"

#include <array>
#include <charconv>

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

/// A mark and a number; in place, for a fleet's state goes through here thousands of times a second.
void appendCount(QByteArray& out, char mark, int count) {
    std::array<char, 12> digits{};
    const char* const end = std::to_chars(digits.begin(), digits.end(), count).ptr;
    out += mark;
    out.append(digits.data(), static_cast<int>(end - digits.data()));
    out.append("\r\n", 2);
}

void appendBlock(QByteArray& out, const QByteArray& bytes, int announced) {
    appendCount(out, '$', announced);
    out += bytes;
    out.append("\r\n", 2);
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
    QByteArray out;
    appendCount(out, '*', arguments.size());
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
    appendCount(out, '*', arguments.size());
    for (const QByteArray& argument : arguments)
        appendBlock(out, argument, argument.size());
    return out;
}

QByteArrayList decodeBytes(const QByteArray& request) {
    QByteArrayList arguments;
    int at = request.indexOf('\n') + 1; // behind the count
    while (at < request.size()) {
        const int start = request.indexOf('\n', at) + 1;
        const int size = request.mid(at + 1, start - at - 3).toInt();
        arguments << request.mid(start, size);
        at = start + size + 2;
    }
    return arguments;
}
