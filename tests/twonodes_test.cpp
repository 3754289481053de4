// Two services on one database, a speaker on each: a command to both reaches both.
#include "support/mariadb.h"
#include "support/speakers.h"
#include "support/table.h"
#include "support/testmain.h"

#include <algorithm>
#include <QCryptographicHash>
#include <QJsonArray>
#include <QJsonDocument>

class TwoNodesTest : public QObject {
    Q_OBJECT
private slots:
    void initTestCase() {
        QVERIFY(m_server.start());
        ServiceOptions options;
        options.kind = 1;
        options.database = m_server.createDatabase("nodes");
        m_second = std::make_unique<Service>(options);
        m_first = std::make_unique<Service>(options); // makes the tables anew
        QVERIFY(m_second->start());
        QVERIFY(m_first->start()); // the later one has row 1
        m_first->sql(QString("INSERT INTO sbox_node (id, nodeip, nodeport3) VALUES (2, '127.0.0.1', %1)")
                         .arg(m_second->commandPort6()));
        m_near = onlineFleet(speakersAt(*m_first, Near), 1);
        m_far = onlineFleet(speakersAt(*m_second, Far), 1);
        m_account = m_first->addAccount("alice");
        m_first->giveSpeakers(m_account, {Near, Far});
        m_first->sql(QString("UPDATE sbox_device_info SET node_id = 2 WHERE device_seed = '%1'").arg(Far));
    }

    void commandsReachBothNodes_data() {
        const Table<QString, QString, QByteArray> row{"path", "more", "bytes"};
        row("play", "/user/urlplay", "url=http://h/a.mp3", "A1http://h/a.mp3");
        row("stop", "/user/urlstop", "", "A5");
        row("play over", "/user/urlq39play", "url=http://h/b.mp3", "AShttp://h/b.mp3A");
        row("volume", "/user/editvols", "vol=9", "V\x09");
    }
    void commandsReachBothNodes() {
        QFETCH(QString, path);
        QFETCH(QString, more);
        QFETCH(QByteArray, bytes);
        const HttpParams both{{"snlist", QString(Near) + '|' + Far}};
        QVERIFY(m_first->http().postForm(path, m_account.params(both + form(more))).res());
        QVERIFY(waitFor([&] { return got(*m_near, bytes); }));
        QVERIFY(waitFor([&] { return got(*m_far, bytes); }));
        QVERIFY(!m_first->log().contains("not reached"));
        QVERIFY(!m_second->log().contains("not reached"));
    }

    /// One order to both: each node plays it on its own speakers and keeps their receipts.
    void announcementReachesBothNodes() {
        const QByteArray token = "a-token-of-forty-three-characters-_________";
        m_first->sql(QString("INSERT INTO `apitoken` (`account`, `hash`, `created`) VALUES (%1, '%2', 0)")
                         .arg(m_account.id)
                         .arg(QString(QCryptographicHash::hash(token, QCryptographicHash::Sha256).toHex())));
        const auto ask = [&](const QByteArray& method, const QString& path, const QByteArray& body = {}) {
            return m_first->http().request(
                method, "/api/v1" + path, body,
                {{"Authorization", "Bearer " + token}, {"Content-Type", "application/json"}});
        };
        const QJsonObject order{{"targets", QJsonObject{{"all", true}}},
                                {"volume", 11},
                                {"play", QJsonArray{QJsonObject{{"url", "http://h/all.mp3"}}}}};
        const HttpReply made = ask("POST", "/broadcasts", QJsonDocument(order).toJson());
        QCOMPARE(made.status, 201);
        for (sim::Fleet* const fleet : {m_near.get(), m_far.get()}) {
            QVERIFY(waitFor([&] { return got(*fleet, "A1http://h/all.mp3"); }));
            QVERIFY(got(*fleet, "V\x0b"));
        }
        const QString path = QString("/broadcasts/%1").arg(qint64(made["id"].toDouble()));
        const auto sent = [&] {
            int count = 0;
            for (const auto receipt : ask("GET", path + "/receipts").json()["items"].toArray())
                count += !receipt.toObject()["sent"].isNull();
            return count;
        };
        QVERIFY(waitFor([&] { return sent() == 2; }));
        QCOMPARE(ask("POST", path + "/stop").status, 202);
        QTRY_COMPARE(m_far->at(0).volume(), 9); // as it was before
        QVERIFY(waitFor([&] { return ask("GET", path)["state"] == "stopped"; }));
    }

    /// A bell of the other node's speaker, whichever of the two starts it, has its schedule's volume there.
    void bellWithVolumeReachesTheOtherNode() {
        const QString url = "http://h/bell.mp3";
        m_first->sql("INSERT INTO task (id, userid, start_time, task_name, nodeid, len, enable, kind) "
                     "VALUES (50, 1, 0, 'bell', 2, 60, 0, 1)");
        m_first->sql("INSERT INTO taskrule (taskid, priority, volume) VALUES (50, 200, 13)");
        m_first->sql(QString("INSERT INTO taskseed (taskid, devseedid) SELECT 50, id FROM sbox_device_info "
                             "WHERE device_seed = '%1'")
                         .arg(Far));
        m_first->sql(
            QString("INSERT INTO userfile (id, userid, url, len) VALUES (51, 1, '%1', 60)").arg(url));
        m_first->sql("INSERT INTO taskfile (taskid, fileid) VALUES (50, 51)");
        m_first->sql("INSERT INTO taskpop (taskid, status, userid, kind) VALUES (50, '1', 1, '1')");
        QVERIFY(waitFor([&] { return got(*m_far, "A1" + url.toUtf8()); }));
        QVERIFY(got(*m_far, "V\x0d"));
        const auto priority = [&] {
            return m_first->sql("SELECT `priority` FROM `broadcast` WHERE `kind` = 'bell'");
        };
        QVERIFY(waitFor([&] { return !priority().isEmpty(); })); // a row of each node that has a part in it
        for (const QVariantMap& row : priority())
            QCOMPARE(row["priority"].toInt(), 200);
    }

    /// The client is told that it was handed on, the log that nobody got it.
    void logKnowsBetter() {
        m_far.reset();
        QVERIFY(waitFor([&] {
            return m_second->command({{"cmd", "LIST"}})["list"].toArray().at(0)["status"] == 0;
        }));
        const HttpParams far{{"snlist", QString(Far)}};
        QVERIFY(m_first->http().postForm("/user/urlstop", m_account.params(far)).res());
        QVERIFY(m_first->waitForLog("not reached: 1 speakers by FORCESTOP"));
        m_second->kill9();
        QVERIFY(m_first->http().postForm("/user/urlstop", m_account.params(far)).res());
        QVERIFY(m_first->waitForLog("sck连接失败"));
    }

private:
    static constexpr const char* Near = "5eed0000000000000000000000000001";
    static constexpr const char* Far = "5eed0000000000000000000000000002";

    static bool got(sim::Fleet& fleet, const QByteArray& bytes) {
        const auto& commands = fleet.at(0).commands();
        return std::any_of(commands.begin(), commands.end(),
                           [&](const auto& command) { return command.bytes == bytes; });
    }

    MariaDb m_server;
    std::unique_ptr<Service> m_second;
    std::unique_ptr<Service> m_first;
    std::unique_ptr<sim::Fleet> m_near;
    std::unique_ptr<sim::Fleet> m_far;
    Account m_account;
};

int main(int argc, char** argv) {
    return runTest<TwoNodesTest>(argc, argv);
}
#include "twonodes_test.moc"
