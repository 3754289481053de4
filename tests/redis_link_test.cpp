#include "redis/fuck_redis.h"
#include "support/redisserver.h"
#include "support/table.h"
#include "support/testmain.h"

#include <QRegularExpression>
#include <QSignalSpy>
#include <QTimer>

namespace {

const QString Sn = QStringLiteral("00112233445566778899aabbccddeeff");

QString localhost() {
    return QStringLiteral("127.0.0.1");
}

QString serial(int i) {
    return QString("%1").arg(i, 32, 16, QLatin1Char('0'));
}

} // namespace

class RedisLinkTest : public QObject {
    Q_OBJECT
private slots:
    void fields_data() {
        const Table<QVariant, QByteArray> row{"value", "stored"};
        row("text", QVariant("Online"), "Online");
        row("integer", QVariant(-7), "-7");
        row("empty", QVariant(QString()), {});
        row("blanks and quotes", QVariant(" a \"b\" \\\" 'c' "), " a \"b\" \\\" 'c' ");
        row("not ASCII", QVariant("在线 ü"), "在线 ü");
        row("any bytes", QVariant(QByteArray("\xff\xfe ")), "\xff\xfe ");
        row("line ends", QVariant("a\r\n$3\r\nb"), "a\r\n$3\r\nb");
    }

    void fields() {
        QFETCH(QVariant, value);
        RedisServer server;
        QVERIFY(server.start());
        fuck_redis link;
        QVERIFY(link.try_connect(localhost(), server.port(), {}));
        link.Set_sn_key_value(Sn, "cdn_url", value);
        QTRY_COMPARE(server.cli({"HEXISTS", Sn, "cdn_url"}), QByteArray("1"));
        QTEST(server.cli({"HGET", Sn, "cdn_url"}), "stored");
    }

    void registrationAndLists() {
        RedisServer server;
        QVERIFY(server.start());
        fuck_redis link;
        link.serverAddress = "10.0.0.1";
        QVERIFY(link.try_connect(localhost(), server.port(), {}));
        link.online_newdevices(Sn, 1, 20, 3, 4, "192.168.1.7", "10.1.1.1", "2024-01-02 10:11:12");
        link.online_newdevices(Sn, 2, 21, 5, 6, "192.168.1.8", "10.1.1.2");
        QCOMPARE(link.knownSerials(), QStringList(Sn));
        QTRY_COMPARE(server.cli({"HLEN", Sn}), QByteArray("10"));
        const QByteArray values = server.cli({"HMGET", Sn, "sn", "kindsk", "vol", "mic_d", "mic_e", "l_ip",
                                              "r_ip", "Reg_Date", "S_ip", "Line"});
        QCOMPARE(values.split('\n'),
                 QByteArrayList({Sn.toUtf8(), "2", "21", "5", "6", "192.168.1.8", "10.1.1.2",
                                 "2024-01-02-10:11:12", "10.0.0.1", "Online"}));

        link.Warmingup_push(Sn, "t1");
        link.Warmingup_push(Sn, "t2");
        link.Warmingdown_push(Sn, "t3");
        QTRY_COMPARE(server.cli({"LLEN", "Warmingup"}), QByteArray("1"));
        QCOMPARE(server.cli({"LRANGE", "Warmingup", "0", "-1"}), Sn.toUtf8() + "_t3");
        QCOMPARE(server.cli({"LINDEX", "Warmingdown", "0"}), Sn.toUtf8() + "_t2");
    }

    void groups() {
        RedisServer server;
        QVERIFY(server.start());
        QStringList all;
        QByteArray input;
        for (int i = 0; i < 10000; ++i) {
            all << serial(i);
            input += "RPUSH \"\xe4\xb8\x80 school\" " + serial(i).toUtf8() + "\n";
        }
        server.cli({}, input);
        fuck_redis link;
        QVERIFY(link.try_connect(localhost(), server.port(), {}));
        QCOMPARE(link.backsnlist("一 school"), all);
        QCOMPARE(link.backsnlist("none"), QStringList());
        server.cli({"SET", "text", "x"});
        QCOMPARE(link.backsnlist("text"), QStringList());
        QVERIFY(!server.cli({"INFO", "commandstats"}).contains("cmdstat_lrange:calls=2"));
        QVERIFY(link.isConnected());
    }

