#include "core/mp3frames.h"
#include "support/service.h"
#include "support/table.h"
#include "support/testmain.h"
#include "support/waitfor.h"
#include "tasks/alarms/baojingobject.h"
#include "tools/mgpackager.h"
#include "tools/mp3check.h"

#include <QFile>
#include <QProcess>
#include <QSignalSpy>
#include <QThread>
#include <sys/stat.h>

namespace {

mg::Header header(int ms = 10) {
    mg::Header made;
    made.ms = ms;
    made.sampleRate = 44100;
    made.samples = 1000;
    return made;
}

/// A file as its header, data and table are given, however little they fit together.
QByteArray raw(qint32 byteCount, qint32 packetCount, const QByteArray& data, const QByteArray& table) {
    QByteArray bytes;
    QDataStream stream(&bytes, QIODevice::WriteOnly);
    stream << mg::Magic << qint32{1000} << byteCount << packetCount << qint32{10} << qint32{44100};
    return bytes + data + table;
}

QByteArray sizes(std::initializer_list<int> list) {
    QByteArray bytes;
    QDataStream stream(&bytes, QIODevice::WriteOnly);
    for (const int size : list)
        stream << static_cast<qint16>(size);
    return bytes;
}

} // namespace

class MgFileTest : public QObject {
    Q_OBJECT
private slots:
    void layout() {
        const QByteArray bytes = mg::pack(header(100), {"abc", "de"});
        QCOMPARE(bytes.toHex(), QByteArray("caca6668000003e800000005000000020000006400"
                                           "00ac44616263646500030002"));
        QCOMPARE(read(write("a.mg", bytes)), (QList<QByteArray>{"abc", "de"}));
    }

    void packRefuses() {
        QVERIFY(mg::pack(header(), {"a", ""}).isEmpty());
        QVERIFY(mg::pack(header(), {QByteArray(0x8000, 'x')}).isEmpty());
        QVERIFY(!mg::pack(header(), {QByteArray(0x7fff, 'x')}).isEmpty());
    }

    void damagedFiles_data() {
        const Table<QByteArray, QList<QByteArray>> row{"file", "packets"};
        row("whole", raw(5, 2, "abcde", sizes({3, 2})), {"abc", "de"});
        row("bytes behind the table", raw(5, 2, "abcde", sizes({3, 2}) + "more"), {"abc", "de"});
        row("no packets", raw(0, 0, "", ""), {});
        row("table cut", raw(5, 3, "abcde", sizes({3, 2}) + "\0"), {"abc", "de"});
        row("data cut", raw(5, 2, "abc", ""), {});
        row("sizes beyond the data", raw(5, 3, "abcde", sizes({3, 7, 1})), {"abc", "de", ""});
        row("negative size ends the list", raw(5, 3, "abcde", sizes({3, -1, 2})), {"abc"});
        row("empty packet", raw(3, 2, "abc", sizes({0, 3})), {"", "abc"});
        row("negative counts", raw(-1, -1, "abc", sizes({3})), {});
        row("negative byte count", raw(-1, 1, "", sizes({3})), {""});
        row("huge counts", raw(0x7fffffff, 0x7fffffff, "abc", sizes({3})), {});
        row("huge packet count", raw(3, 0x7fffffff, "abc", sizes({3})), {"abc"});
        row("other magic", raw(3, 1, "abc", sizes({3})).replace(0, 4, "MG__"), {"abc"});
        row("half a header", raw(3, 1, "", "").left(20), {});
        row("empty", {}, {});
    }

    void damagedFiles() {
        QFETCH(QByteArray, file);
        QTEST(read(write("d.mg", file)), "packets");
    }

    void playsTheListInOrder() {
        const QString pipe = m_directory.filePath("pipe");
        QCOMPARE(::mkfifo(qPrintable(pipe), 0600), 0);
        Baojingobject player({m_directory.filePath("missing.mg"),
                              write("1.mg", mg::pack(header(), {"a", "b"})), pipe, m_directory.path(),
                              write("2.mg", raw(0, 0, "", "")), write("3.mg", mg::pack(header(), {"c"}))});
        QByteArray played;
        QStringList events;
        connect(&player, &Baojingobject::present_mp3data_s, this,
                [&](const QByteArray& packet) { played += packet; });
        connect(&player, &Baojingobject::back_, this, [&](const QString&, int index, int count) {
            events << QString("begin %1/%2").arg(index).arg(count);
        });
        connect(&player, &Baojingobject::imending, this,
                [&](int index) { events << QString("last %1").arg(index); });
        QSignalSpy over(&player, &Baojingobject::over);
        player._start_init();
        QVERIFY(player.isPlaying());
        QVERIFY(waitFor([&] { return over.count() == 1; }));
        QCOMPARE(played, QByteArray("abc"));
        QCOMPARE(events, (QStringList{"begin 1/6", "last 1", "begin 4/6", "begin 5/6", "last 5"}));
        QVERIFY(!player.isPlaying());
    }

