#pragma once

#include <optional>
#include <QList>
#include <QString>
#include <QStringList>
#include <variant>
#include <vector>

/// What a placeholder is replaced by. Text may only stand inside a quoted literal of the template;
/// integers and lists of integers may stand anywhere; a list of serials is joined with "', '" and
/// belongs inside a quoted literal.
using SqlValue = std::variant<qint64, QString, QList<qint64>, QStringList>;

struct SqlArg {
    QString placeholder; ///< with its mark, e.g. "@userid" or "$name"
    SqlValue value;

    SqlArg(QString name, int v)
        : placeholder(std::move(name))
        , value(static_cast<qint64>(v)) {}
    SqlArg(QString name, qint64 v)
        : placeholder(std::move(name))
        , value(v) {}
    SqlArg(QString name, QString v)
        : placeholder(std::move(name))
        , value(std::move(v)) {}
    SqlArg(QString name, QList<qint64> v)
        : placeholder(std::move(name))
        , value(std::move(v)) {}
    SqlArg(QString name, QStringList v)
        : placeholder(std::move(name))
        , value(std::move(v)) {}
};
using SqlArgs = std::vector<SqlArg>;

/// A filled statement. When `ok` is false the statement must not be sent; `error` says why, and
/// `sql` holds the text as it would have been, for "sqline" replies and the log.
struct SqlText {
    QString sql;
    QString error;
    bool ok = true;
};

/// Which characters end or escape a quoted literal on the server that the text is meant for.
enum class SqlDialect { Sqlite, Mysql };

/// Fills `statement` in one pass over its text, the longest placeholder first at each place, so that
/// a value is never searched for placeholders. Adds no escaping: a text value that would leave its
/// literal (a single quote, NUL; on MySQL a backslash too), a text value outside a literal, or an
/// entry of a serial list that is not 1 to 64 letters and digits refuses the whole statement.
SqlText fillSql(const QString& statement, const SqlArgs& args, SqlDialect dialect);

/// A statement as its shape, in which a "?" stands for each text in single quotes, and those texts.
struct SqlShape {
    QString text;
    QStringList values;
};

/// Takes a statement for SQLite apart. Nothing when it has marks of parameters or comments of its own, or
/// a literal without end.
std::optional<SqlShape> sqlShape(const QString& sql);
