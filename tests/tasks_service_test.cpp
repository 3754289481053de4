// Bells from the management interface to the speakers' wire, and what becomes of them when the service
// is killed or the clock changes.
#include "support/mariadb.h"
#include "support/speakers.h"
#include "support/table.h"
#include "support/testmain.h"

#include <csignal>
#include <cstdio>
#include <QDateTime>
#include <QSqlDatabase>
#include <QTimeZone>

namespace {
using namespace std::chrono_literals;

/// A service with an account, its speakers and one file, 3 s long; the speakers are there.
struct School {
    explicit School(ServiceOptions options = {}, int speakers = 2)
        : service(std::move(options)) {
        if (!service.start())
            qFatal("no service");
        account = service.addAccount("school");
        sim::SpeakerOptions first = speakersAt(service);
        first.reconnectPause = 200ms;
        fleet = std::make_unique<sim::Fleet>(first, speakers);
        service.giveSpeakers(account, fleet->serials());
        QDir().mkpath(service.docroot() + "/mp3");
        QFile mp3(service.docroot() + "/mp3/bell.mp3");
        mp3.open(QIODevice::WriteOnly);
        mp3.write(makeMp3(3));
        service.sql(QStringLiteral("INSERT INTO userfile (userid, url, len) VALUES (%1, 'mp3/bell.mp3', 3)")
                        .arg(account.id));
        fleet->start();
        if (!waitFor([&] { return fleet->online() == speakers; }))
            qFatal("no speakers");
    }
    HttpReply call(const char* path, const HttpParams& params) {
        return service.http().postForm(path, account.params(params));
    }

    /// A task for all speakers at a local time.
    int addTask(const QString& startTime, const HttpParams& more = {}) {
        const HttpReply reply = call("/user/add_task", form("snids=1|2&fileids=1&len=600&task_name=bell " +
                                                            startTime + "&start_time=" + startTime) +
                                                           more);
        return reply["taskid"].toInt();
    }
    int statu(int task) {
        return service.sql(QStringLiteral("SELECT statu FROM task WHERE id = %1").arg(task))
            .value(0)["statu"]
            .toInt();
    }

    /// Every speaker has been told this often.
    bool told(sim::Op op, int times) {
        for (int i = 0; i < fleet->size(); ++i) {
            if (fleet->at(i).count(op) != times)
                return false;
        }
        return true;
    }
    Service service;
    Account account;
    std::unique_ptr<sim::Fleet> fleet;
};

QString inSeconds(int seconds) {
    return QDateTime::currentDateTime().addSecs(seconds).toString("h:m:s");
}

} // namespace

class TasksServiceTest : public QObject {
    Q_OBJECT
private slots:
    void bellRingsAndStops_data() { addKinds({3, 1}); }
    void bellRingsAndStops() {
        QFETCH(int, kind);
        School school(ofKind(kind));
        const int task = school.addTask(inSeconds(2), {{"kind", "9"}});
        QVERIFY(waitFor([&] { return school.told(sim::Op::PlayList, 1); }));
        QCOMPARE(school.fleet->at(0).last(sim::Op::PlayList)->argument,
                 school.service.url("/mp3/bell.mp3").toUtf8());
        QVERIFY(waitFor([&] { return !school.fleet->at(1).fetches().empty(); }));
        QCOMPARE(school.fleet->at(1).fetches()[0].httpStatus, 200);
        QCOMPARE(school.statu(task), 1);
        QVERIFY(waitFor([&] { return school.told(sim::Op::PlayList, 2); })); // the list is played again
        const HttpParams named{{"taskid", QString::number(task)}};
        QCOMPARE(school.call("/user/starttask", named).info(), "Task is Working");
        QVERIFY(school.call("/user/stoptask", named).res());
        QVERIFY(waitFor([&] { return school.fleet->at(0).count(sim::Op::Stop) > 0; }));
        QVERIFY(waitFor([&] { return school.statu(task) == 0; }));
        QCOMPARE(school.call("/user/stoptask", named).info(), "fuckU_ass_hole");
        QVERIFY(school.told(sim::Op::PlayList, 2));
        QVERIFY(school.call("/user/starttask", named).res()); // and once more by hand
        QVERIFY(waitFor([&] { return school.told(sim::Op::PlayList, 3); }));
        const int stops = school.fleet->at(1).count(sim::Op::Stop);
        QCOMPARE(school.service.stop(), 0); // in the middle of it
        QVERIFY(waitFor([&] { return school.fleet->at(1).count(sim::Op::Stop) > stops; }));
    }

