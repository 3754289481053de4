#include "core/loop/mainloop.h"
#include "core/sql/sqlite.h"
#include "http/httprequest.h"
#include "http/httpresponse.h"
#include "http/httpsessionstore.h"
#include "http/workerpool.h"
#include "support/httpserver.h"
#include "support/rawhttp.h"
#include "support/testmain.h"
#include "support/waitfor.h"

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <set>

namespace {

/// Holds handlers back until it is opened, and counts those that wait.
class Gate {
public:
    void pass() {
        std::unique_lock lock(m_mutex);
        ++m_waiting;
        m_changed.notify_all();
        m_changed.wait(lock, [this] { return m_open; });
        --m_waiting;
    }

    void open() {
        const std::lock_guard lock(m_mutex);
        m_open = true;
        m_changed.notify_all();
    }
    bool waitFor(int count) {
        std::unique_lock lock(m_mutex);
        return m_changed.wait_for(lock, RawHttp::Deadline, [&] { return m_waiting >= count; });
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_changed;
    int m_waiting = 0;
    bool m_open = false;
};

} // namespace

/// Requests that go to a handler: what it is given, what becomes of its answer, and what a handler
/// that takes its time does to everything else.
class HttpControllersTest : public QObject {
    Q_OBJECT
private slots:
    void requestAsTheHandlerSeesIt() {
        QStringList seen;
        HttpServer server([&](HttpRequest& request, HttpResponse&) {
            seen << request.getMethod() << request.getPath() << request.getRawPath() << request.getVersion()
                 << request.getParameter("a") << request.getParameter("b") << request.getHeader("x-thing")
                 << request.getHeaderMap().value("X-Thing") << request.getCookie("two")
                 << request.getPeerAddress().toString() << (request.getUploadedFile("f") ? "file" : "none");
        });
        RawHttp::exchange(server.port(),
                          "POST /api/x%20y?a=1&b=2 HTTP/1.1\r\nHost: x\r\nX-Thing: v\r\n"
                          "Cookie: one=1; two=2\r\nContent-Type: application/x-www-form-urlencoded\r\n"
                          "Content-Length: 3\r\n\r\nb=3");
        QCOMPARE(seen, QStringList({"POST", "/api/x y", "/api/x%20y", "HTTP/1.1", "1", "3", "v", "v", "2",
                                    "127.0.0.1", "none"}));
    }

    void answerAsTheClientSeesIt() {
        HttpServer server([](HttpRequest&, HttpResponse& response) {
            response.setStatus(409);
            response.setHeader("X-Fine", "1");
            response.setHeader("X-Split", "a\r\nX-Injected: b");
            response.setHeader("X-Na\nme", "a");
            response.setCookie("c", "v\r\nX-Injected: b");
            response.setCookie("good", "v");
            response.write("first ");
            response.write("last", true);
            response.write("never");
        });
        const RawAnswer answer = RawHttp::exchange(server.port(), get("/api"));
        QCOMPARE(answer.status, 409);
        QCOMPARE(answer.body, "first last");
        QCOMPARE(answer.headers.value("x-fine"), "1");
        QVERIFY(!answer.headers.contains("x-split"));
        QVERIFY(!answer.headers.contains("x-injected"));
        QVERIFY(answer.headers.value("set-cookie").startsWith("good=v;"));
    }

    void headHasNoBody() {
        HttpServer server(
            [](HttpRequest& request, HttpResponse& response) { response.write(request.getMethod(), true); });
        RawHttp client(server.port());
        client.send("HEAD /api HTTP/1.1\r\nHost: x\r\n\r\n" + get("/api"));
        QCOMPARE(client.receive(false).headers.value("content-length"), "4");
        QCOMPARE(client.receive().body, "GET");
    }

