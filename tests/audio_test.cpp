#include "service/audio.h"
#include "service/filestore.h"
#include "service/program.h"
#include "support/table.h"

#include <QElapsedTimer>
#include <QtTest>

using audio::Format;
using audio::Outcome;

namespace {

bool make(const QString& program, const QStringList& arguments) {
    return runProgram({program, arguments, QDir::tempPath()}).ok();
}

/// A tone made by sox; the format follows the file's suffix.
bool tone(const QString& path, int rate, int channels, const QString& seconds) {
    return make("sox", {"-n", "-r", QString::number(rate), "-c", QString::number(channels), path, "synth",
                        seconds, "sine", "440"});
}

} // namespace

class AudioTest : public QObject {
    Q_OBJECT
private slots:
    void encodesWhatUsersSend_data() {
        // encoder: program and options between input and output; none: sox itself
        const Table<QString, int, int, QStringList> row{"suffix", "rate", "channels", "encoder"};
        row("wav 8 kHz mono", "wav", 8000, 1, {});
        row("wav 48 kHz stereo", "wav", 48000, 2, {});
        row("aiff", "aiff", 44100, 2, {});
        row("mp3 8 kHz", "mp3", 8000, 1, QStringList{"lame", "-S"});
        row("mp3 vbr", "mp3", 48000, 2, QStringList{"lame", "-S", "-V", "4"});
        row("wav adpcm", "wav", 44100, 1, QStringList{"ffmpeg", "-c:a", "adpcm_ima_wav"});
        row("m4a", "m4a", 44100, 2, QStringList{"ffmpeg"});
        row("aac", "aac", 44100, 2, QStringList{"ffmpeg"});
        row("ogg vorbis", "ogg", 44100, 2, QStringList{"ffmpeg"});
        row("opus", "opus", 48000, 1, QStringList{"ffmpeg"});
        row("flac", "flac", 44100, 2, QStringList{"ffmpeg"});
    }

    void encodesWhatUsersSend() {
        QFETCH(QString, suffix);
        QFETCH(int, rate);
        QFETCH(int, channels);
        QFETCH(QStringList, encoder);
        QTemporaryDir work;
        const QString made = work.filePath("made." + suffix);
        const QString wav = encoder.isEmpty() ? made : work.filePath("tone.wav");
        QVERIFY(tone(wav, rate, channels, "2.5"));
        if (!encoder.isEmpty()) {
            const QString program = encoder.takeFirst();
            const QStringList input =
                program == "ffmpeg" ? QStringList{"-v", "error", "-i", wav} : QStringList{wav};
            QVERIFY(make(program, program == "ffmpeg" ? input + encoder + QStringList{made}
                                                      : encoder + input + QStringList{made}));
        }
        const QString source = work.filePath("upload");
        QVERIFY(QFile::rename(made, source));
        const QString target = work.filePath("encoded.mp3");
        QCOMPARE(audio::encode(source, target, work.path(), 128), Outcome::Done);
        const auto measure = audio::measure(target);
        QVERIFY(measure);
        QCOMPARE(measure->seconds, 3); // 2.5 s and the encoder's padding, rounded up
        QCOMPARE(measure->bytes, QFile(target).size());
        QCOMPARE(measure->checksum.size(), 32);
        QVERIFY2(qAbs(measure->bytes - 41600) < 6000, "not at 128 kbit/s");
    }

    /// Small files that decode to far more than they are worth.
    void bearsBombs_data() {
        const Table<QString, QString> row{"file", "source"};
        row("flac", "bomb.flac", "anullsrc=r=192000:cl=7.1:d=59.5");
        row("wav", "bomb.wav", "anullsrc=r=2000:cl=mono:d=59.5");
    }

    void bearsBombs() {
        QFETCH(QString, file);
        QFETCH(QString, source);
        QTemporaryDir work;
        const QString bomb = work.filePath(file);
        QVERIFY(make("ffmpeg", {"-v", "error", "-f", "lavfi", "-i", source, bomb}));
        QCOMPARE(audio::encode(bomb, work.filePath("encoded.mp3"), work.path(), 128), Outcome::Done);
        QCOMPARE(audio::measure(work.filePath("encoded.mp3"))->seconds, 60);
        for (const QFileInfo& info : QDir(work.path()).entryInfoList(QDir::Files))
            QVERIFY2(info.size() < 1100000, qPrintable(info.fileName()));
    }

