#include "core/sql/sqlconnection.h"

#include <QCoreApplication>
#include <QDebug>
#include <QNetworkProxy>
#include <QStringList>
#include <QTcpSocket>
#include <QThread>

namespace {

// A writer waits this long for another connection's write; longer than any transaction of the service.
constexpr auto SqliteOptions = "QSQLITE_BUSY_TIMEOUT=5000";
// The main loop, which everybody waits for, tries more often instead.
constexpr auto SqliteLoopOptions = "QSQLITE_BUSY_TIMEOUT=40";

// Together below 10 s, so that no request hangs longer on a server that has gone silent: 3 s for the
// connection, 6 s for an answer. FOUND_ROWS counts the rows matched, as SQLite does.
constexpr auto MysqlOptions =
    "MYSQL_OPT_CONNECT_TIMEOUT=3;MYSQL_OPT_READ_TIMEOUT=6;MYSQL_OPT_WRITE_TIMEOUT=6;"
    "CLIENT_FOUND_ROWS";

// WAL lets readers of other threads go on beside a writer; NORMAL keeps the file consistent through a
// kill and costs no disk sync for each statement. Each worker has a cache of its own: half a megabyte, beside
// the system's, is enough.
const QStringList SqliteSession = {QStringLiteral("PRAGMA journal_mode = WAL"),
                                   QStringLiteral("PRAGMA synchronous = NORMAL"),
                                   QStringLiteral("PRAGMA cache_size = -512")};

// The statements write quoted numbers, empty texts and missing columns; double quotes are text in them.
// A lock is waited for shorter than the answer.
const QStringList MysqlSession = {QStringLiteral("SET NAMES utf8mb4 COLLATE utf8mb4_bin"),
                                  QStringLiteral("SET SESSION sql_mode = 'NO_ENGINE_SUBSTITUTION'"),
                                  QStringLiteral("SET SESSION innodb_lock_wait_timeout = 5")};

// Client and server codes that mean "the connection is gone".
const QStringList LostCodes = {QStringLiteral("2002"), QStringLiteral("2003"), QStringLiteral("2006"),
                               QStringLiteral("2013"), QStringLiteral("2055"), QStringLiteral("1053"),
                               QStringLiteral("1927")};
// Of these the ones that tell that nothing was done, so that sending again is safe.
const QStringList NothingDoneCodes = {QStringLiteral("2006"), QStringLiteral("1927")};

bool isMainLoop() {
    return QCoreApplication::instance() && QThread::currentThread() == QCoreApplication::instance()->thread();
}

} // namespace

SqlConnection::SqlConnection(const SqlServer& server, const QString& name)
    : m_server(server)
    , m_name(name) {
    switch (server.kind) {
    case 0:
    case 3:
        qDebug().noquote() << QStringLiteral("init sqlite%1").arg(server.kind);
        m_database = QSqlDatabase::addDatabase(QStringLiteral("QSQLITE"), name);
        m_database.setDatabaseName(QLatin1String(SqliteFile));
        m_database.setConnectOptions(QLatin1String(SqliteOptions));
        break;
    case 1:
        qDebug().noquote() << "init mysql" << server.host << server.port;
        m_database = QSqlDatabase::addDatabase(QStringLiteral("QMYSQL"), name);
        m_database.setDatabaseName(server.databaseName);
        m_database.setUserName(server.user);
        m_database.setPassword(server.password);
        m_database.setHostName(server.host);
        m_database.setPort(server.port);
        m_database.setConnectOptions(QLatin1String(MysqlOptions));
        break;
    default:
        break;
    }
    m_sinceUse.start();
    if (open())
        qDebug() << "SQLITE 3";
    else if (server.kind == 1)
        outageBegins(m_database.lastError());
    else
        qDebug() << m_database.lastError();
    m_sinceAttempt.start();
}

SqlConnection::~SqlConnection() {
    dropQueries();
    if (!m_database.isValid())
        return;
    m_database = QSqlDatabase();
    QSqlDatabase::removeDatabase(m_name);
}

