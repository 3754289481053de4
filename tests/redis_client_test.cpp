#include "redis/qtredis.h"
#include "support/table.h"
#include "support/testmain.h"

#include <functional>
#include <QSignalSpy>
#include <QTcpServer>
#include <QTimer>

namespace {

/// Accepts one client after the other, keeps what it sends and answers each arrival with the next entry.
class ScriptedServer : public QTcpServer {
public:
    explicit ScriptedServer(QByteArrayList answers = {})
        : m_answers(std::move(answers)) {
        listen(QHostAddress::LocalHost);
        connect(this, &QTcpServer::newConnection, this, [this] {
            socket = nextPendingConnection();
            connect(socket, &QTcpSocket::readyRead, this, [this] {
                received += socket->readAll();
                if (!m_answers.isEmpty())
                    socket->write(m_answers.takeFirst());
            });
        });
    }

    QByteArray received;
    QTcpSocket* socket = nullptr;

private:
    QByteArrayList m_answers;
};

QString localhost() {
    return QStringLiteral("127.0.0.1");
}

using Lists = QList<QStringList>;

Lists allReplies(ReplyStream& stream) {
    Lists lists;
    for (auto result = stream.next(); result.status == ReplyStream::Status::Reply; result = stream.next())
        lists << result.reply;
    return lists;
}

} // namespace

using Call = std::function<QVariant(QtRedis&)>;

Q_DECLARE_METATYPE(Call)

class RedisClientTest : public QObject {
    Q_OBJECT
private slots:
    void requests_data() {
        const Table<QString, QByteArray> row{"line", "wire"};
        row("plain", "SET a b", "*3\r\n$3\r\nSET\r\n$1\r\na\r\n$1\r\nb\r\n");
        row("quoted", "HSET k f \"hello world\"",
            "*4\r\n$4\r\nHSET\r\n$1\r\nk\r\n$1\r\nf\r\n$11\r\nhello world\r\n");
        row("escaped quote", "A \"x\\\"y\" z\\n", "*3\r\n$1\r\nA\r\n$3\r\nx\"y\r\n$3\r\nz\\n\r\n");
        row("every blank", QString(" A\t\v\f\r\nB%1C%2D ").arg(QChar(0x85)).arg(QChar(0xa0)),
            "*4\r\n$1\r\nA\r\n$1\r\nB\r\n$1\r\nC\r\n$1\r\nD\r\n");
        row("characters, not bytes", "GET 在线", "*2\r\n$3\r\nGET\r\n$2\r\n\xe5\x9c\xa8\xe7\xba\xbf\r\n");
        row("placeholder", "GET %1", "*2\r\n$3\r\nGET\r\n$2\r\n%1\r\n");
    }

    void requests() {
        QFETCH(QString, line);
        ScriptedServer server({"+OK\r\n"});
        QtRedis client(localhost(), server.serverPort(), nullptr);
        QVERIFY(client.openConnection());
        client.command(line);
        QTEST(server.received, "wire");
    }

    void chunks_data() {
        const Table<QString, QStringList> row{"chunk", "list"};
        row("error", "-ERR x\r\n", {"error", "ERR x\r\n"});
        row("integer", ":12\r\n", {"integer", "12\r\n"});
        row("status", "+OK\r\n", {"string", "OK\r\n"});
        row("other", "OK", {"string", "K"});
        row("empty", "", {"string", ""});
        row("bulk", "$5\r\na\r\nbc\r\n", {"bulk", "a\r\nbc"});
        row("no bulk", "$-1\r\n", {"bulk", "NULL"});
        row("bulk cut short", "$5\r\nab", {"bulk", "ab"});
        row("list", "*3\r\n$1\r\na\r\n$-1\r\n$0\r\n\r\n", {"list", "a", "NULL", ""});
        row("no list", "*-1\r\n", {"list"});
        row("list cut short", "*9\r\n$1\r\na\r\n$4\r\nbc", {"list", "a", "bc"});
        row("count beyond reason", "*2000000000\r\n$1\r\na\r\n", {"list", "a"});
        row("two replies", "$1\r\na\r\n:5\r\n", {"bulk", "a"});
        row("two lists", "*1\r\n$1\r\na\r\n*1\r\n$1\r\nb\r\n", {"list", "a"});
        row("integer entry", "*3\r\n$9\r\nsubscribe\r\n$1\r\nc\r\n:1\r\n", {"list", "subscribe", "c", "1"});
        row("lengths count characters", "$2\r\n在线\r\n", {"bulk", "在线"});
    }

    void chunks() {
        QFETCH(QString, chunk);
        Reader reader(localhost(), 1);
        QSignalSpy spy(&reader, &Reader::response);
        reader.readLine(chunk);
        QCOMPARE(spy.size(), 1);
        QTEST(spy[0][0].toStringList(), "list");
    }

