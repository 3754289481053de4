// The task queue with its database, its players and its pollers, against scripted nodes and by a clock
// that the test sets.
#include "core/sql/sqlite.h"
#include "support/scriptednode.h"
#include "support/table.h"
#include "support/testmain.h"
#include "support/waitfor.h"
#include "tasks/nodeque.h"
#include "tasks/task_workque.h"
#include "tasks/tasxkobj.h"

#include <ctime>
#include <QDateTime>
#include <QFile>
#include <QJsonArray>
#include <QSet>
#include <QTemporaryDir>

namespace {
const qint64 Morning = QDateTime({2026, 11, 21}, {8, 0}, Qt::UTC).toSecsSinceEpoch(); // a Saturday
constexpr int EightOClock = 8 * 3600;
constexpr int SpanStart = 21276, SpanEnd = 82800;

QString serial(int i) {
    return QStringLiteral("%1").arg(i, 32, 16, QLatin1Char('0'));
}

/// A database, a node and a queue on a clock of its own.
struct Bench {
    explicit Bench(int nodeCount = 1, int from = SpanStart, int to = SpanEnd)
        : nodes(static_cast<size_t>(nodeCount))
        , db(QString(), 0, QString(), QString(), QString(), 3) {
        db.init();
        QFile script(":/etc/ttys/sqlite3main.sql");
        script.open(QIODevice::ReadOnly);
        db.runScript(QString::fromUtf8(script.readAll()));
        db.site.preurl = "http://host/";
        QJsonArray list;
        for (size_t i = 0; i < nodes.size(); ++i) {
            const QJsonObject node{{"nodeip", "127.0.0.1"}, {"nodeport3", nodes[i].port()}, {"nocdn", true}};
            list.append(node);
            if (i > 0)
                sql(QStringLiteral("INSERT INTO sbox_node (nodeip, nodeport3) VALUES ('127.0.0.1', %1)")
                        .arg(nodes[i].port()));
        }
        for (int i = 1; i <= 8; ++i)
            sql(QStringLiteral("INSERT INTO sbox_device_info (user_id, device_seed) VALUES (5, '%1')")
                    .arg(serial(i)));
        for (int i = 1; i <= 3; ++i)
            sql(QStringLiteral("INSERT INTO userfile (userid, url, len) VALUES (5, 'mp3/5/%1.mp3', 30)")
                    .arg(i));
        queue = std::make_unique<Task_workque>(nullptr, 3333, 6002, 6003, "src:10080", "cdn", list, nullptr,
                                               "", nodes[0].port(), "", "", "", &db, 1000, 3, from, to);
        setTime(Morning - 1);
    }