    /// One packet a tick: never earlier than the interval says.
    void keepsThePace() {
        Baojingobject player({write("p.mg", mg::pack(header(40), {"a", "b", "c", "d", "e"}))});
        QVector<qint64> times;
        QElapsedTimer clock;
        clock.start();
        connect(&player, &Baojingobject::present_mp3data_s, this, [&] { times << clock.elapsed(); });
        QSignalSpy over(&player, &Baojingobject::over);
        player._start_init();
        QVERIFY(waitFor([&] { return over.count() == 1; }));
        QCOMPARE(times.size(), 5);
        for (int i = 0; i < 5; ++i)
            QVERIFY2(times[i] >= 40 * (i + 1) - 5, QByteArray::number(times[i]));
    }

    /// Packets that became due while the loop was held up follow at once.
    void makesUpForAHalt() {
        Baojingobject player({write("p.mg", mg::pack(header(300), {"a", "b", "c", "d"}))});
        QElapsedTimer clock;
        clock.start();
        int packets = 0;
        connect(&player, &Baojingobject::present_mp3data_s, this, [&] {
            if (++packets == 1)
                QThread::msleep(1500);
        });
        player._start_init();
        QVERIFY(waitFor([&] { return packets == 4; }));
        QVERIFY2(clock.elapsed() < 2200, QByteArray::number(clock.elapsed()));
    }

    void nothingPlays() {
        Baojingobject player({m_directory.filePath("missing.mg"), write("half.mg", "half")});
        QSignalSpy over(&player, &Baojingobject::over);
        player._start_init();
        QCOMPARE(over.count(), 1);
    }

    void packets_data() {
        const Table<QByteArray> row{"mp3"};
        const QByteArray plain = makeMp3(3);
        row("plain", plain);
        row("tags in front and behind", QByteArray("ID3\x03\0\0\0\0\x02\x01", 10) + QByteArray(257, '\xff') +
                                            plain + "TAG" + QByteArray(125, ' '));
        row("noise in front", QByteArray(1000, '\xff') + plain);
    }

    void packets() {
        QFETCH(QByteArray, mp3);
        const auto packed = mgpackager::pack(mp3, 100);
        QVERIFY2(!packed.bytes.isEmpty(), qPrintable(packed.error));
        const auto head = mg::parseHeader(packed.bytes);
        QCOMPARE(head->ms, 100);
        // The packets last as long as the sound, to within one of them.
        const double soundMs = 1000.0 * head->samples / head->sampleRate;
        QVERIFY(qAbs(soundMs - 100.0 * head->packetCount) <= 100);
        QVERIFY(qAbs(soundMs - 3000) < 150);
        const QList<QByteArray> read1 = read(write("real.mg", packed.bytes));
        for (const QByteArray& packet : read1)
            QVERIFY(mp3::frameAt(packet, 0));
        const auto unpacked = mgpackager::unpack(packed.bytes);
        QCOMPARE(read1.join(), unpacked.bytes);
        QVERIFY(mp3.contains(unpacked.bytes));
        QVERIFY(sim::checkMp3(unpacked.bytes).isMp3);
    }

    void noFrames() {
        QVERIFY(!mgpackager::pack("no sound", 100).error.isEmpty());
        QVERIFY(!mgpackager::pack(makeMp3(1), 79).error.isEmpty());
        QVERIFY(!mgpackager::unpack(mgpackager::pack(makeMp3(1), 100).bytes.chopped(1)).error.isEmpty());
    }

    void program() {
        const QByteArray mp3 = makeMp3(1);
        const QString source = write("in.mp3", mp3);
        const auto run = [](const QStringList& arguments) {
            return QProcess::execute(BUILD_DIR "/mgpack", arguments);
        };
        QCOMPARE(run({source, m_directory.filePath("x.mg")}), 0);
        QCOMPARE(run({"--unpack", m_directory.filePath("x.mg"), m_directory.filePath("out.mp3")}), 0);
        QFile out(m_directory.filePath("out.mp3"));
        QVERIFY(out.open(QIODevice::ReadOnly));
        QCOMPARE(out.readAll(), mgpackager::unpack(mgpackager::pack(mp3, 100).bytes).bytes);
        QCOMPARE(run({m_directory.filePath("nothing"), m_directory.filePath("y.mg")}), 1);
        QVERIFY(!QFile::exists(m_directory.filePath("y.mg")));
    }

private:
    QString write(const QString& name, const QByteArray& bytes) {
        QFile file(m_directory.filePath(name));
        return file.open(QIODevice::WriteOnly) && file.write(bytes) == bytes.size() ? file.fileName()
                                                                                    : QString();
    }

    QList<QByteArray> read(const QString& path) {
        MgReader reader;
        QList<QByteArray> found;
        if (reader.open(path)) {
            while (!reader.atEnd())
                found << reader.next();
        }
        return found;
    }

    QTemporaryDir m_directory;
};

int main(int argc, char** argv) {
    return runTest<MgFileTest>(argc, argv);
}
#include "mgfile_test.moc"
