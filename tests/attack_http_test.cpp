#include "support/rawhttp.h"
#include "support/service.h"
#include "support/table.h"
#include "support/testmain.h"
#include "support/waitfor.h"

#include <functional>
#include <sys/resource.h>

Q_DECLARE_METATYPE(std::function<void()>)

/// What strangers may cost the service: memory, descriptors and disk of the real one while it is attacked,
/// and whether it answers others meanwhile.
class AttackHttpTest : public QObject {
    Q_OBJECT
private slots:
    void initTestCase() {
        const rlimit few{MaxDescriptors, MaxDescriptors};
        QCOMPARE(::setrlimit(RLIMIT_NOFILE, &few), 0);
        ServiceOptions options;
        options.settings = {
            {"wbport", freePort()}, {"weborigins", "pages.example"}, {"listener/maxThreads", 16}};
        options.environment = {{"TMPDIR", m_temporary.path()}};
        m_wbport = options.settings.value("wbport").toInt();
        m_service = std::make_unique<Service>(options);
        QVERIFY(m_service->start());
    }

    void memory_data() {
        const Table<std::function<void()>> row{"attack"};
        row("payments with long texts, lists of them unread", [this] {
            QCOMPARE(pay(900'000)["info"], "ParER");
            for (int i = 0; i < 50; ++i)
                QVERIFY(pay(4096).res());
            int busy = 0;
            for (int i = 0; i < 300; ++i)
                ask(list().repeated(3)); // more than the kernel holds for him
            QVERIFY(waitFor([&] {
                const RawAnswer answer = RawHttp::exchange(m_service->httpPort(), list());
                busy += answer.status == 503 && answer.headers.value("retry-after") == "1" ? 1 : 0;
                return busy > 0;
            }));
        });
        row("pings whose answers nobody reads", [this] {
            RawHttp& client = shakeHands();
            for (int i = 0; i < 200; ++i)
                client.send(frame(9, QByteArray(125, 'x')).repeated(8000));
            QVERIFY(client.drain());
        });
        row("messages without their end", [this] {
            for (int i = 0; i < 200; ++i)
                shakeHands().send(frame(1, QByteArray(1'000'000, 'x')).chopped(1));
            QCOMPARE(handshake().status, 101);
        });
    }

    void memory() {
        QFETCH(std::function<void()>, attack);
        const long before = megabytes("VmRSS");
        resetPeak();
        attack();
        [[maybe_unused]] const long grown = megabytes("VmHWM") - before;
#ifndef __SANITIZE_ADDRESS__ // which keeps what was freed
        QVERIFY2(grown <= 64, QByteArray::number(int(grown)));
#endif
        QCOMPARE(RawHttp::exchange(m_service->httpPort(), small()).status, 200);
        m_clients.clear();
    }

    void idleConnectionsMakeRoom() {
        for (int i = 0; i < MaxDescriptors / 4 + 50; ++i)
            m_clients.push_back(std::make_unique<RawHttp>(m_service->httpPort()));
        QCOMPARE(RawHttp::exchange(m_service->httpPort(), small()).status, 200); // its deadline is a third
        m_clients.clear();                                                       // of an idle one's
    }

    void uploads_data() {
        const Table<QByteArray, QByteArray, int> row{"path", "field", "wanted"};
        row("not asked for", "/user/urlplay", "file", 0);
        row("another field", "/user/allfileupload", "file*", 0);
        row("wrong token", "/user/allfileupload?id=1&token=wrong", "file", 0);
        row("stranger's", "/user/allfileupload", "file", 1);
    }

    void uploads() {
        QFETCH(QByteArray, path);
        QFETCH(QByteArray, field);
        QFETCH(int, wanted);
        QByteArray body;
        for (int i = 0; i < (field.endsWith('*') ? 900 : 1); ++i)
            body += "--b\r\nContent-Disposition: form-data; name=\"" +
                    QByteArray(field).replace('*', QByteArray::number(i)) + "\"; filename=\"x\"\r\n\r\nx\r\n";
        ask("POST " + path + " HTTP/1.1\r\nHost: x\r\nContent-Type: multipart/form-data; boundary=b\r\n" +
            "Content-Length: " + QByteArray::number(body.size() + 100) + "\r\n\r\n" + body);
        const auto kept = [this] {
            const auto descriptors =
                QDir(QString("/proc/%1/fd").arg(m_service->pid())).entryInfoList(QDir::Files | QDir::System);
            return std::count_if(descriptors.begin(), descriptors.end(), [this](const QFileInfo& descriptor) {
                return descriptor.symLinkTarget().startsWith(m_temporary.path());
            });
        };
        // Each engine thread has looked at what came before once it has answered somebody later.
        for (int i = 0; i < 8; ++i)
            QCOMPARE(RawHttp::exchange(m_service->httpPort(), small()).status, 200);
        QVERIFY(waitFor([&] { return kept() == wanted; }));
        m_clients.clear();
        QVERIFY(waitFor([&] { return kept() == 0; }));
    }

    void origins_data() {
        const Table<QByteArray, int> row{"origin", "status"};
        row("none", {}, 101);
        row("own, another port", "Origin: http://127.0.0.1:1\r\n", 101);
        row("configured", "Origin: https://Pages.example\r\n", 101);
        row("foreign", "Origin: http://evil.example\r\n", 403);
        row("looks like ours", "Origin: http://127.0.0.1.evil.example\r\n", 403);
        row("opaque", "Origin: null\r\n", 403);
        row("own and foreign", "Origin: http://127.0.0.1\r\nOrigin: http://evil.example\r\n", 403);
        row("two keys", "Sec-WebSocket-Key: x\r\n", 400);
        row("another version", "Sec-WebSocket-Version: 8\r\n", 426);
        row("endless", "X: " + QByteArray(9000, 'x'), 431);
    }

    void origins() {
        QFETCH(QByteArray, origin);
        QTEST(handshake(origin).status, "status");
    }

    void endsWhileAttacked() {
        for (int i = 0; i < 20; ++i)
            shakeHands().send(frame(1, R"({"path":"/user/olist"})").repeated(60));
        QCOMPARE(m_service->stop(), 0);
    }

private:
    static constexpr int MaxDescriptors = 2048;

    HttpReply pay(int bytes) {
        return m_service->http().postForm("/user/odds_fuckpay",
                                          form("sn=x&overtime=2030-01-01&userid=1&fei=1") +
                                              HttpParams{{"info", QString(bytes, 'x')}});
    }
    static QByteArray list() {
        return "POST /user/seemyoder?userid=1 HTTP/1.1\r\nHost: x\r\n\r\n";
    }
    static QByteArray small() {
        return "POST /user/test HTTP/1.1\r\nHost: x\r\n\r\n";
    }
    static QByteArray frame(int opcode, const QByteArray& payload) {
        QByteArray head(1, char(0x80 | opcode));
        if (payload.size() < 126)
            head.append(char(0x80 | payload.size()));
        else
            head.append("\xff").append(4, char(0)).append(bigEndian(payload.size()));
        return head + QByteArray(4, '\0') + payload;
    }
    static QByteArray bigEndian(int value) {
        const quint32 swapped = qToBigEndian(static_cast<quint32>(value));
        return {reinterpret_cast<const char*>(&swapped), sizeof swapped};
    }
    /// A client that asks and does not read.
    RawHttp& ask(const QByteArray& request) {
        m_clients.push_back(std::make_unique<RawHttp>(m_service->httpPort()));
        m_clients.back()->send(request);
        return *m_clients.back();
    }
    RawAnswer handshake(const QByteArray& headers = {}) {
        m_clients.push_back(std::make_unique<RawHttp>(m_wbport));
        m_clients.back()->send(
            "GET / HTTP/1.1\r\nHost: 127.0.0.1:" + QByteArray::number(m_wbport) +
            "\r\nUpgrade: websocket\r\nConnection: keep-alive, Upgrade\r\n"
            "Sec-WebSocket-Version: 13\r\nSec-WebSocket-Key: AAAAAAAAAAAAAAAAAAAAAA==\r\n" +
            headers + "\r\n");
        return m_clients.back()->receive();
    }
    RawHttp& shakeHands() {
        handshake();
        return *m_clients.back();
    }
    long megabytes(const QByteArray& field) const {
        QFile status(QString("/proc/%1/status").arg(m_service->pid()));
        status.open(QIODevice::ReadOnly);
        for (const QByteArray& line : status.readAll().split('\n')) {
            if (line.startsWith(field + ':'))
                return line.mid(field.size() + 1).trimmed().split(' ').first().toLong() / 1024;
        }
        return -1;
    }
    void resetPeak() const {
        QFile peak(QString("/proc/%1/clear_refs").arg(m_service->pid()));
        QVERIFY(peak.open(QIODevice::WriteOnly) && peak.write("5") == 1);
    }

    QTemporaryDir m_temporary;
    int m_wbport = 0;
    std::unique_ptr<Service> m_service;
    std::vector<std::unique_ptr<RawHttp>> m_clients;
};

int main(int argc, char** argv) {
    return runTest<AttackHttpTest>(argc, argv);
}
#include "attack_http_test.moc"
