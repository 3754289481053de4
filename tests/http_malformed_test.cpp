#include "http/httprequest.h"
#include "http/httpresponse.h"
#include "support/httpserver.h"
#include "support/rawhttp.h"
#include "support/table.h"
#include "support/testmain.h"

/// Requests that no library would send: what is refused, and that nothing of one request is ever
/// taken for another.
class HttpMalformedTest : public QObject {
    Q_OBJECT
private slots:
    void initTestCase() {
        const auto echo = [this](HttpRequest& request, HttpResponse& response) {
            ++m_served;
            response.write(request.getMethod() + ' ' + request.getPath() + ' ' + request.getParameter("a") +
                           ' ' + request.getBody());
        };
        m_server =
            std::make_unique<HttpServer>(echo, QMap<QString, QVariant>{{"listener/maxRequestSize", 1000},
                                                                       {"listener/maxMultiPartSize", 20000},
                                                                       {"listener/readTimeout", 500}});
        QVERIFY(m_server->port() > 0);
        m_server->put("file.txt", "file");
    }

    void refused_data() {
        const Table<QByteArray, int> row{"request", "status"};
        const QByteArray post = "POST /api HTTP/1.1\r\nHost: x\r\n";
        const QByteArray hidden = "GET /api/hidden HTTP/1.1\r\nHost: x\r\n\r\n";
        const auto add = [&](const char* name, const QByteArray& request, int status = 400) {
            row(name, request, status);
        };
        add("two equal lengths", post + "Content-Length: 3\r\nContent-Length: 3\r\n\r\nabc");
        add("two lengths", post + "Content-Length: 3\r\nContent-Length: 43\r\n\r\nabc" + hidden);
        add("length list", post + "Content-Length: 3, 3\r\n\r\nabc");
        add("negative length", post + "Content-Length: -1\r\n\r\n");
        add("signed length", post + "Content-Length: +3\r\n\r\nabc");
        add("hexadecimal length", post + "Content-Length: 0x3\r\n\r\nabc");
        add("length with a space", post + "Content-Length: 3 \r\n\r\nabc");
        add("empty length", post + "Content-Length: \r\n\r\n");
        add("huge length", post + "Content-Length: 99999999999999999999\r\n\r\n", 413);
        add("length and chunked",
            post + "Content-Length: 3\r\nTransfer-Encoding: chunked\r\n\r\n0\r\n\r\n" + hidden);
        add("chunked and length", post + "Transfer-Encoding: chunked\r\nContent-Length: 3\r\n\r\n0\r\n\r\n");
        add("unknown coding", post + "Transfer-Encoding: gzip, chunked\r\n\r\n0\r\n\r\n");
        add("coding with a space", post + "Transfer-Encoding: chunked \r\n\r\n0\r\n\r\n");
        add("identity coding", post + "Transfer-Encoding: identity\r\n\r\n" + hidden);
        add("two codings",
            post + "Transfer-Encoding: chunked\r\nTransfer-Encoding: chunked\r\n\r\n0\r\n\r\n");
        add("coding in 1.0", "POST /api HTTP/1.0\r\nTransfer-Encoding: chunked\r\n\r\n0\r\n\r\n");
        add("space before colon", post + "Content-Length : 3\r\n\r\nabc");
        add("tab before colon", post + "Transfer-Encoding\t: chunked\r\n\r\n0\r\n\r\n");
        add("header without colon", post + "Nonsense\r\n\r\n");
        add("empty header name", post + ": x\r\n\r\n");
        add("nameless header that hides a length", post + ": x\r\nContent-Length: 43\r\n\r\n" + hidden);
        add("NUL that hides a length", post + QByteArray("\0\r\nContent-Length: 43\r\n\r\n", 26) + hidden);
        add("NUL in a header", post + QByteArray("Content-Length: 3\0 4\r\n\r\nabc", 27));
        add("folded header", post + "Transfer-Encoding:\r\n chunked\r\n\r\n0\r\n\r\n");
        add("lone LF", "GET /api HTTP/1.1\nHost: x\n\n");
        add("lone LF in a header", post + "X: a\nTransfer-Encoding: chunked\r\n\r\n0\r\n\r\n");
        add("two spaces", "GET  /api HTTP/1.1\r\nHost: x\r\n\r\n");
        add("CR in a header", post + "X: a\rTransfer-Encoding: chunked\r\n\r\n0\r\n\r\n");
        add("control byte in a header", post + "X: a\x01"
                                               "b\r\n\r\n");
        add("chunk size of letters", post + "Transfer-Encoding: chunked\r\n\r\nxyz\r\nabc\r\n0\r\n\r\n");
        add("negative chunk size", post + "Transfer-Encoding: chunked\r\n\r\n-3\r\nabc\r\n0\r\n\r\n");
        add("prefixed chunk size", post + "Transfer-Encoding: chunked\r\n\r\n0x3\r\nabc\r\n0\r\n\r\n");
        add("chunk longer than told", post + "Transfer-Encoding: chunked\r\n\r\n3\r\nabcd\r\n0\r\n\r\n");
        add("overflowing chunk size", post + "Transfer-Encoding: chunked\r\n\r\nfffffffffffffffff\r\nabc\r\n",
            413);
        add("no Host", "GET /api HTTP/1.1\r\n\r\n");
        add("two Hosts", "GET /api HTTP/1.1\r\nHost: a\r\nHost: b\r\n\r\n");
        add("space in path", "GET /api x HTTP/1.1\r\nHost: x\r\n\r\n");
        add("control byte in path", "GET /api\x01 HTTP/1.1\r\nHost: x\r\n\r\n");
        add("fragment", "GET /api#x HTTP/1.1\r\nHost: x\r\n\r\n");
        add("relative path", "GET api HTTP/1.1\r\nHost: x\r\n\r\n");
        add("half an escape", "GET /api%4 HTTP/1.1\r\nHost: x\r\n\r\n");
        add("bad escape", "GET /api%zz HTTP/1.1\r\nHost: x\r\n\r\n");
        add("NUL in path", "GET /api%00.mp3 HTTP/1.1\r\nHost: x\r\n\r\n");
        add("bad escape in query", "GET /api?a=%g1 HTTP/1.1\r\nHost: x\r\n\r\n");
        add("version 2", "GET /api HTTP/2.0\r\nHost: x\r\n\r\n", 505);
        add("bad escape in form",
            post + "Content-Type: application/x-www-form-urlencoded\r\nContent-Length: 4\r\n\r\na=%z");
        add("multipart without boundary",
            post + "Content-Type: multipart/form-data\r\nContent-Length: 4\r\n\r\nabcd");
        add("multipart cut short",
            post + "Content-Type: multipart/form-data; boundary=b\r\nContent-Length: 5\r\n\r\n--b\r\n");
        add("multipart part without name",
            post + "Content-Type: multipart/form-data; boundary=b\r\nContent-Length: 24\r\n\r\n--b\r\nA: "
                   "b\r\n\r\nx\r\n--b--\r\n");
        add("long request line", "GET /api/" + QByteArray(20000, 'x') + " HTTP/1.1\r\nHost: x\r\n\r\n", 414);
        add("long header", post + "X: " + QByteArray(20000, 'x') + "\r\n\r\n", 431);
    }

