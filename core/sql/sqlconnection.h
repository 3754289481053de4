#pragma once

#include "core/sql/sqltext.h"

#include <array>
#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <QElapsedTimer>
#include <QSqlDatabase>
#include <QSqlError>
#include <QSqlQuery>
#include <QString>

class QTcpSocket;

/// The database of kinds 0 and 3, in the working directory.
constexpr auto SqliteFile = ".Elvor.db";

/// What a connection is opened with.
struct SqlServer {
    QString host;
    int port = 0;
    QString user;
    QString password;
    QString databaseName;
    int kind = 0; ///< 0 and 3 SQLite, 1 MySQL, anything else: no driver
};

/// One QSqlDatabase with the rules of its server: pragmas or session settings at each opening and, on
/// MySQL, the way back after the server was lost. Belongs to the thread that made it. On the main loop
/// a server that does not answer at all is not waited for again and again: the way back begins when a
/// plain connection, made in the background, has reached it.
class SqlConnection {
public:
    /// Pause before the first attempt to come back; doubled at each failure up to the longest.
    static constexpr std::chrono::seconds FirstPause{1};
    static constexpr std::chrono::seconds LongestPause{30};
    /// A MySQL connection that was not used for longer may have been closed by the server: it is tried
    /// before a statement is trusted to it.
    static constexpr std::chrono::seconds TrustedIdle{2};

    /// Adds and opens the connection; logs what it opened or the error. What can't be opened is tried
    /// again by later statements.
    SqlConnection(const SqlServer& server, const QString& name);
    ~SqlConnection();
    SqlConnection(const SqlConnection&) = delete;
    SqlConnection& operator=(const SqlConnection&) = delete;

    QString name() const { return m_name; }
    bool isOpen() const { return m_database.isOpen(); }
    QSqlError lastError() const { return m_database.lastError(); }

    /// Query 1 to 3 (see Use), made when first asked for and again after the connection was reopened.
    enum Use { Exec = 0, Run = 1, Control = 2 };
    QSqlQuery& query(Use use);
    void renewQuery(Use use);

    /// Runs a text without values on a query of the connection, or a statement with values on one that is
    /// kept prepared. A lost MySQL connection is opened again first when its pause is over. Returns the
    /// query, to be finished by the caller; on failure null, with one log line (`loggedAs` stands for the
    /// text, whose values may be secrets) unless it belongs to an outage that was told already.
    QSqlQuery* execute(Use use, const QString& text, const QString& loggedAs);
    QSqlQuery* execute(const BoundSql& statement, const QString& loggedAs);
    /// Why the last execute() failed, and whether that was worth a log line.
    QString failure() const { return m_failure; }
    bool failureWasLogged() const { return m_failureLogged; }
    /// Of failed statements that are not an outage's only one in so long is logged from now on.
    void logFailuresEvery(std::chrono::seconds pause) { m_logPause = pause; }

    /// While a transaction runs the connection is not opened again behind its back.
    void setInTransaction(bool on);
    bool isInTransaction() const { return m_inTransaction; }

    void close();

private:
    bool open();
    bool prepareSession();
    bool reopen();
    bool survivedIdling();
    bool mayReopen();
    bool isReachable();
    void backOff();
    bool usable();
    bool reopenFile();
    bool fail(const QString& why);
    bool lostBy(const QSqlError& error) const;
    void outageBegins(const QSqlError& error);
    void dropQueries();
    /// One attempt: the query that did it, or null with `error`.
    using Attempt = std::function<QSqlQuery*(QSqlError& error)>;
    QSqlQuery* attempt(const Attempt& once, const QString& loggedAs);
    QSqlQuery* prepared(const QString& text, QSqlError& error);
    void failed(const QSqlError& error, const QString& loggedAs);
    bool mayLogFailure();

    SqlServer m_server;
    QString m_name;
    QSqlDatabase m_database;
    std::array<std::unique_ptr<QSqlQuery>, 3> m_queries;
    std::map<QString, QSqlQuery> m_prepared; ///< by text
    QString m_failure;
    bool m_failureLogged = false;
    std::chrono::seconds m_logPause{0};
    QElapsedTimer m_sinceLogged;
    bool m_inTransaction = false;
    bool m_transactionLost = false;

    // MySQL only: when it was last used, and the outage.
    QElapsedTimer m_sinceUse;
    bool m_down = false;
    int m_failedStatements = 0;
    std::chrono::milliseconds m_pause = FirstPause;
    QElapsedTimer m_sinceAttempt;
    QElapsedTimer m_sinceLost;
    std::unique_ptr<QTcpSocket> m_probe; ///< main loop only: finds out without waiting
};
