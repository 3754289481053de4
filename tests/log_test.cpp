#include "core/logline.h"
#include "core/logoutput.h"
#include "core/logthrottle.h"
#include "support/table.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

class LogTest : public QObject {
    Q_OBJECT
private slots:
    void writesOut_data() {
        const Table<QString, QByteArray> row{"message", "line"};
        row("plain", "铃 rings", "铃 rings");
        row("breaks", "a\r\nb\nc\rd\te", "a\\nb\\nc\\nd\\te");
        row("escape sequence", "a\x1b[2Jb\x7f", "a\\x1b[2Jb\\x7f");
        row("C1 and direction", QString("a%1b%2c%3").arg(QChar(0x9b)).arg(QChar(0x202e)).arg(QChar(0x2066)),
            "a\\x9bb\\u202ec\\u2066");
        row("too long", QString(200, QChar(0x94C3)),
            QString(27, QChar(0x94C3)).toUtf8() + " ... (600 bytes)");
    }

    void writesOut() {
        QFETCH(QString, message);
        QTEST(logLine(message, 100), "line");
    }

    void losesWhatFindsNoRoom_data() {
        const Table<bool> row{"isSocket"};
        row("pipe", false);
        row("socket", true);
    }

    void losesWhatFindsNoRoom() {
        QFETCH(bool, isSocket);
        int ends[2]; // read, write
        QCOMPARE(isSocket ? socketpair(AF_UNIX, SOCK_STREAM, 0, ends) : pipe(ends), 0);
        LogOutput output(ends[1]);
        const QByteArray line = QByteArray(LogOutput::MaxLine - 2, 'x') + '\n';
        int written = 0;
        while (output.write(line)) // a blocking write would end the test by its time limit
            QVERIFY(++written < 1000);
        QCOMPARE(fcntl(ends[1], F_GETFL) & O_NONBLOCK, 0);
        fcntl(ends[0], F_SETFL, O_NONBLOCK);
        QByteArray rest(1 << 20, 0);
        QByteArray got;
        for (ssize_t n = 0; (n = read(ends[0], rest.data(), size_t(rest.size()))) > 0;)
            got.append(rest.constData(), int(n));
        QCOMPARE(got, line.repeated(written));
        QVERIFY(output.write(line));
        close(ends[0]);
        close(ends[1]);
    }

    void throttlesByPeerAndKind() {
        const auto passed = [](const char* kind, const QString& peer) {
            int count = 0;
            for (int i = 0; i < 100; ++i)
                count += mayLog(kind, peer) ? 1 : 0;
            return count;
        };
        // A second may end within a hundred calls, but not often.
        QVERIFY(passed("one", "10.0.0.1") <= 2 * logthrottle::LinesPerPeer);
        QVERIFY(passed("one", "10.0.0.2") >= logthrottle::LinesPerPeer);
        QVERIFY(passed("two", "10.0.0.1") >= logthrottle::LinesPerPeer);
        int count = 0;
        for (int i = 0; i < 20 * logthrottle::MaxPeers; ++i)
            count += mayLog("many", QString::number(i)) ? 1 : 0;
        QVERIFY(count >= logthrottle::LinesPerKind && count < 10 * logthrottle::LinesPerKind);
    }
};

QTEST_GUILESS_MAIN(LogTest)
#include "log_test.moc"
