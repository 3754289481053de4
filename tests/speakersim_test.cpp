// The simulated speaker against a scripted server: what every other test takes for a speaker.
#include "support/service.h"
#include "support/table.h"
#include "support/testmain.h"
#include "support/waitfor.h"
#include "tools/simspeaker.h"

#include <csignal>
#include <QTcpServer>
#include <QTest>

namespace {

/// Serves one file at every path.
class FileServer : public QTcpServer {
public:
    explicit FileServer(const QByteArray& file) {
        listen(QHostAddress::LocalHost);
        connect(this, &QTcpServer::newConnection, this, [this, file] {
            QTcpSocket* socket = nextPendingConnection();
            connect(socket, &QTcpSocket::readyRead, socket, [this, socket, file] {
                requests += socket->readAll().split(' ').value(1);
                socket->write("HTTP/1.0 200 OK\r\nContent-Length: " + QByteArray::number(file.size()) +
                              "\r\n\r\n" + file);
                socket->disconnectFromHost();
            });
        });
    }
    QByteArray address(const char* path) const {
        return "http://127.0.0.1:" + QByteArray::number(serverPort()) + path;
    }
    QList<QByteArray> requests;
};

/// Takes one speaker's connection and keeps each read apart.
class Peer : public QTcpServer {
public:
    Peer() {
        listen(QHostAddress::LocalHost);
        connect(this, &QTcpServer::newConnection, this, [this] {
            socket = nextPendingConnection();
            connect(socket, &QTcpSocket::readyRead, this, [this] { reads += socket->readAll(); });
        });
    }
    bool got(const QByteArray& read) {
        return waitFor([&] { return reads.contains(read); });
    }
    QJsonObject info() {
        reads.clear();
        socket->write("JXXXXX");
        waitFor([this] { return !reads.isEmpty() && reads.last().startsWith('J'); });
        return QJsonDocument::fromJson(reads.last().mid(1)).object();
    }
    QTcpSocket* socket = nullptr;
    QList<QByteArray> reads;
};

sim::SpeakerOptions optionsFor(const Peer& peer) {
    sim::SpeakerOptions options;
    options.serial = QByteArray::fromHex("00112233445566778899aabbccddeeff");
    options.port = peer.serverPort();
    options.player.keepBodies = true;
    return options;
}

} // namespace

class SpeakersimTest : public QObject {
    Q_OBJECT
private slots:
    void readsAreCommands_data() {
        using sim::Op;
        const Table<QByteArray, int, int, QByteArray> row{"read", "keepAlives", "op", "argument"};
        row("stop", "A5", 0, int(Op::Stop), {});
        row("keep-alives around", "OKOKOKOKV\x14OKOK", 3, int(Op::Volume), "\x14");
        row("list", "A1http://h/a.mp3\nhttp://h/b.mp3", 0, int(Op::PlayList),
            "http://h/a.mp3\nhttp://h/b.mp3");
        row("stop behind a list", "A1http://h/a.mp3A5", 0, int(Op::PlayList), "http://h/a.mp3A5");
        row("two of fixed length", "VAIK", 0, int(Op::Unknown), "VAIK");
        row("two stops", "A5A5", 0, int(Op::Unknown), "A5A5");
        row("task number", "AD12", 0, int(Op::TaskRemove), "12");
        row("two task numbers", "AD12AE7", 0, int(Op::Unknown), "AD12AE7");
        row("cut off", QByteArray("K\x7f\0", 3), 0, int(Op::Unknown), QByteArray("K\x7f\0", 3));
        row("alarm state", "GET_BAOJINGEE", 0, int(Op::AlarmState), {});
        row("unknown", "zzz", 0, int(Op::Unknown), "zzz");
    }

    void readsAreCommands() {
        QFETCH(QByteArray, read);
        QTEST(sim::takeKeepAlives(read), "keepAlives");
        const sim::Command command = sim::commandOf(read);
        QTEST(int(command.op), "op");
        QTEST(command.argument, "argument");
        QCOMPARE(command.bytes, read);
    }

    void bindings_data() {
        const Table<QByteArray, QString, QString> row{"entry", "line", "address"};
        row("file", "http://h/mp3/fire.mp3B", "B", "http://h/mp3/fire.mp3");
        row("plan", "http://h/user/startwarning?pltid=3&dd.mp3F", "F",
            "http://h/user/startwarning?pltid=3&dd.mp3");
        row("clear", "B_NONE.mp3", "B", "");
        row("play, not bind", "http://h/a.mp3A", "", "");
        row("shell line without blanks",
            "wget-qO-\"http://h/user/fucktext?t=http://h/Startwaringtask.php?taskid=4\">line1&&", "line1",
            "http://h/Startwaringtask.php?taskid=4");
        row("shell line removed", "wget -qO- \"http://h/user/fucktext?t=\" && rm line1  &&", "line1", "");
    }

    void bindings() {
        QFETCH(QByteArray, entry);
        const sim::Binding binding = sim::parseBinding(entry);
        QTEST(binding.line, "line");
        QTEST(binding.address, "address");
    }

