#include "support/mariadb.h"

#include "support/waitfor.h"

#include <csignal>
#include <QDir>
#include <unistd.h>

namespace {

// The server refuses to run as root unless told to.
QStringList asWhom() {
    return geteuid() == 0 ? QStringList{"--user=root"} : QStringList{};
}

constexpr std::chrono::seconds StartLimit{60};

// A server that starts removes what it takes for the remains of its temporary tables: in a directory
// of all servers, also those in use by another test's.
QProcessEnvironment withTemporary(const QString& directory) {
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert("TMPDIR", directory);
    return environment;
}

} // namespace

MariaDb::MariaDb()
    : m_port(freePort()) {
    QDir().mkpath(file("tmp"));
    m_process.setProcessEnvironment(withTemporary(file("tmp")));
    QProcess install;
    install.setProcessEnvironment(m_process.processEnvironment());
    install.start("mariadb-install-db",
                  QStringList{"--no-defaults", QStringLiteral("--datadir=") + file("data"),
                              "--auth-root-authentication-method=normal", "--skip-test-db"} +
                      asWhom());
    if (!install.waitForFinished(120'000) || install.exitCode() != 0)
        qFatal("mariadb-install-db: %s", install.readAllStandardError().constData());
}

MariaDb::~MariaDb() {
    resume();
    kill();
}

bool MariaDb::start() {
    m_process.setStandardOutputFile(file("log"));
    m_process.setStandardErrorFile(file("log"), QIODevice::Append);
    m_process.start("mariadbd",
                    QStringList{"--no-defaults", QStringLiteral("--datadir=") + file("data"),
                                QStringLiteral("--socket=") + file("s"),
                                QStringLiteral("--port=%1").arg(m_port), "--bind-address=127.0.0.1",
                                "--innodb-flush-log-at-trx-commit=2", "--skip-name-resolve"} +
                        asWhom());
    return m_process.waitForStarted() && waitFor([this] { return answers(); }, StartLimit);
}

void MariaDb::kill() {
    m_process.kill();
    m_process.waitForFinished();
}

void MariaDb::suspend() {
    ::kill(static_cast<pid_t>(m_process.processId()), SIGSTOP);
}

void MariaDb::resume() {
    if (m_process.state() == QProcess::Running)
        ::kill(static_cast<pid_t>(m_process.processId()), SIGCONT);
}

bool MariaDb::answers() {
    return sql("SELECT 'up'") == "up\n";
}

DatabaseAccess MariaDb::createDatabase(const QString& name) {
    DatabaseAccess access;
    access.port = m_port;
    access.name = name;
    access.user = QStringLiteral("user_") + name;
    access.password = QStringLiteral("p%1").arg(m_port);
    sql(QStringLiteral("CREATE DATABASE `%1` CHARACTER SET utf8mb4; CREATE USER '%2'@'%' IDENTIFIED BY '%3'; "
                       "GRANT ALL ON `%1`.* TO '%2'@'%';")
            .arg(name, access.user, access.password));
    return access;
}

QByteArray MariaDb::sql(const QString& statements) {
    QProcess client;
    client.start("mariadb", {"--no-defaults", "-uroot", QStringLiteral("--socket=") + file("s"),
                             "--default-character-set=utf8mb4", "-BNe", statements});
    client.waitForFinished();
    return client.readAllStandardOutput();
}