    /// A read that is asked for from within another one's wait gets its own answer, and so does the other.
    void readWhileAnotherWaits() {
        RedisServer server;
        QVERIFY(server.start());
        server.cli({"RPUSH", "a", "1", "2", "3"});
        server.cli({"RPUSH", "b", "4", "5"});
        fuck_redis link;
        QVERIFY(link.try_connect(localhost(), server.port(), {}));
        int inner = 0;
        int wrong = 0;
        QTimer timer;
        connect(&timer, &QTimer::timeout, &link, [&] {
            ++inner;
            wrong += link.backsnlist("b") == QStringList({"4", "5"}) ? 0 : 1;
        });
        timer.start(0);
        int outer = 0;
        while (outer < 200 && link.backsnlist("a") == QStringList({"1", "2", "3"}))
            ++outer;
        QCOMPARE(outer, 200);
        QVERIFY(inner > 0);
        QCOMPARE(wrong, 0);
    }

    /// A server that closes idle connections costs the link nothing.
    void idleReadConnection() {
        RedisServer server;
        QVERIFY(server.start());
        server.cli({"RPUSH", "a", "1"});
        fuck_redis link;
        QVERIFY(link.try_connect(localhost(), server.port(), {}));
        const QByteArray clients = server.cli({"CLIENT", "LIST"});
        const QList<QByteArray> lines = clients.split('\n');
        for (const QByteArray& line : lines) {
            if (line.contains("cmd=auth"))
                server.cli({"CLIENT", "KILL", "ID", line.mid(3, line.indexOf(' ') - 3)});
        }
        QTRY_VERIFY(!server.cli({"CLIENT", "LIST"}).contains("cmd=auth"));
        QCOMPARE(link.backsnlist("a"), QStringList("1"));
        QVERIFY(link.isConnected());
    }

    void password_data() {
        const Table<QString, bool> row{"password", "accepted"};
        row("right", "se cret", true);
        row("wrong", "other", false);
        row("none", "", false);
    }

    void password() {
        QFETCH(QString, password);
        QFETCH(bool, accepted);
        RedisServer server({"--requirepass", "se cret"});
        QVERIFY(server.start());
        fuck_redis link;
        QVERIFY(link.try_connect(localhost(), server.port(), password));
        QCOMPARE(link.isConnected(), accepted);
        QCOMPARE(server.cli({"-a", "se cret", "--no-auth-warning", "RPUSH", "g", "1"}), "1");
        QCOMPARE(link.backsnlist("g"), accepted ? QStringList("1") : QStringList());
    }

    void outage() {
        RedisServer server;
        fuck_redis link;
        QSignalSpy restored(&link, &fuck_redis::restored);
        QVERIFY(!link.try_connect(localhost(), server.port(), {})); // at first it is not there yet
        for (int round = 1; round <= 2; ++round) {
            server.kill();
            QTRY_VERIFY(!link.isConnected());
            link.Set_sn_key_value(Sn, "mic_d", round);
            QCOMPARE(link.backsnlist("a"), QStringList());
            QVERIFY(server.start());
            QTRY_COMPARE_WITH_TIMEOUT(restored.size(), round, 35000);
            QVERIFY(link.isConnected());
            link.Set_sn_key_value(Sn, "vol", round);
            QTRY_COMPARE(server.cli({"HGETALL", Sn}), "vol\n" + QByteArray::number(round));
        }
    }

    /// What waits for a server that does not read is bounded; once it has not answered for long, the
    /// connection is given up.
    void serverStopsReading() {
        RedisServer server;
        QVERIFY(server.start());
        fuck_redis link;
        QVERIFY(link.try_connect(localhost(), server.port(), {}));
        server.suspend();
        const WriteLink& writer = link.writeLink();
        for (int i = 0; writer.droppedRefreshes() == 0 && i < 2000; ++i) {
            for (int n = 0; n < 1000; ++n)
                link.Set_sn_key_value(serial(n), "STATUS", "ONLINE");
            link.Set_sn_key_value(Sn, "vol", i);
            QCoreApplication::processEvents();
            QVERIFY(writer.backlog() <= WriteLink::MaxPendingBytes + WriteLink::MaxSocketBytes + 1000);
        }
        QVERIFY(writer.droppedRefreshes() > 0);
        QCOMPARE(writer.droppedEvents(), 0ULL);
        QTRY_VERIFY_WITH_TIMEOUT(!link.isConnected(), 30000);
        QCOMPARE(writer.backlog(), 0LL);
        server.resume();
        QTRY_VERIFY_WITH_TIMEOUT(link.isConnected(), 35000);
    }

