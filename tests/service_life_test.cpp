// Start, end and restart of the real service, and the ways it runs with less than it expects.
#include "support/speakers.h"
#include "support/table.h"
#include "support/testmain.h"

#include <array>
#include <csignal>
#include <fcntl.h>
#include <QTcpServer>
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
        readAll();
        service.command({{"cmd", "LIST"}}); // is told
        QVERIFY(readAll().contains(" lines lost\n"));
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
        options.settings = {{"isonly_media", true}};
        options.createDatabase = false;
        Service service(options);
        QVERIFY(service.start());
        const auto fleet = onlineFleet(speakersAt(service), 1);
        QCOMPARE(service.command({{"cmd", "LIST"}}).value("list").toArray().size(), 1);
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
        const Table<int, bool, QByteArray> row{"offset", "second", "logged"};
        row("control port", 0, false, "exit er2s");
        row("second control port", 0, true, "exit er1");
        row("audio port", 2, false, "exit er5");
    }

    void endsWhenAPortIsTaken() {
        QFETCH(int, offset);
        QFETCH(bool, second);
        QFETCH(QByteArray, logged);
        Service service;
        QTcpServer other;
        const int port = (second ? service.secondDevicePort() : service.devicePort()) + offset;
        QVERIFY(other.listen(QHostAddress::Any, quint16(port)));
        QTest::ignoreMessage(QtWarningMsg, QRegularExpression("the service did not start"));
        QVERIFY(!service.start());
        QCOMPARE(service.waitForEnd(), 0);
        QVERIFY2(service.log().contains(logged), service.log());
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
};

int main(int argc, char** argv) {
    return runTest<ServiceLifeTest>(argc, argv);
}

#include "service_life_test.moc"