    SqlResult sql(const QString& statement) { return db.run(statement); }
    void setTime(qint64 epoch) {
        now = epoch;
        queue->setClock({[this] { return now * 1000; },
                         [this] {
                             return steady;
                         }});
    }
    void tick(qint64 epoch) {
        steady += qMax<qint64>(0, epoch - now) * 1000;
        now = epoch;
        queue->forqueout();
        QVERIFY(waitFor([this] { return !queue->isStarting(); }));
    }
    /// A task at eight o'clock with two speakers and two files; more columns as "name = value".
    int addTask(const QStringList& columns = {}, int node = 1) {
        const qint64 id =
            sql(QStringLiteral("INSERT INTO task (userid, start_time, task_name, nodeid, len, enable, kind) "
                               "VALUES (5, %1, 'bell', %2, 600, 1, 1)")
                    .arg(EightOClock)
                    .arg(node))
                .lastId;
        for (int i : {2, 1}) {
            sql(QStringLiteral("INSERT INTO taskseed (taskid, devseedid) VALUES (%1, %2)").arg(id).arg(i));
            sql(QStringLiteral("INSERT INTO taskfile (taskid, fileid) VALUES (%1, %2)").arg(id).arg(i));
        }
        for (const QString& column : columns)
            sql(QStringLiteral("UPDATE task SET %1 WHERE id = %2").arg(column).arg(id));
        return static_cast<int>(id);
    }
    int request(int taskid, int status, const char* info = "webstart") {
        return static_cast<int>(
            sql(QStringLiteral(
                    "INSERT INTO taskpop (taskid, status, userid, kind, info) VALUES (%1, '%2', 5, "
                    "'1', '%3')")
                    .arg(taskid)
                    .arg(status)
                    .arg(info))
                .lastId);
    }
    int statu(int taskid) {
        return sql(QStringLiteral("SELECT statu FROM task WHERE id = %1").arg(taskid)).integer(0, "statu");
    }
    QString status(int request) {
        return sql(QStringLiteral("SELECT status FROM taskpop WHERE id = %1").arg(request)).text(0, "status");
    }
    QStringList words(int node = 0) const {
        QStringList all;
        for (const auto& r : nodes[static_cast<size_t>(node)].requests())
            all += r.word();
        return all;
    }
    void rule(int taskid, const QString& column, const QVariant& value) {
        sql(QStringLiteral("INSERT INTO taskrule (taskid, %2) VALUES (%1, '%3')")
                .arg(taskid)
                .arg(column, value.toString()));
    }
    /// From now on the outcomes stand in `told`.
    void tell() {
        queue->setBellSink([this](const BellOutcome& bell) {
            const QString states[] = {"played", QStringLiteral("late %1 s").arg(bell.late), "skipped"};
            told += QStringLiteral("%1 %2 %3")
                        .arg(bell.schedule)
                        .arg(states[static_cast<int>(bell.state)], bell.reason)
                        .trimmed();
        });
    }
    Tasxkobj* player(int taskid) const { return queue->runningPlayer(static_cast<quint64>(taskid)); }

    std::vector<ScriptedNode> nodes;
    sqlite db;
    std::unique_ptr<Task_workque> queue;
    QStringList told;
    qint64 now = 0;
    qint64 steady = 0;
};

const QStringList Stop{"FORCESTOP", "FORCESTOP"};

} // namespace

class TaskQueueTest : public QObject {
    Q_OBJECT
private slots:
    void initTestCase() {
        qputenv("TZ", "UTC");
        tzset();
        QVERIFY(QDir::setCurrent(m_directory.path()));
    }

    void startUpTidiesTheTables() {
        Bench bench;
        const int id = bench.addTask({"statu = 1"});
        const int row = bench.request(id, 2);
        Task_workque again(nullptr, 1, 2, 3, "", "", {QJsonObject{{"nodeip", "10.9.8.7"}, {"nodeport3", 4}}},
                           nullptr, "", 4, "", "", "", &bench.db, 1000, 3, SpanStart, SpanEnd);
        QCOMPARE(bench.statu(id), 0);
        QCOMPARE(bench.status(row), QString());
        const SqlResult node = bench.sql("SELECT * FROM sbox_node WHERE id = 1");
        QCOMPARE(node.text(0, "nodeip"), "10.9.8.7");
        QList<int> ports;
        for (const char* column : {"nodeport1", "nodeport2", "nodeport3", "nodeport4", "nodeport5"})
            ports += node.integer(0, column);
        QCOMPARE(ports, (QList<int>{1, 3, 4, 2, 3}));
    }

    void scheduledTaskPlaysToItsEnd() {
        Bench bench;
        const int id = bench.addTask();
        bench.tick(Morning);
        QVERIFY(bench.player(id));
        QCOMPARE(bench.statu(id), 1);
        bench.tick(Morning); // two ticks in one second
        bench.player(id)->TimerNext();
        bench.player(id)->TimerNext();
        QVERIFY(!bench.player(id));
        QVERIFY(waitFor([&] { return bench.words().size() == 4; }));
        QCOMPARE(bench.words(), (QStringList{"PLAYOFF", "PLAYOFF"} + Stop));
        const QJsonObject play = bench.nodes[0].requests()[0].json();
        QCOMPARE(play["filelist"].toArray(), QJsonArray{"http://host/mp3/5/2.mp3"});
        QCOMPARE(play["snlist"].toArray(), (QJsonArray{serial(2), serial(1)}));
        QVERIFY(waitFor([&] { return bench.statu(id) == 0; }));
        QCOMPARE(bench.nodes[0].brokenFrames(), 0);
    }

