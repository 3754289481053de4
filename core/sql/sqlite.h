#pragma once

#include "core/sql/sqltext.h"

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <QJsonArray>
#include <QJsonObject>
#include <QObject>
#include <QSqlDatabase>
#include <QSqlError>
#include <QSqlQuery>
#include <QVariant>
#include <QVector>

class SqlConnection;

/// Outcome of one statement, with its rows fetched whole: no cursor stays open.
struct SqlResult {
    bool ok = false;
    bool refused = false; ///< not sent: the values don't fit the template
    int affected = 0;     ///< rows changed by a write, -1 when the driver can't tell
    qint64 lastId = 0;    ///< id of the inserted row, 0 when there is none
    QString error;        ///< driver's text or why the values don't fit, when !ok
    QStringList columns;
    QVector<QVector<QVariant>> rows;

    bool isEmpty() const { return rows.isEmpty(); }
    /// Value of a column by name; invalid when the column or row is not there.
    QVariant value(int row, const char* column) const;
    QString text(int row, const char* column) const { return value(row, column).toString(); }
    int integer(int row, const char* column) const { return value(row, column).toInt(); }
    /// The row as a JSON object keyed by column name: numbers as numbers, text as text, NULL as null.
    QJsonObject object(int row) const;
    QJsonArray objects() const;
};

/// The database object: kind, credentials, one connection, and the site settings that the HTTP
/// interface and the task queue read from it. Owner: start-up (the main object) or an HTTP worker
/// (a clone). Every method but forThread() belongs to the thread that constructed the object.
class sqlite : public QObject {
    Q_OBJECT
public:
    sqlite(QString host, int port, QString user, QString password, QString databaseName, int kind,
           const QString& connectionName = QStringLiteral("taskmain"), QObject* parent = nullptr);
    ~sqlite() override;

    /// Creates the query objects of the connection. Called once, by start-up.
    void init();
    /// Prepares the connection of a thread: a fresh query 1, state 2. Logs "query  init2".
    void init2();
    bool get_is_aready() const;
    /// Runs the text as it stands; a failure is logged and gives false.
    bool exec(const QString& sql);
    QSqlError getbaslasterror() const;
    /// Writes one row of the operation log.
    void get_rizhi(int userid, int level, int kind, const QString& info);
    /// Closes the connection and schedules this object's deletion; logs "queryclear". In a thread without
    /// an event loop the caller sees to the deletion (WorkerDatabase).
    void release();

    /// From now on every statement of this object and its clones fails: the database is none for this
    /// program. Any thread.
    void refuse() { *m_isRefused = true; }

    /// Binds the values to the template and runs it on this object's connection. A refused or failed
    /// statement is logged and told in the result. On MySQL a lost connection is opened again first, with
    /// a pause of 1 s to 30 s between attempts, during which every statement fails at once.
    SqlResult run(const QString& statement, const SqlArgs& args = {});
    /// The same for a statement that has a "?" for each value already.
    SqlResult run(const BoundSql& statement) { return send(statement, statement.text.left(80)); }
    /// Of failed statements that are not an outage's only one in so long is logged from now on.
    void logFailuresEvery(std::chrono::seconds pause);

    /// Runs `body` in one transaction: committed when it returns true, rolled back otherwise.
    /// Returns whether it was committed. On SQLite the transaction takes the write lock at once.
    bool transaction(const std::function<bool()>& body);

    /// Runs a script statement by statement (separated by ";" outside literals and comments), in one
    /// transaction where the server allows it. Returns rows affected in all, or -1 on failure.
    int runScript(const QString& script);

    /// A database object with the same settings and a connection of its own, for the calling thread,
    /// which owns it, prepared by init2(). Logs "reget Dbasename" with the connection's name. Thread-safe.
    std::unique_ptr<sqlite> forThread() const;

    /// 0 and 3: SQLite file ".Elvor.db" in the working directory; 1: MySQL.
    int kind() const { return m_kind; }
    SqlDialect dialect() const { return m_kind == 1 ? SqlDialect::Mysql : SqlDialect::Sqlite; }
    QString host() const { return m_host; }
    int port() const { return m_port; }
    QString user() const { return m_user; }
    QString password() const { return m_password; }
    QString databaseName() const { return m_databaseName; }

    /// Site settings: assigned by start-up before any other thread runs, read-only afterwards;
    /// forThread() copies them.
    struct Site {
        QString ownAddress; ///< `LocalIP`; may be empty
        QString preurl;     ///< public URL prefix of this server's files, ends in "/"
        QString wxcxpreurl; ///< the same for the mini-program
        QString warningurl; ///< "http://" + own address + ":" + HTTP port + "/"
        QString ttsxfAPPID; ///< "none" or the speech service's application id
        QString ttsxfAPISecret;
        QString ttsxfAPIKey;
        QString runingdir = QStringLiteral("/home/kvt/soft/Tonecast/"); ///< working directory for files
        QString programdir;   ///< where find.js and tts.js stand and are started
        QString waringdir;    ///< directory of the line-to-task bindings
        QString waringfetch;  ///< address prefix of the alarm-text fetch
        QString silentclip;   ///< address of the short silent clip
        QString payKey;       ///< when not empty, `odds_fuckpay` asks for it
        int tasklenmin = 300; ///< shortest task, seconds
        // The safe ways of the keys of the same names (docs/configuration.md).
        bool ownonly = false;
        bool callbacktokens = false;
        bool randomtokens = false;
        bool safeurls = false;
        bool adminpictures = false;
        bool tokenpaths = false;
    };
    Site site;

signals:
    /// A statement or the connection failed (once per outage on MySQL).
    void error();

private:
    sqlite(const sqlite& settings, const QString& connectionName);
    SqlResult send(const BoundSql& statement, const QString& loggedAs);

    QString m_host;
    int m_port;
    QString m_user;
    QString m_password;
    QString m_databaseName;
    int m_kind;
    int m_state = 0; ///< 0 after construction, 2 after init2()
    std::unique_ptr<SqlConnection> m_connection;
    std::shared_ptr<std::atomic<bool>> m_isRefused; ///< shared with the clones
};
