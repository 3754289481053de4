// What a poller makes of the speakers' state that its own node tells, and of service periods.
#include "core/sqlite.h"
#include "support/scriptednode.h"
#include "support/table.h"
#include "support/testmain.h"
#include "support/waitfor.h"
#include "tasks/devicestatus.h"
#include "tasks/nodeque.h"
#include "tasks/serviceperiod.h"
#include "tasks/warning.h"

#include <QDate>
#include <QFile>
#include <QTemporaryDir>

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

    void changes_data() {
        // last: statements of the last answer
        const Table<QList<QByteArray>, QStringList> row{"entries", "last"};
        const QByteArray a = "{'sn':'a1','vol':7,'kind':2,'status':1,'xhstatus':3}";
        const QString all = "UPDATE `sbox_device_info` SET`vol` = '7',`kind` = '2',`xhstatus` = '3',"
                            "`status` = '1'WHERE (`device_seed` = 'a1' ) ;";
        row("new", QList<QByteArray>{a}, QStringList{all});
        row("quiet", QList<QByteArray>{a, a}, {});
        row("changed and back",
            QList<QByteArray>{a, "{'sn':'a1','vol':8,'kind':2,'status':1,'xhstatus':3}", a},
            QStringList{all});
        row("one of two",
            QList<QByteArray>{a + ",{'sn':'b2','vol':1,'kind':1,'status':0}",
                              a + ",{'sn':'b2','vol':1,'kind':1,'status':1}"},
            QStringList{"UPDATE `sbox_device_info` SET `vol` = '1', `status` = '1', "
                        "`kind` = '1' WHERE (`device_seed` = 'b2' and `id` > 0 );"});
        row("counters add up every time",
            QList<QByteArray>{"{'sn':'a1','status':1,'rt':4,'pyl':2}",
                              "{'sn':'a1','status':1,'rt':4,'py':0}"},
            QStringList{"UPDATE `sbox_device_info` SET`rt` = `rt`+'4',`status` = '1'WHERE (`device_seed` = "
                        "'a1' ) ;"});
        row("serial that is none", QList<QByteArray>{"{'sn':'a1 or 1','status':1}"}, {});
        row("no state", QList<QByteArray>{"{'sn':'a1','vol':1}"}, {});
        row("does not parse", QList<QByteArray>{"{'sn':"}, {});
    }
    void changes() {
        QFETCH(QList<QByteArray>, entries);
        QFETCH(QStringList, last);
        DeviceStatus status(SqlDialect::Sqlite);
        QStringList statements;
        for (QByteArray entry : entries)
            statements = status.changes("{\"res\":\"success\",\"list\":[" + entry.replace('\'', '"') + "]}");
        QCOMPARE(statements, last);
    }

    void listBecomesStatements() {
        ScriptedNode node;
        node.list = "{\"res\":\"success\",\"list\":[";
        for (int i = 0; i < 1000; ++i)
            node.list += (i ? ",{\"sn\":\"" : "{\"sn\":\"") + QByteArray::number(i) + "\",\"status\":1}";
        node.list += "],\"mark\":\"m7\"}";
        Nodeque poller(nullptr, 3, m_db.get(), "127.0.0.1", node.port());
        QStringList statements;
        connect(&poller, &Nodeque::updatedatabase, [&](const QString& sql) { statements += sql; });
        poller.getinfotime();
        poller.getinfotime(); // while the first is under way
        QVERIFY(waitFor([&] { return statements.size() == 1000; }));
        QCOMPARE(node.listsAsked(), 1);
        QCOMPARE(node.lastListAsked().json()["since"], "");
        node.list = R"({"list":[{"sn":"7","status":0}],"mark":"m7"})";
        poller.getinfotime();
        QVERIFY(waitFor([&] { return statements.size() == 1001; }));
        QVERIFY(statements.last().contains("`status` = '0'WHERE (`device_seed` = '7' )"));
        poller.getinfotime();
        QVERIFY(waitFor([&] { return node.listsAsked() == 3; }));
        QCOMPARE(node.lastListAsked().json()["since"], "m7"); // what the node said before
        node.list = R"({"list":[],"mark":"m8","more":true})";
        poller.getinfotime();
        QVERIFY(waitFor([&] { return node.listsAsked() == 5; })); // without waiting for the next poll
        QCOMPARE(node.lastListAsked().json()["since"], "m8");
    }

    void commandsLeaveAsFrames() {
        QCOMPARE(commandFrame(""), QByteArray("0\n"));
        QCOMPARE(commandFrame("{\"cmd\":1}"), QByteArray("9\n{\"cmd\":1}"));
        ScriptedNode node;
        Nodeque poller(nullptr, 3, m_db.get(), "127.0.0.1", node.port());
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
        Nodeque poller(nullptr, 3, m_db.get(), "127.0.0.1", node.port());
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
        Nodeque poller(nullptr, 3, m_db.get(), "192.0.2.1", 6006); // an address without a host
        poller.start();
        for (int i = 0; i < 50; ++i)
            poller.fuckin("{}");
        QElapsedTimer clock;
        clock.start();
        poller.fuckmg("{}");
        QVERIFY(clock.elapsed() < 500);
        poller.stop();
        QVERIFY(poller.wait(5000));
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
    QTemporaryDir m_directory;
    std::unique_ptr<sqlite> m_db;
};

int main(int argc, char** argv) {
    return runTest<NodePollerTest>(argc, argv);
}
#include "nodepoller_test.moc"
