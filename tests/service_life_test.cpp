// Start, end and restart of the real service, and the ways it runs with less than it expects.
#include "support/speakers.h"
#include "support/table.h"
#include "support/testmain.h"

#include <array>
#include <csignal>
#include <fcntl.h>
#include <QJsonArray>
#include <QJsonDocument>
#include <QTcpServer>
#include <QTcpSocket>
#include <sys/stat.h>
#include <unistd.h>

class ServiceLifeTest : public QObject {
    Q_OBJECT
private slots:
    void endsOnSignal_data() {
        const Table<int> row{"number"};
        row("SIGTERM", SIGTERM);
        row("SIGINT", SIGINT);
    }

    void endsOnSignal() {
        QFETCH(int, number);
        Service service;
        QVERIFY(service.start());
        const auto fleet = onlineFleet(speakersAt(service), 1);
        ::kill(pid_t(service.pid()), number);
        QCOMPARE(service.waitForEnd(), 0);
        QVERIFY(waitFor([&] { return !fleet->at(0).isConnected(); }));
    }

    /// The reader of the log stops, as that of a pipe does when its terminal is held.
    void goesOnWhenNobodyReadsItsLog() {
        Service service; // lends its directory, configuration and ports
        const QByteArray path = QFile::encodeName(service.file("log"));
        QCOMPARE(::mkfifo(path.constData(), 0600), 0);
        const int reader = ::open(path.constData(), O_RDONLY | O_NONBLOCK);
        const int filler = ::open(path.constData(), O_WRONLY | O_NONBLOCK);
        std::array<char, 4096> bytes{};
        const auto fill = [&] {
            while (::write(filler, bytes.data(), bytes.size()) > 0 || ::write(filler, bytes.data(), 1) > 0)
                ;
        };
        const auto readAll = [&] {
            QByteArray text;
            for (ssize_t n = 0; (n = ::read(reader, bytes.data(), bytes.size())) > 0;)
                text.append(bytes.data(), int(n));
            bytes.fill(0);
            return text;
        };
        fill();
        ChildProcess process;
        process.setWorkingDirectory(service.directory());
        process.setStandardErrorFile(service.file("log"));
        process.start(BUILD_DIR "/speakerd", {"config.ini"});
        auto options = speakersAt(service);
        options.reconnectPause = std::chrono::milliseconds(100);
        const auto fleet = onlineFleet(options, 100);
        QByteArray told = readAll();
        service.command({{"cmd", "LIST"}}); // is told
        told += readAll();
        QVERIFY(told.contains(" lines lost\n"));
        fill();
        process.terminate();
        QVERIFY(process.waitForFinished(20000));
        QCOMPARE(process.exitCode(), 0);
        ::close(reader);
        ::close(filler);
    }

    void survivesKill9() {
        Service service;
        QVERIFY(service.start());
        auto options = speakersAt(service);
        options.reconnectPause = std::chrono::milliseconds(100);
        const auto fleet = onlineFleet(options, 20);
        const Account account = service.addAccount("admin");
        for (int round = 0; round < 3; ++round) {
            // Killed while it writes: the database must come up whole, with every answered account in it.
            for (int i = 0; i < 5; ++i)
                service.addAccount(QString("user%1x%2").arg(round).arg(i));
            service.kill9();
            QVERIFY(waitFor([&] { return fleet->online() == 0; }));
            QVERIFY(service.start());
            QCOMPARE(service.sql("PRAGMA integrity_check").value(0).first().toString(), "ok");
            QCOMPARE(service.sql("SELECT id FROM sbox_users WHERE length(token) = 40").size(),
                     1 + 5 * (round + 1));
            QVERIFY(waitFor([&] { return fleet->online() == 20; }));
        }
        const HttpReply reply = service.http().postForm(
            "/user/editvols", account.params({{"vol", "9"}, {"snlist", fleet->serials().join('|')}}));
        QVERIFY2(reply.res(), reply.body);
        QVERIFY(waitFor([&] { return fleet->at(19).volume() == 9 && fleet->at(0).volume() == 9; }));
        QCOMPARE(service.stop(), 0);
    }