    void refused() {
        QFETCH(QByteArray, request);
        QFETCH(int, status);
        const int before = m_served;
        RawHttp client(m_server->port());
        client.send(request);
        QCOMPARE(client.receive().status, status);
        QCOMPARE(client.receiveSome(1000), QByteArray()); // one answer, and the end
        QVERIFY(client.drain());
        QCOMPARE(m_served.load(), before);
    }

    void accepted_data() {
        const Table<QByteArray, QByteArray> add{"request", "body"};
        const QByteArray post = "POST /api HTTP/1.1\r\nHost: x\r\n";
        add("plain", "GET /api?a=1%202+3&a=4%2B5 HTTP/1.1\r\nHost: x\r\n\r\n", "GET /api 4+5 ");
        add("absolute form", "GET http://x:80/api?a=1 HTTP/1.1\r\nHost: x\r\n\r\n", "GET /api 1 ");
        add("escaped path", "GET /api/%e4%bd%a0 HTTP/1.1\r\nHost: x\r\n\r\n", "GET /api/\xe4\xbd\xa0  ");
        add("HTTP/1.0 without Host", "GET /api HTTP/1.0\r\n\r\n", "GET /api  ");
        add("chunked",
            post + "Transfer-Encoding: Chunked\r\n\r\n3\r\nabc\r\n2;x=y\r\nde\r\n0\r\nT: x\r\n\r\n",
            "POST /api  abcde");
        add("form",
            post + "Content-Type: application/x-www-form-urlencoded; charset=UTF-8\r\n"
                   "Content-Length: 11\r\n\r\na=%31+2&b=3",
            "POST /api 1 2 a=%31+2&b=3");
        add("other method", "DELETE /api HTTP/1.1\r\nHost: x\r\n\r\n", "DELETE /api  ");
    }

