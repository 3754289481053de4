// What a poller makes of commands, of the speakers' state that its own node tells, and of service periods.
#include "core/sql/sqlite.h"
#include "nodes/gate.h"
#include "nodes/unreached.h"
#include "support/devicelink.h"
#include "support/scriptednode.h"
#include "support/table.h"
#include "support/testmain.h"
#include "support/waitfor.h"
#include "tasks/alarms/warning.h"
#include "tasks/devicestatus.h"
#include "tasks/nodeque.h"
#include "tasks/relayqueue.h"
#include "tasks/serviceperiod.h"

#include <QDate>
#include <QFile>
#include <QJsonArray>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <thread>

class NodePollerTest : public QObject {
    Q_OBJECT
private slots:
    void initTestCase() {
        QVERIFY(QDir::setCurrent(m_directory.path()));
        m_db = std::make_unique<sqlite>(QString(), 0, QString(), QString(), QString(), 3);
        m_db->init();
        QFile script(":/etc/ttys/sqlite3main.sql");
        QVERIFY(script.open(QIODevice::ReadOnly));
        QVERIFY(m_db->runScript(QString::fromUtf8(script.readAll())) > 0);
    }

    void rowsFollowTheSpeakers() {
        Severinit devices({}, {}, {}, {}, {}, {}, "key", 3000, 2048, 20, 3000, 10, {}, 0, 0, 0, 0, 0, 0, 0, 0,
                          0);
        devices.setStoredSerials({"a1", "b2"}, {});
        devices.init_vison();
        m_db->exec(
            "INSERT INTO sbox_device_info (device_seed, status, vol) VALUES ('a1', 1, 5), ('b2', 1, 5)");
        DeviceStatus status(&devices, m_db.get());
        const auto rows = [&] {
            QStringList texts;
            const SqlResult found = m_db->run("SELECT * FROM sbox_device_info ORDER BY device_seed");
            for (int i = 0; i < found.rows.size(); ++i)
                for (const char* column : {"vol", "kind", "xhstatus", "status"})
                    texts += found.text(i, column);
            return texts.join(' ');
        };
        const auto become = [&](const char* expected) {
            return waitFor([&] {
                status.write();
                return rows() == expected;
            });
        };
        QVERIFY2(become("0 1 0 0 0 1 0 0"), qPrintable(rows())); // of an earlier run nothing is left
        devices.session("a1")->setVol(7);
        QCOMPARE(rows(), "0 1 0 0 0 1 0 0"); // not for each change
        QVERIFY2(become("7 1 0 0 0 1 0 0"), qPrintable(rows()));
        devices.session("b2")->setXuhao(3);
        QVERIFY(m_db->exec(
            "CREATE TRIGGER fails BEFORE UPDATE ON sbox_device_info BEGIN SELECT RAISE(FAIL, 'x'); END"));
        int failures = 0;
        connect(m_db.get(), &sqlite::error, &devices, [&] { ++failures; });
        QVERIFY(waitFor([&] {
            status.write();
            return failures > 0;
        }));
        m_db->exec("DROP TRIGGER fails");
        QVERIFY2(become("7 1 0 0 0 1 3 0"), qPrintable(rows())); // kept meanwhile
        m_db->exec("UPDATE sbox_device_info SET xhstatus = 9, vol = 9");
        devices.session("b2")->setVol(4);
        QVERIFY2(become("9 1 9 0 4 1 9 0"), qPrintable(rows())); // nothing but what has changed
        devices.tellAgain({"a1"});
        QVERIFY2(become("7 1 0 0 4 1 9 0"), qPrintable(rows()));
    }

    void commandsLeaveAsFrames() {
        QCOMPARE(NodeCall::frame(""), QByteArray("0\n"));
        QCOMPARE(NodeCall::frame("{\"cmd\":1}"), QByteArray("9\n{\"cmd\":1}"));
        ScriptedNode node;
        Nodeque poller(nullptr, 3, m_db.get(), "127.0.0.1", node.port(), {&m_gate});
        const QByteArray large = "{\"cmd\":\"PLAYOFF\",\"fill\":\"" + QByteArray(2000000, 'x') + "\"}";
        poller.fuckmg(large); // an alarm's, straight from the main loop
        QVERIFY(waitFor([&] { return node.requests().size() == 1; }));
        poller.start();
        poller.fuckin(large);
        QVERIFY(waitFor([&] { return node.requests().size() == 2; }));
        QVERIFY(node.requests()[0].bytes == large && node.requests()[1].bytes == large);
    }

