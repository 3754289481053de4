#include "core/sql/sqlite.h"

#include "core/logthrottle.h"
#include "core/sql/sqlconnection.h"
#include "core/sql/sqlscript.h"

#include <atomic>
#include <QDateTime>
#include <QDebug>
#include <QSqlRecord>
#include <QThread>

// The schema scripts stand in a static library: this keeps the linker from dropping them.
static void keepResources() {
    Q_INIT_RESOURCE(resources);
}

namespace {

constexpr auto LogRowStatement = "INSERT INTO  `rizhi` (`userid`, `info`, `kind`, `level`) VALUES "
                                 "('@userid', '@info', '@kind', '@level');";

// Times come as text and texts as QString on every driver, so that both databases give the same replies.
QVariant normalised(const QVariant& value) {
    switch (value.type()) {
    case QVariant::DateTime:
        return value.toDateTime().toString(QStringLiteral("yyyy-MM-dd HH:mm:ss"));
    case QVariant::Date:
        return value.toDate().toString(QStringLiteral("yyyy-MM-dd"));
    case QVariant::ByteArray:
        return value.isNull() ? QVariant(QVariant::String) : QString::fromUtf8(value.toByteArray());
    default:
        return value;
    }
}

void fetch(QSqlQuery& query, SqlResult& result) {
    const QSqlRecord record = query.record();
    for (int i = 0; i < record.count(); ++i)
        result.columns.append(record.fieldName(i));
    while (query.next()) {
        QVector<QVariant> row;
        row.reserve(result.columns.size());
        for (int i = 0; i < result.columns.size(); ++i)
            row.append(normalised(query.value(i)));
        result.rows.append(std::move(row));
    }
}

bool inserts(const QString& sql) {
    const QString trimmed = sql.trimmed();
    return trimmed.startsWith(QStringLiteral("INSERT"), Qt::CaseInsensitive) ||
           trimmed.startsWith(QStringLiteral("REPLACE"), Qt::CaseInsensitive);
}

QString mainConnectionName(int kind, const QString& name) {
    return kind == 1 ? name : QString::fromLatin1(QSqlDatabase::defaultConnection);
}

} // namespace

sqlite::sqlite(QString host, int port, QString user, QString password, QString databaseName, int kind,
               const QString& connectionName, QObject* parent)
    : QObject(parent)
    , m_host(std::move(host))
    , m_port(port)
    , m_user(std::move(user))
    , m_password(std::move(password))
    , m_databaseName(std::move(databaseName))
    , m_kind(kind)
    , m_connection(std::make_unique<SqlConnection>(
          SqlServer{m_host, m_port, m_user, m_password, m_databaseName, m_kind},
          mainConnectionName(kind, connectionName)))
    , m_isRefused(std::make_shared<std::atomic<bool>>(false)) {
    keepResources();
}

sqlite::sqlite(const sqlite& settings, const QString& connectionName)
    : site(settings.site)
    , m_host(settings.m_host)
    , m_port(settings.m_port)
    , m_user(settings.m_user)
    , m_password(settings.m_password)
    , m_databaseName(settings.m_databaseName)
    , m_kind(settings.m_kind)
    , m_connection(std::make_unique<SqlConnection>(
          SqlServer{m_host, m_port, m_user, m_password, m_databaseName, m_kind}, connectionName))
    , m_isRefused(settings.m_isRefused) {}

sqlite::~sqlite() = default;

void sqlite::init() {
    for (const auto use : {SqlConnection::Exec, SqlConnection::Run, SqlConnection::Control})
        m_connection->renewQuery(use);
}

void sqlite::init2() {
    m_connection->renewQuery(SqlConnection::Exec);
    m_state = 2;
    qDebug() << "query  init2";
}

bool sqlite::get_is_aready() const {
    return m_connection->isOpen();
}

bool sqlite::exec(const QString& sql) {
    const bool ok = !*m_isRefused && m_connection->execute(SqlConnection::Exec, sql, QString());
    if (!ok && m_connection->failureWasLogged())
        emit error();
    return ok;
}

QSqlError sqlite::getbaslasterror() const {
    return m_connection->lastError();
}

void sqlite::get_rizhi(int userid, int level, int kind, const QString& info) {
    run(QLatin1String(LogRowStatement), {{QStringLiteral("@userid"), userid},
                                         {QStringLiteral("@level"), level},
                                         {QStringLiteral("@kind"), kind},
                                         {QStringLiteral("@info"), info}});
}

void sqlite::release() {
    m_connection->close();
    qDebug() << "queryclear";
    deleteLater();
}

SqlResult sqlite::run(const QString& statement, const SqlArgs& args) {
    const BoundSql bound = bindSql(statement, args);
    if (bound.error.isEmpty())
        return send(bound, statement);
    SqlResult refused;
    refused.refused = true;
    refused.error = bound.error;
    if (mayLog("sql refused", QString()))
        qWarning().noquote() << "sql refused:" << bound.error << "in" << statement;
    return refused;
}

void sqlite::logFailuresEvery(std::chrono::seconds pause) {
    m_connection->logFailuresEvery(pause);
}

// `loggedAs` is the template: the values stay out of the log.
SqlResult sqlite::send(const BoundSql& statement, const QString& loggedAs) {
    Q_ASSERT_X(QThread::currentThread() == thread(), "sqlite", "a connection belongs to its own thread");
    SqlResult result;
    if (*m_isRefused) {
        result.error = QStringLiteral("the database is not this program's");
        return result;
    }
    QSqlQuery* const query = m_connection->execute(statement, QStringLiteral("in ") + loggedAs);
    result.ok = query != nullptr;
    if (!query) {
        result.error = m_connection->failure();
        if (m_connection->failureWasLogged())
            emit error();
        return result;
    }
    if (query->isSelect()) {
        fetch(*query, result);
    } else {
        result.affected = query->numRowsAffected();
        if (inserts(statement.text))
            result.lastId = query->lastInsertId().toLongLong();
    }
    query->finish();
    return result;
}

bool sqlite::transaction(const std::function<bool()>& body) {
    const auto control = [this](const char* word) {
        return m_connection->execute(SqlConnection::Control, QLatin1String(word), QLatin1String(word)) !=
               nullptr;
    };
    Q_ASSERT_X(!m_connection->isInTransaction(), "sqlite", "transactions don't nest");
    if (!control(m_kind == 1 ? "START TRANSACTION" : "BEGIN IMMEDIATE"))
        return false;
    m_connection->setInTransaction(true);
    const bool committed = body() && control("COMMIT");
    if (!committed)
        control("ROLLBACK");
    m_connection->setInTransaction(false);
    return committed;
}

int sqlite::runScript(const QString& script) {
    int affected = 0;
    const auto runAll = [this, &script, &affected] {
        for (const QString& statement : splitSqlScript(script, dialect())) {
            const SqlResult result = send({statement, {}, {}}, statement.left(80));
            if (!result.ok)
                return false;
            affected += qMax(0, result.affected);
        }
        return true;
    };
    return transaction(runAll) ? affected : -1;
}

std::unique_ptr<sqlite> sqlite::forThread() const {
    static std::atomic<int> count{0};
    const QString name = QStringLiteral("taskmain_%1").arg(++count);
    qDebug().noquote() << "reget Dbasename" << name;
    std::unique_ptr<sqlite> own(new sqlite(*this, name));
    own->init2();
    return own;
}
