#include "support/service.h"

#include "support/mariadb.h"
#include "support/waitfor.h"

#include <csignal>
#include <QDir>
#include <QNetworkProxy>
#include <QRandomGenerator>
#include <QSettings>
#include <QSqlDatabase>
#include <QSqlError>
#include <QSqlQuery>
#include <QSqlRecord>
#include <QTcpServer>
#include <QTcpSocket>

namespace {

const QByteArray kReady = QByteArrayLiteral("speakerd ready:");
constexpr std::chrono::seconds kStartDeadline{60}; ///< an instrumented build on a busy machine is slow
constexpr std::chrono::seconds kStopDeadline{30};
constexpr int kCommandTimeoutMs = 40'000;

int exitStatus(const QProcess& process) {
    return process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
}

/// Runs a program with `input`; ends the test when it fails.
QByteArray runProgram(const QString& program, const QStringList& arguments, const QByteArray& input = {}) {
    QProcess process;
    process.start(program, arguments);
    process.write(input);
    process.closeWriteChannel();
    if (!process.waitForFinished(60'000) || exitStatus(process) != 0)
        qFatal("%s: %s %s", qPrintable(program), qPrintable(process.errorString()),
               process.readAllStandardError().constData());
    return process.readAllStandardOutput();
}

QByteArray readFile(const QString& path) {
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        qFatal("cannot read %s", qPrintable(path));
    return file.readAll();
}

void writeFile(const QString& path, const QByteArray& bytes) {
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly) || file.write(bytes) != bytes.size())
        qFatal("cannot write %s", qPrintable(path));
}

/// A database of its own for each service of kind 1, on one server a test process.
DatabaseAccess ownMysqlDatabase() {
    static MariaDb server;
    static const bool started = server.start();
    static int count = 0;
    if (!started)
        qFatal("no database server");
    return server.createDatabase(QStringLiteral("service%1").arg(++count));
}

} // namespace

quint16 freePort(int span) {
    for (int attempt = 0; attempt < 1000; ++attempt) {
        const int first = QRandomGenerator::global()->bounded(10'000, 32'000);
        bool free = true;
        for (int i = 0; i < span && free; ++i)
            free = QTcpServer().listen(QHostAddress::Any, static_cast<quint16>(first + i));
        if (free)
            return static_cast<quint16>(first);
    }
    qFatal("no free port");
}

QByteArray makeMp3(double seconds, int hertz) {
    QTemporaryDir directory;
    const QString wav = directory.filePath("tone.wav");
    const QString mp3 = directory.filePath("tone.mp3");
    runProgram("sox",
               {"-n", "-r", "44100", wav, "synth", QString::number(seconds), "sine", QString::number(hertz)});
    runProgram("lame", {"--quiet", "-b", "128", wav, mp3});
    return readFile(mp3);
}

Service::Service(ServiceOptions options)
    : m_options(std::move(options)) {
    if (m_options.kind == 1 && m_options.database.name.isEmpty())
        m_options.database = ownMysqlDatabase();
    const quint16 device = freePort(3); // the audio port is the control port + 2
    m_ports = {{"DPort", device}};
    for (const char* key : {"DataPortBack3", "PS1", "PS2", "wbport", "listener/port"}) {
        quint16 candidate = freePort();
        while (m_ports.values().contains(candidate) || (candidate >= device && candidate < device + 3))
            candidate = freePort();
        m_ports.insert(QString::fromLatin1(key), candidate);
    }
    QDir().mkpath(docroot() + QStringLiteral("/mp3"));
    QDir().mkpath(file("waring"));
    writeConfiguration();
    for (auto it = m_options.files.cbegin(); it != m_options.files.cend(); ++it)
        writeFile(file(it.key()), it.value());
    if (m_options.createDatabase)
        makeDatabase();

    m_process.setWorkingDirectory(directory());
    auto environment = QProcessEnvironment::systemEnvironment();
    for (auto it = m_options.environment.cbegin(); it != m_options.environment.cend(); ++it)
        environment.insert(it.key(), it.value());
    m_process.setProcessEnvironment(environment);
    m_process.setProcessChannelMode(QProcess::MergedChannels);
    QObject::connect(&m_process, &QProcess::readyRead, [this] { m_log += m_process.readAll(); });
}

