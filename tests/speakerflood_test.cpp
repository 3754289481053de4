// The running service against somebody who registers speakers that are none.
#include "support/devicelink.h"
#include "support/service.h"
#include "support/testmain.h"
#include "support/waitfor.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

using namespace std::chrono_literals;

namespace {

/// A blocking connection that has registered; reset when it is closed, so that no port waits.
int registered(quint16 port, const QByteArray& serial) {
    const int descriptor = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const linger reset{1, 0};
    ::setsockopt(descriptor, SOL_SOCKET, SO_LINGER, &reset, sizeof reset);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const QByteArray packet = sim::registrationPacket(serial, 20);
    if (::connect(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
        ::send(descriptor, packet.constData(), size_t(packet.size()), 0) != packet.size())
        qFatal("no connection");
    return descriptor;
}

int descriptorsOf(const Service& service) {
    return QDir(QString("/proc/%1/fd").arg(service.pid()))
        .entryList(QDir::NoDotAndDotDot | QDir::AllEntries)
        .size();
}

qint64 residentKilobytes(const Service& service) {
    QFile status(QString("/proc/%1/status").arg(service.pid()));
    if (!status.open(QIODevice::ReadOnly))
        qFatal("no process");
    const auto match = QRegularExpression("VmRSS:\\s+(\\d+)").match(QString::fromLatin1(status.readAll()));
    return match.captured(1).toLongLong();
}

bool getsIn(quint16 port, const QByteArray& serial, const char* from) {
    RawConnection speaker(port, sim::registrationPacket(serial, 20), QHostAddress(from));
    return speaker.waitReceived("JXXXXX");
}

} // namespace

class SpeakerFloodTest : public QObject {
    Q_OBJECT
private slots:
    void init() {
        m_service = std::make_unique<Service>();
        m_service->sql(QString("INSERT INTO sbox_device_info (user_id, device_seed) VALUES (1, '%1')")
                           .arg(QString::fromLatin1(testSerial(-1).toHex())));
        QVERIFY(m_service->start());
    }

    void oneSerialAgainAndAgain() {
        const int before = descriptorsOf(*m_service);
        std::vector<int> connections(3000);
        for (int& descriptor : connections)
            descriptor = registered(m_service->devicePort(), testSerial(0));
        QVERIFY(waitFor([&] { return descriptorsOf(*m_service) <= before + 10; }, 10s));
        QVERIFY(getsIn(m_service->devicePort(), testSerial(1), "127.0.0.1"));
        for (const int descriptor : connections)
            ::close(descriptor);
    }

    void madeUpSerials() {
        constexpr int AtOnce = 250;
        [[maybe_unused]] const qint64 before = residentKilobytes(*m_service);
        std::array<int, AtOnce> connections{};
        for (int serial = 0; serial < Severinit::CrowdedSessions + 1000;) {
            for (int& descriptor : connections)
                descriptor = registered(m_service->devicePort(), testSerial(serial++));
            for (const int descriptor : connections) {
                char answer = 0; // waiting, the test takes what the service logs
                QVERIFY(waitFor([&] {
                    return ::recv(descriptor, &answer, 1, MSG_DONTWAIT | MSG_PEEK) >= 0 || errno != EAGAIN;
                }));
                ::close(descriptor);
            }
        }
        QVERIFY(getsIn(m_service->devicePort(), testSerial(-1), "127.0.0.1")); // the database knows it
        QVERIFY(getsIn(m_service->devicePort(), testSerial(-2), "127.0.0.2")); // from elsewhere
        int stranger = -2;
        QVERIFY(waitFor(
            [&] { // a second later, the next stranger makes the log tell
                getsIn(m_service->devicePort(), testSerial(--stranger), "127.0.0.3");
                return m_service->log().contains("Registry crowded, new serials not admitted: ");
            },
            20s));
#ifndef __SANITIZE_ADDRESS__
        const qint64 grown = residentKilobytes(*m_service) - before;
        QVERIFY2(grown < 64 * 1024, qPrintable(QString::number(grown)));
#endif
        QCOMPARE(m_service->stop(), 0);
    }

private:
    std::unique_ptr<Service> m_service;
};

int main(int argc, char** argv) {
    return runTest<SpeakerFloodTest>(argc, argv);
}

#include "speakerflood_test.moc"
