#include "nodes/gate.h"
#include "support/table.h"
#include "support/testmain.h"
#include "support/waitfor.h"
#include "tasks/alarms/warning.h"
#include "tasks/nodeque.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QRegularExpression>
#include <QSignalSpy>
#include <QTcpServer>
#include <QTcpSocket>

namespace {

/// An alarm source: takes one connection at a time.
struct Source {
    QTcpServer server;
    QTcpSocket* peer = nullptr;
    int connections = 0;
    QByteArray received;

    Source() {
        server.listen(QHostAddress::LocalHost);
        QObject::connect(&server, &QTcpServer::newConnection, &server, [this] {
            peer = server.nextPendingConnection();
            ++connections;
            received.clear();
            QObject::connect(peer, &QTcpSocket::readyRead, &server, [this] { received += peer->readAll(); });
        });
    }
    void send(QByteArray lines) {
        peer->write(lines.replace('\'', '"'));
        peer->flush();
    }
};

QByteArray playas(const QByteArray& group, const QByteArray& file) {
    return "{\"cmd\":\"PLAYAS\",\"filelist\":[\"" + file + "\"],\"group\":\"" + group + "\"}";
}

} // namespace

class WarningTest : public QObject {
    Q_OBJECT
private slots:
    void reports_data() {
        const Table<QByteArray, QList<QByteArray>> row{"lines", "commands"};
        const QByteArray end = "{'Chanel':0,'Status':49,'Text':'end CANCEL'}\n";
        const QByteArray begin = "{'Chanel':0,'Status':49,'Text':'gas'}\n";
        const QByteArray begun = playas("hall", "hall.mp3F");
        const QByteArray ended = playas("hall", "F_NONE.mp3");
        row("begins", begin, {begun});
        row("repeated", begin + begin, {begun});
        row("begins, ends, begins", begin + end + begin, {begun, ended, begun});
        row("ends unheard of", end, {ended});
        row("other channel", "{'Chanel':1,'Status':49}\n", {playas("yard", "yard.mp3F")});
        row("other status", "{'Chanel':0,'Status':48,'Text':'CANCEL'}\n", {});
        row("unknown channels", "{'Chanel':2,'Status':49}\n{'Chanel':-1,'Status':49}\n{'Status':49}\n", {});
        row("no JSON in between", "noise\n[1]\n\n" + begin, {begun});
    }

    void reports() {
        QFETCH(QByteArray, lines);
        Source source;
        const auto warning = watch(source);
        const auto hello = QJsonDocument::fromJson(source.received).array();
        QCOMPARE(hello.size(), 3);
        QCOMPARE(hello[0], "hall");
        QCOMPARE(hello[1], "yard");
        QVERIFY(QRegularExpression("^fuck_skn\\d{1,4}$").match(hello[2].toString()).hasMatch());
        QList<QByteArray> commands;
        connect(warning.get(), &Warning::cmd, this, [&](const QByteArray& command) { commands << command; });
        source.send(lines + "{'Chanel':1,'Status':49,'Text':'CANCEL'}\n");
        const QByteArray last = playas("yard", "F_NONE.mp3");
        QVERIFY(waitFor([&] { return !commands.isEmpty() && commands.last() == last; }));
        commands.removeLast();
        QTEST(commands, "commands");
    }

    void comesBack() {
        Source source;
        const auto warning = watch(source);
        source.peer->abort();
        QVERIFY(waitFor([&] { return source.connections == 2 && source.received.endsWith('\n'); }));
        source.send(QByteArray(70'000, 'x')); // a line that never ends
        QVERIFY(waitFor([&] { return source.connections == 3; }));
        const quint16 port = source.server.serverPort();
        source.server.close();
        source.peer->abort();
        // Some attempts fail meanwhile.
        QVERIFY(holdsFor([&] { return source.connections == 3; }, std::chrono::milliseconds(100)));
        QVERIFY(source.server.listen(QHostAddress::LocalHost, port));
        QVERIFY(waitFor([&] { return source.connections == 4; }));
    }

    void endsForGood() {
        Source source;
        QPointer<Warning> warning = watch(source).release();
        source.peer->abort();
        warning->dis();
        QVERIFY(waitFor([&] { return warning.isNull(); }));
        QVERIFY(holdsFor([&] { return source.connections == 1; }, std::chrono::milliseconds(100)));
    }

    void nodeRelaysItsCommands() {
        Source source, node;
        const auto warning = watch(source);
        Gate gate(nullptr, {}, {});
        Nodeque poller(nullptr, 3, nullptr, "localhost", node.server.serverPort(), {&gate});
        poller.insertwarming("gas", warning.get());
        emit warning->cmd("first");
        QVERIFY(waitFor([&] { return node.received == "5\nfirst"; }));
        poller.diswarming("gas");
        emit warning->cmd("second");
        QVERIFY(holdsFor([&] { return node.connections == 1; }, std::chrono::milliseconds(100)));
    }

private:
    static std::unique_ptr<Warning> watch(Source& source) {
        auto warning = std::make_unique<Warning>(20);
        warning->init_warming("127.0.0.1", "gas", source.server.serverPort(), {"hall", "yard"});
        waitFor([&] { return source.received.endsWith('\n'); });
        return warning;
    }
};

int main(int argc, char** argv) {
    return runTest<WarningTest>(argc, argv);
}
#include "warning_test.moc"