Service::~Service() {
    m_process.disconnect();
    if (isRunning()) {
        m_process.terminate();
        if (!m_process.waitForFinished(10'000))
            m_process.kill();
        m_process.waitForFinished(10'000);
    }
    QSqlDatabase::removeDatabase(directory());
}

quint16 Service::port(const char* key) const {
    const QString name = QString::fromLatin1(key);
    const QVariant chosen = m_options.settings.value(name);
    return chosen.isValid() ? static_cast<quint16>(chosen.toUInt()) : m_ports.value(name);
}

QString Service::url(const QString& path) const {
    return QStringLiteral("http://127.0.0.1:%1%2").arg(httpPort()).arg(path);
}

void Service::writeConfiguration() {
    QMap<QString, QVariant> values{
        {"LocalIP", "127.0.0.1"},
        {"ASKEY", QString::fromLatin1(serviceKey())},
        {"dbk", m_options.kind},
        {"preurl", url("/")},
        {"runingdir", "."},
        {"programdir", QStringLiteral(SOURCE_DIR "/programs")},
        {"waringdir", file("waring")},
        {"task_ip", m_options.database.host},
        {"sqltask_port", m_options.database.port},
        {"task_username", m_options.database.user},
        {"task_passwd", m_options.database.password},
        {"basename", m_options.database.name},
        {"docroot/path", "etc/docroot"},
        {"taskstart", 0},
        {"taskend", 86400},
    };
    for (auto it = m_ports.cbegin(); it != m_ports.cend(); ++it)
        values.insert(it.key(), it.value());
    for (auto it = m_options.settings.cbegin(); it != m_options.settings.cend(); ++it)
        values.insert(it.key(), it.value());
    QSettings ini(file("config.ini"), QSettings::IniFormat);
    ini.setIniCodec("UTF-8");
    for (auto it = values.cbegin(); it != values.cend(); ++it) {
        const QString key =
            it.key().contains(QLatin1Char('/')) ? it.key() : QStringLiteral("Settings/") + it.key();
        if (it.value().isValid())
            ini.setValue(key, it.value());
    }
}

void Service::makeDatabase() {
    if (m_options.kind == 1) {
        const QByteArray script = readFile(QStringLiteral(SOURCE_DIR "/core/schema/elvor1.sql"));
        runProgram("mariadb",
                   {"--protocol=tcp", "-h", m_options.database.host, "-P",
                    QString::number(m_options.database.port), "-u", m_options.database.user,
                    QStringLiteral("-p") + m_options.database.password, m_options.database.name},
                   script);
    } else if (m_options.kind == 0 || m_options.kind == 3) {
        const QByteArray script = readFile(QStringLiteral(SOURCE_DIR "/core/schema/sqlite3main.sql"));
        runProgram("sqlite3", {"-bail", file(".Elvor.db")}, script);
    }
}

bool Service::start() {
    m_log.clear();
    m_process.start(QStringLiteral(BUILD_DIR "/speakerd"), {"config.ini"});
    m_http = std::make_unique<HttpClient>(httpPort()); // keeps no connection to an earlier process
    waitFor([this] { return m_log.contains(kReady) || m_process.state() == QProcess::NotRunning; },
            kStartDeadline);
    const bool ready = isRunning() && m_log.contains(kReady);
    if (!ready)
        qWarning("the service did not start:\n%s", m_log.constData());
    return ready;
}

int Service::waitForEnd() {
    if (!waitFor([this] { return m_process.state() == QProcess::NotRunning; }, kStopDeadline)) {
        kill9();
        return -1;
    }
    return exitStatus(m_process);
}

int Service::stop() {
    m_process.terminate();
    const int status = waitForEnd();
    if (status != 0)
        qWarning("the service ended with %d:\n%s", status, m_log.constData());
    return status;
}

void Service::kill9() {
    ::kill(static_cast<pid_t>(pid()), SIGKILL);
    waitFor([this] { return m_process.state() == QProcess::NotRunning; }, kStopDeadline);
}

bool Service::waitForLog(const QByteArray& text, std::chrono::milliseconds deadline) {
    return waitFor([&] { return m_log.contains(text); }, deadline);
}

QList<QVariantMap> Service::sql(const QString& statement) {
    QSqlDatabase database = QSqlDatabase::database(directory(), false);
    if (!database.isValid()) {
        database = QSqlDatabase::addDatabase(
            m_options.kind == 1 ? QStringLiteral("QMYSQL") : QStringLiteral("QSQLITE"), directory());
        if (m_options.kind == 1) {
            database.setHostName(m_options.database.host);
            database.setPort(m_options.database.port);
            database.setUserName(m_options.database.user);
            database.setPassword(m_options.database.password);
            database.setDatabaseName(m_options.database.name);
        } else {
            database.setDatabaseName(file(".Elvor.db"));
            database.setConnectOptions("QSQLITE_BUSY_TIMEOUT=20000");
        }
    }
    const bool opened = !database.isOpen() && database.open();
    if (opened && m_options.kind == 1)
        database.exec("SET NAMES utf8mb4");
    QSqlQuery query(database);
    if (!database.isOpen() || !query.exec(statement))
        qFatal("%s: %s", qPrintable(statement),
               qPrintable(query.lastError().text() + database.lastError().text()));
    QList<QVariantMap> rows;
    while (query.next()) {
        QVariantMap row;
        const QSqlRecord record = query.record();
        for (int i = 0; i < record.count(); ++i)
            row.insert(record.fieldName(i), record.value(i));
        rows.append(row);
    }
    return rows;
}

Account Service::addAccount(const QString& name, const QString& password) {
    Account account{0, name, password, {}};
    const HttpParams login{{"username", name}, {"passwd", password}};
    HttpReply reply;
    if (m_options.kind == 0) {
        reply =
            m_http->postForm("/user/adduser", login + HttpParams{{"sskey", QString::fromLatin1(serviceKey())},
                                                                 {"preid", "0"}});
    } else {
        sql(QStringLiteral("INSERT INTO `sbox_users` (`user_name`, `user_pass`, `master_id`, `token`)"
                           " VALUES ('%1', '%2', 0, '')")
                .arg(name, password));
        reply = m_http->postForm("/user/gtoken", login);
    }
    account.id = reply.json().value("userid").toInt();
    account.token = reply.json().value("token").toString();
    if (account.id == 0 || account.token.isEmpty())
        qFatal("no account: %s", reply.body.constData());
    return account;
}

void Service::giveSpeakers(const Account& account, const QStringList& serials) {
    for (const QString& serial : serials)
        sql(QStringLiteral(
                "INSERT INTO `sbox_device_info` (`user_id`, `device_name`, `device_seed`, `node_id`)"
                " VALUES (%1, 'speaker %2', '%2', 1)")
                .arg(account.id)
                .arg(serial));
}

QJsonObject Service::command(const QJsonObject& request, quint16 port) {
    QTcpSocket socket;
    socket.setProxy(QNetworkProxy::NoProxy);
    socket.connectToHost("127.0.0.1", port != 0 ? port : commandPort6());
    const QByteArray body = QJsonDocument(request).toJson(QJsonDocument::Compact);
    socket.write(QByteArray::number(body.size()) + '\n' + body);
    QByteArray reply;
    waitFor(
        [&] {
            reply += socket.readAll();
            return reply.endsWith("\r\n") || socket.state() == QAbstractSocket::UnconnectedState;
        },
        std::chrono::milliseconds(kCommandTimeoutMs));
    return QJsonDocument::fromJson(reply.trimmed()).object();
}
