// Many clients at once on MySQL: every answer is the asker's own, and connections don't pile up.
#include "support/mariadb.h"
#include "support/service.h"
#include "support/testmain.h"
#include "support/waitfor.h"

#include <atomic>
#include <QtTest>
#include <thread>

namespace {

constexpr int Clients = 16;
constexpr int MaxThreads = 8;

/// How long the clients go on; longer when asked to.
std::chrono::seconds duration() {
    bool given = false;
    const int seconds = qEnvironmentVariableIntValue("SPEAKERD_CLIENTS_SECONDS", &given);
    return std::chrono::seconds(given ? seconds : 4);
}

/// One client: adds groups and lists them and its devices. Returns how many answers were wrong.
int useService(quint16 port, const Account& account, const QString& serial, std::atomic<int>& requests) {
    HttpClient http(port);
    int wrong = 0;
    int groups = 0;
    const QDeadlineTimer end(duration());
    while (!end.hasExpired()) {
        const QString name = QString("%1 组 %2").arg(account.name).arg(groups);
        const HttpReply adding = http.postForm("/user/addgname", account.params({{"gname", name}}));
        groups += adding.res() ? 1 : 0;
        const HttpReply listing = http.postForm("/user/listgroups", account.params());
        const QJsonArray list = listing["grouplist"].toArray();
        const HttpReply having = http.postForm("/user/listdev", account.params());
        const QJsonArray devices = having["devlist"].toArray();
        const bool right = adding.res() && list.size() == groups && list.last()["group_name"] == name &&
                           devices.size() == 1 && devices[0]["device_seed"] == serial;
        if (!right && wrong++ == 0)
            qWarning() << name << "after" << groups << "groups:" << adding.status << adding.body
                       << listing.status << listing.body << having.status << having.body;
        requests += 3;
    }
    return wrong;
}

} // namespace

class MysqlClientsTest : public QObject {
    Q_OBJECT
private slots:
    void clientsGetTheirOwnAnswers() {
        MariaDb server;
        QVERIFY(server.start());
        ServiceOptions options;
        options.kind = 1;
        options.database = server.createDatabase("load");
        options.settings = {{"listener/minThreads", 1},
                            {"listener/maxThreads", MaxThreads},
                            {"listener/cleanupInterval", 1000}};
        Service service(options);
        QVERIFY(service.start());
        const auto connections = [&] {
            return server.sql("SELECT COUNT(*) FROM information_schema.processlist WHERE user = 'user_load'")
                .trimmed()
                .toInt();
        };
        std::atomic<int> wrong{0};
        std::atomic<int> requests{0};
        std::vector<std::thread> clients;
        for (int i = 0; i < Clients; ++i) {
            const Account account = service.addAccount(QString("client%1").arg(i));
            const QString serial = QString("%1").arg(i, 32, 16, QChar('0'));
            service.giveSpeakers(account, {serial});
            clients.emplace_back([&wrong, &requests, &service, account, serial] {
                wrong += useService(service.httpPort(), account, serial, requests);
            });
        }
        // The main loop's, this test's, and those of the journal, volumes, calendars and the audit log.
        const int own = 6;
        int most = 0;
        QVERIFY(
            !waitFor([&] { return (most = std::max(most, connections())) > MaxThreads + own; }, duration()));
        for (std::thread& client : clients)
            client.join();
        qInfo("%d requests, at most %d connections", requests.load(), most);
        if (wrong != 0)
            qWarning().noquote() << service.log().right(4000);
        QCOMPARE(wrong.load(), 0);
        QVERIFY(requests > Clients);
        QVERIFY(waitFor([&] { return connections() <= own; }));
    }
};

int main(int argc, char** argv) {
    return runTest<MysqlClientsTest>(argc, argv);
}
#include "mysql_clients_test.moc"