    void whoStarts_data() {
        const Table<QStringList, int, bool> row{"columns", "at", "starts"};
        const QStringList none;
        row("due", none, EightOClock, true);
        row("another second", none, EightOClock + 1, false);
        row("disabled", QStringList{"enable = 0"}, EightOClock, false);
        row("not on Saturdays", QStringList{"week = '1111101'"}, EightOClock, false);
        row("over since yesterday", QStringList{"enddate = 20777"}, EightOClock, false);
        row("span's first second", QStringList{QStringLiteral("start_time = %1").arg(SpanStart)}, SpanStart,
            true);
        row("before the span", QStringList{QStringLiteral("start_time = %1").arg(SpanStart - 1)},
            SpanStart - 1, false);
        row("span's last second", QStringList{QStringLiteral("start_time = %1").arg(SpanEnd)}, SpanEnd, true);
        row("after the span", QStringList{QStringLiteral("start_time = %1").arg(SpanEnd + 1)}, SpanEnd + 1,
            false);
        row("negative repeat", QStringList{"kind = -1"}, EightOClock, false);
        row("random without length", QStringList{"kind = 0", "len = 0"}, EightOClock, false);
        row("node that is not there", QStringList{"nodeid = 99"}, EightOClock, false);
    }
    void whoStarts() {
        QFETCH(QStringList, columns);
        QFETCH(int, at);
        QFETCH(bool, starts);
        Bench bench;
        const int id = bench.addTask(columns);
        bench.setTime(Morning - EightOClock + at - 1);
        bench.tick(Morning - EightOClock + at);
        QCOMPARE(bench.player(id) != nullptr, starts);
        QCOMPARE(bench.statu(id), int(starts));
    }

    void nothingToPlay_data() {
        const Table<QString> row{"without"};
        row("no files", "taskfile");
        row("no devices", "taskseed");
    }
    void nothingToPlay() {
        QFETCH(QString, without);
        Bench bench;
        const int id = bench.addTask();
        bench.sql("DELETE FROM " + without);
        bench.tick(Morning);
        QVERIFY(!bench.player(id));
        QCOMPARE(bench.statu(id), 0);
    }

    void lateTickRingsInTheOrderOfTimes() {
        Bench bench;
        const auto at = [&](int second) {
            return bench.addTask({QStringLiteral("start_time = %1").arg(EightOClock + second)});
        };
        const int last = at(64), first = at(5), lost = at(4), middle = at(30);
        QList<int> started;
        connect(bench.queue.get(), &Task_workque::started,
                [&](quint64 key) { started += static_cast<int>(key); });
        bench.tell();
        QTest::ignoreMessage(QtWarningMsg, QRegularExpression("task lost: .*\"8:0:4\" \"bell\" 3$"));
        bench.tick(Morning + 64);
        QCOMPARE(started, (QList<int>{first, middle, last}));
        QVERIFY(!bench.player(lost));
        QCOMPARE(bench.told, (QStringList{"3 skipped the service was held up", "2 late 59 s", "4 late 34 s",
                                          "1 played"}));
    }

    void clockSetBackRingsOnce() {
        Bench bench;
        const int id = bench.addTask();
        int starts = 0;
        QObject::connect(bench.queue.get(), &Task_workque::started, [&] { ++starts; });
        const auto end = [&] {
            if (bench.player(id))
                bench.player(id)->TimerOut();
        };
        bench.tick(Morning);
        end();
        for (qint64 back : {Morning - 30, Morning, Morning + 5000, Morning - 5, Morning}) {
            bench.tick(back); // out of the clock's sequence, and within a minute of real time
            end();
            bench.steady = 20000;
        }
        bench.tick(Morning - 120);
        for (qint64 second = Morning - 60; second <= Morning + 60; second += 60)
            bench.tick(second);
        QCOMPARE(starts, 1);
        bench.tick(Morning + 86400 - 1);
        bench.tick(Morning + 86400);
        QCOMPARE(starts, 2);
    }

