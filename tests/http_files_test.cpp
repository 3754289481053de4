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
        m_server->files->setUploads({"/sub"});
        m_server->put("digits.txt", "0123456789");
        m_server->put("empty.txt", "");
        m_server->put("page.js", "plain");
        m_server->put("page.js.gz", "packed");
        m_server->put("alone.js", "plain");
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
        const Table<int, QByteArray, QByteArray> row{"status", "type", "body"};
        const char* const text = "text/plain; charset=UTF-8";
        const char* const html = "text/html; charset=UTF-8";
        row("/digits.txt", 200, text, "0123456789");
        row("/digits.txt?v=1", 200, text, "0123456789");
        row("//digits%2Etxt", 200, text, "0123456789");
        row("/empty.txt", 200, text, "");
        row("/song.MP3", 200, "audio/mpeg", "ID3");
        row("/", 200, html, "<p>root</p>");
        row("/sub", 200, html, "<p>sub</p>");
        row("/sub/", 200, html, "<p>sub</p>");
        row("//sub//index.html", 200, html, "<p>sub</p>");
        row("/bare/x.bin", 200, "application/octet-stream", "x");
        row("/%E4%BD%A0%20a.mp3", 200, "audio/mpeg", "name");
        row("/inside", 200, "application/octet-stream", "0123456789");
        row("/nowhere", 404, "text/plain", "");
        row("/bare", 404, "text/plain", "");
        row("/digits.txt/x", 404, "text/plain", "");
        row("/fifo", 404, "text/plain", "");
        row("/../outside.txt", 403, "text/plain", "");
        row("/sub/../../outside.txt", 403, "text/plain", "");
        row("/%2e%2e/outside.txt", 403, "text/plain", "");
        row("/..%2foutside.txt", 403, "text/plain", "");
        row("/sub/..", 403, "text/plain", "");
        row("/.hidden", 403, "text/plain", "");
        row("/outside", 403, "text/plain", "");
        row("/etc/passwd", 403, "text/plain", "");
        row("/loop", 403, "text/plain", "");
    }

    void paths() {
        QFETCH(int, status);
        QFETCH(QByteArray, type);
        QFETCH(QByteArray, body);
        const RawAnswer answer = get(QTest::currentDataTag());
        QCOMPARE(answer.status, status);
        QCOMPARE(answer.headers.value("content-type"), type);
        if (status == 200)
            QCOMPARE(answer.body, body);
        QCOMPARE(answer.headers.value("x-content-type-options"), "nosniff");
        QCOMPARE(answer.headers.contains("content-security-policy"), body == "<p>sub</p>");
    }

    void packed_data() {
        const Table<QByteArray, QByteArray, QByteArray, QByteArray> row{"path", "accepted", "encoding",
                                                                        "body"};
        row("packed", "/page.js", "br, gzip", "gzip", "packed");
        row("not accepted", "/page.js", "br", "", "plain");
        row("refused", "/page.js", "gzip; q=0", "", "plain");
        row("none beside it", "/alone.js", "gzip", "", "plain");
        row("no part of a page", "/song.MP3", "gzip", "", "ID3");
    }

    void packed() {
        QFETCH(QByteArray, path);
        QFETCH(QByteArray, accepted);
        const RawAnswer answer = get(path, "Accept-Encoding: " + accepted + "\r\n");
        QTEST(answer.headers.value("content-encoding"), "encoding");
        QTEST(answer.body, "body");
        QCOMPARE(answer.headers.contains("vary"), path == "/page.js");
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
        const Table<int, QByteArray, QByteArray> add{"status", "contentRange", "body"};
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
        const QByteArray range = QTest::currentDataTag();
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
