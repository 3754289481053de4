#include "fronts/events/feed.h"
#include "support/eventclient.h"
#include "support/speakers.h"
#include "support/table.h"
#include "support/testmain.h"

#include <QCryptographicHash>
#include <QDeadlineTimer>
#include <QTcpSocket>

using namespace std::chrono_literals;

namespace {

constexpr char First[] = "5eed0000000000000000000000000001";

QString serial(int n) {
    return QString(First).left(24) + QString("%1").arg(n, 8, 16, QChar('0'));
}

QByteArray json(const QJsonObject& object) {
    return QJsonDocument(object).toJson(QJsonDocument::Compact);
}

} // namespace

class EventsTest : public QObject {
    Q_OBJECT
private slots:
    void initTestCase() {
        ServiceOptions options;
        options.settings = {{"wbport", m_port}};
        m_service = std::make_unique<Service>(options);
        QVERIFY(m_service->start());
        m_owner = account("owner");
    }
    void cleanupTestCase() { m_service.reset(); }
    void cleanup() {
        for (const char* table : {"sbox_device_info", "sbox_group", "group_seed", "groupgrant"})
            m_service->sql(QString("DELETE FROM `%1`").arg(table));
    }

    /// Steps: a letter puts the object, "-" before it removes it; "." is where the client has asked before.
    void feed_data() {
        const Table<QString, QString> row{"steps", "told"};
        row("nothing", "", "snapshot");
        row("each once, as it is last", ".abab", "snapshot, change 34");
        row("gone before changes", "ab.-bc", "snapshot 12, gone b, change 3");
        row("gone and back is a change", "ab.-aa", "snapshot 12, change 3");
        row("place of what is gone", "ab-ac.", "snapshot 32");
    }
    void feed() {
        QFETCH(QString, steps);
        Feed feed("t", Feed::Keys::Texts);
        Feed::Cursor cursor;
        QStringList told;
        const auto ask = [&] {
            while (const auto message = feed.next(cursor)) {
                const QJsonObject text = QJsonDocument::fromJson(message->text).object();
                QString line = text["event"].toString();
                for (const auto item : text["items"].toArray())
                    line += (line.contains(' ') ? "" : " ") + QString::number(item.toInt());
                for (const auto id : text["ids"].toArray())
                    line += " " + id.toString();
                told << line;
                cursor = message->next;
            }
        };
        int puts = 0;
        bool isRemoval = false;
        for (const QChar step : steps) {
            if (step == '.')
                ask();
            else if (step == '-')
                isRemoval = true;
            else if (std::exchange(isRemoval, false))
                feed.remove(step);
            else
                feed.put(step, QByteArray::number(++puts));
        }
        ask();
        QTEST(told.join(", "), "told");
    }

    /// Whatever changes between its parts, a snapshot and what follows tell all there is; who has missed too
    /// much that is gone begins anew.
    void feedInParts() {
        Feed feed("t", Feed::Keys::Numbers);
        const auto put = [&](int n) {
            feed.put(QString::number(n), QByteArray::number(n));
        };
        for (int n = 1; n <= 2500; ++n)
            put(n);
        QSet<int> known;
        Feed::Cursor cursor;
        int part = 0;
        while (const auto message = feed.next(cursor)) {
            cursor = message->next;
            const auto text = QJsonDocument::fromJson(message->text);
            QVERIFY(text["items"].toArray().size() <= Feed::MaxItems);
            for (const auto item : text["items"].toArray())
                known.insert(item.toInt());
            for (const auto id : text["ids"].toArray())
                known.remove(id.toInt());
            if (part++ > 0)
                continue;
            feed.remove("7");
            feed.remove("2400");
            put(2000);
            put(2501);
        }
        QCOMPARE(known.size(), 2499);
        QVERIFY(!known.contains(7) && !known.contains(2400) && known.contains(2501));
        for (int n = 0; n <= int(Feed::MaxGone); ++n) {
            put(0);
            feed.remove("0");
        }
        const QByteArray anew = "{\"event\":\"snapshot\"";
        QVERIFY(feed.next(cursor)->text.startsWith(anew));
        while (const auto message = feed.next(cursor))
            cursor = message->next;
        for (int n = 0; n <= Feed::TooFarBehind; ++n)
            put(n);
        QVERIFY(feed.next(cursor)->text.startsWith(anew));
    }