    void accepted() {
        QFETCH(QByteArray, request);
        QFETCH(QByteArray, body);
        const RawAnswer answer = RawHttp::exchange(m_server->port(), request);
        QCOMPARE(answer.status, 200);
        QCOMPARE(answer.body, body);
    }

    void pipelinedRequestsKeepTheirOrder() {
        RawHttp client(m_server->port());
        QByteArray requests;
        for (int i = 0; i < 50; ++i) {
            requests += "POST /api/" + QByteArray::number(i) +
                        " HTTP/1.1\r\nHost: x\r\nContent-Length: 2\r\n\r\n" + QByteArray::number(10 + i) +
                        "GET /file.txt HTTP/1.1\r\nHost: x\r\n\r\n";
        }
        client.send(requests);
        for (int i = 0; i < 50; ++i) {
            QCOMPARE(client.receive().body,
                     "POST /api/" + QByteArray::number(i) + "  " + QByteArray::number(10 + i));
            QCOMPARE(client.receive().body, "file");
        }
    }

    void oversizedIsRefusedAtOnce_data() {
        const Table<QByteArray, QByteArray> row{"head", "piece"};
        const QByteArray post = "POST /api HTTP/1.1\r\nHost: x\r\n";
        const QByteArray multipart = post + "Content-Type: multipart/form-data; boundary=b\r\n";
        const QByteArray field = "--b\r\nContent-Disposition: form-data; name=\"f\"\r\n\r\n";
        row("announced", post + "Content-Length: 1001\r\n\r\n", {});
        row("announced, expecting", post + "Content-Length: 1001\r\nExpect: 100-continue\r\n\r\n", {});
        row("announced and sent", post + "Content-Length: 5000000\r\n\r\n", QByteArray(5000000, 'x'));
        row("chunked", post + "Transfer-Encoding: chunked\r\n\r\n1001\r\n", QByteArray(4097, 'x'));
        row("multipart announced", multipart + "Content-Length: 20001\r\n\r\n", {});
        row("multipart field", multipart + "Content-Length: 15000\r\n\r\n", field + QByteArray(5000, 'x'));
    }

    void oversizedIsRefusedAtOnce() {
        QFETCH(QByteArray, head);
        QFETCH(QByteArray, piece);
        RawHttp client(m_server->port());
        client.send(head);
        client.send(piece);
        QCOMPARE(client.receive().status, 413);
        QVERIFY(client.drain());
    }

    // A client that sends a byte now and then never looks idle to a timeout that each byte restarts.
    void dribbledHeadIsCutOff() {
        RawHttp client(m_server->port());
        client.send("GET /api HTTP/1.1\r\nX: ");
        bool ended = false;
        QDeadlineTimer deadline(RawHttp::Deadline);
        while (!ended && !deadline.hasExpired()) {
            client.send("x");
            QTest::qWait(20);
            ended = client.hasEnded();
        }
        QVERIFY(ended);
    }

private:
    std::unique_ptr<HttpServer> m_server;
    std::atomic<int> m_served{0};
};

int main(int argc, char** argv) {
    return runTest<HttpMalformedTest>(argc, argv);
}
#include "http_malformed_test.moc"
