#include "core/mp3frames.h"
#include "support/httpserver.h"
#include "support/rawhttp.h"
#include "support/table.h"
#include "support/testmain.h"

#include <array>
#include <cmath>
#include <mpg123.h>
#include <QProcess>
#include <random>
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

    void fromAMoment_data() {
        const Table<QStringList, double> add{"encoding", "from"};
        add("constant rate", {"-b", "128"}, 4.37);
        add("near the beginning", {"-b", "128"}, 0.08);
        add("variable rate", {"-V", "4"}, 7.0);
        add("mono, low rate", {"-m", "m", "--resample", "22.05", "-b", "24"}, 5.5);
        add("with checksums and tags", {"-b", "96", "-p", "--tt", "Title", "--add-id3v2"}, 9.99);
    }

    /// What is decoded from there on is what the whole file holds there, to the decoder's rounding, once the
    /// silent frame in front and the one that overlaps with it are over.
    void fromAMoment() {
        QFETCH(QStringList, encoding);
        QFETCH(double, from);
        m_server->put("noise.wav", noise(12));
        const QString docroot = m_server->files->root();
        QCOMPARE(QProcess::execute("lame", QStringList{"--quiet"} + encoding +
                                               QStringList{docroot + "/noise.wav", docroot + "/noise.mp3"}),
                 0);
        const QByteArray whole = get("/noise.mp3").body;
        const QByteArray path = "/noise.mp3?from=" + QByteArray::number(from);
        const RawAnswer cut = get(path);
        QCOMPARE(cut.status, 200);
        QVERIFY(!cut.body.contains("Xing") && !cut.body.contains("Info"));
        const QVector<mp3::Frame> frames = mp3::frames(whole);
        const int first = int(from * frames[0].sampleRate / frames[0].samples);
        const QVector<mp3::Frame> left = mp3::frames(cut.body);
        const int silent = int(left.size() - (frames.size() - first));
        QVERIFY(silent == 0 || silent == 1);
        QCOMPARE(left.last().offset + left.last().bytes - left[silent].offset,
                 frames.last().offset + frames.last().bytes - frames[first].offset);
        const int skipped = (silent + 2) * frames[0].samples;
        const Sound all = decoded(whole);
        const Sound rest = decoded(cut.body);
        QCOMPARE(rest.complaints, 0);
        QVERIFY(difference(rest.samples.mid(skipped * rest.channels),
                           all.samples.mid((first + 2) * frames[0].samples * all.channels)) <= 1);

        const RawAnswer range = get(path, "Range: bytes=7-2006\r\n");
        QCOMPARE(range.status, 206);
        QCOMPARE(range.headers.value("content-range"), "bytes 7-2006/" + QByteArray::number(cut.body.size()));
        QVERIFY(range.body == cut.body.mid(7, 2000));
        QVERIFY(get(path, "Range: bytes=5000-\r\n").body == cut.body.mid(5000));
        QCOMPARE(get(path, "If-None-Match: " + cut.headers.value("etag") + "\r\n").status, 304);
        QCOMPARE(get("/noise.mp3", "If-None-Match: " + cut.headers.value("etag") + "\r\n").status, 200);
        QCOMPARE(get(path, {}, "HEAD").headers.value("content-length").toInt(), cut.body.size());
    }

    void fromNowhere() {
        QCOMPARE(get("/noise.mp3?from=12.5").status, 416);
        for (const char* const wrong : {"-1", "x", "nan", "inf", "1e99"})
            QCOMPARE(get(QByteArray("/noise.mp3?from=") + wrong).status, 400);
        QCOMPARE(get("/digits.txt?from=3").body, "0123456789");
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
    struct Sound {
        int channels = 0;
        int complaints = 0;
        QVector<qint16> samples;
    };

    /// As it comes, without what an encoder's header says of delays.
    static Sound decoded(const QByteArray& file) {
        Sound sound;
        const std::unique_ptr<mpg123_handle, decltype(&mpg123_delete)> handle(mpg123_new(nullptr, nullptr),
                                                                              &mpg123_delete);
        mpg123_param(handle.get(), MPG123_ADD_FLAGS, MPG123_QUIET, 0);
        mpg123_param(handle.get(), MPG123_REMOVE_FLAGS, MPG123_GAPLESS, 0);
        mpg123_open_feed(handle.get());
        mpg123_feed(handle.get(), reinterpret_cast<const unsigned char*>(file.constData()),
                    size_t(file.size()));
        std::array<qint16, 4608> block{};
        size_t bytes = 0;
        for (int result = MPG123_NEW_FORMAT; result == MPG123_NEW_FORMAT || result == MPG123_OK;) {
            result = mpg123_read(handle.get(), block.data(), sizeof block, &bytes);
            std::copy_n(block.begin(), bytes / sizeof(qint16), std::back_inserter(sound.samples));
            sound.complaints += result == MPG123_ERR;
        }
        long rate = 0;
        int encoding = 0;
        mpg123_getformat(handle.get(), &rate, &sound.channels, &encoding);
        return sound;
    }

    static int difference(const QVector<qint16>& one, const QVector<qint16>& other) {
        int largest = one.size() == other.size() && !one.isEmpty() ? 0 : INT_MAX;
        for (int i = 0; largest != INT_MAX && i < one.size(); ++i)
            largest = std::max(largest, std::abs(one.at(i) - other.at(i)));
        return largest;
    }

    static QByteArray noise(int seconds) {
        constexpr int Rate = 44100;
        std::mt19937 random(7);
        QByteArray samples;
        for (int i = 0; i < seconds * Rate; ++i) {
            const double loudness = i / (Rate / 4) % 5 == 0 ? 9000 : 300;
            const auto sample = qint16(loudness * (std::sin(i * 0.05) + double(random() % 1000) / 1000));
            samples.append(reinterpret_cast<const char*>(&sample), sizeof sample);
            samples.append(reinterpret_cast<const char*>(&sample), sizeof sample);
        }
        const auto number = [](quint32 value) {
            return QByteArray(reinterpret_cast<const char*>(&value), 4);
        };
        return "RIFF" + number(quint32(samples.size()) + 36) + "WAVEfmt " + number(16) +
               QByteArray("\1\0\2\0", 4) + number(Rate) + number(Rate * 4) + QByteArray("\4\0\20\0", 4) +
               "data" + number(quint32(samples.size())) + samples;
    }

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