bool SqlConnection::open() {
    return m_database.isValid() && m_database.open() && prepareSession();
}

bool SqlConnection::prepareSession() {
    QSqlQuery query(m_database);
    for (const QString& statement : m_server.kind == 1 ? MysqlSession : SqliteSession) {
        if (!query.exec(statement)) {
            qWarning() << "sql session:" << query.lastError().text();
            query.clear();
            m_database.close();
            return false;
        }
    }
    return true;
}

QSqlQuery& SqlConnection::query(Use use) {
    auto& query = m_queries.at(use);
    if (!query)
        renewQuery(use);
    return *query;
}

void SqlConnection::renewQuery(Use use) {
    m_queries.at(use) = std::make_unique<QSqlQuery>(m_database);
    m_queries.at(use)->setForwardOnly(true);
}

void SqlConnection::dropQueries() {
    for (auto& query : m_queries)
        query.reset();
    m_prepared.clear();
}

QSqlQuery* SqlConnection::execute(Use use, const QString& text, const QString& loggedAs) {
    const auto once = [this, use, &text](QSqlError& error) {
        QSqlQuery& own = query(use);
        const bool isDone = own.exec(text);
        error = own.lastError();
        return isDone ? &own : nullptr;
    };
    return attempt(once, loggedAs);
}

QSqlQuery* SqlConnection::execute(const BoundSql& statement, const QString& loggedAs) {
    if (statement.values.isEmpty())
        return execute(Run, statement.text, loggedAs);
    const auto once = [this, &statement](QSqlError& error) -> QSqlQuery* {
        QSqlQuery* const own = prepared(statement.text, error);
        if (!own)
            return nullptr;
        for (int i = 0; i < statement.values.size(); ++i)
            own->bindValue(i, statement.values.at(i));
        if (own->exec())
            return own;
        error = own->lastError();
        own->finish();
        return nullptr;
    };
    return attempt(once, loggedAs);
}

QSqlQuery* SqlConnection::attempt(const Attempt& once, const QString& loggedAs) {
    m_failureLogged = false;
    if (!usable())
        return nullptr;
    QSqlError error;
    QSqlQuery* done = once(error);
    if (!done && m_server.kind == 1 && NothingDoneCodes.contains(error.nativeErrorCode()) &&
        !m_inTransaction && reopen())
        done = once(error);
    if (!done)
        failed(error, loggedAs);
    return done;
}

void SqlConnection::failed(const QSqlError& error, const QString& loggedAs) {
    m_failure = error.text();
    if (lostBy(error)) {
        outageBegins(error);
    } else if (mayLogFailure()) {
        m_failureLogged = true;
        qWarning().noquote() << "sql error:" << m_failure << loggedAs;
    }
}

bool SqlConnection::mayLogFailure() {
    if (m_sinceLogged.isValid() && !m_sinceLogged.hasExpired(std::chrono::milliseconds(m_logPause).count()))
        return false;
    m_sinceLogged.start();
    return true;
}

QSqlQuery* SqlConnection::prepared(const QString& text, QSqlError& error) {
    constexpr size_t MaxPrepared = 100;    // about as many statements as an interface has
    constexpr int LongestPrepared = 4'000; // longer ones hold lists that hardly come again
    if (const auto known = m_prepared.find(text); known != m_prepared.end())
        return &known->second;
    if (m_prepared.size() >= MaxPrepared || text.size() > LongestPrepared)
        m_prepared.clear();
    QSqlQuery query(m_database);
    query.setForwardOnly(true);
    if (!query.prepare(text)) {
        error = query.lastError();
        return nullptr;
    }
    return &m_prepared.emplace(text, std::move(query)).first->second;
}

bool SqlConnection::usable() {
    if (!m_database.isValid()) // a query on it would fall back to the default connection
        return fail(QStringLiteral("no database driver"));
    if (m_transactionLost)
        return fail(QStringLiteral("the connection was lost in this transaction"));
    if (m_server.kind != 1)
        return m_database.isOpen() || reopenFile();
    if (m_down ? mayReopen() && reopen() : survivedIdling() || reopen())
        return true;
    if (!m_down) {
        outageBegins(m_database.lastError());
        return fail(m_database.lastError().text());
    }
    ++m_failedStatements;
    return fail(QStringLiteral("no connection to the database server"));
}

