// The service with a real Redis server: what each report and command leaves there, groups, outages.
#include "support/redisserver.h"
#include "support/service.h"
#include "support/testmain.h"
#include "support/waitfor.h"
#include "tools/simfleet.h"

#include <QElapsedTimer>
#include <QFile>
#include <QJsonArray>
#include <QRegularExpression>

namespace {

using namespace std::chrono_literals;

const QByteArray FirstSerial = QByteArray::fromHex("00000000000000000000000000001000");

ServiceOptions withRedis(const RedisServer& redis) {
    ServiceOptions options;
    options.settings = {{"EnableRedis", true}, {"RedisPort", redis.port()}};
    return options;
}

sim::SpeakerOptions speakersOf(const Service& service) {
    sim::SpeakerOptions options;
    options.serial = FirstSerial;
    options.port = service.devicePort();
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
        QVERIFY(start(1));
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

    void reports_data() {
        QTest::addColumn<QByteArray>("report");
        QTest::addColumn<QByteArray>("name");
        QTest::addColumn<QByteArray>("pattern");
        const auto row = [](const char* report, const char* name, const char* pattern) {
            QTest::newRow(report) << QByteArray(report) << QByteArray(name) << QByteArray(pattern);
        };
        row("UA2/mp3/a b \"c\".mp3", "Playing_local_path", "^/mp3/a b \"c\"\\.mp3$");
        row("UA1", "Playing_local_path", "^Nothing$");
        row("UA3", "Playing_local_status", "^Local_PLAYING$");
        row("UA4", "Playing_local_status", "^Local_WAITING$");
        row("UA5", "Playing_local_status", "^Local_PLUSE$");
        row("UB1", "Preload", "^DONE$");
        row("UC1", "Purge", "^DONE$");
        row("UT1 7||09:00||在线", "Task_list", "^ 7\\|\\|09:00\\|\\|在线$");
        row("UT2", "Update_Time", "^\\d{4}-\\d\\d-\\d\\d:\\d\\d:\\d\\d:\\d\\d$");
        row("UV107", "Version", "^107$");
        row("Y1", "Warming", "^\\d{4}-\\d\\d-\\d\\d:\\d\\d:\\d\\d:\\d\\d$");
    }

    void reports() {
        QFETCH(QByteArray, report);
        QFETCH(QByteArray, name);
        QFETCH(QByteArray, pattern);
        QVERIFY(start(1));
        const QRegularExpression expected(QString::fromUtf8(pattern));
        QVERIFY(reportUntil(report, [&] {
            return expected.match(QString::fromUtf8(field(m_fleet->at(0).sn(), name.constData()))).hasMatch();
        }));
    }

    void alarms() {
        QVERIFY(start(1));
        const QByteArray sn = m_fleet->at(0).sn().toUtf8() + '_';
        const auto listed = [&](const char* list) {
            return m_redis->cli({"LINDEX", list, "0"}).startsWith(sn);
        };
        QVERIFY(reportUntil("Y1", [&] { return listed("Warmingdown"); }));
        QVERIFY(!listed("Warmingup"));
        QVERIFY(reportUntil("Y0", [&] { return listed("Warmingup"); }));
    }

    void commands_data() {
        QTest::addColumn<QJsonObject>("request");
        QTest::addColumn<QByteArray>("name");
        QTest::addColumn<QByteArray>("value");
        const auto row = [](const QJsonObject& request, const char* name, const char* value) {
            QTest::addRow("%s", qPrintable(request.value("cmd").toString()))
                << request << QByteArray(name) << QByteArray(value);
        };
        row({{"cmd", "VOL_V"}, {"vol", 7}}, "vol", "7");
        row({{"cmd", "VOL_S"}, {"vol", 8}}, "vol", "8");
        row({{"cmd", "MIC_DE"}, {"mic_e", 4}, {"mic_d", 5}}, "mic_d", "5");
        row({{"cmd", "MDIFYCENTER"}, {"originurl", "http://a/b c"}}, "cdn_url", "http://a/b c");
        row({{"cmd", "PURGEFILE"}, {"filelist", QJsonArray{"http://a/b.mp3"}}}, "Purge", "DONE");
        row({{"cmd", "TEST"}, {"Data", "x 在线"}}, "test", "x 在线");
    }

    void commands() {
        QFETCH(QJsonObject, request);
        QFETCH(QByteArray, name);
        QFETCH(QByteArray, value);
        QVERIFY(start(1));
        const QString sn = m_fleet->at(0).sn();
        request["sn"] = sn;
        request["snlist"] = QJsonArray{sn};
        QCOMPARE(m_service->command(request).value("res").toString(), "success");
        QVERIFY(fieldBecomes(sn, name.constData(), value));
    }

    void statusWords() {
        QVERIFY(start(1));
        const QString sn = m_fleet->at(0).sn();
        QVERIFY(reportUntil("UA3", [&] { return field(sn, "STATUS") == "PLAYING1"; }));
        QVERIFY(reportUntil("UA5", [&] { return field(sn, "STATUS") == "ONLINE"; }));
    }

    void groups() {
        QVERIFY(start(3));
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
        QVERIFY(start(Speakers));
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
    bool start(int count);
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
    int countFields(const char* name, const QByteArray& value);

    std::unique_ptr<RedisServer> m_redis;
    std::unique_ptr<Service> m_service;
    std::unique_ptr<sim::Fleet> m_fleet;
};

bool RedisServiceTest::start(int count) {
    m_fleet = std::make_unique<sim::Fleet>(speakersOf(*m_service), count);
    m_fleet->start();
    return waitFor([&] { return m_fleet->online() == count; }, 60s);
}

int RedisServiceTest::countFields(const char* name, const QByteArray& value) {
    QByteArray input;
    for (const QString& sn : m_fleet->serials())
        input += "HGET " + sn.toUtf8() + ' ' + name + '\n';
    return m_redis->cli({}, input).split('\n').count(value);
}

int main(int argc, char** argv) {
    return runTest<RedisServiceTest>(argc, argv);
}
#include "redis_service_test.moc"
