#pragma once

#include <QByteArray>
#include <QJsonObject>
#include <QMap>
#include <QString>
#include <QStringList>
#include <vector>

/// The commands of the account-centred query sets, as queries.json defines them; the meaning of each
/// key is told there. Immutable once built; any thread.
class QueryTable {
public:
    /// What "/user/fnokukei" serves: the commands of all sets but those that need the service key.
    static const QString& openSet();

    enum class Type { Int, Text, IdText, Ids, Serial, Date, Random, Password };
    enum class Rows { Any, Some, None };

    struct Parameter {
        QString name;
        QString alternative; ///< name taken when the first is absent; may be empty
        Type type = Type::Text;
        bool mayBeEmpty = false;
    };
    struct Step {
        QString statement;
        bool isCheck = false; ///< asks who may, before the command's own
        Rows rows = Rows::Any;
        QString password;         ///< value that must be the password of the account found; empty: none
        QMap<QString, Type> take; ///< column of the first row, which replaces the value of that name
    };
    struct Command {
        QString name;
        QStringList sets;
        bool needsServiceKey = false;
        bool writes = false;
        QString voids;                     ///< value that names the account whose tokens end; empty: none
        std::vector<Parameter> parameters; ///< those of its checks first
        std::vector<Step> steps;           ///< those of its checks first
    };

    /// The table that is built into the service.
    static const QueryTable& embedded();
    /// An unreadable table has no commands.
    explicit QueryTable(const QByteArray& json);

    /// The first command of the set whose name `command` begins with; null when there is none.
    const Command* find(const QString& set, const QString& command) const;
    const std::vector<Command>& commands() const { return m_commands; }
    /// Further placeholder to the parameter whose value it has.
    const QMap<QString, QString>& sameValues() const { return m_same; }
    /// Columns that no reply holds.
    const QStringList& hiddenColumns() const { return m_hidden; }

private:
    void addCommand(const QJsonObject& definition, const QJsonObject& checks);
    std::vector<Command> m_commands;
    QMap<QString, QString> m_same;
    QStringList m_hidden;
};