    /// Nobody may connect to the command servers: the service's own commands don't ask them.
    void deletedTaskFallsSilent() {
        ServiceOptions options;
        options.settings = {{"LocalIP", "203.0.113.7"}, {"cmdallow", "203.0.113.9"}};
        School school(options);
        const int task = school.addTask(inSeconds(2), {{"kind", "9"}});
        QVERIFY(waitFor([&] { return school.told(sim::Op::PlayList, 1); }));
        QVERIFY(school.call("/user/del_task", {{"taskid", QString::number(task)}}).res());
        QVERIFY(waitFor([&] { return school.told(sim::Op::Stop, 2); }, 500ms));
        QVERIFY(school.call("/user/urlstop", {{"snlist", school.fleet->serials().join('|')}}).res());
        QVERIFY(waitFor([&] { return school.told(sim::Op::Stop, 3); }));
        QVERIFY2(!school.service.log().contains("refused"), school.service.log());
    }

    void temporaryPlay() {
        School school;
        const QString play = QString::number(
            school
                .call("/user/tmpstartpl",
                      {{"snids", "2"}, {"fileids", "1"}, {"playmode", "0"}, {"len", "60"}})["tmpid"]
                .toInt());
        sim::Speaker& speaker = school.fleet->at(1);
        QVERIFY(waitFor([&] { return speaker.count(sim::Op::PlayList) == 2; })); // at random, over and over
        QCOMPARE(school.fleet->at(0).count(sim::Op::PlayList), 0);
        QVERIFY(school.call("/user/tmpstoppl", {{"tpid", play}}).res());
        QVERIFY(waitFor([&] { return speaker.count(sim::Op::Stop) > 0; }));
        QCOMPARE(school.call("/user/tmplistpl", {})["list"].toArray().size(), 0);
    }

    void killedInTheMiddle() {
        School school;
        const int task = school.addTask(inSeconds(2), {{"kind", "9"}});
        school.call("/user/tmpstartpl", {{"snids", "2"}, {"fileids", "1"}, {"len", "60"}});
        QVERIFY(waitFor([&] { return school.statu(task) == 1; }));
        QVERIFY(waitFor([&] { return school.fleet->at(0).count(sim::Op::PlayList) > 0; }));
        school.service.kill9();
        QVERIFY(school.service.start());
        QCOMPARE(school.statu(task), 0);
        QVERIFY(school.service.sql("SELECT id FROM taskpop").isEmpty());
        QVERIFY(waitFor([&] { return school.told(sim::Op::Stop, 1); })); // as each comes back
        const int next = school.addTask(inSeconds(3));
        school.fleet->at(0).forget();
        QVERIFY(waitFor([&] { return school.statu(next) == 1; }));
        QVERIFY(waitFor([&] { return school.fleet->at(0).count(sim::Op::PlayList) == 1; }));
        QCOMPARE(school.statu(task), 0);
    }

