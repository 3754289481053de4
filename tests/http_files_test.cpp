#include "support/httpserver.h"
#include "support/rawhttp.h"
#include "support/table.h"
#include "support/testmain.h"

#include <sys/stat.h>
#include <unistd.h>

/// Files of the document root, on the wire.
class HttpFilesTest : public QObject {
    Q_OBJECT

private slots:
    void initTestCase() {
        m_server = std::make_unique<HttpServer>([](HttpRequest&, HttpResponse&) {});
        m_server->put("digits.txt", "0123456789");
        m_server->put("empty.txt", "");
        m_server->put("song.MP3", "ID3");
        m_server->put("index.html", "<p>root</p>");
        m_server->put("sub/index.html", "<p>sub</p>");
        m_server->put("bare/x.bin", "x");
        m_server->put("\xe4\xbd\xa0 a.mp3", "name");
        m_server->put(".hidden", "secret");
        m_server->put("../outside.txt", "secret");
        const QByteArray root = m_server->files->root();
        QCOMPARE(::symlink("digits.txt", (root + "/inside").constData()), 0);
        QCOMPARE(::symlink("../outside.txt", (root + "/outside").constData()), 0);
        QCOMPARE(::symlink("/etc", (root + "/etc").constData()), 0);
        QCOMPARE(::symlink("loop", (root + "/loop").constData()), 0);
        QCOMPARE(::mkfifo((root + "/fifo").constData(), 0600), 0);
    }

    void paths_data() {
        QTest::addColumn<QByteArray>("path");
        QTest::addColumn<int>("status");
        QTest::addColumn<QByteArray>("type");
        QTest::addColumn<QByteArray>("body");
        const auto served = [](const char* path, const char* type, const char* body) {
            QTest::newRow(path) << QByteArray(path) << 200 << QByteArray(type) << QByteArray(body);
        };
        served("/digits.txt", "text/plain; charset=UTF-8", "0123456789");
        served("/digits.txt?v=1", "text/plain; charset=UTF-8", "0123456789");
        served("//digits%2Etxt", "text/plain; charset=UTF-8", "0123456789");
        served("/empty.txt", "text/plain; charset=UTF-8", "");
        served("/song.MP3", "audio/mpeg", "ID3");
        served("/", "text/html; charset=UTF-8", "<p>root</p>");
        served("/sub", "text/html; charset=UTF-8", "<p>sub</p>");
        served("/sub/", "text/html; charset=UTF-8", "<p>sub</p>");
        served("/bare/x.bin", "application/octet-stream", "x");
        served("/%E4%BD%A0%20a.mp3", "audio/mpeg", "name");
        served("/inside", "application/octet-stream", "0123456789");
        const auto refused = [](const char* path, int status) {
            QTest::newRow(path) << QByteArray(path) << status << QByteArray("text/plain") << QByteArray();
        };
        refused("/nowhere", 404);
        refused("/bare", 404);
        refused("/digits.txt/x", 404);
        refused("/fifo", 404);
        refused("/../outside.txt", 403);
        refused("/sub/../../outside.txt", 403);
        refused("/%2e%2e/outside.txt", 403);
        refused("/..%2foutside.txt", 403);
        refused("/sub/..", 403);
        refused("/.hidden", 403);
        refused("/outside", 403);
        refused("/etc/passwd", 403);
        refused("/loop", 403);
    }

    void paths() {
        QFETCH(QByteArray, path);
        QFETCH(int, status);
        QFETCH(QByteArray, type);
        QFETCH(QByteArray, body);
        const RawAnswer answer = get(path);
        QCOMPARE(answer.status, status);
        QCOMPARE(answer.headers.value("content-type"), type);
        if (status == 200)
            QCOMPARE(answer.body, body);
    }

    void methods_data() {
        const Table<QByteArray, int, int> row{"method", "status", "length"};
        row("HEAD", "HEAD", 200, 10);
        row("POST", "POST", 200, 10);
        row("PUT", "PUT", 405, -1);
        row("DELETE", "DELETE", 405, -1);
    }

    void methods() {
        QFETCH(QByteArray, method);
        QFETCH(int, status);
        QFETCH(int, length);
        RawHttp client(m_server->port());
        client.send(method +
                    " /digits.txt HTTP/1.1\r\nHost: x\r\n\r\nGET /empty.txt HTTP/1.1\r\nHost: x\r\n\r\n");
        const RawAnswer answer = client.receive(method != "HEAD");
        QCOMPARE(answer.status, status);
        if (length >= 0)
            QCOMPARE(answer.headers.value("content-length").toInt(), length);
        else
            QCOMPARE(answer.headers.value("allow"), "GET, HEAD, POST");
        const RawAnswer next = client.receive();
        QCOMPARE(next.status, 200);
        QCOMPARE(next.body, QByteArray());
    }

