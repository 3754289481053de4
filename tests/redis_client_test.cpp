#include "redis/qtredis.h"
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

class RedisClientTest : public QObject {
    Q_OBJECT
private slots:
    void requests_data();
    void requests();
    void chunks_data();
    void chunks();
    void streams_data();
    void streams();
    void brokenStreams_data();
    void brokenStreams();
    void methods_data();
    void methods();
    void pushes();
    void splitReply();
    void refusedConnection();
    void lostConnection();
};

void RedisClientTest::requests_data() {
    QTest::addColumn<QString>("line");
    QTest::addColumn<QByteArray>("wire");
    QTest::newRow("plain") << "SET a b" << QByteArray("*3\r\n$3\r\nSET\r\n$1\r\na\r\n$1\r\nb\r\n");
    QTest::newRow("quoted") << "HSET k f \"hello world\""
                            << QByteArray("*4\r\n$4\r\nHSET\r\n$1\r\nk\r\n$1\r\nf\r\n$11\r\nhello world\r\n");
    QTest::newRow("escaped quote") << R"(A "x\"y" z\n)"
                                   << QByteArray("*3\r\n$1\r\nA\r\n$3\r\nx\"y\r\n$3\r\nz\\n\r\n");
    QTest::newRow("every blank") << QString(" A\t\v\f\r\nB%1C%2D ").arg(QChar(0x85)).arg(QChar(0xa0))
                                 << QByteArray("*4\r\n$1\r\nA\r\n$1\r\nB\r\n$1\r\nC\r\n$1\r\nD\r\n");
    QTest::newRow("characters, not bytes")
        << "GET 在线" << QByteArray("*2\r\n$3\r\nGET\r\n$2\r\n\xe5\x9c\xa8\xe7\xba\xbf\r\n");
    QTest::newRow("placeholder") << "GET %1" << QByteArray("*2\r\n$3\r\nGET\r\n$2\r\n%1\r\n");
}

void RedisClientTest::requests() {
    QFETCH(QString, line);
    QFETCH(QByteArray, wire);
    ScriptedServer server({"+OK\r\n"});
    QtRedis client(localhost(), server.serverPort(), nullptr);
    QVERIFY(client.openConnection());
    client.command(line);
    QCOMPARE(server.received, wire);
}