    void calendarsAndPolicies_data() {
        const Table<QString, QVariant, int, QStringList> row{"column", "value", "late", "told"};
        row("as always", "missed", QVariant("60"), 59, {"1 late 59 s"});
        row("a minute late", "missed", QVariant("60"), 60, {"1 skipped the service was held up"});
        row("skip, in time", "missed", QVariant("0"), 2, {"1 played"});
        row("skip", "missed", QVariant("0"), 3, {"1 skipped the service was held up"});
        row("an hour", "missed", QVariant("3600"), 3599, {"1 late 3599 s"});
        row("silent", "calendarid", QVariant("1"), 0, {"1 skipped silent by calendar holidays"});
        row("another calendar", "calendarid", QVariant("2"), 0, {"1 played"});
    }
    void calendarsAndPolicies() {
        QFETCH(QString, column);
        QFETCH(QVariant, value);
        QFETCH(int, late);
        Bench bench;
        bench.tell();
        bench.sql("INSERT INTO calendar (id, userid, name) VALUES (1, 5, 'holidays')");
        bench.sql("INSERT INTO calendarentry (calendarid, firstday, lastday) VALUES (1, 20778, 20778)");
        bench.rule(bench.addTask(), column, value);
        bench.tick(Morning + late);
        QTEST(bench.told, "told");
    }

    void outcomesOfWhatCannotPlay() {
        Bench bench;
        bench.tell();
        bench.addTask();
        bench.sql("DELETE FROM taskfile");
        const int outside = bench.addTask({"start_time = 1"});
        bench.tick(Morning);
        bench.setTime(Morning - EightOClock);
        bench.tick(Morning - EightOClock + 1);
        QCOMPARE(bench.told, (QStringList{"1 skipped no sounds", "2 skipped outside the working span"}));
        QVERIFY(!bench.player(outside));
    }

    void clockSetForwardTellsWhatItSkipped() {
        Bench bench;
        bench.tell();
        const int lost = bench.addTask(), wanted = bench.addTask();
        bench.rule(wanted, "missed", 3600);
        bench.setTime(Morning - 2);
        bench.now = Morning - 1;
        bench.queue->forqueout();
        bench.now = Morning + 1800; // the steady clock has gone on by nothing
        bench.queue->forqueout();
        QVERIFY(waitFor([&] { return !bench.queue->isStarting(); }));
        QVERIFY(!bench.player(lost));
        QCOMPARE(bench.told, (QStringList{"1 skipped the clock was set forward", "2 late 1800 s"}));
    }

    /// Another process that has the same database has its runs too; a date that was wrong does not count.
    void runsOutliveTheProcess() {
        Bench bench;
        const int id = bench.addTask();
        bench.tick(Morning);
        QCOMPARE(bench.sql("SELECT * FROM taskrun").integer(0, "due"), static_cast<int>(Morning));
        Task_workque again(nullptr, 1, 2, 3, "", "", {QJsonObject{{"nodeip", "127.0.0.1"}, {"nodeport3", 4}}},
                           nullptr, "", 4, "", "", "", &bench.db, 1000, 3, SpanStart, SpanEnd);
        QStringList told;
        again.setBellSink([&](const BellOutcome& bell) { told += bell.reason; });
        qint64 now = Morning - 1;
        again.setClock({[&] { return now * 1000; },
                        [&] {
                            return now * 1000;
                        }});
        int starts = 0;
        connect(&again, &Task_workque::started, [&] { ++starts; });
        for (qint64 second : {Morning, Morning + 3 * 3600, Morning - 1, Morning}) {
            now = second;
            again.forqueout();
        }
        QCOMPARE(starts, 0);
        for (qint64 second : {Morning + 86400 - 1, Morning + 86400, Morning + 3600, Morning + 86400 - 1,
                              Morning + 86400}) { // tomorrow, and back again
            now = second;
            again.forqueout();
            if (Tasxkobj* player = again.runningPlayer(static_cast<quint64>(id)))
                player->TimerOut();
        }
        QCOMPARE(starts, 2);
    }