    void alarmIsRelayedUntilTheWatchEnds() {
        ScriptedNode node;
        Nodeque poller(nullptr, 3, m_db.get(), "127.0.0.1", node.port(), {&m_gate});
        Warning first(1000), second(1000);
        poller.insertwarming("gate", &first);
        poller.insertwarming("gate", &first); // not twice
        poller.insertwarming("hall", &second);
        emit first.cmd("{\"cmd\":\"a\"}");
        QVERIFY(waitFor([&] { return node.requests().size() == 1; }));
        poller.diswarming("gate");
        emit first.cmd("{\"cmd\":\"b\"}");
        emit second.cmd("{\"cmd\":\"c\"}");
        QVERIFY(waitFor([&] { return node.requests().size() == 2; }));
        QCOMPARE(node.requests()[1].word(), "c");
    }

    void silentNodeHoldsNobodyUp() {
        Nodeque poller(nullptr, 3, m_db.get(), "192.0.2.1", 6006, {&m_gate}); // an address without a host
        poller.start();
        for (int i = 0; i < 50; ++i)
            poller.fuckin("{}");
        QElapsedTimer clock;
        clock.start();
        poller.fuckmg("{}");
        QVERIFY(clock.elapsed() < 500);
        clock.start();
        poller.stop(); // in the middle of a connection
        QVERIFY(poller.wait(5000) && clock.elapsed() < 500);
    }

    /// Accounts are digits, speakers letters: "p1u ab" plays u for account 1, "s1 ab" stops in two
    /// commands, "A" and "B"; "10" is the time of what follows, at which a play holds for 5.
    void order_data() {
        const Table<QString, QString> row{"come", "go"};
        row("one account", "p1u a,p1v b,s1 a", "pu a,pv b,A a,B a");
        row("stops become one", "s1 a,s2 b,s1 ac", "A abc,B abc");
        row("equal plays become one", "p1u a,p1v b,p1u c", "pu ac,pv b");
        row("a start overtakes others' stops", "s1 a,s1 b,p1u c", "pu c,A ab,B ab");
        row("but not its own speaker's", "s1 a,s2 b,p1u a", "A ab,B ab,pu a");
        row("and the next ones stay behind it", "s1 a,p1u a,s1 a,p2v b,p2w a",
            "A a,pv b,B a,pu a,A a,B a,pw a");
        row("a play between keeps equal ones apart", "p1u a,p1v a,p1u a", "pu a,pv a,pu a");
        row("a stop does not join across a play", "s1 b,p1u a,s1 a,s1 c", "pu a,A bac,B bac");
        row("turns", "p1a a,p1b b,p1c c,p1d d,p2x e,p3y f", "pa a,px e,py f,pb b,pc c,pd d");
        row("over", "p1u a,s1 a,10,p1v a,s1 a,20", "A a,B a");
        row("over, but not out of the order", "s1 a,p1u a,5,p1v a", "A a,B a,pv a");
    }
    void order() {
        QFETCH(QString, come);
        RelayQueue queue;
        std::chrono::milliseconds now{0};
        const auto add = [&](const QString& text, const QString& document) {
            const QStringList sns = text.section(' ', 1).split("", Qt::SkipEmptyParts);
            const QByteArray payload = QString(document).replace('\'', '"').arg(sns.join("\",\"")).toUtf8();
            queue.add({payload, text.mid(1, 1).toInt(), now + std::chrono::milliseconds(5)});
        };
        for (const QString& text : come.split(',')) {
            if (text.startsWith('p'))
                add(text, "{'cmd':'PLAYOFF','filelist':['" + text.mid(2, 1) + "'],'snlist':['%1']}");
            else if (text.startsWith('s')) {
                add(text, "{'cmd':'FORCESTOP','snlist':['%1']}");
                add(text, "{'cmd':'FORCESTOP','filelist':['none.mp3'],'level':'5','snlist':['%1']}");
            } else
                now = std::chrono::milliseconds(text.toInt());
        }
        QStringList gone;
        while (const auto payload = queue.take(now)) {
            const QJsonObject json = QJsonDocument::fromJson(*payload).object();
            QString sns;
            for (const auto sn : json["snlist"].toArray())
                sns += sn.toString();
            const QString file = json["filelist"].toArray().at(0).toString();
            const QString word = json["cmd"] == "PLAYOFF" ? "p" + file : file.isEmpty() ? "A" : "B";
            gone += word + ' ' + sns;
        }
        QTEST(gone.join(','), "go");
        QCOMPARE(queue.bytes(), 0);
    }