    void parts_data() {
        QTest::addColumn<QByteArray>("range");
        QTest::addColumn<int>("status");
        QTest::addColumn<QByteArray>("contentRange");
        QTest::addColumn<QByteArray>("body");
        const auto add = [](const char* range, int status, const char* contentRange, const char* body) {
            QTest::newRow(range) << QByteArray(range) << status << QByteArray(contentRange)
                                 << QByteArray(body);
        };
        add("bytes=0-0", 206, "bytes 0-0/10", "0");
        add("bytes=3-5", 206, "bytes 3-5/10", "345");
        add("bytes=7-", 206, "bytes 7-9/10", "789");
        add("bytes=7-99", 206, "bytes 7-9/10", "789");
        add("bytes=-3", 206, "bytes 7-9/10", "789");
        add("bytes=-99", 206, "bytes 0-9/10", "0123456789");
        add("Bytes=1-1", 206, "bytes 1-1/10", "1");
        add("bytes=10-", 416, "bytes */10", "");
        add("bytes=-0", 416, "bytes */10", "");
        add("bytes=20-30, 40-", 416, "bytes */10", "");
        add("bytes=0-1, 4-5", 200, "", "0123456789");
        add("bytes=0-1, 40-", 200, "", "0123456789");
        add("bytes=5-3", 200, "", "0123456789");
        add("bytes=a-b", 200, "", "0123456789");
        add("bytes=", 200, "", "0123456789");
        add("bytes=-", 200, "", "0123456789");
        add("bytes=99999999999999999999-", 200, "", "0123456789");
        add("lines=1-2", 200, "", "0123456789");
    }

    void parts() {
        QFETCH(QByteArray, range);
        QFETCH(int, status);
        QFETCH(QByteArray, body);
        const RawAnswer answer = get("/digits.txt", "Range: " + range + "\r\n");
        QCOMPARE(answer.status, status);
        QTEST(answer.headers.value("content-range"), "contentRange");
        QCOMPARE(answer.body, body);
    }

    void conditions_data() {
        const Table<QByteArray, int> add{"headers", "status"};
        const RawAnswer plain = get("/digits.txt");
        const QByteArray etag = plain.headers.value("etag");
        const QByteArray modified = plain.headers.value("last-modified");
        const QByteArray old = "Sun, 06 Nov 1994 08:49:37 GMT";
        add("same tag", "If-None-Match: " + etag + "\r\n", 304);
        add("same tag, weak, in a list", "If-None-Match: \"x\", W/" + etag + "\r\n", 304);
        add("any tag", "If-None-Match: *\r\n", 304);
        add("other tag", "If-None-Match: \"x\"\r\n", 200);
        add("same date", "If-Modified-Since: " + modified + "\r\n", 304);
        add("old date", "If-Modified-Since: " + old + "\r\n", 200);
        add("old form of a date to come", "If-Modified-Since: Saturday, 06-Nov-66 08:49:37 GMT\r\n", 304);
        add("no date", "If-Modified-Since: yesterday\r\n", 200);
        add("tag before date", "If-None-Match: \"x\"\r\nIf-Modified-Since: " + modified + "\r\n", 200);
        add("range of the same file", "Range: bytes=1-2\r\nIf-Range: " + etag + "\r\n", 206);
        add("range of the same date", "Range: bytes=1-2\r\nIf-Range: " + modified + "\r\n", 206);
        add("range of another file", "Range: bytes=1-2\r\nIf-Range: \"x\"\r\n", 200);
        add("range of another date", "Range: bytes=1-2\r\nIf-Range: " + old + "\r\n", 200);
    }

    void conditions() {
        QFETCH(QByteArray, headers);
        QFETCH(int, status);
        RawHttp client(m_server->port());
        client.send("GET /digits.txt HTTP/1.1\r\nHost: x\r\n" + headers +
                    "\r\nHEAD /empty.txt HTTP/1.1\r\nHost: x\r\n\r\n");
        QCOMPARE(client.receive(status != 304).status, status);
        QCOMPARE(client.receive(false).status, 200);
    }

    void changedFileIsNotPatchedTogether() {
        m_server->put("changing.txt", "first");
        const QByteArray etag = get("/changing.txt").headers.value("etag");
        m_server->put("changing.txt", "other");
        const RawAnswer answer = get("/changing.txt", "Range: bytes=2-\r\nIf-Range: " + etag + "\r\n");
        QCOMPARE(answer.status, 200);
        QCOMPARE(answer.body, "other");
    }

    void wholeLargeFile() {
        QByteArray content;
        for (int i = 0; i < 500'000; ++i)
            content += QByteArray::number(i) + '\n';
        m_server->put("large.mp3", content);
        QVERIFY(get("/large.mp3").body == content);
        QVERIFY(get("/large.mp3", "Range: bytes=1000001-\r\n").body == content.mid(1000001));
    }

    void rootMayComeLater() {
        HttpServer server([](HttpRequest&, HttpResponse&) {}, {{"docroot/path", "made/later"}});
        const QByteArray request = "GET /x.txt HTTP/1.1\r\nHost: x\r\n\r\n";
        QCOMPARE(RawHttp::exchange(server.port(), request).status, 404);
        QDir().mkpath(server.directory.filePath("made/later"));
        server.put("../made/later/x.txt", "x");
        QCOMPARE(RawHttp::exchange(server.port(), request).body, "x");
    }

private:
    RawAnswer get(const QByteArray& path, const QByteArray& headers = {}, const QByteArray& method = "GET") {
        return RawHttp::exchange(m_server->port(),
                                 method + ' ' + path + " HTTP/1.1\r\nHost: x\r\n" + headers + "\r\n",
                                 method != "HEAD");
    }
    std::unique_ptr<HttpServer> m_server;
};

int main(int argc, char** argv) {
    return runTest<HttpFilesTest>(argc, argv);
}
#include "http_files_test.moc"
