// Two services on one database, a speaker on each: a command to both reaches both.
#include "support/mariadb.h"
#include "support/speakers.h"
#include "support/table.h"
#include "support/testmain.h"

#include <algorithm>

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
