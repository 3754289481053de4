#include "support/speakers.h"
#include "support/testmain.h"
#include "tools/mgpackager.h"

#include <QJsonArray>

/// Real sound from an MP3 to the speakers' data connections, through the whole service.
class AlarmServiceTest : public QObject {
    Q_OBJECT
private slots:
    void initTestCase() {
        ServiceOptions options;
        options.files = {{"bell.mg", m_bell}, {"fire.mg", m_fire}, {"long.mg", m_long}};
        m_service = std::make_unique<Service>(options);
        QVERIFY(m_service->start());
        m_fleet = onlineFleet(speakersAt(*m_service), 5);
    }

    void cleanupTestCase() {
        m_fleet.reset();
        QCOMPARE(m_service->stop(), 0);
    }

    void everySpeakerHearsEveryByte() {
        const QByteArray sound = mgpackager::unpack(m_bell).bytes;
        QVERIFY(!sound.isEmpty());
        QCOMPARE(play("bell.mg", 1, m_fleet->serials())["res"], "WELL");
        for (int i = 0; i < m_fleet->size(); ++i) {
            QVERIFY(waitFor([&] { return heard(i).size() >= sound.size(); }));
            QVERIFY(heard(i) == sound);
        }
    }

    void higherLevelTakesOver() {
        const QByteArray fire = mgpackager::unpack(m_fire).bytes;
        QCOMPARE(play("long.mg", 2, m_fleet->serials())["res"], "WELL");
        m_fleet->at(0).data().clear();
        QVERIFY(waitFor([&] { return heard(0).size() > 5000; }));
        QCOMPARE(play("bell.mg", 1, m_fleet->serials())["res"], "WELL"); // not heard
        QCOMPARE(play("fire.mg", 9, m_fleet->serials())["res"], "WELL");
        QVERIFY(waitFor([&] { return heard(0).contains(fire.right(2000)); }));
        const QByteArray before = heard(0).left(heard(0).indexOf(fire.left(1000)));
        QVERIFY(mgpackager::unpack(m_long).bytes.startsWith(before));
        // The long one is heard again once the alarm is over.
        const int end = heard(0).size();
        QVERIFY(waitFor([&] { return heard(0).size() > end + 5000; }));
        QVERIFY(mgpackager::unpack(m_long).bytes.contains(heard(0).right(2000)));
        QCOMPARE(stop()["res"], "WELL");
    }

    void speakerThatComesLater() {
        m_fleet->at(2).stop();
        QVERIFY(waitFor([&] { return m_fleet->online() == 4; }));
        QVERIFY(waitFor([&] { // until the service has noticed
            stop();
            return play("long.mg", 3, {m_fleet->at(2).sn()})["res"] == "unline";
        }));
        m_fleet->at(2).data().clear();
        m_fleet->at(2).start();
        QVERIFY(waitFor([&] { return heard(2).size() > 5000; }));
        QVERIFY(mgpackager::unpack(m_long).bytes.contains(heard(2).left(5000)));
        stop();
    }

private:
    QJsonObject play(const QString& file, int level, const QStringList& serials) {
        return m_service->command({{"cmd", "PLAYMG"},
                                   {"snlist", QJsonArray::fromStringList(serials)},
                                   {"filelist", QJsonArray{file}},
                                   {"level", level}});
    }
    QJsonObject stop() {
        return m_service->command(
            {{"cmd", "STOPMG"}, {"snlist", QJsonArray::fromStringList(m_fleet->serials())}});
    }
    QByteArray heard(int i) const { return m_fleet->at(i).data().bytes(); }

    const QByteArray m_bell = mgpackager::pack(makeMp3(1.5, 440), 100).bytes;
    const QByteArray m_fire = mgpackager::pack(makeMp3(1.5, 880), 100).bytes;
    const QByteArray m_long = mgpackager::pack(makeMp3(60, 220), 100).bytes;
    std::unique_ptr<Service> m_service;
    std::unique_ptr<sim::Fleet> m_fleet;
};

int main(int argc, char** argv) {
    return runTest<AlarmServiceTest>(argc, argv);
}
#include "alarm_service_test.moc"
