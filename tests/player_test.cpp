// What the player of a task sends, and when it ends. The file timer is played by hand.
#include "support/table.h"
#include "support/testmain.h"
#include "support/waitfor.h"
#include "tasks/tasxkobj.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QSignalSpy>

namespace {
struct Recorder {
    explicit Recorder(Tasxkobj& player) {
        QObject::connect(&player, &Tasxkobj::Ocmd, [this](const QByteArray& json) { sent += json; });
        QObject::connect(&player, &Tasxkobj::Over, [this](quint64 id) { over += id; });
    }

    /// "PLAYOFF a.mp3" for a play command, the command word alone for others.
    QStringList commands() const {
        QStringList words;
        for (const QByteArray& json : sent) {
            const QJsonObject object = QJsonDocument::fromJson(json).object();
            const QString word = object["cmd"].toString();
            const bool play = object.contains("filelist") && !object.contains("level");
            words += play ? word + ' ' + object["filelist"].toArray().first().toString() : word;
        }
        return words;
    }
    QList<QByteArray> sent;
    QList<quint64> over;
};

const QStringList Stop{"FORCESTOP", "FORCESTOP"};

void fill(Tasxkobj& player, int repeat, const QStringList& files) {
    player.id = 7;
    player.name = "bell";
    player.len = 600;
    player.repeat = repeat;
    player.seeds = QStringList{"00000000000000000000000000000001", "00000000000000000000000000000002"};
    player.files = files;
    for (const QString& file : files)
        player.fileLengths[file] = 30;
}

} // namespace

class PlayerTest : public QObject {
    Q_OBJECT
private slots:
    void ordered() {
        Tasxkobj player(nullptr);
        fill(player, 3, {"a.mp3", "b.mp3"});
        Recorder record(player);
        player.Start();
        for (int i = 0; i < 5; ++i)
            player.TimerNext();
        const QStringList all{"PLAYOFF a.mp3", "PLAYOFF b.mp3", "PLAYOFF a.mp3",
                              "PLAYOFF b.mp3", "PLAYOFF a.mp3", "PLAYOFF b.mp3"};
        QCOMPARE(record.commands(), all);
        QVERIFY(record.over.isEmpty());
        player.TimerNext();
        QCOMPARE(record.commands(), all + Stop);
        QCOMPARE(record.over, QList<quint64>{7});
        player.TimerOut(); // a stop request that comes too late
        player.TimerNext();
        QCOMPARE(record.commands(), all + Stop);
        QCOMPARE(record.over.size(), 1);
    }

    void commandShape() {
        Tasxkobj player(nullptr);
        fill(player, 1, {"http://h/a b\nc.mp3"});
        Recorder record(player);
        player.Start();
        player.TimerOut();
        const QJsonDocument play = QJsonDocument::fromJson(record.sent[0]);
        QCOMPARE(record.sent[0], play.toJson(QJsonDocument::Compact));
        QCOMPARE(play.object().keys(), (QStringList{"cmd", "filelist", "snlist"}));
        QCOMPARE(play["filelist"].toArray(), QJsonArray{"http://h/a b\nc.mp3"});
        for (const QByteArray& json : qAsConst(record.sent)) {
            QVERIFY(!json.contains('\n'));
            const QJsonObject object = QJsonDocument::fromJson(json).object();
            QCOMPARE(object["snlist"].toArray().size(), 2);
        }
        QVERIFY(!record.sent[1].contains(' ') && !record.sent[2].contains(' '));
        const QJsonObject last = QJsonDocument::fromJson(record.sent[2]).object();
        QVERIFY(last["filelist"].toArray().first().toString().endsWith(".mp3"));
        QVERIFY(last.toVariantMap().values().contains("5"));
    }

    void alarmPlaysWithItsOwnWord() {
        Tasxkobj player(nullptr);
        fill(player, 1, {"a.mp3"});
        player.forcePlayAs = true;
        Recorder record(player);
        player.Start();
        player.TimerOut();
        QCOMPARE(record.commands(), (QStringList{"PLAYAS a.mp3", "PLAYAS", "FORCESTOP"}));
    }

    void listIsPlayedAThousandTimesAtMost() {
        Tasxkobj player(nullptr);
        fill(player, 5000, {"a.mp3"});
        player.Start();
        QCOMPARE(player.playlist.size(), 999); // and one is playing
    }

    void timeEndsTheTask_data() {
        const Table<int> row{"repeat"};
        row("at random", 0);
        row("in order", 5);
    }

    void timeEndsTheTask() {
        QFETCH(int, repeat);
        Tasxkobj player(nullptr);
        fill(player, repeat, {"a.mp3"});
        player.len = 1;
        Recorder record(player);
        QElapsedTimer clock;
        clock.start();
        player.Start();
        QVERIFY(player.endsWithin(std::chrono::seconds(1)));
        QVERIFY(!player.endsWithin(std::chrono::milliseconds(100)));
        QVERIFY(waitFor([&] { return !record.over.isEmpty(); }));
        QVERIFY(clock.elapsed() >= 999);
        QCOMPARE(record.commands(), QStringList{"PLAYOFF a.mp3"} + Stop);
    }

    void randomPlaysOnlyWhatIsThere() {
        Tasxkobj player(nullptr);
        fill(player, 0, {"a.mp3", "b.mp3", "c.mp3"});
        Recorder record(player);
        player.Start();
        for (int i = 0; i < 200; ++i)
            player.TimerNext();
        const QStringList played = record.commands();
        QCOMPARE(played.size(), 201);
        QCOMPARE(QSet<QString>(played.begin(), played.end()),
                 (QSet<QString>{"PLAYOFF a.mp3", "PLAYOFF b.mp3", "PLAYOFF c.mp3"}));
    }

    void odd_data() {
        const Table<int, int, int, int, int, bool> row{"repeat",     "len",   "jiange",
                                                       "fileLength", "overs", "playing"};
        row("random without any time", 0, 0, 0, 30, 1, false);
        row("random without length", 0, 0, 5, 30, 0, false);
        row("negative repeat", -1, 600, 0, 30, 0, false);
        row("file without length", 1, 600, 0, 0, 0, true);
    }

    void odd() {
        QFETCH(int, repeat);
        QFETCH(int, len);
        QFETCH(int, jiange);
        QFETCH(int, fileLength);
        Tasxkobj player(nullptr);
        fill(player, repeat, {"a.mp3"});
        player.len = len;
        player.jiange = jiange;
        player.fileLengths["a.mp3"] = fileLength;
        Recorder record(player);
        player.Start();
        QVERIFY(record.sent.isEmpty());
        QTEST(record.over.size(), "overs");
        QTEST(player.isPlaying(), "playing");
    }
};

int main(int argc, char** argv) {
    return runTest<PlayerTest>(argc, argv);
}
#include "player_test.moc"