    void uploadGoesToDisk() {
        QByteArray file;
        QString diskName;
        QStringList seen;
        HttpServer server([&](HttpRequest& request, HttpResponse&) {
            QTemporaryFile* upload = request.getUploadedFile("f");
            diskName = upload->fileName();
            file = upload->readAll();
            seen << request.getUploadedFileName("f") << request.getParameter("a")
                 << request.getParameter("empty") << QString::number(request.getBody().size())
                 << (request.getUploadedFile("other") ? "other" : "none");
        });
        const QByteArray content = QByteArray("\r\n--b\r\r\n--").repeated(500'000);
        const QByteArray part = "--bound\r\nContent-Disposition: form-data; name=";
        const QByteArray body = part + "\"a\"\r\n\r\n1\r\n" + part + "\"f\"; filename=\"x.mp3\"\r\n\r\n" +
                                content + "\r\n" + part + "\"empty\"; filename=\"\"\r\n\r\n\r\n" + part +
                                "\"other\"; filename=\"y\"\r\n\r\ny\r\n--bound--\r\n";
        const RawAnswer answer = RawHttp::exchange(
            server.port(),
            "POST /api HTTP/1.1\r\nHost: x\r\nExpect: 100-continue\r\nContent-Type: multipart/form-data; "
            "boundary=bound\r\nContent-Length: " +
                QByteArray::number(body.size()) + "\r\n\r\n" + body);
        QCOMPARE(answer.status, 200);
        QCOMPARE(seen, QStringList({"x.mp3", "1", "", "0", "none"}));
        QVERIFY(file == content);
        QVERIFY(waitFor([&] { return !QFile::exists(diskName); }));
    }

    /// Strangers have a share of their own; files that nobody wants take none.
    void uploadsAtOnceAreBounded() {
        HttpServer server([](HttpRequest&, HttpResponse&) {});
        const QByteArray part = "--b\r\nContent-Disposition: form-data; name=\"f\"; filename=\"x\"\r\n\r\nx";
        const auto upload = [&](FileFate fate, const QByteArray& rest) {
            return "POST /api?fate=" + QByteArray::number(int(fate)) +
                   " HTTP/1.1\r\nHost: x\r\nContent-Type: multipart/form-data; boundary=b\r\n"
                   "Content-Length: " +
                   QByteArray::number(part.size() + 9) + "\r\n\r\n" + part + rest;
        };
        std::vector<std::unique_ptr<RawHttp>> clients;
        for (const FileFate fate : {FileFate::FromStranger, FileFate::Refused, FileFate::FromUser}) {
            for (int i = 0; i <= BodyBudget::Files::MaxCount; ++i) {
                clients.push_back(std::make_unique<RawHttp>(server.port()));
                clients.back()->send(upload(fate, {}));
            }
        }
        const auto refused = [&] {
            return std::count_if(clients.begin(), clients.end(),
                                 [](const auto& client) { return client->hasData(); });
        };
        QVERIFY(waitFor([&] { return refused() == 2; }));
        for (const auto& client : clients) {
            if (client->hasData())
                QCOMPARE(client->receive().headers.value("retry-after"), "1");
        }
        QCOMPARE(RawHttp::exchange(server.port(), get("/api")).status, 200);
        clients.clear();
        const QByteArray whole = upload(FileFate::FromUser, "\r\n--b--\r\n");
        QVERIFY(waitFor([&] { return RawHttp::exchange(server.port(), whole).status == 200; }));
    }

    void workersComeAndGo() {
        Gate gate;
        HttpServer server(
            [&](HttpRequest&, HttpResponse&) { gate.pass(); },
            {{"listener/minThreads", 2}, {"listener/maxThreads", 6}, {"listener/cleanupInterval", 200}});
        server.put("x.txt", "x");
        std::vector<std::unique_ptr<RawHttp>> clients;
        for (int i = 0; i < 12; ++i) {
            clients.push_back(std::make_unique<RawHttp>(server.port()));
            clients.back()->send(get("/api"));
        }
        QVERIFY(gate.waitFor(6));
        QCOMPARE(server.listener->workerCount(), 6);
        QCOMPARE(RawHttp::exchange(server.port(), get("/x.txt")).body, "x"); // files need no worker
        gate.open();
        for (const auto& client : clients)
            QCOMPARE(client->receive().status, 200);
        QVERIFY(waitFor([&] { return server.listener->workerCount() == 2; }));
        QCOMPARE(RawHttp::exchange(server.port(), get("/api")).status, 200);
    }

    void fullQueueIsRefused() {
        Gate gate;
        HttpServer server([&](HttpRequest&, HttpResponse&) { gate.pass(); },
                          {{"listener/minThreads", 1}, {"listener/maxThreads", 1}});
        std::vector<std::unique_ptr<RawHttp>> clients;
        constexpr int fits = static_cast<int>(WorkerPool::MaxQueued) + 1; // the one that runs, and the queue
        for (int i = 0; i < fits + 10; ++i) {
            clients.push_back(std::make_unique<RawHttp>(server.port()));
            clients.back()->send(get("/api"));
            if (i == 0)
                QVERIFY(gate.waitFor(1));
        }
        // The refused answer at once, the others when the gate opens.
        int refused = 0;
        QVERIFY(waitFor([&] {
            refused = static_cast<int>(std::count_if(clients.begin(), clients.end(),
                                                     [](const auto& client) { return client->hasData(); }));
            return refused == 10;
        }));
        gate.open();
        int busy = 0;
        for (const auto& client : clients)
            busy += client->receive().status == 503 ? 1 : 0;
        QCOMPARE(busy, 10);
    }

    void vanishedClientsAreForgotten() {
        Gate gate;
        std::atomic<int> served{0};
        HttpServer server([&](HttpRequest& request, HttpResponse& response) {
            gate.pass();
            response.write(request.getBody() + QByteArray(1'000'000, 'x'));
            ++served;
        });
        for (int i = 0; i < 30; ++i) {
            RawHttp client(server.port());
            client.send("POST /api HTTP/1.1\r\nHost: x\r\nContent-Length: 3\r\n\r\nabc");
            QVERIFY(gate.waitFor(i + 1));
        }
        RawHttp halfSent(server.port());
        halfSent.send("POST /api HTTP/1.1\r\nHost: x\r\nContent-Length: 3\r\n\r\na");
        halfSent.close();
        gate.open();
        QVERIFY(waitFor([&] { return served == 30; }));
        QCOMPARE(RawHttp::exchange(server.port(), get("/api")).body.size(), 1'000'000);
    }

    void slowReadersKeepNoThread() {
        HttpServer server([](HttpRequest&, HttpResponse& response) { response.write("x"); });
        server.put("song.mp3", QByteArray(4'000'000, 'x'));
        QCOMPARE(RawHttp::exchange(server.port(), get("/api")).status, 200);
        const auto threads = [] {
            return QDir("/proc/self/task").entryList(QDir::Dirs | QDir::NoDotAndDotDot).size();
        };
        const int before = threads();
        std::vector<std::unique_ptr<RawHttp>> readers;
        for (int i = 0; i < 200; ++i) {
            readers.push_back(std::make_unique<RawHttp>(server.port()));
            readers.back()->send(get("/song.mp3"));
            QVERIFY(!readers.back()->receiveSome(1000).isEmpty());
        }
        QCOMPARE(RawHttp::exchange(server.port(), get("/api")).status, 200);
        QCOMPARE(threads(), before);
    }

    void eachWorkerHasItsDatabase() {
        QTemporaryDir directory;
        const QString previous = QDir::currentPath();
        QDir::setCurrent(directory.path());
        sqlite database({}, 0, {}, {}, {}, 3);
        database.init();
        std::mutex mutex;
        std::set<sqlite*> seen;
        Gate gate;
        {
            HttpServer server(
                [&](HttpRequest& request, HttpResponse& response) {
                    gate.pass();
                    sqlite* own = request.database();
                    response.write(own->run("SELECT 1 AS `one`").text(0, "one").toUtf8());
                    const std::lock_guard lock(mutex);
                    seen.insert(own);
                },
                {}, &database);
            RawHttp first(server.port());
            RawHttp second(server.port());
            first.send(get("/api"));
            second.send(get("/api"));
            QVERIFY(gate.waitFor(2));
            gate.open();
            QCOMPARE(first.receive().body, "1");
            QCOMPARE(second.receive().body, "1");
        }
        QCOMPARE(seen.size(), std::size_t(2));
        QCOMPARE(seen.count(&database), std::size_t(0));
        QDir::setCurrent(previous);
    }

    // A handler may wait for the main loop, which is the thread that closes the listener.
    void closeFinishesWhatRuns() {
        Gate gate;
        QObject onMainLoop;
        HttpServer server([&](HttpRequest&, HttpResponse& response) {
            gate.pass();
            response.write(callOnLoop(&onMainLoop, [] { return QByteArray("from the main loop"); }));
        });
        RawHttp client(server.port());
        client.send(get("/api"));
        QVERIFY(gate.waitFor(1));
        gate.open();
        server.listener->close();
        QVERIFY(!server.listener->isListening());
        QCOMPARE(client.receive().body, "from the main loop");
        QVERIFY(client.drain());
    }

    void sessions() {
        HttpSessionStore store({std::chrono::seconds(1), "sid"});
        HttpServer server([&](HttpRequest& request, HttpResponse& response) {
            HttpSession session = store.getSession(request, response);
            session.set("visits", session.get("visits").toInt() + 1);
            response.write(session.get("visits").toByteArray());
        });
        const RawAnswer first = RawHttp::exchange(server.port(), get("/api"));
        const QByteArray cookie = "Cookie: " + first.headers.value("set-cookie").split(';').first() + "\r\n";
        QVERIFY(cookie.startsWith("Cookie: sid="));
        const RawAnswer second = RawHttp::exchange(server.port(), get("/api", cookie));
        QCOMPARE(second.body, "2");
        QVERIFY(!second.headers.contains("set-cookie"));
        QCOMPARE(RawHttp::exchange(server.port(), get("/api", "Cookie: sid=forged\r\n")).body, "1");
        QCOMPARE(store.sessionCount(), 2);
        QVERIFY(waitFor([&] { return store.sessionCount() == 0; }));
        QCOMPARE(RawHttp::exchange(server.port(), get("/api", cookie)).body, "1");
    }

private:
    static QByteArray get(const QByteArray& path, const QByteArray& headers = {}) {
        return "GET " + path + " HTTP/1.1\r\nHost: x\r\n" + headers + "\r\n";
    }
};

int main(int argc, char** argv) {
    return runTest<HttpControllersTest>(argc, argv);
}
#include "http_controllers_test.moc"
