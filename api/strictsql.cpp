#include "api/strictsql.h"

#include "core/logthrottle.h"

#include <algorithm>
#include <QDebug>

namespace {

/// Whether the text would have ended or escaped the literal that it stood in.
bool leavesLiteral(const QString& text, SqlDialect dialect) {
    return text.contains(QLatin1Char('\'')) || text.contains(QChar(u'\0')) ||
           (dialect == SqlDialect::Mysql && text.contains(QLatin1Char('\\')));
}

} // namespace

bool StrictSql::takes(const QString& text) const {
    return !leavesLiteral(text, m_database.dialect());
}

bool StrictSql::takes(const SqlArgs& args, const QString& statement) const {
    QString error;
    return takes(args, statement, error);
}

bool StrictSql::takes(const SqlArgs& args, const QString& statement, QString& error) const {
    const auto unfit = std::find_if(args.begin(), args.end(), [this](const SqlArg& arg) {
        const auto* text = std::get_if<QString>(&arg.value);
        return text && !takes(*text);
    });
    if (unfit == args.end())
        return true;
    error = QStringLiteral("a quote, backslash or NUL in the value of %1").arg(unfit->placeholder);
    if (mayLog("sql refused", QString()))
        qWarning().noquote() << "sql refused:" << error << "in" << statement;
    return false;
}

ShownResult StrictSql::run(const QString& statement, const SqlArgs& args) const {
    ShownResult result;
    if (takes(args, statement, result.error))
        static_cast<SqlResult&>(result) = m_database.run(statement, args);
    else
        result.refused = true;
    result.sql = sqlLine(statement, args);
    return result;
}
