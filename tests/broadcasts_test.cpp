#include "support/speakers.h"
#include "support/table.h"
#include "support/testmain.h"

#include <QCryptographicHash>
#include <QJsonDocument>

using namespace std::chrono_literals;

/// Announcements of the interface v1 on the wire: the real service, speakers that fetch and play.
class BroadcastsTest : public QObject {
    Q_OBJECT
private slots:
    void initTestCase() {
        m_service = std::make_unique<Service>();
        QVERIFY(m_service->start());
        m_owner = m_service->addAccount("owner");
        const QByteArray hash = QCryptographicHash::hash(Token, QCryptographicHash::Sha256).toHex();
        m_service->sql(QString("INSERT INTO `apitoken` (`account`, `hash`, `created`) VALUES (%1, '%2', 0)")
                           .arg(m_owner.id)
                           .arg(QString(hash)));
        for (int n = 0; n < Speakers; ++n)
            QCOMPARE(ask("POST", "/speakers", {{"serial", sn(n)}, {"name", "s"}}).status, 201);
        m_music = upload("music", 60);
        m_page = upload("page", 2);
        QVERIFY(m_music > 0 && m_page > 0);
        m_fleet = onlineFleet(speakersAt(*m_service), Speakers);
    }
    void cleanupTestCase() {
        m_fleet.reset();
        m_service.reset();
    }

