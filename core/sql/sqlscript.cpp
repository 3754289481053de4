#include "core/sql/sqlscript.h"

#include <QRegularExpression>

namespace {

class Splitter {
public:
    Splitter(const QString& script, SqlDialect dialect)
        : m_script(script)
        , m_dialect(dialect) {}

    QStringList split() {
        while (m_at < m_script.size()) {
            const int past = skipComment();
            if (past > m_at) {
                m_at = past;
                m_current += QLatin1Char(' ');
            } else if (isQuote(m_script.at(m_at))) {
                copyQuoted();
            } else if (m_script.at(m_at) == QLatin1Char(';') && !inTrigger()) {
                finish();
                ++m_at;
            } else {
                m_current += m_script.at(m_at++);
            }
        }
        finish();
        return m_statements;
    }

private:
    static bool isQuote(QChar c) {
        return c == QLatin1Char('\'') || c == QLatin1Char('"') || c == QLatin1Char('`');
    }

    bool startsHere(const char* text) const {
        const QLatin1String wanted(text);
        return m_script.midRef(m_at, wanted.size()) == wanted;
    }

    // Index behind the comment that begins here; the current index when none does.
    int skipComment() const {
        if (startsHere("--") || (m_dialect == SqlDialect::Mysql && startsHere("#")))
            return behind("\n", 1);
        return startsHere("/*") ? behind("*/", 2) : m_at;
    }

    int behind(const char* mark, int skipped) const {
        const QLatin1String wanted(mark);
        const int found = m_script.indexOf(wanted, m_at + skipped);
        return found < 0 ? m_script.size() : found + wanted.size();
    }

    void copyQuoted() {
        const QChar quote = m_script.at(m_at);
        m_current += m_script.at(m_at++);
        while (m_at < m_script.size()) {
            const QChar c = m_script.at(m_at++);
            m_current += c;
            if (c == QLatin1Char('\\') && m_dialect == SqlDialect::Mysql && m_at < m_script.size())
                m_current += m_script.at(m_at++);
            else if (c == quote)
                return;
        }
    }

    bool inTrigger() const {
        static const QRegularExpression trigger(QStringLiteral("^\\s*CREATE\\s+(TEMP\\w*\\s+)?TRIGGER\\b"),
                                                QRegularExpression::CaseInsensitiveOption);
        static const QRegularExpression end(QStringLiteral("\\bEND\\s*$"),
                                            QRegularExpression::CaseInsensitiveOption);
        static const QRegularExpression begin(QStringLiteral("\\bBEGIN\\b"),
                                              QRegularExpression::CaseInsensitiveOption);
        return trigger.match(m_current).hasMatch() && begin.match(m_current).hasMatch() &&
               !end.match(m_current).hasMatch();
    }

    void finish() {
        const QString statement = m_current.trimmed();
        if (!statement.isEmpty())
            m_statements.append(statement);
        m_current.clear();
    }

    const QString& m_script;
    const SqlDialect m_dialect;
    int m_at = 0;
    QString m_current;
    QStringList m_statements;
};

} // namespace

QStringList splitSqlScript(const QString& script, SqlDialect dialect) {
    return Splitter(script, dialect).split();
}
