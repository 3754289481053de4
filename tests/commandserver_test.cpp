#include "device/commandserver.h"
#include "nodes/gate.h"
#include "redis/core_corss.h"
#include "support/table.h"
#include "support/testmain.h"
#include "support/waitfor.h"

#include <functional>
#include <netinet/in.h>
#include <QJsonDocument>
#include <QSignalSpy>
#include <QTcpSocket>
#include <sys/socket.h>
#include <thread>

Q_DECLARE_METATYPE(std::function<QByteArray(Core_corss&)>)

namespace {

/// The server under test with a handler that notes what it got and answers {"n": its number} or what
/// `reply` says.
struct Server {
    CommandServer server{QStringLiteral("test"), nullptr};
    QList<QByteArray> requests;
    std::function<QByteArray(const QByteArray&)> reply;

    Server() {
        server.start(
            QHostAddress::Any, 0, [this](const QByteArray& request, const auto&, const auto& answer) {
                requests << request;
                answer(reply ? reply(request) : "{\"n\":" + QByteArray::number(requests.size()) + '}');
            });
    }
    quint16 port() const { return server.serverPort(); }
};

struct Client : QTcpSocket {
    QByteArray received;
    bool isClosed = false;
    explicit Client(quint16 port, const QString& host = QStringLiteral("127.0.0.1")) {
        connect(this, &QTcpSocket::readyRead, this, [this] { received += readAll(); });
        connect(this, &QTcpSocket::disconnected, this, [this] { isClosed = true; });
        connectToHost(host, port);
        waitForConnected(5000);
    }
    ~Client() override { disconnect(this, nullptr, this, nullptr); } // closing would still tell the members
};

/// JSON written with single quotes.
QByteArray json(QByteArray text) {
    return text.replace('\'', '"');
}

QByteArray framed(const QByteArray& request) {
    return QByteArray::number(request.size()) + '\n' + request;
}

/// Runs `work`, which blocks, beside this thread's event loop.
template<typename Work>
void beside(Work work) {
    std::atomic_bool isDone{false};
    std::thread thread([&] {
        work();
        isDone = true;
    });
    QVERIFY(waitFor([&] { return isDone.load(); }));
    thread.join();
}

} // namespace

class CommandServerTest : public QObject {
    Q_OBJECT
private slots:
    void repliesComeInOrderOverBothProtocols_data() {
        const Table<QString> row{"host"};
        row("IPv4", "127.0.0.1");
        row("IPv6", "::1");
    }

    void repliesComeInOrderOverBothProtocols() {
        QFETCH(QString, host);
        Server server;
        Client client(server.port(), host);
        const QByteArray stream = framed("{\"a\":1}") + "{\"b\":\"}\"}\n" + framed("{\"c\":3}") + framed("");
        for (const char byte : stream) {
            client.write(&byte, 1);
            client.flush();
        }
        client.write(framed("last") + "{}");
        QVERIFY(waitFor([&] { return client.received.count('\n') == 6; }));
        QCOMPARE(client.received, QByteArray("{\"n\":1}\r\n{\"n\":2}\r\n{\"n\":3}\r\n{\"n\":4}\r\n"
                                             "{\"n\":5}\r\n{\"n\":6}\r\n"));
        QCOMPARE(server.requests,
                 (QList<QByteArray>{"{\"a\":1}", "{\"b\":\"}\"}", "{\"c\":3}", "", "last", "{}"}));
        QVERIFY(!client.isClosed);
    }