    void musicPageAndBack() {
        const qint64 music =
            announce({0, 1, 2, 3}, m_music, {{"priority", 20}, {"resume", "position"}, {"volume", 9}});
        for (int n = 0; n < 4; ++n)
            QTRY_COMPARE(fetched(n), 1);
        const qint64 page = announce({2, 3, 4}, m_page, {{"volume", 23}});
        for (int n = 2; n < 5; ++n)
            QTRY_COMPARE(m_fleet->find(sn(n))->volume(), 23);
        // Back where it was, with the sound from there on.
        for (int n = 2; n < 4; ++n) {
            QTRY_COMPARE_WITH_TIMEOUT(fetched(n), 3, 20'000);
            QCOMPARE(m_fleet->find(sn(n))->volume(), 9);
            const sim::Fetch& again = m_fleet->find(sn(n))->fetches().back();
            QVERIFY2(again.address.contains("?from=") && again.ok() && again.mp3.isMp3,
                     qPrintable(again.address));
            QVERIFY(again.mp3.length < 60s && again.mp3.length > 40s);
        }
        QTRY_COMPARE(m_fleet->find(sn(4))->volume(), 20);
        QCOMPARE(fetched(0), 1);
        QCOMPARE(ask("POST", QString("/broadcasts/%1/stop").arg(music), {}).status, 202);
        for (int n = 0; n < 4; ++n) {
            QTRY_VERIFY(m_fleet->find(sn(n))->count(sim::Op::Stop) > 0);
            QTRY_COMPARE(m_fleet->find(sn(n))->volume(), 20);
        }
        QVERIFY(waitFor([&] { return m_service->sql("SELECT * FROM `speaker_level`").isEmpty(); }));
        for (int n = 0; n < Speakers; ++n)
            m_fleet->at(n).forget();
        const HttpReply again = ask("POST", QString("/broadcasts/%1/repeat").arg(page), {});
        QCOMPARE(again.status, 201);
        QVERIFY(again["id"].toDouble() > double(page));
        for (int n = 2; n < 5; ++n)
            QTRY_COMPARE(fetched(n), 1);
        stop(qint64(again["id"].toDouble()));
    }

    void killedInALoudPage() {
        announce({0, 1}, m_music, {{"volume", 24}, {"priority", 150}});
        for (int n = 0; n < 2; ++n)
            QTRY_COMPARE(m_fleet->find(sn(n))->volume(), 24);
        QVERIFY(waitFor([&] { return m_service->sql("SELECT * FROM `speaker_level`").size() == 2; }));
        m_service->kill9();
        m_fleet.reset();
        QVERIFY(m_service->start());
        sim::SpeakerOptions loud = speakersAt(*m_service);
        loud.volume = 24;
        m_fleet = onlineFleet(loud, Speakers);
        for (int n = 0; n < 2; ++n)
            QTRY_COMPARE(m_fleet->find(sn(n))->volume(), 20);
        QCOMPARE(m_fleet->find(sn(2))->volume(), 24);
    }

    void refusals_data() {
        const Table<QJsonObject, QString> row{"change", "pointer"};
        row("no such sound", {{"play", QJsonArray{QJsonObject{{"sound", 9999}}}}}, "/play/0/sound");
        row("no address", {{"play", QJsonArray{QJsonObject{{"url", "ftp://x/y"}}}}}, "/play/0/url");
        row("a line's binding", {{"play", QJsonArray{QJsonObject{{"url", "http://x/y.mp3B"}}}}},
            "/play/0/url");
        row("two at once", {{"play", QJsonArray{QJsonObject{{"url", "http://x/"}, {"sound", 1}}}}},
            "/play/0/url");
        row("none", {{"play", QJsonArray{QJsonObject()}}}, "/play/0/sound");
        row("nothing", {{"play", QJsonArray()}}, "/play");
        row("speech without text", {{"play", QJsonArray{QJsonObject{{"speech", QJsonObject()}}}}},
            "/play/0/speech/text");
        row("priority", {{"priority", 256}}, "/priority");
        row("volume", {{"volume", 0}}, "/volume");
        row("when busy", {{"whenBusy", "wait"}}, "/whenBusy");
        row("unknown", {{"colour", "red"}}, "/colour");
        row("nobody", {{"targets", QJsonObject{{"speakers", QJsonArray()}}}}, "/targets");
    }
    void refusals() {
        QFETCH(QJsonObject, change);
        QJsonObject order{{"targets", QJsonObject{{"all", true}}},
                          {"play", QJsonArray{QJsonObject{{"sound", m_page}}}}};
        for (auto member = change.begin(); member != change.end(); ++member)
            order[member.key()] = member.value();
        const HttpReply reply = ask("POST", "/broadcasts", order);
        QCOMPARE(reply.status, 422);
        QTEST(reply["errors"].toArray()[0].toObject()["pointer"].toString(), "pointer");
    }

    void unknownBroadcasts() {
        for (const char* const what : {"stop", "repeat"})
            QCOMPARE(ask("POST", QString("/broadcasts/4711/%1").arg(what), {}).status, 404);
    }

private:
    static constexpr int Speakers = 5;
    static constexpr char Token[] = "a-token-of-forty-three-characters-_________";

    static QString sn(int n) { return QString("5eed00000000000000000000%1").arg(n + 1, 8, 16, QChar('0')); }
    int fetched(int n) { return int(m_fleet->find(sn(n))->fetches().size()); }
    HttpReply send(const QByteArray& method, const QString& path, const QByteArray& body,
                   const QByteArray& type) {
        return m_service->http().request(
            method, "/api/v1" + path, body,
            {{"Authorization", QByteArray("Bearer ") + Token}, {"Content-Type", type}});
    }
    HttpReply ask(const QByteArray& method, const QString& path, const QJsonObject& body) {
        return send(method, path, body.isEmpty() ? QByteArray() : QJsonDocument(body).toJson(),
                    "application/json");
    }
    int upload(const QString& name, int seconds) {
        m_service->http().postMultipart("/user/uploadfile", m_owner.params({{"filename", name}}), "file",
                                        "upload.bin", makeMp3(seconds));
        return m_service->sql("SELECT MAX(`id`) AS `id` FROM `userfile`").first().value("id").toInt();
    }
    qint64 announce(const QList<int>& speakers, int sound, QJsonObject order) {
        QJsonArray serials;
        for (const int n : speakers)
            serials.append(sn(n));
        order["targets"] = QJsonObject{{"speakers", serials}};
        order["play"] = QJsonArray{QJsonObject{{"sound", sound}}};
        const HttpReply reply = ask("POST", "/broadcasts", order);
        if (reply.status != 201)
            qWarning() << reply.status << reply.body;
        return qint64(reply["id"].toDouble());
    }
    void stop(qint64 id) { ask("POST", QString("/broadcasts/%1/stop").arg(id), {}); }

    std::unique_ptr<Service> m_service;
    std::unique_ptr<sim::Fleet> m_fleet;
    Account m_owner;
    int m_music = 0;
    int m_page = 0;
};

int main(int argc, char** argv) {
    return runTest<BroadcastsTest>(argc, argv);
}
#include "broadcasts_test.moc"
