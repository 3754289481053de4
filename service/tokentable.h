#pragma once

#include <mutex>
#include <optional>
#include <QHash>
#include <QReadWriteLock>
#include <QString>

class sqlite;

/// The tokens of the older paths, one an account, in memory: user id to token. Any thread; `database` is the
/// calling thread's own.
class TokenTable {
public:
    std::optional<QString> token(int userid) const; ///< nullopt for an unknown user; never an empty text
    /// Takes over what the database has: after a login, a new password, a deletion. Whatever happens at the
    /// same time, the last one to come reads what is valid.
    void refresh(sqlite& database, int userid);
    /// The same for all accounts; who has no token is given one.
    void load(sqlite& database);
    static QString randomToken(); ///< 40 random lower-case hexadecimal digits

private:
    mutable QReadWriteLock m_lock;
    QHash<int, QString> m_tokens; ///< guarded by m_lock
    std::mutex m_refreshing;      ///< from reading the database to writing m_tokens
};
