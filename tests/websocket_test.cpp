#include "fronts/websocketframes.h"
#include "support/speakers.h"
#include "support/table.h"
#include "support/testmain.h"

#include <QTcpSocket>
#include <QWebSocket>

namespace {

/// A client that keeps every answer.
struct Client {
    QWebSocket socket;
    QStringList answers;
    int closeCode = 0;

    explicit Client(quint16 port) {
        QObject::connect(&socket, &QWebSocket::textMessageReceived,
                         [this](const QString& text) { answers << text; });
        QObject::connect(&socket, &QWebSocket::disconnected, [this] { closeCode = socket.closeCode(); });
        socket.open(QUrl(QString("ws://127.0.0.1:%1/").arg(port)));
        waitFor([this] { return socket.state() == QAbstractSocket::ConnectedState; });
    }
    QJsonObject ask(const QJsonObject& request) {
        answers.clear();
        socket.sendTextMessage(QJsonDocument(request).toJson());
        waitFor([this] { return !answers.isEmpty(); });
        return QJsonDocument::fromJson(answers.value(0).toUtf8()).object();
    }
};

} // namespace

class WebSocketTest : public QObject {
    Q_OBJECT
private slots:
    void initTestCase() {
        ServiceOptions options;
        options.settings = {{"wbport", m_port}, {"Meida_ip", "192.0.2.7"}, {"Meida_port", 8123}};
        m_service = std::make_unique<Service>(options);
        QVERIFY(m_service->start());
        m_account = m_service->addAccount("front");
    }

    void frames_data() {
        using websocket::frame;
        using websocket::Opcode;
        const Table<QByteArray, QByteArray> row{"bytes", "events"};
        const QByteArray mask("\x01\x02\x03\x04");
        const QByteArray hello = "\x81\x85" + mask + "igohn"; // "hello", masked
        const auto empty = [&](int first, int second = 0x80) {
            return QByteArray(1, char(first)) + char(second) + mask;
        };
        row("texts", hello + empty(0x81) + hello, "text hello;text ;text hello;");
        row("fragments around a ping", empty(0x01) + empty(0x89) + "\x80\x85" + mask + "igohn",
            "ping ;text hello;");
        row("pong", empty(0x8a), "pong ;");
        row("close with its code", "\x88\x82" + mask + "\x02\xea", "close \x03\xe8;");
        row("close with half a code", "\x88\x81" + mask + "x", "error 1002;");
        row("no mask", "\x81\x01x", "error 1002;");
        row("reserved bit", empty(0xc1), "error 1002;");
        row("unknown", empty(0x83), "error 1002;");
        row("binary", empty(0x82), "error 1003;");
        row("ping in pieces", empty(0x09), "error 1002;");
        row("long ping", empty(0x89, 0xfe), "error 1002;");
        row("lone continuation", empty(0x80), "error 1002;");
        row("text within a text", empty(0x01) + empty(0x81), "error 1002;");
        row("not UTF-8", "\x81\x81" + mask + "\xfe", "error 1007;");
        row("length longer than need be", QByteArray("\x81\xfe\0\x05", 4) + mask, "error 1002;");
        row("too long", QByteArray("\x81\xfe\x03\xe9") + mask, "error 1009;");
        row("negative length", QByteArray("\x81\xff\xff\0\0\0\0\0\0\0", 10) + mask, "error 1009;");
        row("too long together", "\x01\x85" + mask + "igohn" + QByteArray("\x80\xfe\x03\xe4", 4) + mask,
            "error 1009;");
        row("of the server's own making", frame(Opcode::Text, QByteArray(70000, 'x')).left(10),
            "error 1002;");
    }

