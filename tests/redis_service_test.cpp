// The service with a real Redis server: what each report and command leaves there, groups, outages.
#include "support/redisserver.h"
#include "support/speakers.h"
#include "support/testmain.h"

#include <QElapsedTimer>
#include <QFile>
#include <QJsonArray>
#include <QRegularExpression>

namespace {

using namespace std::chrono_literals;

ServiceOptions withRedis(const RedisServer& redis) {
    ServiceOptions options;
    options.settings = {{"EnableRedis", true}, {"RedisPort", redis.port()}};
    return options;
}

sim::SpeakerOptions speakersOf(const Service& service) {
    sim::SpeakerOptions options = speakersAt(service);
    options.reportGap = 20ms;
    return options;
}

long residentKilobytes(qint64 pid) {
    QFile file(QString("/proc/%1/statm").arg(pid));
    return file.open(QIODevice::ReadOnly) ? file.readAll().split(' ').value(1).toLong() * 4 : 0;
}

} // namespace

class RedisServiceTest : public QObject {
    Q_OBJECT
private slots:
    void initTestCase() {
        m_redis = std::make_unique<RedisServer>();
        QVERIFY(m_redis->start());
        m_service = std::make_unique<Service>(withRedis(*m_redis));
        QVERIFY(m_service->start());
    }

    void cleanup() {
        m_fleet.reset();
        m_redis->cli({"FLUSHALL"});
    }

    void cleanupTestCase() { QCOMPARE(m_service->stop(), 0); }

    void registration() {
        start(1);
        const QString sn = m_fleet->at(0).sn();
        QVERIFY(fieldBecomes(sn, "STATUS", "ONLINE"));
        QCOMPARE(field(sn, "Line"), "Online");
        QCOMPARE(field(sn, "sn"), sn.toUtf8());
        QCOMPARE(field(sn, "vol"), "20");
        QCOMPARE(field(sn, "r_ip"), "127.0.0.1");
        const QRegularExpression time("^\\d{4}-\\d\\d-\\d\\d-\\d\\d:\\d\\d:\\d\\d$");
        QVERIFY(time.match(field(sn, "Reg_Date")).hasMatch());
        m_fleet->at(0).stop();
        QVERIFY(fieldBecomes(sn, "Line", "Offline"));
        QVERIFY(fieldBecomes(sn, "STATUS", "OFFLINE"));
    }

    /// Quotes, blanks and letters beyond ASCII come through; a state's word follows what is reported.
    void reportsAndCommands() {
        start(1);
        const QString sn = m_fleet->at(0).sn();
        QVERIFY(reportUntil("UA2/mp3/a b \"c\".mp3",
                            [&] { return field(sn, "Playing_local_path") == "/mp3/a b \"c\".mp3"; }));
        QVERIFY(
            reportUntil("UT1 7||09:00||在线", [&] { return field(sn, "Task_list") == " 7||09:00||在线"; }));
        QVERIFY(reportUntil("UA3", [&] { return field(sn, "STATUS") == "PLAYING1"; }));
        QVERIFY(reportUntil("UA5", [&] { return field(sn, "STATUS") == "ONLINE"; }));
        const auto listed = [&](const char* list) {
            return m_redis->cli({"LINDEX", list, "0"}).startsWith(sn.toUtf8() + '_');
        };
        QVERIFY(reportUntil("Y1", [&] { return listed("Warmingdown"); }));
        QVERIFY(!listed("Warmingup"));
        QVERIFY(reportUntil("Y0", [&] { return listed("Warmingup"); }));

        for (const QJsonObject& request :
             {QJsonObject{{"cmd", "VOL_S"}, {"snlist", QJsonArray{sn}}, {"vol", 8}},
              QJsonObject{{"cmd", "MDIFYCENTER"}, {"snlist", QJsonArray{sn}}, {"originurl", "http://a/b c"}},
              QJsonObject{{"cmd", "TEST"}, {"snlist", QJsonArray{sn}}, {"sn", sn}, {"Data", "x 在线"}}})
            QCOMPARE(m_service->command(request)["res"], "success");
        QVERIFY(fieldBecomes(sn, "vol", "8"));
        QVERIFY(fieldBecomes(sn, "cdn_url", "http://a/b c"));
        QVERIFY(fieldBecomes(sn, "test", "x 在线"));
    }

