#pragma once

#include <QList>
#include <QString>
#include <QStringList>
#include <QVariant>
#include <variant>
#include <vector>

/// What a placeholder of a template stands for. Text belongs inside a quoted literal of the template;
/// integers and lists of integers may stand anywhere; a list of serials takes the place of a whole literal.
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

/// A statement as it is sent: a text with a "?" for each value, and the values. When `error` is not empty it
/// must not be sent.
struct BoundSql {
    QString text;
    QVector<QVariant> values;
    QString error;
};

/// Binds `args` to a template, which is compiled at its first use in a thread: a literal with placeholders
/// ('@userid', 'all of @name') becomes one "?" and its value a text; a placeholder outside of quotes one "?"
/// and an integer; a list as many as it has entries, or none at all: then NULL, which is in no list, or the
/// empty text. Refused: text or serials outside of quotes, a placeholder without a value, an entry of a
/// serial list that is not 1 to 64 letters and digits.
BoundSql bindSql(const QString& statement, const SqlArgs& args);

/// The template with the values' texts in their places, for replies that show the statement. Never sent.
QString sqlLine(const QString& statement, const SqlArgs& args);

/// Which marks of comments and escapes a script has.
enum class SqlDialect { Sqlite, Mysql };