    /// In every division, with messages of up to 1,000 bytes.
    void frames() {
        QFETCH(QByteArray, bytes);
        const char* const names[] = {"none", "text ", "ping ", "pong ", "close ", "error "};
        for (const int piece : {1, 2, 7, 100'000}) {
            websocket::FrameReader reader(1000);
            QByteArray events;
            for (int at = 0; at < bytes.size() && !events.contains("error"); at += piece) {
                const QByteArray part = bytes.mid(at, piece);
                std::string_view rest(part.constData(), static_cast<std::size_t>(part.size()));
                while (!rest.empty() && !events.contains("error")) {
                    const websocket::Event event = reader.read(rest);
                    if (event.kind == websocket::Event::Kind::Error)
                        events += "error " + QByteArray::number(int(event.code)) + ';';
                    else if (event.kind != websocket::Event::Kind::None)
                        events += names[int(event.kind)] + event.payload + ';';
                }
            }
            QTEST(events, "events");
        }
    }

    void refusals_data() {
        const Table<QString, QString> row{"message", "info"};
        row("no JSON", "hello", "uni_error2");
        row("array", "[1]", "uni_error2");
        row("empty object", "{}", "uni_error1");
        row("path is no text", "{\"path\":7}", "uni_error1");
        row("no endpoint", "{\"path\":\"/index.html\"}", "path_error");
        row("unknown account", "{\"path\":\"/user/listdev\",\"id\":\"999\",\"token\":\"x\"}", "_FALSE5");
        row("wrong token", "{\"path\":\"/user/listdev\",\"id\":\"1\",\"token\":\"\"}", "_FALSE6");
    }

    void refusals() {
        QFETCH(QString, message);
        Client client(m_port);
        client.socket.sendTextMessage(message);
        QVERIFY(waitFor([&] { return !client.answers.isEmpty(); }));
        QTEST(QJsonDocument::fromJson(client.answers[0].toUtf8())["info"].toString(), "info");
    }

    void sameAnswersAsOverHttp() {
        Client client(m_port);
        for (const QString path :
             {"/user/listdev", "/user/listgroups", "/user/list_task", "/user/uploadfile", "/user/none"})
            QCOMPARE(client.ask(withToken({{"path", path}})),
                     m_service->http().postForm(path, m_account.params()).json());
    }

    void answersKeepTheOrderOfRequests() {
        Client client(m_port);
        const QString worked = R"({"path":"/user/listdev","id":"1","token":"x"})";
        QStringList expected;
        for (int i = 0; i < 20; ++i) {
            client.socket.sendTextMessage(i % 2 ? "{}" : worked);
            expected << (i % 2 ? "uni_error1" : "_FALSE6");
        }
        QVERIFY(waitFor([&] { return client.answers.size() == 20; }));
        QStringList got;
        for (const QString& answer : client.answers)
            got << QJsonDocument::fromJson(answer.toUtf8())["info"].toString();
        QCOMPARE(got, expected);
    }

    void playsOnSpeakers() {
        const auto fleet = onlineFleet(speakersAt(*m_service), 1);
        sim::Speaker& speaker = fleet->at(0);
        m_service->giveSpeakers(m_account, {speaker.sn()});
        Client client(m_port);
        const auto answer = client.ask(withToken(
            {{"path", "/user/urlplay"}, {"url", "http://127.0.0.1/x.mp3"}, {"snlist", speaker.sn()}}));
        QVERIFY2(answer["res"].toBool(), QJsonDocument(answer).toJson());
        QVERIFY(waitFor([&] { return speaker.count(sim::Op::PlayList) == 1; }));
    }

    void mediaAddress() {
        Client client(m_port);
        const auto answer = client.ask(withToken({{"path", "/media"}}));
        QCOMPARE(answer["ip"], "192.0.2.7");
        QCOMPARE(answer["port"], 8123);
        QCOMPARE(client.ask({{"path", "/media"}, {"id", "1"}, {"token", "x"}})["res"], false);
    }

    void tooLongOrBinary_data() {
        const Table<bool, int> row{"binary", "closeCode"};
        row("too long", false, int(QWebSocketProtocol::CloseCodeTooMuchData));
        row("binary", true, int(QWebSocketProtocol::CloseCodeDatatypeNotSupported));
    }

    void tooLongOrBinary() {
        QFETCH(bool, binary);
        Client client(m_port);
        if (binary)
            client.socket.sendBinaryMessage("{}");
        else
            client.socket.sendTextMessage(QString(1024 * 1024 + 1, 'x'));
        QVERIFY(waitFor([&] { return client.closeCode != 0; }));
        QTEST(client.closeCode, "closeCode");
    }

    void tooManyWaiting() {
        Client client(m_port);
        const QString slow = QJsonDocument(withToken({{"path", "/user/listdev"}})).toJson();
        for (int i = 0; i < 2000; ++i)
            client.socket.sendTextMessage(slow);
        QVERIFY(waitFor([&] { return client.closeCode == QWebSocketProtocol::CloseCodePolicyViolated; }));
    }

    /// More than may be at once: those that never finish their handshake count too.
    void connectionsAreBounded() {
        std::vector<std::unique_ptr<QTcpSocket>> silent;
        int closed = 0;
        for (int i = 0; i < 520; ++i) {
            silent.push_back(std::make_unique<QTcpSocket>());
            connect(silent.back().get(), &QTcpSocket::disconnected, this, [&] { ++closed; });
            silent.back()->connectToHost("127.0.0.1", m_port);
        }
        QVERIFY(waitFor([&] { return closed >= 8; }));
        silent.clear();
        QVERIFY(waitFor([&] { return Client(m_port).ask({})["info"] == "uni_error1"; }));
    }

    void endsWhileRequestsRun() {
        Client client(m_port);
        const QString request = QJsonDocument(withToken({{"path", "/user/olist"}})).toJson();
        for (int i = 0; i < 40; ++i)
            client.socket.sendTextMessage(request);
        QVERIFY(waitFor([&] { return !client.answers.isEmpty(); }));
        QCOMPARE(m_service->stop(), 0);
    }

private:
    QJsonObject withToken(QJsonObject request) const {
        request.insert("id", QString::number(m_account.id));
        request.insert("token", m_account.token);
        return request;
    }
    quint16 m_port = freePort();
    std::unique_ptr<Service> m_service;
    Account m_account;
};

int main(int argc, char** argv) {
    return runTest<WebSocketTest>(argc, argv);
}
#include "websocket_test.moc"