    void refusesWhatIsNoSound_data() {
        const Table<QByteArray> row{"bytes"};
        row("nothing", {});
        row("text", QByteArray("this is a text\n").repeated(500));
        row("text after an ID3 mark", "ID3" + QByteArray("text").repeated(5000));
        row("sync marks only", QByteArray("\xFF\xFB").repeated(3));
        row("a WAV header and nothing else", QByteArray("RIFF\x24\0\0\0WAVEfmt ", 16));
        row("a broken M4A", QByteArray("\0\0\0\x20"
                                       "ftypM4A ",
                                       12) +
                                QByteArray(4000, 'x'));
        row("a play list for the decoder", "#EXTM3U\n#EXTINF:1,\nfile:///etc/passwd\n");
    }

    void refusesWhatIsNoSound() {
        QFETCH(QByteArray, bytes);
        QTemporaryDir work;
        QFile file(work.filePath("upload"));
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.write(bytes);
        file.close();
        const QString target = work.filePath("encoded.mp3");
        const Outcome outcome = audio::encode(file.fileName(), target, work.path(), 128);
        QVERIFY(outcome == Outcome::Undecodable || (outcome == Outcome::Done && !audio::measure(target)));
    }

    void refusesAnMp3CutShort() {
        QTemporaryDir work;
        const QString wav = work.filePath("tone.wav");
        const QString source = work.filePath("upload");
        QVERIFY(tone(wav, 44100, 2, "20"));
        QVERIFY(make("lame", {"-S", "-V", "4", wav, source}));
        QVERIFY(QFile(source).resize(QFile(source).size() / 2));
        QCOMPARE(audio::encode(source, work.filePath("encoded.mp3"), work.path(), 128), Outcome::Undecodable);
    }

    void cleansNames_data() {
        const Table<QString, QString> row{"name", "cleaned"};
        row("path", "../../etc/passwd", "....etcpasswd");
        row("removed characters only", "& |_/*@!^%$#", "");
        row("NUL", QString("a%1b").arg(QChar(QChar::Null)), "ab");
        row("cut at a character", QString(99, 'a') + QStringLiteral("铃"), QString(99, 'a'));
        row("cut at an emoji", QString(97, 'a') + QStringLiteral("🔔"), QString(97, 'a'));
        row("long Chinese", QString(5000, QChar(0x94C3)), QString(33, QChar(0x94C3)));
    }

    void cleansNames() {
        QFETCH(QString, name);
        QTEST(FileStore::cleanName(name), "cleaned");
    }

    void stopsAProgramOverItsLimit() {
        ProgramRun run{"sleep", {"30"}, QDir::tempPath()};
        run.limit = std::chrono::milliseconds(300);
        QElapsedTimer clock;
        clock.start();
        QCOMPARE(int(runProgram(run).end), int(ProgramResult::End::Stopped));
        QVERIFY(clock.elapsed() < 5000);
        run.program = QStringLiteral("/no/such/program");
        QCOMPARE(int(runProgram(run).end), int(ProgramResult::End::Stopped));
    }

    void passesArgumentsWithoutAShell() {
        const ProgramResult result = runProgram({"printf", {"%s", "$(id); `id`"}, QDir::tempPath()});
        QVERIFY(result.ok());
        QCOMPARE(result.output, "$(id); `id`");
    }

    void pipes_data() {
        const Table<QString, QString, int> row{"source", "sink", "end"};
        row("to the end", "head -c 3000000 /dev/zero", "wc -c", int(ProgramResult::End::Done));
        row("source fails", "head -c 10 /dev/zero; exit 1", "cat", int(ProgramResult::End::Failed));
        row("sink fails", "echo x", "cat; exit 1", int(ProgramResult::End::Failed));
        row("source talks much", "head -c 3000000 /dev/zero >&2", "cat", int(ProgramResult::End::Done));
        row("sink without end", "echo x", "sleep 30", int(ProgramResult::End::Stopped));
        row("source without end", "sleep 30", "true", int(ProgramResult::End::Stopped));
    }

    void pipes() {
        QFETCH(QString, source);
        QFETCH(QString, sink);
        ProgramRun last{"sh", {"-c", sink}, QDir::tempPath()};
        last.limit = std::chrono::milliseconds(1000);
        const auto end = runPiped({"sh", {"-c", source}, QDir::tempPath()}, last).end;
        QTEST(int(end), "end");
    }
};

QTEST_GUILESS_MAIN(AudioTest)
#include "audio_test.moc"