    void mediaOnlyOpensNoHttp() {
        ServiceOptions options;
        options.settings = {{"isonly_media", true}, {"PS1", 0}};
        options.createDatabase = false;
        Service service(options);
        QVERIFY(service.start());
        const auto fleet = onlineFleet(speakersAt(service), 1);
        QVERIFY(service.waitForLog("speakerd ready: "));
        const QRegularExpression ready("speakerd ready: devices \\d+/\\d+, commands (\\d+)/\\d+\n");
        const quint16 port = ready.match(QString::fromUtf8(service.log())).captured(1).toUShort();
        QTcpSocket controller; // a port of 0 is told
        controller.connectToHost("127.0.0.1", port);
        QVERIFY(port != 0 && controller.waitForConnected(2000));
        QCOMPARE(service.http().get("/").status, 0);
        QVERIFY(!QFile::exists(service.file(".Elvor.db")));
        QCOMPARE(service.stop(), 0);
    }

    void runsOnWith_data() {
        const Table<int, QString, QByteArray, QString> row{"kind", "missing", "logged", "login"};
        row("no LocalIP", 3, "LocalIP", "LocalIP Error", "ER_REJECT");
        row("no database", 2, "", "db init error", "ER_EXE");
        row("a database that is none", 3, ".Elvor.db", "file is not a database", "ER_EXE");
    }

    void runsOnWith() {
        QFETCH(int, kind);
        QFETCH(QString, missing);
        QFETCH(QByteArray, logged);
        ServiceOptions options;
        options.kind = kind;
        options.createDatabase = missing != ".Elvor.db";
        if (!options.createDatabase)
            options.files.insert(missing, QByteArray(5000, 'x'));
        else if (!missing.isEmpty())
            options.settings.insert(missing, QVariant());
        Service service(options);
        QVERIFY(service.start());
        QVERIFY(service.waitForLog(logged));
        const auto fleet = onlineFleet(speakersAt(service), 1);
        QCOMPARE(service.http().postForm("/user/test", {{"x", "y"}}).body, "dbtest");
        QTEST(service.http().postForm("/user/gtoken", {{"username", "a"}, {"passwd", "b"}}).info(), "login");
        service.command({{"cmd", "VOL_V"}, {"sn", fleet->at(0).sn()}, {"vol", 4}});
        QVERIFY(waitFor([&] { return fleet->at(0).volume() == 4; }));
        QCOMPARE(service.stop(), 0);
    }

    void endsWhenAPortIsTaken_data() {
        const Table<QString, int, int, QString> row{"key", "offset", "status", "logged"};
        row("control port", "DPort", 0, 0, "exit er2s");
        row("second control port", "DataPortBack3", 0, 0, "exit er1");
        row("audio port", "DPort", 2, 0, "exit er5");
        row("command port", "PS1", 0, 1, "no command server, PS1 port %1 ");
        row("second command port", "PS2", 0, 1, "no command server, PS2 port %1 ");
    }

    void endsWhenAPortIsTaken() {
        QFETCH(QString, key);
        QFETCH(int, offset);
        QFETCH(QString, logged);
        QTcpServer taken;
        ServiceOptions options;
        if (!logged.contains("%1"))
            options.settings = {{key, freePort(3)}};
        QVERIFY(taken.listen(QHostAddress::Any, quint16(options.settings.value(key).toInt() + offset)));
        if (logged.contains("%1"))
            options.settings = {{key, taken.serverPort()}};
        Service service(options);
        QTest::ignoreMessage(QtWarningMsg, QRegularExpression("^the service did not start"));
        QVERIFY(!service.start());
        QTEST(service.waitForEnd(), "status");
        logged.replace("%1", QString::number(taken.serverPort()));
        QVERIFY2(service.log().contains(logged.toUtf8()), service.log());
    }

