#include "core/sqltext.h"

#include <algorithm>

namespace {

constexpr int MaxSerialLength = 64;

bool isAsciiLetterOrDigit(QChar c) {
    const ushort u = c.unicode();
    return (u >= '0' && u <= '9') || (u >= 'a' && u <= 'z') || (u >= 'A' && u <= 'Z');
}

// One pass over a template: copies its text, remembers in which quotes it stands and puts values in
// where placeholders are.
class Filler {
public:
    Filler(const QString& statement, const SqlArgs& args, SqlDialect dialect)
        : m_statement(statement)
        , m_dialect(dialect) {
        for (const SqlArg& arg : args) {
            if (!arg.placeholder.isEmpty())
                m_args.push_back(&arg);
        }
        std::stable_sort(m_args.begin(), m_args.end(), [](const SqlArg* a, const SqlArg* b) {
            return a->placeholder.size() > b->placeholder.size();
        });
    }

    SqlText fill() {
        m_out.sql.reserve(m_statement.size() + 64);
        while (m_at < m_statement.size()) {
            if (const SqlArg* arg = argHere()) {
                std::visit([this, arg](const auto& value) { put(*arg, value); }, arg->value);
                m_at += arg->placeholder.size();
            } else {
                copyOne();
            }
        }
        return m_out;
    }

private:
    const SqlArg* argHere() const {
        for (const SqlArg* arg : m_args) {
            if (m_statement.midRef(m_at, arg->placeholder.size()) == arg->placeholder)
                return arg;
        }
        return nullptr;
    }

    void copyOne() {
        const QChar c = m_statement.at(m_at);
        const QChar next = m_at + 1 < m_statement.size() ? m_statement.at(m_at + 1) : QChar();
        m_out.sql += c;
        ++m_at;
        if ((c == QLatin1Char('@') || c == QLatin1Char('$')) && isAsciiLetterOrDigit(next)) {
            refuse(QStringLiteral("no value for a placeholder at \"%1\"").arg(m_statement.mid(m_at - 1, 16)));
        } else if (c == QLatin1Char('\\') && !m_quote.isNull() && m_dialect == SqlDialect::Mysql) {
            if (!next.isNull()) {
                m_out.sql += next;
                ++m_at;
            }
        } else if (c == m_quote) {
            m_quote = QChar(); // a doubled quote opens it again at once
        } else if (m_quote.isNull() &&
                   (c == QLatin1Char('\'') || c == QLatin1Char('"') || c == QLatin1Char('`'))) {
            m_quote = c;
        }
    }

    bool inLiteral() const { return m_quote == QLatin1Char('\''); }

    void put(const SqlArg& /*arg*/, qint64 value) { m_out.sql += QString::number(value); }

    void put(const SqlArg& arg, const QString& value) {
        if (!inLiteral())
            refuse(QStringLiteral("text outside of quotes for %1").arg(arg.placeholder));
        else if (value.contains(QLatin1Char('\'')) || value.contains(QChar(u'\0')) ||
                 (m_dialect == SqlDialect::Mysql && value.contains(QLatin1Char('\\'))))
            refuse(QStringLiteral("a quote, backslash or NUL in the value of %1").arg(arg.placeholder));
        m_out.sql += value;
    }

    void put(const SqlArg& /*arg*/, const QList<qint64>& values) {
        if (values.isEmpty() && m_quote.isNull())
            m_out.sql += QStringLiteral("NULL"); // "in ( NULL )" matches nothing on every server
        for (int i = 0; i < values.size(); ++i) {
            if (i > 0)
                m_out.sql += QLatin1Char(',');
            m_out.sql += QString::number(values.at(i));
        }
    }

    void put(const SqlArg& arg, const QStringList& serials) {
        const auto isSerial = [](const QString& s) {
            return !s.isEmpty() && s.size() <= MaxSerialLength &&
                   std::all_of(s.begin(), s.end(), isAsciiLetterOrDigit);
        };
        if (!inLiteral())
            refuse(QStringLiteral("serials outside of quotes for %1").arg(arg.placeholder));
        else if (!std::all_of(serials.begin(), serials.end(), isSerial))
            refuse(QStringLiteral("not a serial in the value of %1").arg(arg.placeholder));
        m_out.sql += serials.join(QStringLiteral("', '"));
    }

    void refuse(const QString& why) {
        if (m_out.ok)
            m_out.error = why;
        m_out.ok = false;
    }

    const QString& m_statement;
    const SqlDialect m_dialect;
    std::vector<const SqlArg*> m_args; // longest placeholder first
    int m_at = 0;
    QChar m_quote; // null outside of quotes
    SqlText m_out;
};

} // namespace

SqlText fillSql(const QString& statement, const SqlArgs& args, SqlDialect dialect) {
    return Filler(statement, args, dialect).fill();
}

std::optional<SqlShape> sqlShape(const QString& sql) {
    static const QString marks = QStringLiteral("?:@$-/");
    SqlShape shape;
    QChar quote; // that we are inside of; null outside
    for (int at = 0; at < sql.size(); ++at) {
        const QChar c = sql.at(at);
        const bool isLiteral = quote == QLatin1Char('\'');
        if (isLiteral && c == quote && at + 1 < sql.size() && sql.at(at + 1) == quote) {
            shape.values.last() += c;
            ++at;
        } else if (!quote.isNull()) {
            if (c != quote)
                (isLiteral ? shape.values.last() : shape.text) += c;
            else if (!isLiteral)
                shape.text += c;
            else // the driver gives each mark a name, in which a word behind it would go on
                shape.text += at + 1 < sql.size() && sql.at(at + 1).isLetter() ? QStringLiteral("? ")
                                                                               : QStringLiteral("?");
            if (c == quote)
                quote = QChar();
            if (isLiteral && quote.isNull() && at + 1 < sql.size() && sql.at(at + 1).isLetter())
                shape.text += QLatin1Char(' '); // the mark is not to be read as a name
        } else if (c == QLatin1Char('\'')) {
            quote = c;
            shape.values << QStringLiteral(""); // not null: that would be bound as NULL
        } else if (marks.contains(c)) {
            return std::nullopt;
        } else {
            if (c == QLatin1Char('`') || c == QLatin1Char('"'))
                quote = c;
            shape.text += c;
        }
    }
    return quote.isNull() ? std::optional<SqlShape>(shape) : std::nullopt;
}