    void streams_data() {
        const Table<QByteArray, Lists> row{"bytes", "lists"};
        row("two replies", "$2\r\nab\r\n:5\r\n", {{"bulk", "ab"}, {"integer", "5\r\n"}});
        row("list", "*3\r\n$1\r\na\r\n$-1\r\n$0\r\n\r\n+x\r\n",
            {{"list", "a", "NULL", ""}, {"string", "x\r\n"}});
        row("no list", "*-1\r\n*0\r\n", {{"list"}, {"list"}});
        row("nested", "*2\r\n*2\r\n$1\r\na\r\n:7\r\n$1\r\nb\r\n+x\r\n",
            {{"list", "a", "7", "b"}, {"string", "x\r\n"}});
        row("lengths count bytes", "*2\r\n$6\r\n在线\r\n$1\r\nb\r\n", {{"list", "在线", "b"}});
        row("line end inside", "$4\r\na\r\nb\r\n-ERR no\r\n", {{"bulk", "a\r\nb"}, {"error", "ERR no\r\n"}});
    }

    void streams() {
        QFETCH(QByteArray, bytes);
        QFETCH(Lists, lists);
        ReplyStream joined;
        joined.append(bytes);
        QCOMPARE(allReplies(joined), lists);
        ReplyStream split;
        Lists collected;
        for (const char byte : bytes) {
            split.append(QByteArray(1, byte));
            collected += allReplies(split);
        }
        QCOMPARE(collected, lists);
    }

    void brokenStreams_data() {
        const Table<QByteArray> row{"bytes"};
        row("no number", "$x\r\n");
        row("negative", "*1\r\n$-2\r\n");
        row("bulk too long", "$99999999999\r\n");
        row("too many entries", "*99999999\r\n");
        row("nested sum", "*16000000\r\n*16000000\r\n");
        row("no header", "\r\n");
        row("endless header", QByteArray(ReplyStream::MaxReplyBytes + 1, 'x'));
    }

    void brokenStreams() {
        QFETCH(QByteArray, bytes);
        ReplyStream stream;
        stream.append(bytes);
        QVERIFY(stream.next().status == ReplyStream::Status::Broken);
        stream.append("+OK\r\n");
        QVERIFY(stream.next().status == ReplyStream::Status::Broken);
        stream.reset();
        stream.append("+OK\r\n");
        QCOMPARE(stream.next().reply, QStringList({"string", "OK\r\n"}));
    }

    void methods_data() {
        const Table<QByteArray, QVariant, Call> row{"answer", "value", "call"}; // a row's name is the request
        const QtRedis::Map map{{"b", 2}, {"a", "x"}};
        row("AUTH pw", "+OK\r\n", false, [](QtRedis& r) { return r.auth("pw"); });
        row("SET k v", "$2\r\nOK\r\n", true, [](QtRedis& r) { return r.set("k", "v"); });
        row("GET k", "$-1\r\n", "NULL", [](QtRedis& r) { return r.get("k"); });
        row("GET e", "-ERR\r\n", "ERR\r\n", [](QtRedis& r) { return r.get("e"); });
        row("TYPE k", "+hash\r\n", "hash\r\n", [](QtRedis& r) { return r.type("k"); });
        row("HSET k f v", ":1\r\n", true, [](QtRedis& r) { return r.hset("k", "f", "v"); });
        row("EXISTS k", ":0\r\n", false, [](QtRedis& r) { return r.exists("k"); });
        row("EXISTS e", "-ERR\r\n", false, [](QtRedis& r) { return r.exists("e"); });
        row("LLEN k", ":10000\r\n", 10000, [](QtRedis& r) { return r.llen("k"); });
        row("LLEN e", "-WRONGTYPE\r\n", 0, [](QtRedis& r) { return r.llen("e"); });
        row("LINDEX k -1", "$2\r\n42\r\n", 42, [](QtRedis& r) { return r.lindex("k", -1); });
        row("LRANGE k 0 -1", "*2\r\n$1\r\na\r\n$-1\r\n", QStringList({"a", "NULL"}),
            [](QtRedis& r) { return r.lrange("k", 0, -1); });
        row("LRANGE e 0 1", "-ERR\r\n", QStringList(), [](QtRedis& r) { return r.lrange("e", 0, 1); });
        row("HMSET k a x b 2", "+OK\r\n", false, [map](QtRedis& r) { return r.hmset("k", map); });
        row("MSET a x b 2", "+OK\r\n", false, [map](QtRedis& r) { return r.mset(map); });
        row("HGETALL k", "*4\r\n$1\r\na\r\n$1\r\n1\r\n$1\r\nb\r\n$1\r\n2\r\n",
            QtRedis::Map{{"a", "1"}, {"b", "2"}}, [](QtRedis& r) { return r.hgetall("k"); });
        row("HINCRBYFLOAT k f 0.5", "$3\r\n1.5\r\n", 1.5F,
            [](QtRedis& r) { return r.hincrbyfloat("k", "f", 0.5F); });
        row("PEXPIREAT k 1893456000000", ":1\r\n", true,
            [](QtRedis& r) { return r.pexpireat("k", 1893456000000); });
        row("SCRIPT EXISTS s t", "*0\r\n", QStringList(), [](QtRedis& r) { return r.scriptexists("s t"); });
        row("RENAMEX a b", "-ERR\r\n", false, [](QtRedis& r) { return r.renamex("a", "b"); });
        row("MIGRATE h 1 k 0 5", "+OK\r\n", false, [](QtRedis& r) { return r.migrate("h", 1, "k", 0, 5); });
        row("EVAL s 1 k a", ":3\r\n", 3, [](QtRedis& r) { return r.eval("s", 1, "k", "a"); });
    }

