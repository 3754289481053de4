#include "core/loop/devicesocket.h"
#include "device/fortcpclient.h"
#include "support/devicelink.h"
#include "support/testmain.h"

#include <netinet/in.h>
#include <QTcpServer>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

using namespace std::chrono_literals;

class ListenerTest : public QObject {
    Q_OBJECT
private slots:
    void init() {
        QDir::setCurrent(m_directory.path());
        QFile list("unuse.conf");
        QVERIFY(list.open(QIODevice::WriteOnly));
        list.write("[\"" + testSerial(666).toHex() + "\"]");
        list.close();
        m_link = std::make_unique<DeviceLink>();
    }

    void cleanup() {
        m_link.reset();
        QDir::setCurrent("/");
    }

    void badFirstPackets_data() {
        QTest::addColumn<QByteArray>("packet");
        for (const int length : {1, 4, 17, 19, 36, 40, 70000})
            QTest::addRow("%d bytes", length) << QByteArray(length, 'x');
        QTest::newRow("begun") << sim::registrationPacket(testSerial(), 20).left(7);
        QTest::newRow("long form") << QByteArray(41, 'x') + "DEIFS";
    }

    void badFirstPackets() {
        QFETCH(QByteArray, packet);
        RawConnection connection(m_link->port, packet);
        QVERIFY(connection.waitClosed());
        QVERIFY(connection.received().isEmpty());
        QVERIFY(m_link->registry.sessions().isEmpty());
        QVERIFY(m_link->listener.connections().isEmpty());
    }

    void closedBeforeAnything() {
        { RawConnection connection(m_link->port); }
        QVERIFY(m_link->speaker(testSerial())->isOpen());
    }

    void secondPort() {
        const quint16 port = freePort(4);
        Severinit registry({}, {}, {}, {}, {}, {}, {}, 0, 0, 20, 0, 0, {}, 0, 0, 0, 0, 0, 0, 0, 0, 0);
        sever_listen listener(3000, port, port + 3);
        listener.set_svi(&registry);
        RawConnection speaker(static_cast<quint16>(port + 3), sim::registrationPacket(testSerial(), 20));
        QVERIFY(speaker.waitReceived("JXXXXX"));
        QVERIFY(registry.isOnline(testSerial().toHex()));
    }

    void ipv6() {
        QTcpSocket speaker;
        speaker.connectToHost(QHostAddress::LocalHostIPv6, m_link->port);
        if (!speaker.waitForConnected(1000))
            QSKIP("this machine has no IPv6");
        speaker.write(sim::registrationPacket(testSerial(), 20));
        QVERIFY(waitFor([&] { return m_link->registry.isOnline(testSerial().toHex()); }));
        QCOMPARE(m_link->session(testSerial())->remoteIp(), QString("::1"));
    }

    void blockedSerial() {
        QTest::ignoreMessage(QtInfoMsg, QRegularExpression("^Reject_list:-> a0+29a"));
        RawConnection connection(m_link->port, sim::registrationPacket(testSerial(666), 20));
        QVERIFY(connection.waitClosed());
        QVERIFY(m_link->registry.sessions().isEmpty());
    }

    void restrictedSerial() {
        m_link->registry.setRestricted(testSerial().toHex(), true);
        RawConnection speaker(m_link->port, sim::registrationPacket(testSerial(), 20));
        QVERIFY(waitFor([&] { return m_link->registry.isOnline(testSerial().toHex()); }));
        QCOMPARE(m_link->session(testSerial())->stopcurl(), -99);
        m_link->registry.setRestricted(testSerial().toHex(), false);
        QCOMPARE(m_link->session(testSerial())->stopcurl(), 2);
        QVERIFY(speaker.waitReceived("A5"));
    }

    void beatsAreNoReports() {
        const auto speaker = m_link->speaker(testSerial());
        fortcpclient* const client = m_link->listener.connections().value(testSerial().toHex());
        QVERIFY(client);
        QByteArrayList reports;
        connect(client, &fortcpclient::backdata, this,
                [&](const QByteArray& bytes) { reports.append(bytes); });
        speaker->send("UA1\x07");
        QVERIFY(waitFor([&] { return client->lastStatus() == 7; }));
        QVERIFY(reports.isEmpty());
        speaker->send("UA1");
        QVERIFY(waitFor([&] { return !reports.isEmpty(); }));
        QCOMPARE(reports, QByteArrayList{"UA1"});
    }

