// The main job from an HTTP request to a speaker's wire, with the real service, on every kind of database.
#include "support/speakers.h"
#include "support/table.h"
#include "support/testmain.h"

namespace {

constexpr int kSpeakers = 3;
/// A whole campus; fewer in an instrumented build, which has to finish too.
#ifdef __SANITIZE_ADDRESS__
constexpr int kCampus = 400;
#else
constexpr int kCampus = 2000;
#endif

sim::SpeakerOptions speakersOf(const Service& service) {
    sim::SpeakerOptions options = speakersAt(service);
    options.player.keepBodies = true;
    options.player.speed = 10;
    return options;
}

QString joined(sim::Fleet& fleet) {
    return fleet.serials().join('|');
}

/// True when every speaker meets `condition` within the deadline.
template<typename Condition>
bool every(sim::Fleet& fleet, Condition condition) {
    return waitFor(
        [&] {
            for (int i = 0; i < fleet.size(); ++i)
                if (!condition(fleet.at(i)))
                    return false;
            return true;
        },
        std::chrono::seconds(60));
}

} // namespace

class ServiceTest : public QObject {
    Q_OBJECT
private slots:
    void initTestCase_data() { addKinds({0, 3, 1}); }

    void init() {
        QFETCH_GLOBAL(int, kind);
        ServiceOptions options;
        options.kind = kind;
        m_service = std::make_unique<Service>(options);
        QVERIFY(m_service->start());
        QFile file(m_service->docroot() + "/mp3/notice.mp3");
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.write(m_mp3);
        file.close();
        m_account = m_service->addAccount("admin");
        m_fleet = onlineFleet(speakersOf(*m_service), kSpeakers);
    }

    void cleanup() {
        m_fleet.reset();
        if (m_service)
            QCOMPARE(m_service->stop(), 0);
        m_service.reset();
    }

    void playsAndStops() {
        const QString url = m_service->url("/mp3/notice.mp3");
        QVERIFY(ask("/user/urlplay", {{"url", url}, {"snlist", joined(*m_fleet)}}));
        QVERIFY(every(*m_fleet, [this](const sim::Speaker& s) {
            return s.fetches().size() == 1 && s.fetches().front().body == m_mp3;
        }));
        QVERIFY(waitFor([this] {
            return statesOf("status_playfile") ==
                   QStringList{"/mp3/notice.mp3", "/mp3/notice.mp3", "/mp3/notice.mp3"};
        }));
        QVERIFY(every(*m_fleet, [](sim::Speaker& s) { return !s.player().isPlaying(); }));

        QVERIFY(ask("/user/urlq39play", {{"url", url}, {"snlist", m_fleet->at(0).sn()}}));
        QVERIFY(waitFor([this] { return m_fleet->at(0).fetches().size() == 2; }));
        QCOMPARE(m_fleet->at(0).last(sim::Op::Stream)->argument, (url + "A").toUtf8());

        QVERIFY(ask("/user/urlstop", {{"snlist", joined(*m_fleet)}}));
        QVERIFY(every(*m_fleet, [](const sim::Speaker& s) { return s.last(sim::Op::Stop) != nullptr; }));
        QCOMPARE(m_fleet->at(1).fetches().size(), std::size_t(1));
    }

    void outlivesSpeakersThatVanish() {
        auto options = speakersOf(*m_service);
        options.serial = QByteArray::fromHex("da000000000000000000000000000000");
        sim::Fleet crowd(options, 60);
        crowd.start();
        const QJsonArray all = QJsonArray::fromStringList(crowd.serials());
        for (int round = 1; round <= 3; ++round) {
            QVERIFY(every(crowd, [](const sim::Speaker& s) { return s.isOnline(); }));
            // Every other one resets its connection while the command goes out.
            QTimer::singleShot(0, &crowd, [&] {
                for (int i = 0; i < crowd.size(); i += 2)
                    crowd.at(i).drop();
            });
            m_service->command({{"cmd", "VOL_S"}, {"snlist", all}, {"vol", round}, {"vols", round}});
            for (int i = 1; i < crowd.size(); i += 2)
                QVERIFY(waitFor([&] { return crowd.at(i).volume() == round; }));
            for (int i = 0; i < crowd.size(); i += 2)
                crowd.at(i).start();
        }
        QVERIFY(every(crowd, [](const sim::Speaker& s) { return s.isOnline(); }));
        QVERIFY(waitFor([&] { return statesOf("status").count("1") == crowd.size() + kSpeakers; }));
    }

    void refusesOversizedBody() {
        const HttpReply reply = m_service->http().postForm(
            "/user/urlplay", m_account.params({{"url", QString(40'000'000, 'x')}, {"snlist", "s"}}));
        QVERIFY2(reply.status == 413 || reply.status == 0, reply.body.left(200)); // 0: cut off while sending
        QVERIFY(ask("/user/editvols", {{"vol", "5"}, {"snlist", joined(*m_fleet)}}));
    }

    void servesACampus() {
        auto options = speakersOf(*m_service);
        options.serial = QByteArray::fromHex("ca000000000000000000000000000000");
        options.player.keepBodies = false;
        options.player.speed = 0.01; // still playing when it is stopped
        sim::Fleet campus(options, kCampus);
        campus.start();
        QVERIFY(every(campus, [](const sim::Speaker& s) { return s.isOnline(); }));
        QCOMPARE(m_service->command({{"cmd", "LIST"}}).value("list").toArray().size(), kCampus + kSpeakers);

        const QJsonArray all = QJsonArray::fromStringList(campus.serials());
        m_service->command({{"cmd", "VOL_S"}, {"snlist", all}, {"vol", 11}, {"vols", 11}});
        QVERIFY(every(campus, [](const sim::Speaker& s) { return s.volume() == 11; }));
        m_service->command({{"cmd", "PLAYOFF"},
                            {"snlist", all},
                            {"filelist", QJsonArray{m_service->url("/mp3/notice.mp3")}}});
        QVERIFY(every(campus, [this](const sim::Speaker& s) {
            return s.fetches().size() == 1 && s.fetches().front().size == m_mp3.size();
        }));
        m_service->command({{"cmd", "FORCESTOP"}, {"snlist", all}});
        QVERIFY(every(
            campus, [](sim::Speaker& s) { return !s.player().isPlaying() && s.count(sim::Op::Stop) == 1; }));
    }

private:
    bool ask(const QString& path, const HttpParams& params) {
        const HttpReply reply = m_service->http().postForm(path, m_account.params(params));
        if (!reply.res())
            qWarning("%s: %s", qPrintable(path), reply.body.constData());
        return reply.res();
    }

    /// One value of each speaker as the service lists it, in the order of the serials.
    QStringList statesOf(const QString& key) {
        QMap<QString, QString> states;
        for (const QJsonValue entry : m_service->command({{"cmd", "LIST"}}).value("list").toArray())
            states.insert(entry["sn"].toString(), entry[key].toVariant().toString());
        return states.values();
    }

    std::unique_ptr<Service> m_service;
    std::unique_ptr<sim::Fleet> m_fleet;
    Account m_account;
    const QByteArray m_mp3 = makeMp3(2);
};

int main(int argc, char** argv) {
    return runTest<ServiceTest>(argc, argv);
}

#include "service_test.moc"
