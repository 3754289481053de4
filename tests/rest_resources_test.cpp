#include "support/speakers.h"
#include "support/table.h"
#include "support/testmain.h"

#include <QCryptographicHash>
#include <QJsonDocument>

using namespace std::chrono_literals;

namespace {
constexpr char First[] = "5eed0000000000000000000000000001";

QString serial(int n) {
    return QString(First).left(24) + QString("%1").arg(n, 8, 16, QChar('0'));
}

QByteArray json(const QJsonObject& object) {
    return QJsonDocument(object).toJson();
}
} // namespace

/// Speakers, groups and sounds of the interface v1 on the wire, with speakers that answer.
class RestResourcesTest : public QObject {
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
    }
    void cleanupTestCase() { m_service.reset(); }
    void cleanup() {
        for (const char* table : {"sbox_device_info", "sbox_group", "group_seed", "group_group", "userfile"})
            m_service->sql(QString("DELETE FROM `%1`").arg(table));
    }

    /// Page by page while speakers before and behind the page come and go: who stays is told once.
    void listsMissNobody() {
        QStringList staying;
        for (int n = 1; n <= 20; ++n) {
            QCOMPARE(add(n).status, 201);
            if (n % 2)
                staying += serial(n);
        }
        QStringList told;
        QString next;
        int page = 0;
        do {
            const QJsonObject list =
                ask("GET", "/speakers?limit=3" + (next.isEmpty() ? QString() : "&cursor=" + next)).json();
            for (const auto speaker : list["items"].toArray())
                told += speaker.toObject()["serial"].toString();
            next = list["next"].toString();
            ask("DELETE", "/speakers/" + serial(2 * ++page)); // one that is told, or one that would be
            ask("DELETE", "/speakers/" + serial(22 - 2 * page));
            add(100 + page);
        } while (!next.isEmpty() && page < 30);
        for (const QString& sn : staying)
            QCOMPARE(told.count(sn), 1);
        QCOMPARE(told.removeDuplicates(), 0);
    }

    /// What a speaker does shows, and what is ordered reaches it.
    void speakersLive() {
        for (int n = 1; n <= 4; ++n)
            add(n);
        auto fleet = onlineFleet(speakersAt(*m_service, First), 3);
        QVERIFY(waitFor([&] { return count("/speakers?state=idle") == 3; }));
        QCOMPARE(ask("GET", "/speakers?state=offline")["items"].toArray().size(), 1);
        const QJsonObject wanted{{"targets", QJsonObject{{"all", true}}}, {"volume", 7}};
        const HttpReply volume = ask("POST", "/speakers/volume", json(wanted));
        QCOMPARE(volume.status, 202);
        QCOMPARE(volume.json(), (QJsonObject{{"targets", 4}, {"reached", 3}}));
        QTRY_COMPARE(fleet->find(serial(2))->volume(), 7);
        // What the speaker tells of itself after its registration may still be on its way, with the old one.
        QVERIFY(waitFor([&] {
            change(1, {{"volume", 12}});
            return get(1)["volume"] == 12;
        }));
        QVERIFY(get(1)["address"].isString() && get(1)["lastSeen"].isString());
        QCOMPARE(get(1)["health"].toString(), QString("ok"));
        QCOMPARE(change(4, {{"volume", 12}, {"name", "x"}}).status, 409);
        QCOMPARE(get(4)["name"].toString(), QString("speaker 4")); // all or nothing

        fleet.reset();
        QVERIFY(waitFor([&] { return get(1)["state"] == "offline"; }));
    }

    void disabledSpeakersStaySo() {
        add(1);
        QCOMPARE(change(1, {{"enabled", false}})["enabled"], QJsonValue(false));
        QCOMPARE(m_service->stop(), 0);
        QVERIFY(m_service->start());
        sim::Fleet fleet(speakersAt(*m_service, First), 1); // gets no command that would tell it
        fleet.start();
        QVERIFY(waitFor([&] { return get(1)["state"] == "idle"; }));
        QCOMPARE(get(1)["enabled"], QJsonValue(false));
        QCOMPARE(change(1, {{"volume", 3}}).status, 409);
        QCOMPARE(change(1, {{"volume", 3}, {"enabled", true}}).status, 200);
        QVERIFY(waitFor([&] { return get(1)["volume"] == 3; }));
        change(1, {{"enabled", false}});
        m_service->http().postForm("/user/deviceenable",
                                   {{"sskey", QString(Service::serviceKey())}, {"snlist", serial(1)}});
        QVERIFY(m_service->sql("SELECT * FROM `speaker_disabled`").isEmpty());
    }

    /// Both interfaces show the same objects; the older one the speakers directly in a group.
    void bothInterfacesShowTheSame() {
        add(1, "O'Neill \"1\" \\");
        add(2);
        const auto group = [&](const QJsonObject& object) {
            return ask("POST", "/groups", json(object))["id"].toInt();
        };
        const int inner = group({{"name", "in'ner"}, {"speakers", QJsonArray{serial(1)}}});
        const int outer =
            group({{"name", "outer"}, {"speakers", QJsonArray{serial(2)}}, {"groups", QJsonArray{inner}}});
        QCOMPARE(ask("GET", QString("/groups/%1/speakers").arg(outer))["items"].toArray().size(), 2);
        QCOMPARE(get(1)["groups"].toArray(), QJsonArray{inner});
        const QJsonArray older =
            m_service->http().postForm("/user/listdetailgroups", m_owner.params())["grouplist"].toArray();
        QCOMPARE(older.size(), 2);
        QCOMPARE(older.at(0)["group_name"].toString(), QString("in'ner"));
        QCOMPARE(older.at(1)["members"].toArray().size(), 1);
        QCOMPARE(older.at(0)["members"].toArray().at(0)["Dname"].toString(), QString("O'Neill \"1\" \\"));
        QCOMPARE(ask("PATCH", QString("/groups/%1").arg(inner), json({{"groups", QJsonArray{outer}}})).status,
                 422);
        m_service->http().postForm("/user/delgroup", m_owner.params({{"gid", QString::number(inner)}}));
        QCOMPARE(ask("GET", QString("/groups/%1").arg(outer))["groups"].toArray(), QJsonArray());
    }

    void sounds_data() {
        const Table<QByteArray, QByteArray, int> row{"type", "body", "status"};
        const QByteArray mp3 = makeMp3(1.2);
        row("as the body", "audio/mpeg", mp3, 201);
        row("of any type", "application/x-www-form-urlencoded", mp3, 201);
        row("as a part", "multipart/form-data; boundary=b",
            "--b\r\nContent-Disposition: form-data; name=\"file\"; filename=\"x\"\r\n\r\n" + mp3 +
                "\r\n--b--\r\n",
            201);
        row("in another part", "multipart/form-data; boundary=b",
            "--b\r\nContent-Disposition: form-data; name=\"sound\"; filename=\"x\"\r\n\r\n" + mp3 +
                "\r\n--b--\r\n",
            422);
        row("no sound", "audio/mpeg", "ID3 nothing of the kind", 422);
        row("nothing", "audio/mpeg", "", 422);
    }
    void sounds() {
        QFETCH(QByteArray, type);
        QFETCH(QByteArray, body);
        const QString name = "Pause \"gong\" /'1' ✓";
        const QString path = "/sounds?name=" + QString(QUrl::toPercentEncoding(name));
        QList<QJsonObject> stored;
        for (int time = 0; time < 2; ++time) { // names may be alike
            const HttpReply reply = ask("POST", path, body, type);
            QTEST(reply.status, "status");
            if (reply.status != 201)
                return;
            stored += reply.json();
            QCOMPARE(stored.last()["name"].toString(), name);
            QCOMPARE(stored.last()["seconds"].toInt(), 2);
            QCOMPARE(m_service->http().get(QUrl(stored.last()["url"].toString()).path()).body.size(),
                     stored.last()["bytes"].toInt());
        }
        QVERIFY(stored[0]["id"] != stored[1]["id"] && stored[0]["url"] != stored[1]["url"]);
        const QString one = QString("/sounds/%1").arg(stored[0]["id"].toInt());
        m_service->sql(QString("INSERT INTO `task` (`id`, `userid`) VALUES (5, %1)").arg(m_owner.id));
        m_service->sql(QString("INSERT INTO `taskfile` (`taskid`, `fileid`) VALUES (5, %1)")
                           .arg(stored[0]["id"].toInt()));
        const HttpReply inUse = ask("DELETE", one);
        QCOMPARE(inUse.status, 409);
        QCOMPARE(inUse["schedules"].toArray(), QJsonArray{5});
        m_service->sql("DELETE FROM `taskfile`");
        m_service->sql("DELETE FROM `task`");
        QCOMPARE(ask("DELETE", one).status, 204);
        QCOMPARE(m_service->http().get(QUrl(stored[0]["url"].toString()).path()).status, 404);
        QCOMPARE(ask("PATCH", QString("/sounds/%1").arg(stored[1]["id"].toInt()), R"({"name":"b"})").status,
                 200);
        const HttpReply older = m_service->http().postForm("/user/listfile", m_owner.params());
        QCOMPARE(older["filelist"].toArray().at(0)["filename"].toString(), QString("b"));
        QCOMPARE(count("/sounds?q=B"), 1);
        QCOMPARE(count("/sounds?q=gong"), 0);
    }

private:
    static constexpr char Token[] = "a-token-of-forty-three-characters-_________";

    HttpReply ask(const QByteArray& method, const QString& path, const QByteArray& body = {},
                  const QByteArray& type = "application/json") {
        return m_service->http().request(
            method, "/api/v1" + path, body,
            {{"Authorization", QByteArray("Bearer ") + Token}, {"Content-Type", type}});
    }
    int count(const QString& path) { return ask("GET", path)["items"].toArray().size(); }
    HttpReply add(int n, const QString& name = {}) {
        return ask(
            "POST", "/speakers",
            json({{"serial", serial(n)}, {"name", name.isEmpty() ? QString("speaker %1").arg(n) : name}}));
    }
    HttpReply change(int n, const QJsonObject& what) {
        return ask("PATCH", "/speakers/" + serial(n), json(what));
    }
    QJsonObject get(int n) { return ask("GET", "/speakers/" + serial(n)).json(); }

    std::unique_ptr<Service> m_service;
    Account m_owner;
};

int main(int argc, char** argv) {
    return runTest<RestResourcesTest>(argc, argv);
}
#include "rest_resources_test.moc"
