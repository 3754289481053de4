#include "device/commandframe.h"
#include "support/table.h"

#include <QRandomGenerator>
#include <QtTest>

using Status = CommandFrameParser::Status;

namespace {

/// Feeds `stream` in pieces that end at the given offsets; returns the requests and, when the stream
/// broke, "broken" as the last entry.
QList<QByteArray> cut(const QByteArray& stream, const QVector<int>& ends) {
    CommandFrameParser parser;
    QList<QByteArray> found;
    int begin = 0;
    for (const int end : ends) {
        parser.append(stream.constData() + begin, end - begin);
        begin = end;
        for (;;) {
            const auto result = parser.next();
            if (result.status == Status::Broken)
                return found << QByteArrayLiteral("broken");
            if (result.status == Status::NeedMore)
                break;
            found << result.json;
        }
    }
    return found;
}

QVector<int> randomEnds(int size, QRandomGenerator& random) {
    QVector<int> ends;
    for (int at = 0; at < size;)
        ends << (at = qMin(size, at + 1 + random.bounded(12)));
    return ends;
}

} // namespace

class CommandFrameTest : public QObject {
    Q_OBJECT
private slots:
    void streams_data() {
        const Table<QByteArray, QList<QByteArray>> row{"stream", "expected"};
        row("frame", "7\n{\"a\":1}", {"{\"a\":1}"});
        row("two frames joined", "7\n{\"a\":1}2\n{}", {"{\"a\":1}", "{}"});
        row("line ends between", "2\n{}\r\n\n 2\n{}\n", {"{}", "{}"});
        row("bare object", "{\"a\":{\"b\":2}}", {"{\"a\":{\"b\":2}}"});
        row("frame, bare, frame", "2\n{}{\"x\":0}2\n[]", {"{}", "{\"x\":0}", "[]"});
        row("braces and quotes in text", "{\"a\":\"}\\\"}{\\\\\"}{}", {"{\"a\":\"}\\\"}{\\\\\"}", "{}"});
        row("empty frame", QByteArray("0\n2\n{}"), {"", "{}"});
        row("frame content is not looked at", "3\n}\"{2\n{}", {"}\"{", "{}"});
        row("frame cut short", "8\n{\"a\":1}", {});
        row("object without its end", "{\"a\":\"}", {});
        row("leading zeros", "0000002\n{}", {"{}"});
        row("length is not a number", "12x\n{}", {"broken"});
        row("negative length", "-1\n{}", {"broken"});
        row("length over the limit", "16777217\n", {"broken"});
        row("too many digits", "000000002\n{}", {"broken"});
        row("array without a length", "[1]", {"broken"});
        row("other protocol", "POST / HTTP/1.1\r\n", {"broken"});
        row("good, then broken", "2\n{}x{}", {"{}", "broken"});
        row("nul byte", QByteArray("2\n{}\0{}", 7), {"{}", "broken"});
    }

    /// Every stream gives the same requests whole, byte by byte and in random pieces.
    void streams() {
        QFETCH(QByteArray, stream);
        QFETCH(QList<QByteArray>, expected);
        QCOMPARE(cut(stream, {stream.size()}), expected);
        QVector<int> single(stream.size());
        std::iota(single.begin(), single.end(), 1);
        QCOMPARE(cut(stream, single), expected);
        QRandomGenerator random(7);
        for (int round = 0; round < 50; ++round)
            QCOMPARE(cut(stream, randomEnds(stream.size(), random)), expected);
    }

    void longestFrameAndOneMore() {
        const QByteArray longest(CommandFrameParser::MaxRequestBytes, ' ');
        const QByteArray frame = "16777216\n" + longest;
        QCOMPARE(cut(frame, {1000, 9'000'000, frame.size()}), QList<QByteArray>{longest});
        const QByteArray bare = "{\"a\":\"" + longest;
        QCOMPARE(cut(bare, {1000, bare.size()}), QList<QByteArray>{"broken"});
    }

    void noiseEndsSomehow() {
        QRandomGenerator random(11);
        const QByteArray alphabet = "0123456789{}\"\\\n :,a\x80";
        for (int round = 0; round < 3000; ++round) {
            QByteArray noise;
            for (int i = 0; i < 200; ++i)
                noise += alphabet.at(random.bounded(alphabet.size()));
            QCOMPARE(cut(noise, randomEnds(noise.size(), random)), cut(noise, {noise.size()}));
        }
    }
};

QTEST_APPLESS_MAIN(CommandFrameTest)
#include "commandframe_test.moc"