    void killedBeforeTheBell() {
        School school;
        school.service.sql("UPDATE userfile SET len = 60");
        const int task = school.addTask(inSeconds(3));
        const int bell = school.service.sql("SELECT start_time FROM task").value(0)["start_time"].toInt();
        const auto now = [] {
            return QTime(0, 0).secsTo(QTime::currentTime());
        };
        QVERIFY(waitFor([&] { return now() == bell - 1; }));
        school.service.kill9();
        school.fleet->at(1).stop();
        QVERIFY(waitFor([&] { return now() > bell && school.fleet->online() == 0; }));
        QVERIFY(school.service.start());
        QVERIFY(waitFor([&] { return school.fleet->at(0).count(sim::Op::PlayList) == 1; }));
        QVERIFY(waitFor([&] { return school.statu(task) == 1; }));
        school.fleet->at(1).start(); // while the bell rings elsewhere
        QVERIFY(waitFor([&] { return school.told(sim::Op::PlayList, 1); }));
        QVERIFY(school.call("/user/stoptask", {{"taskid", QString::number(task)}}).res());
        QVERIFY(waitFor([&] { return school.told(sim::Op::Stop, 2); }));
        school.service.kill9(); // the second start has nothing to make up for
        QVERIFY(school.service.start());
        QVERIFY(waitFor([&] { return school.fleet->online() == 2; }));
        const int next = school.addTask(inSeconds(2));
        QVERIFY(waitFor([&] { return school.statu(next) == 1; }));
        QVERIFY(waitFor([&] { return school.told(sim::Op::PlayList, 2); }));
        QCOMPARE(school.service.log().count("-->Tasxkobj"), 1);
    }

    void databaseComesLater_data() { addKinds({3, 1}); }
    void databaseComesLater() {
        QFETCH(int, kind);
        ServiceOptions options = ofKind(kind);
        std::unique_ptr<MariaDb> server;
        if (kind == 1) {
            server = std::make_unique<MariaDb>();
            QVERIFY(server->start());
            options.database = server->createDatabase("late");
        }
        Service service(options);
        service.sql("INSERT INTO taskpop (taskid, status, kind) VALUES (1, '1', '1')");
        service.sql("INSERT INTO task (statu, start_time) VALUES (1, 1)");
        if (kind == 1)
            server->kill();
        else
            service.sql("BEGIN IMMEDIATE"); // of a file that is not in WAL mode yet
        QVERIFY(service.start());
        QVERIFY2(service.waitForLog(", without database and task queue\n"), service.log());
        if (kind == 1) {
            QSqlDatabase::database(service.directory(), false).close(); // it was lost with the server
            QVERIFY(server->start());
        } else {
            service.sql("COMMIT");
        }
        QVERIFY(service.waitForLog("task queue: ready"));
        QVERIFY(service.waitForLog("database: ready"));
        QVERIFY(service.sql("SELECT id FROM taskpop").isEmpty());
        QCOMPARE(service.sql("SELECT statu FROM task").value(0)["statu"].toInt(), 0);
        QVERIFY(!service.log().contains("-->Tasxkobj"));
        QVERIFY(service.addAccount("late").id > 0);
    }

    void speakersStateAndServicePeriod_data() { addKinds({3, 1}); }
    void speakersStateAndServicePeriod() {
        QFETCH(int, kind);
        School school(ofKind(kind));
        const QString sn = school.fleet->at(0).sn();
        const auto device = [&] {
            return school.service
                .sql(QStringLiteral("SELECT * FROM sbox_device_info WHERE device_seed = '%1'").arg(sn))
                .value(0);
        };
        const auto period = [&] {
            return school.service.sql("SELECT statu FROM snover").value(0)["statu"].toInt();
        };
        school.service.sql(
            QStringLiteral("INSERT INTO snover (sn, overtime, statu) VALUES ('%1', '2020-01-01 00:00:00', 1)")
                .arg(sn));
        QVERIFY(waitFor([&] { return device()["status"].toInt() == 1; }));
        QVERIFY(waitFor([&] { return period() == 2; }));
        QVERIFY(school.service.waitForLog("Disable sn:"));
        // One that is online already when somebody adds it.
        school.service.sql(QStringLiteral("DELETE FROM sbox_device_info WHERE device_seed = '%1'").arg(sn));
        QCOMPARE(school.call("/user/deviceadd", {{"sn", sn}, {"name", "gate"}})["res"], true);
        QVERIFY(waitFor([&] { return device()["status"].toInt() == 1; }));
        school.service.sql("UPDATE snover SET statu = 3, overtime = '2099-01-01 00:00:00'");
        QVERIFY(waitFor([&] { return period() == 1; }));
        school.fleet->at(0).stop();
        QVERIFY(waitFor([&] { return device()["status"].toInt() == 0; }));
    }

