// What the event loop does for descriptors: its own listeners, and Qt's sockets and processes at work on it.
#include "core/loop/socketwatch.h"
#include "support/socketpair.h"
#include "support/testmain.h"

#include <functional>
#include <memory>
#include <QLocalServer>
#include <QLocalSocket>
#include <QProcess>
#include <QSocketNotifier>
#include <QTcpServer>
#include <QTcpSocket>

namespace {

EpollEventDispatcher& loop() {
    return *EpollEventDispatcher::current();
}

int turn() {
    return QAbstractEventDispatcher::instance()->processEvents(QEventLoop::AllEvents) ? 1 : 0;
}

/// Notes what it is told, then does what the case asks for.
struct Listener : DescriptorListener {
    void descriptorReady(bool readable, bool writable) override {
        told << QString(readable ? "r" : "") + QString(writable ? "w" : "");
        if (action)
            action();
    }
    QStringList told;
    std::function<void()> action;
};

} // namespace

class DescriptorsTest : public QObject {
    Q_OBJECT
private slots:
    void listenerHearsWhatItAskedFor() {
        Pair pair;
        Listener listener;
        loop().listen(pair.fds[0], &listener, true, false);
        turn();
        QCOMPARE(listener.told, QStringList());
        pair.send();
        turn();
        turn(); // level-triggered: nothing was read
        QCOMPARE(listener.told, (QStringList{"r", "r"}));
        loop().listen(pair.fds[0], &listener, true, true);
        turn();
        QCOMPARE(listener.told.last(), "rw");
        loop().listen(pair.fds[0], &listener, false, false);
        turn();
        QCOMPARE(listener.told.size(), 3);
        shutdown(pair.fds[1], SHUT_RDWR);
        loop().listen(pair.fds[0], &listener, false, true);
        turn();
        QCOMPARE(listener.told.last(), "w"); // broken: ready for what is listened to
        loop().listen(pair.fds[0], nullptr);
    }

    /// All of them are ready in one batch; the first that is told ends the others.
    void listenersGoWhileOthersAreTold() {
        std::array<Pair, 3> pairs;
        std::array<std::unique_ptr<Listener>, 3> listeners;
        int told = 0;
        for (size_t i = 0; i < pairs.size(); ++i) {
            listeners[i] = std::make_unique<Listener>();
            listeners[i]->action = [&, i] {
                ++told;
                for (size_t each = 0; each < pairs.size(); ++each)
                    loop().listen(pairs[each].fds[0], nullptr);
                for (size_t other = 0; other < pairs.size(); ++other) {
                    if (other != i)
                        listeners[other].reset();
                }
            };
            loop().listen(pairs[i].fds[0], listeners[i].get(), true, false);
            pairs[i].send();
        }
        turn();
        turn();
        QCOMPARE(told, 1);
    }

    /// A new file under an old number is heard by its own listener, and gets nothing of the old one's events.
    void numbersAreReused() {
        Listener first, second;
        auto old = std::make_unique<Pair>();
        const int number = old->fds[0];
        loop().listen(number, &first, true, false);
        turn();
        old->send();
        loop().listen(number, nullptr);
        old.reset();
        Pair next;
        QCOMPARE(next.fds[0], number);
        loop().listen(number, &second, true, false);
        turn();
        QVERIFY(first.told.isEmpty() && second.told.isEmpty());
        next.send();
        turn();
        QCOMPARE(second.told, QStringList("r"));
        loop().listen(number, nullptr);
    }

    void listenerAndNotifierShareADescriptor() {
        Pair pair;
        Listener listener;
        loop().listen(pair.fds[0], &listener, false, true);
        QSocketNotifier reader(pair.fds[0], QSocketNotifier::Read);
        int read = 0;
        connect(&reader, &QSocketNotifier::activated, this, [&] { ++read; });
        pair.send();
        turn();
        QCOMPARE(read, 1);
        QCOMPARE(listener.told, QStringList("w"));
        loop().listen(pair.fds[0], nullptr);
        turn();
        QCOMPARE(read, 2);
        QCOMPARE(listener.told.size(), 1);
    }

    void networkAndProcesses() {
        constexpr int Size = 3'000'000;
        const QByteArray payload(Size, 'x');
        QTcpServer tcpServer;
        QVERIFY(tcpServer.listen(QHostAddress::LocalHost));
        QTcpSocket tcp;
        const auto tcpBack = echo<QTcpSocket>(tcpServer, tcp);
        tcp.connectToHost(QHostAddress::LocalHost, tcpServer.serverPort());
        tcp.write(payload);
        QLocalServer localServer;
        QVERIFY(localServer.listen(QString("speakerd-test-%1").arg(getpid())));
        QLocalSocket local;
        const auto localBack = echo<QLocalSocket>(localServer, local);
        local.connectToServer(localServer.fullServerName());
        local.write(payload);
        QProcess process;
        int exitCode = -1;
        connect(&process, QOverload<int, QProcess::ExitStatus>::of(&QProcess::finished), this,
                [&](int code) { exitCode = code; });
        process.start("cat", QStringList());
        process.write(payload);
        process.closeWriteChannel();

        QTRY_COMPARE_WITH_TIMEOUT(tcpBack->size(), Size, 60'000);
        QTRY_COMPARE_WITH_TIMEOUT(localBack->size(), Size, 60'000);
        QTRY_COMPARE_WITH_TIMEOUT(exitCode, 0, 60'000);
        QCOMPARE(process.readAll().size(), Size);
        bool closed = false;
        connect(&tcp, &QTcpSocket::disconnected, this, [&] { closed = true; });
        delete tcpServer.findChild<QTcpSocket*>();
        QTRY_VERIFY(closed);
    }

private:
    /// Lets the server send back what the client writes; gives what has come back.
    template<typename Socket, typename Server>
    std::shared_ptr<QByteArray> echo(Server& server, Socket& client) {
        connect(&server, &Server::newConnection, this, [&server] {
            auto* peer = server.nextPendingConnection();
            connect(peer, &Socket::readyRead, peer, [peer] { peer->write(peer->readAll()); });
        });
        auto back = std::make_shared<QByteArray>();
        connect(&client, &Socket::readyRead, this, [&client, back] { *back += client.readAll(); });
        return back;
    }
};

int main(int argc, char** argv) {
    return runTest<DescriptorsTest>(argc, argv);
}
#include "descriptors_test.moc"