    void refusals_data() {
        const Table<QJsonObject, int> row{"request", "status"};
        const QJsonArray topics{"speakers"};
        row("no such token", {{"token", "x"}, {"topics", topics}}, 401);
        row("no token", {{"topics", topics}}, 422);
        row("empty", {{"token", "x"}, {"topics", QJsonArray()}}, 422);
        row("unknown topic", {{"token", "x"}, {"topics", QJsonArray{"speakers", "weather"}}}, 422);
        row("unknown key", {{"token", "x"}, {"topics", topics}, {"since", 1}}, 422);
    }
    void refusals() {
        QFETCH(QJsonObject, request);
        request.insert("path", "/api/v1/events");
        EventClient client(m_port, json(request));
        QVERIFY(waitFor([&] { return client.errorStatus != 0; }));
        QTEST(client.errorStatus, "status");
    }

    /// Names, groups, rights, deletions and plays, by either interface; each sees his own.
    void whatEachSees() {
        const QByteArray viewer = account("viewer");
        for (int n = 1; n <= 3; ++n)
            QCOMPARE(ask("POST", "/speakers", {{"serial", serial(n)}, {"name", "x"}}).status, 201);
        EventClient owner(m_port, subscription(m_owner));
        EventClient guest(m_port, subscription(viewer, {"speakers", "broadcasts", "journal"}));
        QVERIFY(waitFor([&] { return owner.whole.size() == 1 && guest.whole.size() == 3; }));
        QVERIFY(owner.sees({serial(1), serial(2), serial(3)}) && guest.sees({}));

        const QJsonObject members{{"name", "g"}, {"speakers", QJsonArray{serial(1), serial(2)}}};
        const int group = ask("POST", "/groups", members)["id"].toInt();
        const QJsonObject grant{{"account", m_accounts["viewer"].id}, {"group", group}, {"role", "viewer"}};
        QCOMPARE(ask("POST", "/grants", grant).status, 201);
        QVERIFY(waitFor([&] { return guest.sees({serial(1), serial(2)}); }));
        QVERIFY(waitFor([&] { return owner.count("groups", QJsonArray{group}) == 2; }));

        ask("PATCH", "/speakers/" + serial(1), {{"name", "by v1 \"'"}});
        QVERIFY(waitFor([&] { return guest.objects["speakers"][serial(1)]["name"] == "by v1 \"'"; }));
        const auto rows = m_service->sql("SELECT `id` FROM `sbox_device_info` ORDER BY `id`");
        older("/user/redevname", {{"devid", rows[1]["id"].toString()}, {"newname", "older"}});
        QVERIFY(waitFor([&] { return guest.objects["speakers"][serial(2)]["name"] == "older"; }));

        older("/user/urlplay", form("url=http://127.0.0.1/x.mp3&snlist=" + serial(2) + '|' + serial(3)));
        const auto guestsTargets = [&] {
            const auto broadcasts = guest.objects["broadcasts"].values();
            return broadcasts.isEmpty() ? 0 : broadcasts[0]["counts"].toObject()["offline"].toInt();
        };
        QVERIFY(waitFor([&] { return guestsTargets() == 1; }));
        QVERIFY(waitFor([&] { return guest.count("kind", "direct", "journal") == 1; }));

        ask("PATCH", QString("/groups/%1").arg(group), {{"speakers", QJsonArray{serial(2)}}});
        QVERIFY(waitFor([&] { return guest.sees({serial(2)}); }));
        ask("DELETE", "/speakers/" + serial(2));
        QVERIFY(waitFor([&] { return guest.sees({}) && owner.sees({serial(1), serial(3)}); }));
        m_service->sql("UPDATE `sbox_device_info` SET `device_name` = 'by another program'");
        QVERIFY(waitFor([&] { return owner.count("name", "by another program") == 2; }));
        QCOMPARE(owner.snapshots, 1);
    }

    void tokensEnd() {
        const QByteArray token = account("leaver");
        EventClient voided(m_port, subscription(token));
        EventClient other(m_port, subscription(m_owner));
        QVERIFY(waitFor([&] { return voided.whole.size() == 1 && other.whole.size() == 1; }));
        QCOMPARE(ask("POST", "/logout", {}, token).status, 204);
        QVERIFY(waitFor([&] { return voided.closeCode != 0; }));
        QCOMPARE(voided.closeCode, int(QWebSocketProtocol::CloseCodePolicyViolated));
        QCOMPARE(other.closeCode, 0);
    }