void RedisClientTest::chunks_data() {
    QTest::addColumn<QString>("chunk");
    QTest::addColumn<QStringList>("list");
    const auto row = [](const char* name, const char* chunk, const QStringList& list) {
        QTest::newRow(name) << QString::fromUtf8(chunk) << list;
    };
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

void RedisClientTest::chunks() {
    QFETCH(QString, chunk);
    QFETCH(QStringList, list);
    Reader reader(localhost(), 1);
    QSignalSpy spy(&reader, &Reader::response);
    reader.readLine(chunk);
    QCOMPARE(spy.size(), 1);
    QCOMPARE(spy[0][0].toStringList(), list);
}

void RedisClientTest::streams_data() {
    QTest::addColumn<QByteArray>("bytes");
    QTest::addColumn<Lists>("lists");
    const auto row = [](const char* name, const char* bytes, const Lists& lists) {
        QTest::newRow(name) << QByteArray(bytes) << lists;
    };
    row("two replies", "$2\r\nab\r\n:5\r\n", {{"bulk", "ab"}, {"integer", "5\r\n"}});
    row("list", "*3\r\n$1\r\na\r\n$-1\r\n$0\r\n\r\n+x\r\n", {{"list", "a", "NULL", ""}, {"string", "x\r\n"}});
    row("no list", "*-1\r\n*0\r\n", {{"list"}, {"list"}});
    row("nested", "*2\r\n*2\r\n$1\r\na\r\n:7\r\n$1\r\nb\r\n+x\r\n",
        {{"list", "a", "7", "b"}, {"string", "x\r\n"}});
    row("lengths count bytes", "*2\r\n$6\r\n在线\r\n$1\r\nb\r\n", {{"list", "在线", "b"}});
    row("line end inside", "$4\r\na\r\nb\r\n-ERR no\r\n", {{"bulk", "a\r\nb"}, {"error", "ERR no\r\n"}});
}

void RedisClientTest::streams() {
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

void RedisClientTest::brokenStreams_data() {
    QTest::addColumn<QByteArray>("bytes");
    QTest::newRow("no number") << QByteArray("$x\r\n");
    QTest::newRow("negative") << QByteArray("*1\r\n$-2\r\n");
    QTest::newRow("bulk too long") << QByteArray("$99999999999\r\n");
    QTest::newRow("too many entries") << QByteArray("*99999999\r\n");
    QTest::newRow("nested sum") << QByteArray("*16000000\r\n*16000000\r\n");
    QTest::newRow("no header") << QByteArray("\r\n");
    QTest::newRow("endless header") << QByteArray(ReplyStream::MaxReplyBytes + 1, 'x');
}

void RedisClientTest::brokenStreams() {
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

using Call = std::function<QVariant(QtRedis&)>;
Q_DECLARE_METATYPE(Call)

void RedisClientTest::methods_data() {
    QTest::addColumn<Call>("call");
    QTest::addColumn<QString>("line");
    QTest::addColumn<QByteArray>("answer");
    QTest::addColumn<QVariant>("value");
    const auto row = [](const char* line, Call call, const char* answer, const QVariant& value) {
        QTest::newRow(line) << std::move(call) << QString(line) << QByteArray(answer) << value;
    };
    const QtRedis::Map map{{"b", 2}, {"a", "x"}};
    row(
        "AUTH pw", [](QtRedis& r) { return r.auth("pw"); }, "+OK\r\n", false);
    row(
        "SET k v", [](QtRedis& r) { return r.set("k", "v"); }, "$2\r\nOK\r\n", true);
    row(
        "GET k", [](QtRedis& r) { return r.get("k"); }, "$-1\r\n", "NULL");
    row(
        "GET e", [](QtRedis& r) { return r.get("e"); }, "-ERR\r\n", "ERR\r\n");
    row(
        "TYPE k", [](QtRedis& r) { return r.type("k"); }, "+hash\r\n", "hash\r\n");
    row(
        "HSET k f v", [](QtRedis& r) { return r.hset("k", "f", "v"); }, ":1\r\n", true);
    row(
        "EXISTS k", [](QtRedis& r) { return r.exists("k"); }, ":0\r\n", false);
    row(
        "EXISTS e", [](QtRedis& r) { return r.exists("e"); }, "-ERR\r\n", false);
    row(
        "LLEN k", [](QtRedis& r) { return r.llen("k"); }, ":10000\r\n", 10000);
    row(
        "LLEN e", [](QtRedis& r) { return r.llen("e"); }, "-WRONGTYPE\r\n", 0);
    row(
        "LINDEX k -1", [](QtRedis& r) { return r.lindex("k", -1); }, "$2\r\n42\r\n", 42);
    row(
        "LRANGE k 0 -1", [](QtRedis& r) { return r.lrange("k", 0, -1); }, "*2\r\n$1\r\na\r\n$-1\r\n",
        QStringList({"a", "NULL"}));
    row(
        "LRANGE e 0 1", [](QtRedis& r) { return r.lrange("e", 0, 1); }, "-ERR\r\n", QStringList());
    row(
        "HMSET k a x b 2", [map](QtRedis& r) { return r.hmset("k", map); }, "+OK\r\n", false);
    row(
        "MSET a x b 2", [map](QtRedis& r) { return r.mset(map); }, "+OK\r\n", false);
    row(
        "HGETALL k", [](QtRedis& r) { return r.hgetall("k"); },
        "*4\r\n$1\r\na\r\n$1\r\n1\r\n$1\r\nb\r\n$1\r\n2\r\n", QtRedis::Map{{"a", "1"}, {"b", "2"}});
    row(
        "HINCRBYFLOAT k f 0.5", [](QtRedis& r) { return r.hincrbyfloat("k", "f", 0.5F); }, "$3\r\n1.5\r\n",
        1.5F);
    row(
        "PEXPIREAT k 1893456000000", [](QtRedis& r) { return r.pexpireat("k", 1893456000000); }, ":1\r\n",
        true);
    row(
        "SCRIPT EXISTS s t", [](QtRedis& r) { return r.scriptexists("s t"); }, "*0\r\n", QStringList());
    row(
        "RENAMEX a b", [](QtRedis& r) { return r.renamex("a", "b"); }, "-ERR\r\n", false);
    row(
        "MIGRATE h 1 k 0 5", [](QtRedis& r) { return r.migrate("h", 1, "k", 0, 5); }, "+OK\r\n", false);
    row(
        "EVAL s 1 k a", [](QtRedis& r) { return r.eval("s", 1, "k", "a"); }, ":3\r\n", 3);
}

void RedisClientTest::methods() {
    QFETCH(Call, call);
    QFETCH(QString, line);
    QFETCH(QByteArray, answer);
    QFETCH(QVariant, value);
    ScriptedServer server({answer});
    QtRedis client(localhost(), server.serverPort(), nullptr);
    QVERIFY(client.openConnection());
    QCOMPARE(call(client), value);
    QByteArray sent = server.received;
    QCOMPARE(sent.replace("\r\n", "\n").count('\n'), 1 + 2 * line.split(' ').size());
    QStringList words;
    const QList<QByteArray> lines = sent.split('\n');
    for (int i = 2; i < lines.size(); i += 2)
        words << lines[i];
    QCOMPARE(words.join(' '), line);
}

void RedisClientTest::pushes() {
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
void RedisClientTest::splitReply() {
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

void RedisClientTest::refusedConnection() {
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

void RedisClientTest::lostConnection() {
    ScriptedServer server;
    QtRedis client(localhost(), server.serverPort(), nullptr);
    QSignalSpy disconnected(&client, &QtRedis::disconnected);
    QVERIFY(client.openConnection());
    QTRY_VERIFY(server.socket);
    connect(server.socket, &QTcpSocket::readyRead, server.socket, [&] { server.socket->abort(); });
    const QtRedis::Reply reply = client.command("GET k");
    QCOMPARE(reply.type, QString("error"));
    QCOMPARE(disconnected.size(), 1);
    QVERIFY(!client.isConnected());
}

int main(int argc, char** argv) {
    return runTest<RedisClientTest>(argc, argv);
}
#include "redis_client_test.moc"
