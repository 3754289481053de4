#pragma once

#include "core/sql/sqlite.h"
#include "service/caller.h"

#include <optional>

class Passwords;
class Tokens;
class TokenTable;

/// An account as its managers see it.
struct AccountInfo {
    qint64 id = 0;
    QString username;
    QString name;
    bool isAdmin = false;
    qint64 master = 0;  ///< 0: none
    qint64 created = 0; ///< ms since 1970; 0: unknown
};
AccountInfo accountAt(const SqlResult& rows, int row);

/// What becomes of an account; what is nullopt stays.
struct AccountChange {
    std::optional<QString> username;
    std::optional<QString> name;
    std::optional<QString> password; ///< plain
    std::optional<bool> isAdmin;
};

enum class Outcome {
    Done,
    Gone,      ///< there is no such account (any more)
    Taken,     ///< another one has the name
    LastAdmin, ///< nobody would be left to administer
    Failed,    ///< the database does not answer
};

/// Accounts: who logs in, and what is done to them. Their passwords are stored as hashes; a new one ends all
/// tokens of the account, those of the older paths too. Any thread; `database` is the calling thread's own.
class Accounts {
public:
    Accounts(Passwords& passwords, Tokens& tokens, TokenTable& oldTokens)
        : m_passwords(passwords)
        , m_tokens(tokens)
        , m_oldTokens(oldTokens) {}

    struct Login {
        bool isKnown = false;         ///< false: the database does not answer
        std::optional<Caller> caller; ///< nullopt: a wrong pair
    };
    /// Takes the same time whether there is such an account or not.
    Login login(sqlite& database, const QString& username, const QString& password);

    /// Accounts that `caller` manages, by id from `after` on: all, or its sub-accounts.
    static SqlResult list(sqlite& database, const Caller& caller, qint64 after, int limit);
    /// One of them; no row: none.
    static SqlResult find(sqlite& database, const Caller& caller, qint64 id);

    Outcome add(sqlite& database, const AccountChange& account, qint64 master, qint64& id);
    /// `spared`: a token of v1 that a new password does not end; 0: none.
    Outcome change(sqlite& database, qint64 id, const AccountChange& change, qint64 spared = 0);
    /// As sub-accounts are deleted by the older paths: what it had and others go by becomes the heir's.
    Outcome remove(sqlite& database, qint64 id, qint64 heir);

private:
    Passwords& m_passwords;
    Tokens& m_tokens;
    TokenTable& m_oldTokens;
};

/// Drops the row of `sbox_users` in `account`, if there is one, unless the password is its. A plain one
/// becomes a hash where that is wanted (Passwords::hashes()).
void comparePassword(sqlite& database, Passwords& passwords, const QString& password, SqlResult& account);