// A file that is locked before it is in WAL mode can't be opened until the lock is gone.
bool SqlConnection::reopenFile() {
    if (!m_sinceAttempt.hasExpired(std::chrono::milliseconds(FirstPause).count()))
        return fail(QStringLiteral("the database file is not open"));
    dropQueries();
    if (isMainLoop())
        m_database.setConnectOptions(QLatin1String(SqliteLoopOptions));
    const bool isOpen = open();
    m_sinceAttempt.start();
    if (isOpen)
        qInfo() << "SQLITE 3";
    return isOpen || fail(m_database.lastError().text());
}

bool SqlConnection::fail(const QString& why) {
    m_failure = why;
    return false;
}

bool SqlConnection::survivedIdling() {
    const bool trusted = m_server.kind != 1 || m_inTransaction ||
                         !m_sinceUse.hasExpired(std::chrono::milliseconds(TrustedIdle).count());
    m_sinceUse.start();
    return trusted || query(Control).exec(QStringLiteral("DO 0"));
}

bool SqlConnection::mayReopen() {
    // "localhost" means the server's local socket, which does not keep anybody waiting.
    if (!isMainLoop() || m_server.host == QLatin1String("localhost"))
        return m_sinceAttempt.hasExpired(m_pause.count());
    return isReachable();
}

// Asks without waiting; the answer is there at a later statement.
bool SqlConnection::isReachable() {
    constexpr std::chrono::milliseconds ProbeLimit{3000}; // as long as a connection may take
    if (!m_probe) {
        if (m_sinceAttempt.hasExpired(m_pause.count())) {
            m_probe = std::make_unique<QTcpSocket>();
            m_probe->setProxy(QNetworkProxy::NoProxy);
            m_probe->connectToHost(m_server.host, static_cast<quint16>(m_server.port));
            m_sinceAttempt.start();
        }
        return false;
    }
    const bool connected = m_probe->state() == QAbstractSocket::ConnectedState;
    const bool over = m_probe->state() == QAbstractSocket::UnconnectedState ||
                      m_sinceAttempt.hasExpired(ProbeLimit.count());
    if (connected || over)
        m_probe.reset();
    if (!connected && over)
        backOff();
    return connected;
}

void SqlConnection::backOff() {
    m_pause = std::min<std::chrono::milliseconds>(m_pause * 2, LongestPause);
    m_sinceAttempt.start();
}

bool SqlConnection::reopen() {
    dropQueries();
    m_database.close();
    m_sinceAttempt.start();
    if (!open()) {
        backOff();
        return false;
    }
    if (m_down) {
        qInfo().noquote() << "mysql back" << m_server.host << m_server.port << "after"
                          << m_sinceLost.elapsed() / 1000 << "s, statements failed:" << m_failedStatements;
    }
    m_down = false;
    m_pause = FirstPause;
    m_sinceUse.start();
    return true;
}

bool SqlConnection::lostBy(const QSqlError& error) const {
    return m_server.kind == 1 && LostCodes.contains(error.nativeErrorCode());
}

void SqlConnection::outageBegins(const QSqlError& error) {
    m_transactionLost = m_inTransaction;
    m_failureLogged = true;
    qWarning().noquote() << "mysql lost" << m_server.host << m_server.port << error.text();
    m_down = true;
    m_failedStatements = 1;
    m_pause = FirstPause;
    m_sinceLost.start();
    m_sinceAttempt.start();
}

void SqlConnection::setInTransaction(bool on) {
    m_inTransaction = on;
    m_transactionLost = false;
}

void SqlConnection::close() {
    if (m_queries.at(Exec)) {
        m_queries.at(Exec)->finish();
        m_queries.at(Exec)->clear();
    }
    dropQueries();
    m_database.close();
}