    void groups() {
        start(3);
        const QStringList members{m_fleet->at(2).sn(), m_fleet->at(0).sn()};
        m_redis->cli(QStringList{"RPUSH", "一年级 A"} + members);
        const QJsonObject listed = m_service->command({{"cmd", "ListGroup"}, {"group", "一年级 A"}});
        QCOMPARE(listed.value("list").toArray(), QJsonArray::fromStringList(members));
        m_service->command({{"cmd", "FORCESTOP_G"}, {"group", "一年级 A"}});
        QVERIFY(waitFor(
            [&] { return m_fleet->at(0).count(sim::Op::Stop) + m_fleet->at(2).count(sim::Op::Stop) == 2; }));
        QCOMPARE(m_fleet->at(1).count(sim::Op::Stop), 0);
        QCOMPARE(m_service->command({{"cmd", "FORCESTOP_G"}, {"group", "nobody"}}).value("res").toString(),
                 "Data_error_7");
    }

    /// The server is killed in the midst of 1,000 speakers' reports, and comes back with nothing in it.
    void outage() {
        constexpr int Speakers = 1000;
        start(Speakers);
        QVERIFY(waitFor([&] { return countFields("STATUS", "ONLINE") == Speakers; }));
        QTimer reports;
        int reported = 0;
        connect(&reports, &QTimer::timeout, this, [&] {
            for (int i = 0; i < 20; ++i)
                m_fleet->at(reported++ % Speakers).report("UA2/a.mp3");
        });
        reports.start(10);
        QVERIFY(waitFor([&] { return countFields("Playing_local_path", "/a.mp3") > 100; }));

        m_redis->kill();
        [[maybe_unused]] const long before = residentKilobytes(m_service->pid());
        const QJsonArray all = QJsonArray::fromStringList(m_fleet->serials());
        const int already = reported;
        QElapsedTimer slowest;
        for (int vol = 1; vol <= 10; ++vol) {
            slowest.start();
            const QJsonObject reply = m_service->command({{"cmd", "VOL_S"}, {"snlist", all}, {"vol", vol}});
            QCOMPARE(reply.value("res").toString(), "success");
            QVERIFY2(slowest.elapsed() < 5000, "a command waited for Redis");
            QCOMPARE(m_service->command({{"cmd", "FORCESTOP_G"}, {"group", "g"}}).value("res").toString(),
                     "Data_error_7");
        }
        QVERIFY(waitFor([&] { return reported > already + Speakers; }));
#ifndef __SANITIZE_ADDRESS__ // which keeps freed memory for a while
        QVERIFY(residentKilobytes(m_service->pid()) < before + 8 * 1024);
#endif

        QVERIFY(m_redis->start());
        QElapsedTimer back;
        back.start();
        QVERIFY(waitFor([&] { return countFields("vol", "10") == Speakers; }, 35s));
        QVERIFY(waitFor([&] { return countFields("STATUS", "ONLINE") == Speakers; }, 5s));
        QCOMPARE(countFields("Line", "Online"), Speakers);
        QCOMPARE(countFields("r_ip", "127.0.0.1"), Speakers);
        QVERIFY(back.elapsed() < 35000);
        QVERIFY(waitFor([&] { return countFields("Playing_local_path", "/a.mp3") == Speakers; }, 60s));
    }

private:
    void start(int count) {
        m_fleet = onlineFleet(speakersOf(*m_service), count);
    }
    QByteArray field(const QString& sn, const char* name) {
        return m_redis->cli({"HGET", sn, name});
    }
    bool fieldBecomes(const QString& sn, const char* name, const QByteArray& value,
                      std::chrono::milliseconds deadline = 20s) {
        return waitFor([&] { return field(sn, name) == value; }, deadline);
    }

    /// Reports have no framing: one that arrives together with another is lost, so it is sent again.
    template<typename Predicate>
    bool reportUntil(const QByteArray& report, Predicate predicate) {
        for (int i = 0; i < 10; ++i) {
            m_fleet->at(0).report(report);
            if (waitFor(predicate, 2s))
                return true;
        }
        return false;
    }
    /// Speakers whose field has the value.
    int countFields(const char* name, const QByteArray& value) {
        QByteArray input;
        for (const QString& sn : m_fleet->serials())
            input += "HGET " + sn.toUtf8() + ' ' + name + '\n';
        return m_redis->cli({}, input).split('\n').count(value);
    }

    std::unique_ptr<RedisServer> m_redis;
    std::unique_ptr<Service> m_service;
    std::unique_ptr<sim::Fleet> m_fleet;
};

int main(int argc, char** argv) {
    return runTest<RedisServiceTest>(argc, argv);
}
#include "redis_service_test.moc"