    void requestsStartAndStop() {
        Bench bench;
        const int id = bench.addTask({"start_time = 1"});
        const int start = bench.request(id, 1);
        bench.tick(Morning);
        QVERIFY(bench.player(id));
        QCOMPARE(bench.status(start), "0");
        const int again = bench.request(id, 1); // plays already
        bench.tick(Morning + 1);
        QCOMPARE(bench.status(again), "0");
        QCOMPARE(bench.statu(id), 1);
        const int stop = bench.request(id, 2);
        bench.tick(Morning + 2);
        QVERIFY(!bench.player(id));
        QCOMPARE(bench.statu(id), 0);
        QCOMPARE(bench.status(stop), "0");
        QVERIFY(waitFor([&] { return bench.words().size() == 3; }));
        QCOMPARE(bench.words(), QStringList{"PLAYOFF"} + Stop);
    }

    void alarmStartsPlayAsAlarms() {
        Bench bench;
        const int id = bench.addTask({"start_time = 1"});
        bench.request(id, 1, "Waringstart");
        bench.tick(Morning);
        QVERIFY(waitFor([&] { return !bench.words().isEmpty(); }));
        QCOMPARE(bench.words().first(), "PLAYAS");
    }

    void requestsWaitForTheSpan() {
        Bench bench;
        const int id = bench.addTask();
        const int row = bench.request(id, 1);
        const qint64 midnight = Morning - EightOClock;
        for (qint64 at : {midnight + SpanStart, midnight + SpanEnd, midnight + SpanEnd + 100}) {
            bench.setTime(at - 1);
            bench.tick(at);
            QCOMPARE(bench.status(row), "1");
        }
        bench.setTime(midnight + SpanStart);
        bench.tick(midnight + SpanStart + 1);
        QCOMPARE(bench.status(row), "0");
        QVERIFY(bench.player(id));
        const int late = bench.request(id, 2);
        bench.setTime(midnight + 8);
        bench.tick(midnight + 9);
        QCOMPARE(bench.status(late), "2");
        bench.tick(midnight + 10); // the day's clearing
        QCOMPARE(bench.status(late), QString());
    }

    void endClosesTheRequestThatAskedAndNoOther() {
        Bench bench;
        const int id = bench.addTask({"start_time = 1"});
        for (int i = 0; i < 3; ++i)
            bench.request(99, 0);
        bench.sql(QStringLiteral("UPDATE taskpop SET status = 'x', kind = 'x' WHERE id = %1").arg(id));
        const int row = bench.request(id, 1);
        bench.tick(Morning);
        bench.sql(QStringLiteral("UPDATE taskpop SET status = 'y' WHERE id = %1").arg(row));
        bench.player(id)->TimerOut();
        QVERIFY(waitFor([&] { return bench.status(row) == "0"; }));
        QCOMPARE(bench.status(id), "x"); // a row that happens to bear the task's number
    }

    void temporaryPlay() {
        Bench bench;
        const auto add = [&](const QString& seeds, const QString& urls) {
            return static_cast<int>(
                bench
                    .sql(QStringLiteral(
                             "INSERT INTO taskpop (taskid, status, userid, seeds, urls, kind, ip, port, "
                             "len, playmode, info) VALUES (0, '1', 5, '%1', '%2', '2', '127.0.0.1', %3, "
                             "600, 1, 'temp_task_start')")
                             .arg(seeds, urls)
                             .arg(bench.nodes[0].port()))
                    .lastId);
        };
        const QString seeds = serial(1) + '|' + serial(2), urls = "mp3/5/2.mp3|mp3/5/3.mp3";
        const int first = add(seeds, urls), second = add(seeds, urls), empty = add("", urls);
        const int sameNumber = bench.addTask({QStringLiteral("id = %1").arg(first)});
        bench.tick(Morning);
        const auto player = [&](int row) {
            return bench.queue->runningPlayer(Task_workque::temporaryKey(row));
        };
        QCOMPARE(bench.status(first), "11");
        QCOMPARE(player(first)->name, QStringLiteral("PLAYTMP_%1").arg(first));
        QVERIFY(player(second) && bench.player(sameNumber) && !player(empty));
        QVERIFY(waitFor([&] { return bench.status(empty) == "0"; }));
        QVERIFY(waitFor([&] { return bench.words().size() == 3; }));
        QSet<QString> played;
        for (const auto& request : bench.nodes[0].requests())
            played += request.json()["filelist"].toArray().first().toString();
        QVERIFY(played.contains("http://host/mp3/5/2.mp3"));

        const int stop = static_cast<int>(
            bench
                .sql(QStringLiteral(
                         "INSERT INTO taskpop (taskid, status, userid, kind) VALUES (%1, '12', 5, '2')")
                         .arg(first))
                .lastId);
        bench.tick(Morning + 1);
        QVERIFY(!player(first) && player(second) && bench.player(sameNumber));
        QCOMPARE(bench.status(stop), "0");
        QCOMPARE(bench.status(first), "0");
        player(second)->TimerNext();
        player(second)->TimerNext(); // its list is over
        QVERIFY(waitFor([&] { return bench.status(second) == "0"; }));
        QCOMPARE(bench.statu(sameNumber), 1);
    }

