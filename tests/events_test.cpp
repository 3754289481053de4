#include "fronts/events/feed.h"
#include "support/speakers.h"
#include "support/table.h"
#include "support/testmain.h"

#include <QCryptographicHash>
#include <QTcpSocket>
#include <QWebSocket>

using namespace std::chrono_literals;

namespace {

constexpr char First[] = "5eed0000000000000000000000000001";

QString serial(int n) {
    return QString(First).left(24) + QString("%1").arg(n, 8, 16, QChar('0'));
}

QByteArray json(const QJsonObject& object) {
    return QJsonDocument(object).toJson(QJsonDocument::Compact);
}

/// A client that keeps what the events have told.
struct Client {
    QWebSocket socket;
    QHash<QString, QJsonObject> speakers;
    QList<QJsonObject> messages;
    bool isWhole = false; ///< the snapshot has been told
    int closeCode = 0;

    explicit Client(quint16 port) {
        QObject::connect(&socket, &QWebSocket::textMessageReceived, [this](const QString& text) {
            take(QJsonDocument::fromJson(text.toUtf8()).object());
        });
        QObject::connect(&socket, &QWebSocket::disconnected, [this] { closeCode = socket.closeCode(); });
        socket.open(QUrl(QString("ws://127.0.0.1:%1/").arg(port)));
        waitFor([this] { return socket.state() == QAbstractSocket::ConnectedState; });
    }
    void subscribe(const QByteArray& token) {
        socket.sendTextMessage(json(
            {{"path", "/api/v1/events"}, {"token", QString(token)}, {"topics", QJsonArray{"speakers"}}}));
    }
    void take(const QJsonObject& message) {
        messages << QJsonObject{{"event", message["event"]}, {"status", message["status"]}};
        for (const auto item : message["items"].toArray())
            speakers[item.toObject()["serial"].toString()] = item.toObject();
        for (const auto id : message["ids"].toArray())
            speakers.remove(id.toString());
        if (message["event"] == "snapshot")
            isWhole = !message["more"].toBool();
    }
    int count(const char* key, const QJsonValue& value) const {
        return int(std::count_if(speakers.begin(), speakers.end(),
                                 [&](const QJsonObject& speaker) { return speaker[key] == value; }));
    }
    QSet<QString> serials() const {
        const auto keys = speakers.keys();
        return QSet<QString>(keys.begin(), keys.end());
    }
};

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
        row("gone unseen", ".a-a", "snapshot, gone a");
        row("nothing new", "a.", "snapshot 1");
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
        auto message = feed.next({});
        QCOMPARE(QJsonDocument::fromJson(message->text)["items"].toArray().size(), Feed::MaxItems);
        feed.remove("7");
        feed.remove("2400");
        put(2000);
        put(2501);
        QSet<int> known;
        for (; message; message = feed.next(message->next)) {
            const auto text = QJsonDocument::fromJson(message->text);
            for (const auto item : text["items"].toArray())
                known.insert(item.toInt());
            for (const auto id : text["ids"].toArray())
                known.remove(id.toInt());
        }
        QCOMPARE(known.size(), 2499);
        QVERIFY(!known.contains(7) && !known.contains(2400) && known.contains(2501));
        Feed::Cursor cursor{Feed::Cursor::Phase::Following, 0, 1, 1};
        for (int n = 10'000; n < 10'000 + int(Feed::MaxGone); ++n) {
            put(n);
            feed.remove(QString::number(n));
        }
        QVERIFY(feed.next(cursor)->text.startsWith("{\"event\":\"snapshot\""));
    }

    void refusals_data() {
        const Table<QJsonObject, int> row{"request", "status"};
        const QJsonArray topics{"speakers"};
        row("no such token", {{"token", "x"}, {"topics", topics}}, 401);
        row("no token", {{"topics", topics}}, 422);
        row("no topics", {{"token", "x"}}, 422);
        row("empty", {{"token", "x"}, {"topics", QJsonArray()}}, 422);
        row("unknown topic", {{"token", "x"}, {"topics", QJsonArray{"speakers", "weather"}}}, 422);
        row("unknown key", {{"token", "x"}, {"topics", topics}, {"since", 1}}, 422);
    }
    void refusals() {
        QFETCH(QJsonObject, request);
        request.insert("path", "/api/v1/events");
        Client client(m_port);
        client.socket.sendTextMessage(json(request));
        QVERIFY(waitFor([&] { return !client.messages.isEmpty(); }));
        QCOMPARE(client.messages[0]["event"].toString(), QString("error"));
        QTEST(client.messages[0]["status"].toInt(), "status");
    }

    /// Names, groups, rights and deletions, by either interface; each sees his own.
    void whatEachSees() {
        const QByteArray viewer = account("viewer");
        for (int n = 1; n <= 3; ++n)
            QCOMPARE(ask("POST", "/speakers", {{"serial", serial(n)}, {"name", "x"}}).status, 201);
        Client owner(m_port);
        Client guest(m_port);
        owner.subscribe(m_owner);
        guest.subscribe(viewer);
        QVERIFY(waitFor([&] { return owner.isWhole && guest.isWhole; }));
        QCOMPARE(owner.speakers.size(), 3);
        QVERIFY(guest.speakers.isEmpty());

        const QJsonObject members{{"name", "g"}, {"speakers", QJsonArray{serial(1), serial(2)}}};
        const int group = ask("POST", "/groups", members)["id"].toInt();
        const QJsonObject grant{{"account", m_accounts["viewer"].id}, {"group", group}, {"role", "viewer"}};
        QCOMPARE(ask("POST", "/grants", grant).status, 201);
        QVERIFY(waitFor([&] { return guest.serials() == QSet<QString>{serial(1), serial(2)}; }));
        QVERIFY(waitFor([&] { return owner.count("groups", QJsonArray{group}) == 2; }));

        ask("PATCH", "/speakers/" + serial(1), {{"name", "by v1 \"'"}});
        QVERIFY(waitFor([&] { return guest.speakers[serial(1)]["name"] == "by v1 \"'"; }));
        const auto id =
            m_service->sql("SELECT `id` FROM `sbox_device_info` ORDER BY `id`")[1]["id"].toString();
        m_service->http().postForm("/user/redevname",
                                   m_accounts["owner"].params({{"devid", id}, {"newname", "older"}}));
        QVERIFY(waitFor([&] { return guest.speakers[serial(2)]["name"] == "older"; }));

        ask("PATCH", QString("/groups/%1").arg(group), {{"speakers", QJsonArray{serial(2)}}});
        QVERIFY(waitFor([&] { return guest.serials() == QSet<QString>{serial(2)}; }));
        ask("DELETE", "/speakers/" + serial(2));
        QVERIFY(waitFor([&] { return guest.speakers.isEmpty() && owner.speakers.size() == 2; }));
        m_service->sql("UPDATE `sbox_device_info` SET `device_name` = 'by another program'");
        QVERIFY(waitFor([&] { return owner.count("name", "by another program") == 2; }));
        QCOMPARE(owner.messages.count({{"event", "snapshot"}, {"status", QJsonValue::Undefined}}), 1);
    }

    void tokensEnd() {
        Client voided(m_port);
        Client other(m_port);
        const QByteArray token = account("leaver");
        voided.subscribe(token);
        other.subscribe(m_owner);
        QVERIFY(waitFor([&] { return voided.isWhole && other.isWhole; }));
        QCOMPARE(ask("POST", "/logout", {}, token).status, 204);
        QVERIFY(waitFor([&] { return voided.closeCode != 0; }));
        QCOMPARE(voided.closeCode, int(QWebSocketProtocol::CloseCodePolicyViolated));
        QCOMPARE(other.closeCode, 0);
    }

    /// Many clients see many speakers come and go; one that does not read costs little and begins anew.
    void manySeeMany() {
        constexpr int Speakers = 600;
        QStringList serials;
        for (int n = 1; n <= Speakers; ++n)
            serials << serial(n);
        m_service->giveSpeakers(m_accounts["owner"], serials);
        std::vector<std::unique_ptr<Client>> clients;
        for (int i = 0; i < 20; ++i) {
            clients.push_back(std::make_unique<Client>(m_port));
            clients.back()->subscribe(m_owner);
        }
        const auto allCount = [&](const char* key, const QJsonValue& value) {
            return std::all_of(clients.begin(), clients.end(),
                               [&](const auto& client) { return client->count(key, value) == Speakers; });
        };
        QVERIFY(waitFor([&] { return allCount("state", "offline"); }));
        auto fleet = onlineFleet(speakersAt(*m_service, First), Speakers);
        QVERIFY(waitFor([&] { return allCount("state", "idle"); }, 60s));

        QTcpSocket stopped;
        stopped.setReadBufferSize(1024);
        stopped.connectToHost("127.0.0.1", m_port);
        QVERIFY(stopped.waitForConnected());
        stopped.setSocketOption(QAbstractSocket::ReceiveBufferSizeSocketOption, 4096);
        stopped.write("GET / HTTP/1.1\r\nHost: x\r\nUpgrade: websocket\r\nConnection: upgrade\r\n"
                      "Sec-WebSocket-Version: 13\r\nSec-WebSocket-Key: AAAAAAAAAAAAAAAAAAAAAA==\r\n\r\n");
        const QByteArray request = json(
            {{"path", "/api/v1/events"}, {"token", QString(m_owner)}, {"topics", QJsonArray{"speakers"}}});
        stopped.write("\x81" + QByteArray(1, char(0x80 | request.size())) + QByteArray(4, '\0') + request);
        QVERIFY(waitFor([&] { return stopped.bytesAvailable() >= 1024; }));
        QByteArray seen;
        for (int round = 0; seen.count("\"event\":\"snapshot\"") < 2 && round < 20; ++round) {
            const QString name = QString("round %1").arg(round) + QString(150, 'x');
            m_service->sql(QString("UPDATE `sbox_device_info` SET `device_name` = '%1'").arg(name));
            QVERIFY(waitFor([&] { return allCount("name", name); }, 60s));
            if (round >= 4) { // by now it has stood still for long enough
                stopped.setReadBufferSize(0);
                waitFor([&] { return (seen += stopped.readAll()).count("\"event\":\"snapshot\"") >= 2; }, 2s);
            }
        }
        QVERIFY(seen.count("\"event\":\"snapshot\"") >= 2);

        fleet.reset();
        QVERIFY(waitFor([&] { return allCount("state", "offline"); }, 60s));
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
        return m_service->http().request(method, "/api/v1" + path, json(body),
                                         {{"Authorization", "Bearer " + (token.isEmpty() ? m_owner : token)},
                                          {"Content-Type", "application/json"}});
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