    void secondConnectionTakesOver() {
        const auto first = m_link->speaker(testSerial());
        SAobj* const session = m_link->session(testSerial());
        const auto second = m_link->speaker(testSerial());
        fortcpclient* const client = m_link->listener.connections().value(testSerial().toHex());
        first->forget();
        session->stopcurl();
        QVERIFY(second->waitReceived("A5"));
        QVERIFY(first->received().isEmpty());
        first->send("UA3"); // nobody listens to it
        first->close();
        QVERIFY(holdsFor([&] { return session->isOnline() && !session->isBusy(); }, 50ms));
        QCOMPARE(m_link->listener.connections().value(testSerial().toHex()), client);
        second->close();
        QVERIFY(waitFor([&] { return !session->isOnline(); }));
        QVERIFY(m_link->listener.connections().isEmpty());
    }

    // Somebody elsewhere with the serial of a speaker that is there; the same speaker may always come again.
    void takeovers() {
        const QByteArray packet = sim::registrationPacket(testSerial(), 20);
        const auto speaker = m_link->speaker(testSerial());
        m_link->listener.setKeepBound(true);
        QTest::ignoreMessage(QtWarningMsg,
                             QRegularExpression("^Takeover refused: a0+1 of 127.0.0.1 by 127.0.0.2"));
        RawConnection other(m_link->port, packet, QHostAddress("127.0.0.2"));
        QVERIFY(other.waitClosed() && speaker->isOpen());
        m_link->listener.setKeepBound(false);
        QTest::ignoreMessage(QtWarningMsg,
                             QRegularExpression("^Takeover: a0+1 of 127.0.0.1 by 127.0.0.2 .*far 1$"));
        RawConnection taker(m_link->port, packet, QHostAddress("127.0.0.2"));
        QVERIFY(taker.waitReceived("JXXXXX"));
        QVERIFY(speaker->isOpen()); // for its grace, unless the serial comes once more
        const auto third = m_link->speaker(testSerial());
        QVERIFY(speaker->waitClosed() && taker.isOpen());
        m_link->session(testSerial())->stopcurl();
        QVERIFY(third->waitReceived("A5"));
    }

    void strangersFillTheRegistry() {
        Severinit& registry = m_link->registry;
        int next = 1000;
        const auto enter = [&](const char* address) {
            return registry.admit(testSerial(next++).toHex(), QHostAddress(address), &registry) != nullptr;
        };
        const QString stored = testSerial(-1).toHex();
        registry.setStoredSerials({stored}, {});
        registry.init_vison();
        while (registry.sessions().size() < Severinit::CrowdedSessions)
            QVERIFY(enter("10.0.0.1"));
        // Crowded: a flood brings a few a second, which disturbs nobody else.
        int entered = 0;
        for (int i = 0; i < 1000; ++i)
            entered += enter("10.0.0.1") ? 1 : 0;
        QVERIFY(entered >= Strangers::PerSecond && entered < 1000);
        QVERIFY(enter("10.0.0.2") && enter("2001:db8::1"));
        QVERIFY(registry.admit(testSerial(1000).toHex(), QHostAddress("10.0.0.1"), &registry));
        const QString added = testSerial(-2).toHex();
        registry.tellAgain({added});
        QVERIFY(
            waitFor([&] { return registry.admit(added, QHostAddress("10.0.0.1"), &registry) != nullptr; }));

        // Full: who is offline for the longest goes, but not who is known.
        while (registry.sessions().size() < Severinit::MaxSessions)
            registry.addSession(testSerial(next++).toHex(), &registry);
        QVERIFY(!registry.addSession(testSerial(next).toHex(), &registry)); // nobody has gone offline
        for (const QString& sn :
             {stored, added, QString(testSerial(1007).toHex()), QString(testSerial(1003).toHex())})
            registry.sasn_offline(sn);
        QVERIFY(registry.addSession(testSerial(next++).toHex(), &registry));
        QVERIFY(!m_link->session(testSerial(1007)) && m_link->session(testSerial(1003)));
        registry.forgetStored(added);
        QVERIFY(waitFor([&] {
            registry.addSession(testSerial(next++).toHex(), &registry);
            return !registry.session(added);
        }));
        QVERIFY(registry.session(stored));
        QCOMPARE(registry.sessions().size(), Severinit::MaxSessions);
    }