    void nextBellFollowsTheLastOne() {
        Bench bench;
        const int before = bench.addTask({"start_time = 28799", "len = 1"});
        const int id = bench.addTask();
        bench.setTime(Morning - 2);
        bench.tick(Morning - 1);
        QVERIFY(bench.player(before));
        QVERIFY(waitFor([&] { return bench.player(before)->endsWithin(std::chrono::milliseconds(400)); }));
        bench.tick(Morning);
        QVERIFY(bench.player(id) && !bench.player(before));
        QVERIFY(waitFor([&] { return bench.words().size() == 4; }));
        QCOMPARE(bench.words(), (QStringList{"PLAYOFF"} + Stop + QStringList{"PLAYOFF"}));
    }

    void manyTasksInOneSecond() {
        Bench bench(4);
        QMap<int, QStringList> expected; // node to the names of its tasks' first files
        for (int i = 0; i < 120; ++i) {
            const int node = i % 4;
            const int id = bench.addTask({}, node + 1);
            bench.sql(QStringLiteral("DELETE FROM taskfile WHERE taskid = %1").arg(id));
            const qint64 file = bench
                                    .sql(QStringLiteral("INSERT INTO userfile (userid, url, len) VALUES (5, "
                                                        "'t%1.mp3', 30)")
                                             .arg(i))
                                    .lastId;
            bench.sql(
                QStringLiteral("INSERT INTO taskfile (taskid, fileid) VALUES (%1, %2)").arg(id).arg(file));
            expected[node] += QStringLiteral("http://host/t%1.mp3").arg(i);
        }
        bench.tick(Morning);
        QVERIFY(waitFor([&] {
            return std::all_of(bench.nodes.begin(), bench.nodes.end(),
                               [](const ScriptedNode& node) { return node.requests().size() == 30; });
        }));
        for (int node = 0; node < 4; ++node) {
            QStringList got;
            const auto& requests = bench.nodes[static_cast<size_t>(node)].requests();
            for (const auto& request : requests)
                got += request.json()["filelist"].toArray().first().toString();
            QCOMPARE(got, expected[node]);
            QVERIFY(requests.last().at - requests.first().at >= 29 * 100 - 50); // one every 100 ms at most
        }
        QCOMPARE(bench.sql("SELECT id FROM task WHERE statu = 1").rows.size(), 120);
    }

    void busyDatabaseDelaysAndLosesNothing() {
        Bench bench;
        const int id = bench.addTask();
        const auto other = bench.db.forThread();
        QVERIFY(other->exec("BEGIN IMMEDIATE"));
        const int row = 1;
        QVERIFY(other->exec(
            QStringLiteral("INSERT INTO taskpop (id, taskid, status, kind) VALUES (1, %1, '2', '1')")
                .arg(id)));
        bench.tick(Morning); // rings although nothing can be written
        QVERIFY(bench.player(id));
        QVERIFY(waitFor([&] { return !bench.words().isEmpty(); }));
        QCOMPARE(bench.statu(id), 0);
        QVERIFY(other->exec("COMMIT"));
        QVERIFY(waitFor([&] { return bench.statu(id) == 1; }));
        bench.tick(Morning + 1);
        QVERIFY(!bench.player(id));
        QCOMPARE(bench.status(row), "0");
    }

