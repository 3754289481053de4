#pragma once

#include "support/childprocess.h"
#include "support/httpclient.h"

#include <memory>
#include <QJsonArray>
#include <QMap>
#include <QTemporaryDir>
#include <QVariant>

/// A MySQL server that a test has started, with an empty database of its own.
struct DatabaseAccess {
    QString host = QStringLiteral("127.0.0.1");
    int port = 3306;
    QString user;
    QString password;
    QString name;
};

struct ServiceOptions {
    int kind = 3;            ///< `dbk`
    DatabaseAccess database; ///< only for kind 1; without a name the harness starts a server and makes one
    /// Further configuration, "key" of group "Settings" or "group/key"; overrides what the harness
    /// writes. An invalid value leaves the key out.
    QMap<QString, QVariant> settings;
    bool createDatabase = true;      ///< false: ".Elvor.db" is not made
    QMap<QString, QByteArray> files; ///< more files for the working directory
    QMap<QString, QString> environment;
};

struct Account {
    int id = 0;
    QString name;
    QString password;
    QString token;

    /// "id" and "token", to put further parameters behind.
    HttpParams params(const HttpParams& more = {}) const {
        return HttpParams{{QStringLiteral("id"), QString::number(id)}, {QStringLiteral("token"), token}} +
               more;
    }
};

/// The real service in a directory of its own with free ports. Kill it and start it again: directory,
/// ports and database stay. Uses the event loop of the caller's thread; the destructor ends the process.
class Service {
public:
    explicit Service(ServiceOptions options = {});
    ~Service();

    /// Starts the process and waits until it serves. False (with the log told) when it does not.
    bool start();
    /// SIGTERM, then waits. Returns the exit status, -1 when it crashed or had to be killed.
    int stop();
    void kill9();
    bool isRunning() const { return m_process.state() == QProcess::Running; }
    qint64 pid() const { return m_process.processId(); }
    /// Waits for the process to end by itself; exit status as stop() gives it.
    int waitForEnd();

    quint16 devicePort() const { return port("DPort"); }
    quint16 secondDevicePort() const { return port("DataPortBack3"); }
    quint16 commandPort() const { return port("PS1"); }
    quint16 commandPort6() const { return port("PS2"); }
    quint16 httpPort() const { return port("listener/port"); }
    QString directory() const { return m_directory.path(); }
    QString file(const QString& name) const { return m_directory.filePath(name); }
    QString docroot() const { return file(QStringLiteral("etc/docroot")); }
    QString url(const QString& path) const; ///< absolute address of a path of this service
    static QByteArray serviceKey() { return QByteArrayLiteral("test-service-key"); }

    HttpClient& http() { return *m_http; }
    QByteArray log() const { return m_log; }
    bool waitForLog(const QByteArray& text, std::chrono::milliseconds deadline = std::chrono::seconds(20));

    /// Runs a statement on the service's database from outside; rows as maps by column name.
    /// A failed statement ends the test with its error.
    QList<QVariantMap> sql(const QString& statement);

    /// A new account with a token; the service must run.
    Account addAccount(const QString& name, const QString& password = QStringLiteral("secret"));
    /// Rows of `sbox_device_info` that give the account these speakers.
    void giveSpeakers(const Account& account, const QStringList& serials);
    /// One request to the command server on `port` (0: `PS2`); its reply.
    QJsonObject command(const QJsonObject& request, quint16 port = 0);

private:
    quint16 port(const char* key) const;
    void writeConfiguration();
    void makeDatabase();

    ServiceOptions m_options;
    QTemporaryDir m_directory;
    QMap<QString, quint16> m_ports;
    ChildProcess m_process;
    QByteArray m_log;
    std::unique_ptr<HttpClient> m_http;
};

/// A TCP port below the ephemeral range that is free now; `span` ports from it on are.
quint16 freePort(int span = 1);
/// A real MP3 of `seconds` made with sox and lame; a different `hertz` gives different bytes.
QByteArray makeMp3(double seconds, int hertz = 440);