    void refusals_data() {
        const Table<QList<QStringList>, QList<QStringList>, QByteArray> row{"fault", "repair", "reason"};
        row("memory is full", {{"CONFIG", "SET", "maxmemory", "1"}}, {{"CONFIG", "SET", "maxmemory", "0"}},
            "OOM");
        row("became a replica", {{"REPLICAOF", "127.0.0.1", "1"}}, {{"REPLICAOF", "NO", "ONE"}}, "READONLY");
        row("may not write", {{"ACL", "SETUSER", "default", "-hset", "-hmset", "-lpush"}},
            {{"ACL", "SETUSER", "default", "+@all"}}, "NOPERM");
        row("keys of another type", {{"DEL", Sn}, {"SET", Sn, "x"}, {"SET", "Warmingdown", "x"}},
            {{"DEL", Sn, "Warmingdown"}}, "WRONGTYPE");
    }

    /// Told, and made good when the server takes writes again: the newest values, the entries in order.
    void refusals() {
        QFETCH(QList<QStringList>, fault);
        QFETCH(QList<QStringList>, repair);
        QFETCH(QByteArray, reason);
        RedisServer server;
        QVERIFY(server.start());
        fuck_redis link;
        QVERIFY(link.try_connect(localhost(), server.port(), {}));
        for (const QStringList& command : fault)
            QVERIFY(server.cli(command).size() < 4);
        QTest::ignoreMessage(QtWarningMsg,
                             QRegularExpression("redis: write refused: " + Sn + ' ' + reason + ' '));
        for (const char* vol : {"1", "2"}) {
            link.Set_sn_key_value(Sn, "vol", vol);
            link.Set_sn_key_value(Sn, "STATUS", "ONLINE");
            link.Warmingup_push(Sn, vol);
        }
        link.online_newdevices(Sn, 1, 3, 3, 4, "l", "r", "2024-01-02 10:11:12");
        QTRY_COMPARE(link.writeLink().unanswered() + static_cast<size_t>(link.writeLink().backlog()),
                     size_t{0});
        QVERIFY(link.isConnected());
        link.Set_sn_key_value(Sn, "Line", "Offline");
        for (const QStringList& command : repair)
            QVERIFY(server.cli(command).size() < 4);
        link.Set_sn_key_value(Sn, "STATUS", "OFFLINE");
        QTRY_COMPARE(server.cli({"HMGET", Sn, "vol", "mic_d", "Reg_Date", "Line", "STATUS"}),
                     QByteArray("3\n3\n2024-01-02-10:11:12\nOffline\nOFFLINE"));
        QTRY_COMPARE_WITH_TIMEOUT(server.cli({"LRANGE", "Warmingdown", "0", "-1"}),
                                  Sn.toUtf8() + "_2\n" + Sn.toUtf8() + "_1", 20000);
    }

    /// The server falls so far behind that writes are dropped; when it has caught up they are made.
    void droppedWritesAreMade() {
        RedisServer server;
        QVERIFY(server.start());
        fuck_redis link;
        QVERIFY(link.try_connect(localhost(), server.port(), {}));
        QSignalSpy away(&link.writeLink(), &WriteLink::lost);
        for (int i = 0; i < 2000; ++i)
            link.Set_sn_key_value(serial(i), "vol", i);
        link.Set_sn_key_value(serial(7), "vol", "newer");
        for (int i = 0; i < 200; ++i)
            link.Set_sn_key_value(Sn, "test", QByteArray(100'000, 'x'));
        QVERIFY(link.writeLink().droppedEvents() > 2001);
        link.Set_sn_key_value(serial(8), "vol", "newest");
        QTRY_COMPARE(server.cli({"HGET", serial(1999), "vol"}), QByteArray("1999"));
        QTRY_COMPARE(server.cli({"DBSIZE"}), QByteArray("2001"));
        QCOMPARE(server.cli({"HGET", serial(7), "vol"}), QByteArray("newer"));
        QCOMPARE(server.cli({"HGET", serial(8), "vol"}), QByteArray("newest"));
        QCOMPARE(away.size(), 0);
    }

    /// Two reads, one within the other's wait: both end without an answer, and the link knows at once.
    void readFromHangingServer() {
        RedisServer server;
        QVERIFY(server.start());
        server.cli({"RPUSH", "a", "1"});
        fuck_redis link;
        QVERIFY(link.try_connect(localhost(), server.port(), {}));
        server.suspend();
        bool connectedWithin = true;
        QTimer::singleShot(0, &link, [&] {
            QCOMPARE(link.backsnlist("a"), QStringList());
            connectedWithin = link.isConnected();
        });
        QCOMPARE(link.backsnlist("a"), QStringList());
        QVERIFY(!connectedWithin);
        QVERIFY(!link.isConnected());
    }
};

int main(int argc, char** argv) {
    return runTest<RedisLinkTest>(argc, argv);
}
#include "redis_link_test.moc"
