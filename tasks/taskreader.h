#pragma once

#include "nodes/nodeaddress.h"

#include <functional>
#include <memory>
#include <optional>
#include <QHash>
#include <QList>
#include <QString>
#include <QStringList>

class sqlite;
struct SqlResult;
class Tasxkobj;

/// Fills players from the database: the task's row, its node, its speakers and its files. Main loop
/// only. A reader that returns a bool returns false when the database could not be asked.
class TaskReader {
public:
    /// Serials of these groups of the account as they are now, or of every speaker that it may play to;
    /// nullopt when the database does not answer.
    using Resolve =
        std::function<std::optional<QStringList>(int userid, bool everyone, const QList<qint64>& groups)>;

    explicit TaskReader(sqlite* database)
        : m_database(database) {}

    std::unique_ptr<Tasxkobj> player(const SqlResult& tasks, int row) const;
    /// A temporary play as its request's row has it, without the lengths of its files.
    std::unique_ptr<Tasxkobj> temporaryPlayer(const SqlResult& requests, int row, quint64 key) const;

    /// The task of that id; no row when there is none.
    SqlResult task(int id) const;
    /// Address of a row of `sbox_node`; kept until forgetNodes(). A port of 0 when there is no such row.
    bool readNode(int nodeid, NodeAddress& address);
    void forgetNodes() { m_nodes.clear(); }
    bool readSeeds(Tasxkobj& player) const;
    bool readFiles(Tasxkobj& player) const;
    /// Without one, groups hold nobody.
    void setResolver(Resolve resolve) { m_resolve = std::move(resolve); }

private:
    /// With the key `ownonly` those speakers and files only that the account may use now.
    bool keepOwnSeeds(Tasxkobj& player) const;
    bool readStoredFiles(Tasxkobj& player) const;
    bool readTemporaryFiles(Tasxkobj& player) const;
    /// Speakers fetch by absolute address; the table holds addresses below this server's own.
    QString absolute(const QString& url) const;
    bool addGroups(Tasxkobj& player) const;
    sqlite* m_database;
    Resolve m_resolve;
    QHash<int, NodeAddress> m_nodes;
};