    /// Bells that the process before this one claimed and did not tell of: one row each, whatever restarts.
    void claimedBellsAreTold() {
        Service service;
        const qint64 due = QDateTime::currentSecsSinceEpoch() - 600;
        service.sql("INSERT INTO task (id, userid, task_name, enable) VALUES (5, 1, 'cut off', 0)");
        for (const char* bell : {"5, %1", "6, %1", "7, %1", "5, %1 - 90000"}) // the last one is too old
            service.sql(
                QStringLiteral("INSERT INTO taskrun (taskid, due) VALUES (%1)").arg(QString(bell).arg(due)));
        const qint64 number = ((due * 1000 - 1577836800000LL) / 10) << 15;
        service.sql(QStringLiteral("INSERT INTO broadcast (id, kind, schedule, state, due, started) VALUES "
                                   "(%1, 'bell', 6, 'playing', %2, %2 + 5000)")
                        .arg(number)
                        .arg(due * 1000));
        service.sql(QStringLiteral("INSERT INTO journal (id, kind, schedule, state, due) VALUES "
                                   "(%1, 'bell', 7, 'played', %2)")
                        .arg(number)
                        .arg(due * 1000));
        const auto told = [&] {
            QStringList rows;
            for (const QVariantMap& row : service.sql("SELECT schedule, state, name, reason, late, broadcast "
                                                      "FROM journal WHERE kind = 'bell' ORDER BY schedule"))
                rows += QStringLiteral("%1 %2 %3 %4 %5 %6")
                            .arg(row["schedule"].toString(), row["state"].toString(), row["name"].toString(),
                                 row["reason"].toString(), row["late"].toString(),
                                 row["broadcast"].toLongLong() == number ? "it" : "none");
            return rows;
        };
        const QStringList wanted{"5 skipped cut off the service ended 0 none", "6 late   5000 it",
                                 "7 played   0 none"};
        QVERIFY(service.start());
        QVERIFY2(waitFor([&] { return told() == wanted; }), qPrintable(told().join('\n')));
        service.kill9();
        QVERIFY(service.start());
        service.sql(
            QStringLiteral("INSERT INTO task (id, userid, start_time, enable, week) VALUES (8, 1, %1, 1, "
                           "'1111111')")
                .arg(QTime(0, 0).secsTo(QTime::currentTime().addSecs(5))));
        QVERIFY(waitFor([&] { return told().size() > 3; })); // behind the look at what was claimed
        QCOMPARE(told().mid(0, 3), wanted);
        QCOMPARE(told().mid(3), QStringList{"8 skipped  no speakers 0 none"});
    }