    void brokenStreamIsToldAndClosed() {
        Server server;
        Client client(server.port());
        client.write("{}GET / HTTP/1.1\r\n\r\n" + QByteArray(100'000, 'x'));
        QVERIFY(waitFor([&] { return client.isClosed; }));
        QCOMPARE(client.received.count("\r\n"), 2);
        const auto refusal =
            QJsonDocument::fromJson(client.received.mid(client.received.indexOf('\n'))).object();
        QCOMPARE(refusal["res"].toString(), "json_error");
        QVERIFY(!refusal["info"].toString().isEmpty());
        QCOMPARE(server.requests.size(), 1);
    }

    void requestsOfAClosedPeerStillRun() {
        Server server;
        {
            Client client(server.port());
            client.write(framed("{\"one\":1}") + framed("{\"two\":2}"));
            client.disconnectFromHost();
            QVERIFY(waitFor([&] { return client.isClosed; }));
        }
        QVERIFY(waitFor([&] { return server.requests.size() == 2; }));
    }

    void peerThatHalfClosesGetsEveryReply() {
        Server server;
        server.reply = [](const QByteArray&) {
            return QByteArray(3'000'000, 'a');
        };
        Client client(server.port());
        client.write("{}{}{}");
        client.flush();
        QVERIFY(waitFor([&] { return client.bytesToWrite() == 0; }));
        ::shutdown(static_cast<int>(client.socketDescriptor()), SHUT_WR);
        QVERIFY(waitFor([&] { return client.received.size() >= 3 * 3'000'002; }));
        QVERIFY(waitFor([&] { return client.isClosed; }));
    }

    /// A peer that reads nothing is not worked for beyond the limit; when it reads, it gets everything.
    void unreadRepliesHoldUpTheirOwnRequests() {
        Server server;
        server.reply = [](const QByteArray& request) {
            return request == "{}" ? QByteArray(4'000'000, 'b') : QByteArray("c");
        };
        Client slow(server.port());
        slow.setReadBufferSize(1);
        slow.disconnect(SIGNAL(readyRead()));
        for (int i = 0; i < 20; ++i)
            slow.write("{}");
        QVERIFY(waitFor([&] { return server.requests.size() >= 2; }));
        Client other(server.port());
        other.write("{\"other\":1}");
        QVERIFY(waitFor([&] { return !other.received.isEmpty(); }));
        const int ran = server.requests.size();
        QVERIFY2(ran < 15, QByteArray::number(ran));
        slow.setReadBufferSize(0);
        qint64 got = 0;
        QVERIFY(waitFor([&] {
            got += slow.readAll().size();
            return server.requests.size() == 21 && slow.bytesAvailable() == 0 && got > 20 * 4'000'000;
        }));
    }

    /// The handler may run a nested loop: other requests of the connection wait, the connection may go.
    void nestedLoopInTheHandler() {
        Server server;
        auto client = std::make_unique<Client>(server.port());
        server.reply = [&](const QByteArray& request) {
            if (request == "{\"slow\":1}") {
                client->write("{\"more\":1}");
                QTest::qWait(50);
            }
            return request;
        };
        client->write("{\"slow\":1}");
        QVERIFY(waitFor([&] { return client->received == "{\"slow\":1}\r\n{\"more\":1}\r\n"; }));
        server.reply = [&](const QByteArray& request) {
            client.reset();
            QTest::qWait(50);
            return request;
        };
        client->write("{\"gone\":1}");
        QVERIFY(waitFor(
            [&] { return server.requests.size() == 3 && server.server.findChildren<didocmd*>().isEmpty(); }));
    }

    void filter_data() {
        const Table<QString, QString, bool> row{"list", "peer", "allowed"};
        row("everybody", "", "203.0.113.9", true);
        row("blank entries only", " , ", "203.0.113.9", true);
        row("single", "10.1.2.3", "10.1.2.3", true);
        row("neighbour", "10.1.2.3", "10.1.2.4", false);
        row("subnet", "192.168.0.0/16, 10.0.0.0/8", "10.200.0.1", true);
        row("outside", "192.168.0.0/16,10.0.0.0/8", "11.0.0.1", false);
        row("mapped", "10.0.0.0/8", "::ffff:10.0.0.1", true);
        row("IPv6", "fd00::/8", "fd12::1", true);
        row("IPv6 loopback", "::1", "::1", true);
        row("typing error", "10.0.0.x", "10.0.0.1", false);
    }

    void filter() {
        QFETCH(QString, list);
        QFETCH(QString, peer);
        QTEST(AddressFilter::parse(list).allows(QHostAddress(peer)), "allowed");
    }

    void refusedPeerIsClosedUnanswered() {
        Server server;
        server.server.setFilter(AddressFilter::parse("10.0.0.0/8"));
        Client client(server.port());
        QVERIFY(waitFor([&] { return client.isClosed; }));
        QVERIFY(server.requests.isEmpty());
    }

    /// As many as the server takes, and one more: of the silent ones the first to have fallen silent goes.
    void oldestSilentPeerMakesRoom() {
        Server server;
        std::vector<std::unique_ptr<Client>> peers;
        for (int i = 0; i < CommandServer::MaxConnections; ++i)
            peers.push_back(std::make_unique<Client>(server.port()));
        const auto speak = [](Client& client) {
            client.write("{}");
            return waitFor([&] { return client.received.endsWith("\r\n"); });
        };
        QVERIFY(speak(*peers[0]));
        Client late(server.port());
        QVERIFY(speak(late));
        QVERIFY(waitFor([&] { return peers[1]->isClosed; }));
        QVERIFY(!peers[0]->isClosed && !peers[2]->isClosed);
    }

    void senderRequests_data() {
        QTest::addColumn<std::function<QByteArray(Core_corss&)>>("call");
        QTest::addColumn<QByteArray>("json");
        QTest::addColumn<bool>("answered");
        const auto row = [](const char* name, const std::function<QByteArray(Core_corss&)>& call,
                            const QByteArray& request, bool answered = true) {
            QTest::newRow(name) << call << request << answered;
        };
        const QStringList sns{"aa", "bb"};
        row(
            "useingenable", [=](auto& c) { return c.useingenable(sns); },
            json("{'cmd':'useing_enable','snlist':['aa','bb']}"));
        row(
            "disable_device", [=](auto& c) { return c.disable_device(sns); },
            json("{'cmd':'useing_disable','snlist':['aa','bb']}"));
        row(
            "edit_vols", [=](auto& c) { return c.edit_vols(sns, 7); },
            json("{'mode':1009,'snlist':['aa','bb'],'vol':7,'vols':7}"));
        row(
            "play_url, blanks", [=](auto& c) { return c.play_url(sns, "http://h/a b\nc.mp3"); },
            json("{'cmd':'PLAYOFF','filelist':['http://h/ab\\nc.mp3'],'snlist':['aa','bb']}"));
        row(
            "play_urlq39", [=](auto& c) { return c.play_urlq39(sns, "http://h/a"); },
            json("{'cmd':'PLAYAS','filelist':['http://h/aA'],'snlist':['aa','bb']}"));
        row(
            "play_urlsetwarning", [=](auto& c) { return c.play_urlsetwarning(sns, "target", "text"); },
            json("{'cmd':'PLAYASCMD','filelist':['curl\\t\\\"http://h/"
                 "f?text\\\">target&&'],'snlist':['aa','bb']}"));
        row(
            "play_urlrmwarning", [=](auto& c) { return c.play_urlrmwarning(sns, "target"); },
            json("{'cmd':'PLAYASCMD','filelist':['curl\\t\\\"http://h/"
                 "f?&&rmtarget&&'],'snlist':['aa','bb']}"));
        row(
            "Stop_url", [=](auto& c) { return c.Stop_url(sns); },
            json("{'cmd':'FORCESTOP','snlist':['aa','bb']}"));
        row(
            "Stop_urlq39", [=](auto& c) { return c.Stop_urlq39(sns); },
            json("{'cmd':'PLAYAS','filelist':['http://h/silence5'],'snlist':['aa','bb']}"));
        row(
            "Debug_", [](auto& c) { return c.Debug_("aa", 1); },
            json("{'cmd':'DEBUG','dev_ks':1,'sn':'aa'}"));
        row(
            "Debugkillall_", [](auto& c) { return c.Debugkillall_(0); },
            json("{'cmd':'DEBUGALL','dev_ks':0}"));
        const auto none = [](auto call) {
            return [=](Core_corss& c) {
                call(c);
                return QByteArray();
            };
        };
        row("WarningF", none([](auto& c) { c.WarningF("aa", "x"); }),
            json("{'cmd':'PLAYAS','filelist':['xF'],'snlist':['aa']}"), false);
        row("WarningB_NONE", none([](auto& c) { c.WarningB_NONE("aa"); }),
            json("{'cmd':'PLAYAS','filelist':['B_NONE.mp3'],'snlist':['aa']}"), false);
        row("WarningAS", none([](auto& c) { c.WarningAS("aa", "x"); }),
            json("{'cmd':'PLAYAS','filelist':['x'],'snlist':['aa']}"), false);
    }

    void senderRequests() {
        QFETCH(std::function<QByteArray(Core_corss&)>, call);
        QFETCH(bool, answered);
        Server server;
        QByteArray answer;
        beside([&] {
            Core_corss sender("127.0.0.1", server.port());
            sender.setGate(&m_gate);
            sender.setSilentClip("http://h/silence");
            sender.setWarningFetch("http://h/f?");
            answer = call(sender);
        });
        QVERIFY(waitFor([&] { return server.requests.size() == 1; }));
        QTEST(server.requests.first(), "json");
        QCOMPARE(answer, answered ? QByteArray("{\"n\":1}") : QByteArray());
    }

    /// The frame as it stands on the wire, and an answer that arrives in pieces.
    void senderOnTheWire() {
        QTcpServer node;
        QVERIFY(node.listen(QHostAddress::LocalHost));
        QByteArray got;
        connect(&node, &QTcpServer::newConnection, this, [&] {
            QTcpSocket* peer = node.nextPendingConnection();
            connect(peer, &QTcpSocket::readyRead, this, [&got, peer] {
                got += peer->readAll();
                peer->write("{\"res\":\"x\"}\r");
                peer->flush();
                QTimer::singleShot(30, peer, [peer] { peer->write("\n"); });
            });
        });
        QByteArray answer;
        beside([&] { answer = askAll("127.0.0.1", node.serverPort()); });
        QCOMPARE(got, QByteArray("29\n{\"cmd\":\"DEBUGALL\",\"dev_ks\":1}"));
        QCOMPARE(answer, QByteArray("{\"res\":\"x\"}"));
    }

    void senderWithoutANode() {
        const quint16 port = [] {
            QTcpServer probe;
            probe.listen(QHostAddress::LocalHost);
            return probe.serverPort();
        }();
        for (const char* host : {"127.0.0.1", "no such host"}) {
            QByteArray answer;
            beside([&] { answer = askAll(host, port); });
            QCOMPARE(answer, QByteArray());
        }
        QCOMPARE(m_gate.lostCommands(), 2u);
    }

private:
    QByteArray askAll(const char* host, quint16 port) {
        Core_corss sender(host, port);
        sender.setGate(&m_gate);
        return sender.Debugkillall_(1);
    }
    Gate m_gate{nullptr, {}, {}};
};

int main(int argc, char** argv) {
    return runTest<CommandServerTest>(argc, argv);
}
#include "commandserver_test.moc"