    void unknownSerialIsDropped() {
        QMap<QString, fortcpclient*> map;
        QTcpServer server;
        QVERIFY(server.listen(QHostAddress::LocalHost));
        RawConnection peer(server.serverPort());
        QVERIFY(waitFor([&] { return server.hasPendingConnections(); }));
        QTcpSocket* const accepted = server.nextPendingConnection();
        auto* const client = new fortcpclient(
            &map,
            std::make_unique<DeviceSocket>(::dup(static_cast<int>(accepted->socketDescriptor())),
                                           QHostAddress::LocalHost),
            "nobody", m_link->registry.env());
        delete accepted;
        QPointer<fortcpclient> guard(client);
        m_link->registry.sasn_online("nobody", client, 1);
        QVERIFY(peer.waitClosed());
        QVERIFY(waitFor([&] { return guard.isNull(); }));
        QVERIFY(m_link->registry.sessions().isEmpty());
        QTest::ignoreMessage(QtInfoMsg, "one device  on  line but not means info databases; nobody");
        m_link->registry.sasn_offline("nobody");
    }

    void speakerThatStopsReading() {
        const auto stalled = m_link->speaker(testSerial(1));
        const auto healthy = m_link->speaker(testSerial(2));
        stalled->stopReading();
        SAobj* const session = m_link->session(testSerial(1));
        const QByteArray list(60'000, 'x');
        int taken = 0;
        int written = 0;
        QTest::ignoreMessage(QtWarningMsg, QRegularExpression("^Speaker does not read, dropped: 127.0.0.1"));
        while (taken < 1000 && (written = session->addMp3list(list)) > 0)
            ++taken;
        QCOMPARE(written, -1);
        QVERIFY(taken * list.size() >= DeviceSocket::MaxBacklog - list.size());
        QVERIFY(session->isOnline()); // never taken offline from inside a command
        m_link->session(testSerial(2))->stopcurl();
        QVERIFY(healthy->waitReceived("A5"));
        QVERIFY(waitFor([&] { return !session->isOnline(); }));
    }

    // With no descriptor left, connections that have said nothing yet give way to a speaker.
    void silentConnectionsMakeRoom() {
        std::vector<std::unique_ptr<RawConnection>> silent;
        silent.reserve(10);
        for (int i = 0; i < 10; ++i)
            silent.push_back(std::make_unique<RawConnection>(m_link->port));
        const int speaker = ::socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(m_link->port);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        QCOMPARE(::connect(speaker, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
        const QByteArray packet = sim::registrationPacket(testSerial(), 20);
        QCOMPARE(::send(speaker, packet.constData(), size_t(packet.size()), 0), ssize_t(packet.size()));

        rlimit limit{};
        getrlimit(RLIMIT_NOFILE, &limit);
        const rlimit tight{rlim_t(speaker) + 20, limit.rlim_max};
        setrlimit(RLIMIT_NOFILE, &tight);
        std::vector<int> rest;
        for (int taken = 0; (taken = ::dup(speaker)) >= 0;)
            rest.push_back(taken);
        const bool registered = waitFor([&] { return m_link->registry.isOnline(testSerial().toHex()); });
        setrlimit(RLIMIT_NOFILE, &limit);
        for (const int descriptor : rest)
            ::close(descriptor);
        ::close(speaker);
        QVERIFY(registered);
        QVERIFY(waitFor([&] { return !silent.front()->isOpen(); }));
    }

private:
    QTemporaryDir m_directory;
    std::unique_ptr<DeviceLink> m_link;
};

int main(int argc, char** argv) {
    return runTest<ListenerTest>(argc, argv);
}
#include "device_listener_test.moc"