    // The real process by clocks of its own: the nights in which summer time begins and ends, a midnight, a
    // clock that is put back by hand, a process that stands still. All of them at the same time.
    void clocks() {
        const QString library = "/usr/lib/x86_64-linux-gnu/faketime/libfaketime.so.1";
        if (!QFile::exists(library))
            QSKIP("no libfaketime on this machine");
        const auto at = [&](const QString& key, const QString& time) {
            ServiceOptions options;
            options.settings = {{"taskstart", 0}, {"taskend", 86399}};
            options.environment = {{"LD_PRELOAD", library},
                                   {key, time},
                                   {"TZ", "Europe/Berlin"},
                                   {"FAKETIME_NO_CACHE", "1"},
                                   {"FAKETIME_DONT_FAKE_MONOTONIC", "1"},
                                   {"ASAN_OPTIONS", "verify_asan_link_order=0"}};
            return options;
        };
        QTemporaryDir directory;
        const QString offset = directory.filePath("offset");
        const auto setOffset = [&](const QByteArray& seconds) {
            QFile file(offset + ".new");
            file.open(QIODevice::WriteOnly);
            file.write(seconds);
            file.close();
            std::rename(file.fileName().toLocal8Bit(), offset.toLocal8Bit());
        };
        setOffset("+0");
        School byHand(at("FAKETIME_TIMESTAMP_FILE", offset));
        const auto berlin = [](int seconds) {
            return QDateTime::currentDateTimeUtc()
                .toTimeZone(QTimeZone("Europe/Berlin"))
                .addSecs(seconds)
                .toString("h:m:s");
        };
        const int set = byHand.addTask(berlin(3));
        School stalled(at("FAKETIME", "+0"));
        const int late = stalled.addTask(berlin(6)), skipped = stalled.addTask(berlin(6));
        stalled.service.sql(
            QStringLiteral("INSERT INTO taskrule (taskid, missed) VALUES (%1, 0)").arg(skipped));
        const QDateTime stall = QDateTime::currentDateTime();
        kill(static_cast<pid_t>(stalled.service.pid()), SIGSTOP);

        School spring(at("FAKETIME", "@2027-03-28 01:59:48"));
        const int before = spring.addTask("1:59:58"), gap = spring.addTask("2:30:0"),
                  after = spring.addTask("3:0:1"), weekday = spring.addTask("3:0:1", {{"weeks", "1111110"}});
        // By its offset: the text of a local time would be the second of its kind.
        const QDateTime firstPass(QDate(2027, 10, 31), QTime(0, 59, 44), Qt::UTC);
        School autumn(
            at("FAKETIME", QStringLiteral("+%1").arg(QDateTime::currentDateTimeUtc().secsTo(firstPass))));
        autumn.service.sql("UPDATE userfile SET len = 1");
        const int twice = autumn.addTask("2:59:58"), passed = autumn.addTask("2:0:2"),
                  both = autumn.addTask("3:0:1");
        School midnight(at("FAKETIME", "@2027-06-06 23:59:50")); // a Sunday
        const int sunday = midnight.addTask("23:59:59", {{"weeks", "0000001"}}),
                  monday = midnight.addTask("0:0:0", {{"weeks", "1000000"}}),
                  sundayToo = midnight.addTask("0:0:0", {{"weeks", "0000001"}});

        const auto rows = [](School& school) {
            QMap<int, QString> told;
            for (const QVariantMap& row : school.service.sql(
                     "SELECT schedule, state, reason FROM journal WHERE kind = 'bell' and due > 0"))
                told[row["schedule"].toInt()] += row["state"].toString() + row["reason"].toString();
            return told;
        };
        using Rows = QMap<int, QString>;
        const auto tells = [&](School& school, const Rows& wanted) {
            const bool isSo = waitFor([&] { return rows(school) == wanted; });
            if (!isSo)
                qWarning() << rows(school) << wanted;
            return isSo;
        };
        QVERIFY(tells(byHand, {{set, "played"}}));
        setOffset("-3600");
        QVERIFY(byHand.service.waitForLog("jumped by -"));
        setOffset("+0"); // the same hour once more
        QVERIFY(tells(
            spring, {{before, "played"}, {gap, "skippedthe hour does not exist today"}, {after, "played"}}));
        QVERIFY(weekday != 0 && sundayToo != 0);
        QVERIFY(tells(midnight, {{sunday, "played"}, {monday, "played"}}));
        QVERIFY(tells(autumn, {{twice, "played"}, {passed, "played"}}));
        QVERIFY(both != 0);
        QVERIFY(waitFor([&] { return stall.secsTo(QDateTime::currentDateTime()) >= 30; }, 40s));
        kill(static_cast<pid_t>(stalled.service.pid()), SIGCONT);
        QVERIFY(tells(stalled, {{late, "late"}, {skipped, "skippedthe service was held up"}}));
        QVERIFY(tells(byHand, {{set, "played"}}));
        QCOMPARE(byHand.fleet->at(0).count(sim::Op::PlayList), 1);
    }

private:
    static ServiceOptions ofKind(int kind) {
        ServiceOptions options;
        options.kind = kind;
        return options;
    }
};

int main(int argc, char** argv) {
    return runTest<TasksServiceTest>(argc, argv);
}
#include "tasks_service_test.moc"
