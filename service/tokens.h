#pragma once

#include "service/caller.h"

#include <chrono>
#include <functional>
#include <mutex>
#include <optional>
#include <QByteArray>
#include <QHash>
#include <vector>

struct SqlResult;
class sqlite;

/// A token that was just made: the only time that its text is known.
struct NewToken {
    qint64 id = 0;
    QByteArray text;
    qint64 expires = 0; ///< ms since 1970; 0: never
};

/// What a token's text says.
struct TokenCheck {
    bool isKnown = false;         ///< false: the database does not answer
    std::optional<Caller> caller; ///< nullopt: the token is none, has ended or was voided
    qint64 expires = 0;           ///< ms since 1970, until then it need not be looked at; 0: never
};

/// Tokens of the interface v1: 256 random bits each, of which the database holds the SHA-256 alone. Those of
/// logins end when they have not been used for `life`; those for programs have a name and end when that was
/// said. Any thread; `database` is always the calling thread's own.
class Tokens {
public:
    explicit Tokens(std::chrono::hours life);

    /// A login's. nullopt when it can't be stored.
    std::optional<NewToken> make(sqlite& database, qint64 account) const;
    /// A program's; `expires` in ms since 1970, 0: never.
    std::optional<NewToken> makeNamed(sqlite& database, qint64 account, const QString& name,
                                      qint64 expires) const;
    TokenCheck check(sqlite& database, const QByteArray& text) const;

    /// Whether such a token was valid within the last minutes, without asking the database.
    bool wasValid(const QByteArray& text) const;

    /// Named ones of the account, by id from `after` on.
    SqlResult list(sqlite& database, qint64 account, qint64 after, int limit) const;
    /// One named token of the account. False when there is none of that number (or `result` is not ok).
    SqlResult voidNamed(sqlite& database, qint64 account, qint64 id);
    bool voidOne(sqlite& database, const Caller& caller);
    /// All of the account but `spared`; false when the database does not answer.
    bool voidAll(sqlite& database, qint64 account, qint64 spared = 0);

    /// Called, on the thread that does it, after tokens of the account were voided. Before the first request.
    void onVoided(std::function<void(qint64 account)> listener) {
        m_listeners.push_back(std::move(listener));
    }
    /// To be called by whoever has voided them in another way.
    void tellVoided(qint64 account) const;

private:
    std::optional<NewToken> store(sqlite& database, qint64 account, const QString& name,
                                  qint64 expires) const;
    void slide(sqlite& database, qint64 id, qint64 expires) const;

    void remember(const QString& hash) const;

    std::chrono::milliseconds m_life;
    mutable std::mutex m_mutex;
    mutable QHash<QString, std::chrono::steady_clock::time_point> m_seen; ///< by hash, until when
    std::vector<std::function<void(qint64)>> m_listeners;
};