    /// Many clients see many speakers come and go; one that does not read begins anew.
    void manySeeMany() {
        constexpr int Speakers = 300;
        auto fleet = onlineFleet(speakersAt(*m_service, First), Speakers);
        m_service->giveSpeakers(m_accounts["owner"], fleet->serials());
        std::vector<std::unique_ptr<EventClient>> clients;
        for (int i = 0; i < 10; ++i)
            clients.push_back(std::make_unique<EventClient>(m_port, subscription(m_owner)));
        const auto allSee = [&](const char* key, const QJsonValue& value) {
            return waitFor(
                [&] {
                    return std::all_of(clients.begin(), clients.end(), [&](const auto& client) {
                        return client->count(key, value) == Speakers;
                    });
                },
                60s);
        };
        QVERIFY(allSee("state", "idle"));

        QTcpSocket stopped;
        stopped.setReadBufferSize(1024);
        stopped.connectToHost("127.0.0.1", m_port);
        QVERIFY(stopped.waitForConnected());
        stopped.setSocketOption(QAbstractSocket::ReceiveBufferSizeSocketOption, 4096);
        stopped.write("GET / HTTP/1.1\r\nHost: x\r\nUpgrade: websocket\r\nConnection: upgrade\r\n"
                      "Sec-WebSocket-Version: 13\r\nSec-WebSocket-Key: AAAAAAAAAAAAAAAAAAAAAA==\r\n\r\n");
        const QByteArray request = subscription(m_owner);
        stopped.write("\x81" + QByteArray(1, char(0x80 | request.size())) + QByteArray(4, '\0') + request);
        QVERIFY(waitFor([&] { return stopped.bytesAvailable() >= 1024; }));
        QByteArray read;
        const auto hasBegunAnew = [&] {
            return (read += stopped.readAll()).count("\"event\":\"snapshot\"") > 1;
        };
        const QDeadlineTimer standstill(6s);
        for (int round = 0; round < 500 && !(standstill.hasExpired() && hasBegunAnew()); ++round) {
            stopped.setReadBufferSize(standstill.hasExpired() ? 0 : 1024);
            const QString name = QString("%1").arg(round) + QString(195, QChar(0x97f3));
            m_service->sql(QString("UPDATE `sbox_device_info` SET `device_name` = '%1'").arg(name));
            ask("PATCH", "/speakers/" + serial(1), {{"name", name}}); // tells of the others' change
            QVERIFY(allSee("name", name));
        }
        QVERIFY(hasBegunAnew());
        fleet.reset();
        QVERIFY(allSee("state", "offline"));
    }

private:
    /// A new account's token of the interface v1.
    QByteArray account(const QString& name) {
        const Account made = m_accounts[name] = m_service->addAccount(name);
        const QByteArray token =
            QCryptographicHash::hash(name.toUtf8(), QCryptographicHash::Sha256)
                .toBase64(QByteArray::Base64UrlEncoding | QByteArray::OmitTrailingEquals);
        const QByteArray hash = QCryptographicHash::hash(token, QCryptographicHash::Sha256).toHex();
        m_service->sql(
            QString("INSERT INTO `apitoken` (`account`, `name`, `hash`, `created`, `expires`) VALUES "
                    "(%1, 'test', '%2', 0, 0)")
                .arg(made.id)
                .arg(QString(hash)));
        return token;
    }
    HttpReply ask(const QByteArray& method, const QString& path, const QJsonObject& body = {},
                  const QByteArray& token = {}) {
        const QByteArray bearer = "Bearer " + (token.isEmpty() ? m_owner : token);
        return m_service->http().request(method, "/api/v1" + path, json(body),
                                         {{"Authorization", bearer}, {"Content-Type", "application/json"}});
    }
    void older(const QString& path, const HttpParams& params) {
        m_service->http().postForm(path, m_accounts["owner"].params(params));
    }

    quint16 m_port = freePort();
    std::unique_ptr<Service> m_service;
    QHash<QString, Account> m_accounts;
    QByteArray m_owner; ///< its token
};

int main(int argc, char** argv) {
    return runTest<EventsTest>(argc, argv);
}
#include "events_test.moc"