    void lockOverMidnightSilencesNothing() {
        Bench bench(1, 0, 86399);
        const qint64 midnight = Morning - EightOClock;
        QList<int> bells;
        for (int second : {10, 11, 70})
            bells += bench.addTask({QStringLiteral("start_time = %1").arg(second)});
        const int old = bench.request(bells[0], 0);
        const auto other = bench.db.forThread();
        QVERIFY(other->exec("BEGIN IMMEDIATE"));
        bench.setTime(midnight + 9);
        for (int second : {10, 11, 70}) {
            bench.tick(midnight + second);
            QVERIFY(bench.player(bells.takeFirst()));
        }
        QVERIFY(other->exec("COMMIT"));
        QCOMPARE(bench.status(old), "0");
        bench.tick(midnight + 71);
        QCOMPARE(bench.status(old), QString());
    }

    void startBehindAnEndThatIsNotWrittenYet() {
        Bench bench;
        const int id = bench.addTask();
        bench.tick(Morning);
        const auto other = bench.db.forThread();
        QVERIFY(other->exec("BEGIN IMMEDIATE"));
        bench.player(id)->TimerOut();
        bench.queue->fndout(); // in vain
        QVERIFY(other->exec(
            QStringLiteral("INSERT INTO taskpop (taskid, status, kind) VALUES (%1, '1', '1')").arg(id)));
        QVERIFY(other->exec("COMMIT"));
        bench.tick(Morning + 1);
        QVERIFY(bench.player(id));
        bench.queue->fndout();
        QCOMPARE(bench.statu(id), 1);
    }

    void missingDatabaseDelaysTheBell() {
        Bench bench;
        const int id = bench.addTask();
        QVERIFY(bench.sql("ALTER TABLE userfile RENAME TO gone").ok);
        bench.tick(Morning);
        QVERIFY(!bench.player(id));
        QVERIFY(bench.sql("ALTER TABLE gone RENAME TO userfile").ok);
        QVERIFY(bench.sql("ALTER TABLE task RENAME TO gone").ok);
        bench.tick(Morning + 1); // the schedule itself can't be read
        QVERIFY(bench.sql("ALTER TABLE gone RENAME TO task").ok);
        const int next = bench.addTask({QStringLiteral("start_time = %1").arg(EightOClock + 1)});
        bench.tick(Morning + 2);
        QVERIFY(bench.player(id));
        QVERIFY(bench.player(next));
    }

    // The day of 25 hours, second by second through the database.
    void everySecondOfTheNightTheClocksGoBack() {
        qputenv("TZ", "Europe/Berlin");
        tzset();
        Bench bench(1, 0, 86399);
        QMap<int, int> starts; // task id to number of starts
        connect(bench.queue.get(), &Task_workque::started, [&](quint64 key) {
            ++starts[static_cast<int>(key)];
            bench.player(static_cast<int>(key))->TimerOut();
        });
        QMap<int, int> expected;
        for (int time : {0, 1, 7199, 7200, 9000, 10799, 10800, 43200, 86399})
            expected[bench.addTask({QStringLiteral("start_time = %1").arg(time)})] = 1;
        const qint64 midnight = QDateTime({2027, 10, 30}, {22, 0}, Qt::UTC).toSecsSinceEpoch();
        bench.setTime(midnight - 1);
        for (qint64 second = midnight + 6; second < midnight + 25 * 3600; second += 7)
            bench.tick(second);
        bench.tick(midnight + 25 * 3600 - 1);
        QCOMPARE(starts, expected);
        // Started between the two passes of the hour: its first pass was nobody's.
        bench.setTime(midnight + 3 * 3600 - 60);
        bench.queue->disconnect();
        const int id = bench.addTask({"start_time = 7260"});
        bench.tick(midnight + 3 * 3600 + 60 - 1);
        QVERIFY(!bench.player(id));
        bench.tick(midnight + 3 * 3600 + 60);
        QVERIFY(bench.player(id));
        qputenv("TZ", "UTC");
        tzset();
    }

private:
    QTemporaryDir m_directory;
};

int main(int argc, char** argv) {
    return runTest<TaskQueueTest>(argc, argv);
}
#include "taskqueue_test.moc"