    void tellsMp3() {
        const QByteArray mp3 = makeMp3(2);
        const sim::Mp3Facts facts = sim::checkMp3(mp3);
        QVERIFY(facts.isMp3);
        QVERIFY2(qAbs(facts.length.count() - 2000) < 100, QByteArray::number(qint64(facts.length.count())));
        QVERIFY(sim::checkMp3(mp3.left(mp3.size() / 2)).length < std::chrono::milliseconds(1200));
        QVERIFY(!sim::checkMp3({}).isMp3);
        QVERIFY(!sim::checkMp3("<html>Not found</html>").isMp3);
        QVERIFY(!sim::checkMp3(QByteArray(100'000, '\0')).isMp3);
    }

    void obeysAndTells() {
        Peer peer;
        sim::Speaker speaker(optionsFor(peer));
        speaker.start();
        QVERIFY(
            peer.got(sim::registrationPacket(QByteArray::fromHex("00112233445566778899aabbccddeeff"), 20)));
        QCOMPARE(peer.info().value("vol").toInt(), 20);
        QJsonObject info;
        for (const char* const command : {"V\x07", "M\x05\x06", "IK", "G01"}) {
            const size_t before = speaker.commands().size();
            peer.socket->write(command);
            QVERIFY(waitFor([&] { return speaker.commands().size() > before; }));
            info = peer.info();
        }
        QCOMPARE(info.value("vol").toInt(), 7);
        QCOMPARE(info.value("Mic_e").toInt(), 5);
        QCOMPARE(info.value("Mic_d").toInt(), 6);
        QCOMPARE(info.value("debug").toInt(), 1);
        QCOMPARE(info.value("gpio").toInt(), 1);
        peer.socket->write("SETVOL\x10");
        QVERIFY(waitFor([&] { return speaker.count(sim::Op::VolumeCode) == 1; }));
        QCOMPARE(peer.info().value("vol").toInt(), 25);
        QCOMPARE(speaker.count(sim::Op::DeviceInfo), 6);
    }

    void fetchesAndPlays() {
        const QByteArray mp3 = makeMp3(1);
        FileServer files(mp3);
        Peer peer;
        auto options = optionsFor(peer);
        QTemporaryDir directory;
        options.player.saveDir = directory.path();
        options.player.speed = 2;
        sim::Speaker speaker(options);
        speaker.start();
        QVERIFY(waitFor([&] { return peer.socket != nullptr; }));
        peer.socket->write("A1" + files.address("/mp3/one.mp3"));
        QVERIFY(peer.got("UA2/mp3/one.mp3"));
        QVERIFY(peer.got("UA3"));
        QVERIFY(peer.got("UA1"));
        QCOMPARE(speaker.fetches().size(), std::size_t(1));
        QCOMPARE(speaker.fetches().front().body, mp3);
        QFile stored(directory.filePath("one.mp3"));
        QVERIFY(stored.open(QIODevice::ReadOnly));
        QCOMPARE(stored.readAll(), mp3);

        peer.reads.clear();
        peer.socket->write("A1" + files.address("/mp3/two.mp3"));
        QVERIFY(peer.got("UA3"));
        peer.socket->write("A5");
        QVERIFY(peer.got("UA1"));
        QVERIFY(!speaker.player().isPlaying());
    }

    void programFiresLines() {
        FileServer files("no MP3");
        Peer peer;
        QProcess program;
        program.start(BUILD_DIR "/speaker-sim",
                      {"--commands", "--server", "127.0.0.1:" + QString::number(peer.serverPort())});
        QByteArray told;
        const auto fired = [&](int times) {
            told += program.readAll();
            return told.count(" line B fired: ") == times;
        };
        QVERIFY(waitFor([&] { return peer.socket != nullptr && !peer.reads.isEmpty(); }));
        peer.socket->write("AS" + files.address("/b.mp3B"));
        QVERIFY(waitFor([&] { return (told += program.readAll()).contains("b.mp3B"); }));
        peer.info(); // the speaker counts as online
        program.write("fire B\n");
        QVERIFY(waitFor([&] { return fired(1); }));
        ::kill(pid_t(program.processId()), SIGUSR1);
        QVERIFY(waitFor([&] { return fired(2); }));
        QCOMPARE(files.requests, (QList<QByteArray>{"/b.mp3", "/b.mp3"}));
        program.terminate();
        QVERIFY(waitFor([&] { return program.state() == QProcess::NotRunning; }));
        QCOMPARE(program.exitCode(), 0);
        QVERIFY(program.readAll().contains("1 speakers online at the end, 2 fetches, 0 failed"));
    }

    void programRefusesNonsense_data() {
        const Table<QStringList> row{"arguments"};
        row("short serial", QStringList{"--first-sn", "12"});
        row("no port", QStringList{"--server", "127.0.0.1"});
        row("no speakers", QStringList{"--count", "0"});
    }

    void programRefusesNonsense() {
        QFETCH(QStringList, arguments);
        QProcess program;
        program.start(BUILD_DIR "/speaker-sim", arguments);
        QVERIFY(program.waitForFinished());
        QCOMPARE(program.exitCode(), 2);
        QVERIFY(program.readAllStandardError().startsWith("speaker-sim: --"));
    }

    void countsSerialsOn() {
        const QByteArray first = QByteArray::fromHex("000000000000000000000000000000ff");
        QCOMPARE(sim::serialAt(first, 1).toHex(), "00000000000000000000000000000100");
        QCOMPARE(sim::serialAt(first, 0x10101).toHex(), "00000000000000000000000000010200");
    }
};

int main(int argc, char** argv) {
    return runTest<SpeakersimTest>(argc, argv);
}

#include "speakersim_test.moc"