    void addsAccounts_data() { addKinds({0, 1, 3}); }

    void addsAccounts() {
        QFETCH(int, kind);
        ServiceOptions options;
        options.kind = kind;
        Service service(options);
        const auto add = [&](const QStringList& arguments, const QByteArray& input,
                             QByteArray* told = nullptr) {
            QProcess process;
            process.setWorkingDirectory(service.directory());
            process.start(BUILD_DIR "/speakerd", QStringList{"--adduser"} + arguments);
            process.write(input);
            process.closeWriteChannel();
            process.waitForFinished();
            if (told)
                *told = process.readAllStandardOutput();
            return process.exitCode();
        };
        QByteArray told;
        QCOMPARE(add({"Ann", "--admin"}, "my own\n"), 0);
        QCOMPARE(add({"Ann"}, "another\n"), 1);
        QCOMPARE(add({"O'Hara"}, "p\n"), 1);
        QCOMPARE(add({"--admin"}, "p\n"), 2);
        QVERIFY(service.start());
        QCOMPARE(add({"铃", "config.ini"}, "", &told), 0); // the service runs
        const auto level = [&](const QString& name, const QString& password) {
            const HttpParams params{{"username", name}, {"passwd", password}};
            return service.http().postForm("/user/gtoken", params).res()
                       ? service.http().postForm("/user/checkuser.php", params)["user_level"].toInt()
                       : -1;
        };
        QCOMPARE(level("Ann", "my own"), 1);
        QCOMPARE(level("铃", told.mid(told.indexOf("Password: ") + 10).trimmed()), 0);
    }

    void answersAboutItself() {
        QProcess process;
        process.start(BUILD_DIR "/speakerd", {"--version"});
        QVERIFY(process.waitForFinished());
        QCOMPARE(process.exitCode(), 0);
        QVERIFY(process.readAllStandardOutput().contains("speakerd"));
        process.start(BUILD_DIR "/speakerd", {"--help"});
        QVERIFY(process.waitForFinished());
        QCOMPARE(process.exitCode(), 0);
        QVERIFY(process.readAllStandardOutput().contains("config.ini"));
    }

    /// The default ports are taken here, so that the run ends by itself.
    void tellsWhichConfigurationItReads_data() {
        const Table<QStringList, QByteArray, bool> row{"arguments", "name", "isMissing"};
        row("none", {}, "config.ini", true);
        row("one that is not there", {"other.ini"}, "other.ini", true);
        row("only the first counts", {"first.ini", "second.ini"}, "first.ini", false);
    }

    void tellsWhichConfigurationItReads() {
        QFETCH(QStringList, arguments);
        QFETCH(QByteArray, name);
        QFETCH(bool, isMissing);
        QTcpServer taken;
        if (!taken.listen(QHostAddress::Any, 3333))
            QSKIP("the default port is in use");
        QTemporaryDir directory;
        QFile file(directory.filePath("first.ini"));
        QVERIFY(file.open(QIODevice::WriteOnly) && file.write("[Settings]\nLocalIP=127.0.0.1\n") > 0);
        file.close();
        QProcess process;
        process.setProcessChannelMode(QProcess::MergedChannels);
        process.setWorkingDirectory(directory.path());
        process.start(BUILD_DIR "/speakerd", arguments);
        QVERIFY(process.waitForFinished(60'000) && process.exitStatus() == QProcess::NormalExit);
        const QByteArray output = process.readAll();
        QVERIFY(output.contains("Use config: " + name));
        const QByteArray path = directory.filePath(name).toUtf8();
        QCOMPARE(output.contains("Config file missing: " + path), isMissing);
        QCOMPARE(output.contains("LocalIP Error"), isMissing);
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
    return runTest<ServiceLifeTest>(argc, argv);
}

#include "service_life_test.moc"
