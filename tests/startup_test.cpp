#include "support/service.h"
#include "support/testmain.h"
#include "support/waitfor.h"

#include <QJsonArray>
#include <QJsonObject>
#include <QTcpServer>
#include <QTcpSocket>

// Runs the program to its end with everything that it printed.
struct Run {
    int status = -1;
    QByteArray output;
};

static Run runToEnd(const QStringList& arguments, const QString& directory = QString()) {
    QProcess process;
    process.setProcessChannelMode(QProcess::MergedChannels);
    if (!directory.isEmpty())
        process.setWorkingDirectory(directory);
    process.start(BUILD_DIR "/speakerd", arguments);
    if (!process.waitForFinished(60'000) || process.exitStatus() != QProcess::NormalExit)
        return {};
    return {process.exitCode(), process.readAll()};
}

static bool answers(quint16 port) {
    QTcpSocket socket;
    socket.connectToHost("127.0.0.1", port);
    return socket.waitForConnected(2000);
}

class StartupTest : public QObject {
    Q_OBJECT
private slots:
    // The default ports are taken here, so that the run ends by itself.
    void missingConfigurationIsTold() {
        QTcpServer taken;
        if (!taken.listen(QHostAddress::Any, 3333))
            QSKIP("the default port is in use");
        QTemporaryDir directory;
        for (const QStringList& arguments : {QStringList(), QStringList("other.ini")}) {
            const Run run = runToEnd(arguments, directory.path());
            const QByteArray name = arguments.isEmpty() ? "config.ini" : "other.ini";
            QVERIFY(run.output.contains("Use config: " + name));
            QVERIFY(run.output.contains("Config file missing: " + directory.filePath(name).toUtf8()));
            QVERIFY(run.output.contains("LocalIP Error"));
        }
    }

    void onlyTheFirstArgumentCounts() {
        QTemporaryDir directory;
        QTcpServer taken;
        QVERIFY(taken.listen(QHostAddress::Any));
        QFile file(directory.filePath("first.ini"));
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.write(QString("[Settings]\nLocalIP=127.0.0.1\nDPort=%1\n").arg(taken.serverPort()).toUtf8());
        file.close();
        const Run run = runToEnd({"first.ini", "second.ini"}, directory.path());
        QVERIFY(run.output.contains("Use config: first.ini"));
        QVERIFY(!run.output.contains("missing"));
    }

    void reportsInOrderAndKeepsSecrets() {
        ServiceOptions options;
        options.settings = {
            {"ISLOCALHOST", true}, {"locipsss", "10.9.8.7"},     {"preurl", "http://FUCKHOST:1/"},
            {"askey", "hush-a"},   {"RedisAUTH", "hush-b"},      {"task_passwd", "hush-c"},
            {"PayKey", "hush-d"},  {"ttsxfAPISecret", "hush-e"}, {"ttsxfAPIKey", "hush-f"}};
        Service service(options);
        QVERIFY(service.start());
        QVERIFY(service.waitForLog("speakerd ready: "));
        const QByteArray log = service.log();
        int at = 0;
        for (const QByteArray& expected :
             {QByteArray("argv:"), QByteArray("Use config: config.ini"),
              QByteArray("ISLOCALHOST::>>> 127.0.0.1"), QByteArray("ISLOCALHOST::>>> 10.9.8.7\n"),
              QByteArray("localcdn::>>> 10.9.8.7:8080\n"), QByteArray("http://10.9.8.7:1/"),
              QByteArray("init sqlite3"), QByteArray("SQLITE 3"), QByteArray(" true\n"),
              "warningurl http://10.9.8.7:" + QByteArray::number(service.httpPort()) + "/\n",
              QByteArray("preurl http://10.9.8.7:1/\n"), QByteArray("QSQLITE"),
              QByteArray("speakerd ready: ")}) {
            at = log.indexOf(expected, at);
            QVERIFY2(at >= 0, expected + "\n" + log);
        }
        QVERIFY(!log.contains("hush-"));
        QVERIFY(!log.contains(Service::serviceKey()));
    }

    void storedSpeakersAreKnown() {
        const QString active(32, 'a');
        const QString expired(32, 'b');
        const QString unknown(32, 'c');
        Service service;
        for (const QString& sn : {active, expired})
            service.sql(
                QString("INSERT INTO sbox_device_info (user_id, device_seed) VALUES (1, '%1')").arg(sn));
        service.sql(QString("INSERT INTO snover (sn, statu) VALUES ('%1', 2)").arg(expired));
        QVERIFY(service.start());
        const QJsonObject reply =
            service.command({{"cmd", "LIST"}, {"snlist", QJsonArray{active, expired, unknown}}});
        const QByteArray text = QJsonDocument(reply).toJson();
        QVERIFY2(text.contains(active.toUtf8()) && text.contains(expired.toUtf8()), text);
    }

    void portsOfZeroAreTold() {
        ServiceOptions options;
        options.settings = {{"isonly_media", true}, {"PS1", 0}};
        Service service(options);
        QVERIFY(service.start());
        QVERIFY(service.waitForLog("speakerd ready: "));
        const QRegularExpression ready("speakerd ready: devices \\d+/\\d+, commands (\\d+)/\\d+\n");
        const quint16 port = ready.match(QString::fromUtf8(service.log())).captured(1).toUShort();
        QVERIFY(port != 0 && answers(port));
    }

    void takenCommandPortsEndTheStart() {
        QTcpServer taken;
        QVERIFY(taken.listen(QHostAddress::Any));
        for (const QString key : {"PS1", "PS2"}) {
            ServiceOptions options;
            options.settings = {{key, taken.serverPort()}};
            Service service(options);
            QTest::ignoreMessage(QtWarningMsg, QRegularExpression("^the service did not start"));
            QVERIFY(!service.start());
            QCOMPARE(service.waitForEnd(), 1);
            const QString port = QString("no command server, %1 port %2 ").arg(key).arg(taken.serverPort());
            QVERIFY2(service.log().contains(port.toUtf8()), service.log());
        }
    }

    void raisesItsOpenFileLimit() {
        Service service;
        QVERIFY(service.start());
        QFile limits(QString("/proc/%1/limits").arg(service.pid()));
        QVERIFY(limits.open(QIODevice::ReadOnly));
        const QRegularExpression openFiles("Max open files\\s+(\\d+)\\s+(\\d+)");
        const auto match = openFiles.match(QString::fromUtf8(limits.readAll()));
        QVERIFY(match.hasMatch());
        QCOMPARE(match.captured(1), match.captured(2));
    }
};

int main(int argc, char** argv) {
    return runTest<StartupTest>(argc, argv);
}
#include "startup_test.moc"