    /// Every name of this node leads to its dispatcher without a connection, from any thread.
    void ownNodeNeedsNoConnection_data() {
        const Table<QString, int, bool> row{"host", "port", "own"};
        row("loopback", "127.0.0.1", 6006, true);
        row("name", "localhost", 6003, true);
        row("none", "", 6006, true);
        row("announced", "203.0.113.7", 6006, true);
        row("another port", "127.0.0.1", 6007, false);
        row("another machine", "203.0.113.8", 6006, false);
    }
    void ownNodeNeedsNoConnection() {
        QFETCH(QString, host);
        QFETCH(int, port);
        QFETCH(bool, own);
        DeviceLink link;
        Gate gate(&link.registry, "203.0.113.7", {6003, 6006});
        QCOMPARE(gate.isThisNode({host, port}), own);
        if (!own)
            return;
        QByteArray answer;
        std::atomic_bool isDone{false};
        std::thread worker([&] {
            answer = gate.runAndWait({host, port}, "{\"cmd\":\"LIST\"}", Gate::Until::Answered).answer;
            isDone = true;
        });
        QVERIFY(waitFor([&] { return isDone.load(); }));
        worker.join();
        QVERIFY(QJsonDocument::fromJson(answer).object()["list"].isArray());
        QCOMPARE(gate.lostCommands(), 0u);
    }

    void lostCommandsAreCounted() {
        ScriptedNode node;
        const NodeAddress gone{"127.0.0.1", node.port()};
        node.close();
        Gate gate(nullptr, {}, {});
        QTest::ignoreMessage(QtWarningMsg, QRegularExpression("sck连接失败")); // once
        const auto written = gate.begin(gone, "{}", Gate::Until::Written);
        gate.run(gone, "{}");
        QVERIFY(waitFor([&] { return gate.lostCommands() == 2; }));
        QVERIFY(Gate::await(written).isLost());
    }

    void answersTellWhoWasNotReached_data() {
        const Table<QByteArray, int, QString> row{"answer", "count", "why"};
        row("all", "{'res':'WELL','info':'sent to 2 of 2'}", 0, "");
        row("some", "{'res':'unline','info':'sent to 1 of 3; a unline, b unline'}", 2,
            "unline sent to 1 of 3; a unline, b unline");
        row("done all the same", "{'res':'success','info':'set for 0 of 1; a not sent'}", 1,
            "success set for 0 of 1; a not sent");
        row("a list that is cut off", "{'res':'out_of_range','info':'sent to 0 of 1','list':[{]}", 1,
            "out_of_range sent to 0 of 1");
        row("refused", "{'res':'Data_error_7','info':'no targets'}", -1, "Data_error_7 no targets");
        row("speakers", "{'res':'success','info':'3 speakers','list':[]}", 0, "");
        row("no answer", "", 0, "");
    }
    void answersTellWhoWasNotReached() {
        QFETCH(QByteArray, answer);
        const Unreached unreached = unreachedBy(answer.replace('\'', '"'));
        QTEST(unreached.count, "count");
        QTEST(unreached.why, "why");
    }

    void servicePeriods_data() {
        const Table<int, int, QString> row{"days", "statu", "becomes"};
        row("over, active", -1, 1, "expired");
        row("last day, active", 0, 1, "");
        row("over, disabled already", -1, 2, "");
        row("renewed", 1, 3, "renewed");
        row("renewed too short", -1, 3, "");
        row("active", 1, 1, "");
    }
    void servicePeriods() {
        QFETCH(int, days);
        QFETCH(int, statu);
        QFETCH(QString, becomes);
        m_db->exec("DELETE FROM snover");
        for (const char* sn : {"a1", "b2", "c 3"}) // the last one is no serial
            m_db->exec(QStringLiteral("INSERT INTO snover (sn, overtime, statu) VALUES ('%1', '%2', %3)")
                           .arg(sn, QDate::currentDate().addDays(days).toString(Qt::ISODate))
                           .arg(statu));
        const ServicePeriods periods(m_db.get());
        QVERIFY(periods.exists());
        const QStringList both{"a1", "b2"};
        QCOMPARE(periods.expired(), becomes == "expired" ? both : QStringList());
        QCOMPARE(periods.renewed(), becomes == "renewed" ? both : QStringList());
        if (becomes == "expired")
            periods.markDisabled(both);
        if (becomes == "renewed")
            periods.markEnabled(both);
        QVERIFY(periods.expired().isEmpty() && periods.renewed().isEmpty());
        const int marked = becomes == "expired" ? 2 : becomes == "renewed" ? 1 : statu;
        QCOMPARE(
            m_db->run("SELECT id FROM snover WHERE statu = @s and sn != 'c 3'", {{"@s", marked}}).rows.size(),
            2);
    }

private:
    Gate m_gate{nullptr, {}, {}};
    QTemporaryDir m_directory;
    std::unique_ptr<sqlite> m_db;
};

int main(int argc, char** argv) {
    return runTest<NodePollerTest>(argc, argv);
}
#include "nodepoller_test.moc"