    void methods() {
        QFETCH(Call, call);
        QFETCH(QByteArray, answer);
        const QString line = QTest::currentDataTag();
        ScriptedServer server({answer});
        QtRedis client(localhost(), server.serverPort(), nullptr);
        QVERIFY(client.openConnection());
        QTEST(call(client), "value");
        QByteArray sent = server.received;
        QCOMPARE(sent.replace("\r\n", "\n").count('\n'), 1 + 2 * line.split(' ').size());
        QStringList words;
        const QList<QByteArray> lines = sent.split('\n');
        for (int i = 2; i < lines.size(); i += 2)
            words << lines[i];
        QCOMPARE(words.join(' '), line);
    }

    void pushes() {
        ScriptedServer server({"*3\r\n$9\r\nsubscribe\r\n$1\r\nc\r\n:1\r\n"});
        QtRedis client(localhost(), server.serverPort(), nullptr);
        QVERIFY(client.openConnection());
        QSignalSpy spy(&client, &QtRedis::returnData);
        QCOMPARE(client.command("SUBSCRIBE c").value.toStringList(), QStringList({"subscribe", "c", "1"}));
        QCOMPARE(spy.size(), 0);

        server.socket->write("*3\r\n$7\r\nmessage\r\n$1\r\nc\r\n$2\r\nhi\r\n");
        QTRY_COMPARE(spy.size(), 1);
        server.socket->write("*4\r\n$8\r\npmessage\r\n$2\r\nc*\r\n$2\r\ncd\r\n$3\r\nyou\r\n");
        QTRY_COMPARE(spy.size(), 2);
        const auto reply = [&spy](int i) {
            const auto r = spy[i][0].value<QtRedis::Reply>();
            return QStringList{r.type, r.message, r.pattern, r.channel, r.value.toString()};
        };
        QCOMPARE(reply(0), QStringList({"list", "message", "", "c", "hi"}));
        QCOMPARE(reply(1), QStringList({"list", "pmessage", "c*", "cd", "you"}));
    }

    /// Each delivery is an answer of its own, unless whole replies are asked for.
    void splitReply() {
        for (const bool whole : {false, true}) {
            ScriptedServer server({"*2\r\n$1\r\na\r\n"});
            QtRedis client(localhost(), server.serverPort(), nullptr);
            if (whole)
                client.setWholeReplies();
            QVERIFY(client.openConnection());
            QTimer rest;
            connect(&rest, &QTimer::timeout, &client, [&] { server.socket->write("$1\r\nb\r\n"); });
            rest.setSingleShot(true);
            rest.start(100);
            QCOMPARE(client.command("LRANGE k 0 -1").value.toStringList(),
                     whole ? QStringList({"a", "b"}) : QStringList({"a"}));
        }
    }

    void refusedConnection() {
        QTcpServer closed;
        closed.listen(QHostAddress::LocalHost);
        const int port = closed.serverPort();
        closed.close();
        QtRedis client(localhost(), port, nullptr);
        QVERIFY(!client.openConnection());
        QVERIFY(closed.listen(QHostAddress::LocalHost, static_cast<quint16>(port)));
        QSignalSpy connected(&client, &QtRedis::connected);
        QVERIFY(client.openConnection());
        QCOMPARE(connected.size(), 1);
    }

    void lostConnection() {
        ScriptedServer server;
        QtRedis client(localhost(), server.serverPort(), nullptr);
        QSignalSpy disconnected(&client, &QtRedis::disconnected);
        QVERIFY(client.openConnection());
        QTRY_VERIFY(server.socket);
        connect(server.socket, &QTcpSocket::readyRead, server.socket, [&] { server.socket->abort(); });
        const QtRedis::Reply reply = client.command("GET k");
        QCOMPARE(reply.type, "error");
        QCOMPARE(disconnected.size(), 1);
        QVERIFY(!client.isConnected());
    }
};

int main(int argc, char** argv) {
    return runTest<RedisClientTest>(argc, argv);
}
#include "redis_client_test.moc"
