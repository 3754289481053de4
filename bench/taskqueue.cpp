// How long the task queue keeps the main loop: a thousand bells in one second, one bell for a whole
// fleet, and the fleet's state written back. Prints the longest turn of the loop in each case.
//     taskqueue [speakers] [tasks]
#include "core/sql/sqlite.h"
#include "device/saobj.h"
#include "device/severinit.h"
#include "support/scriptednode.h"
#include "support/waitfor.h"
#include "tasks/devicestatus.h"
#include "tasks/task_workque.h"
#include "tasks/tasxkobj.h"

#include <cstdio>
#include <QCoreApplication>
#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QTemporaryDir>

namespace {

const qint64 Morning = QDateTime({2026, 11, 21}, {8, 0}, Qt::UTC).toSecsSinceEpoch();

/// Measures the loop by a timer that wants to fire all the time.
class LongestTurn {
public:
    LongestTurn() {
        QObject::connect(&m_timer, &QTimer::timeout, [this] { lap(); });
        m_timer.start(0);
    }
    void reset() {
        m_longest = 0;
        m_clock.start();
    }
    double ms() const { return double(m_longest) / 1e6; }
    void lap() {
        m_longest = qMax(m_longest, m_clock.nsecsElapsed());
        m_clock.start();
    }

private:
    QTimer m_timer;
    QElapsedTimer m_clock;
    qint64 m_longest = 0;
};

void quiet(QtMsgType type, const QMessageLogContext&, const QString& text) {
    if (type != QtDebugMsg && type != QtInfoMsg)
        std::fprintf(stderr, "%s\n", qPrintable(text));
}

QString serial(int i) {
    return QStringLiteral("%1").arg(i, 32, 16, QLatin1Char('0'));
}

void fillDatabase(sqlite& db, int speakers, int tasks, const std::vector<ScriptedNode>& nodes) {
    QFile script(":/etc/ttys/sqlite3main.sql");
    script.open(QIODevice::ReadOnly);
    db.runScript(QString::fromUtf8(script.readAll()));
    db.transaction([&] {
        for (size_t i = 1; i < nodes.size(); ++i)
            db.run("INSERT INTO sbox_node (nodeip, nodeport3) VALUES ('127.0.0.1', @p)",
                   {{"@p", nodes[i].port()}});
        for (int i = 1; i <= speakers; ++i)
            db.run("INSERT INTO sbox_device_info (user_id, device_seed) VALUES (5, '@s')",
                   {{"@s", serial(i)}});
        db.run("INSERT INTO userfile (userid, url, len) VALUES (5, 'mp3/5/1.mp3', 3000)");
        for (int i = 1; i <= tasks + 1; ++i) {
            const int time = i <= tasks ? 28800 : 28900;
            const qint64 id =
                db.run("INSERT INTO task (userid, start_time, nodeid, len, kind) VALUES (5, @t, @n, "
                       "3000, 1)",
                       {{"@t", time}, {"@n", i % static_cast<int>(nodes.size()) + 1}})
                    .lastId;
            db.run("INSERT INTO taskfile (taskid, fileid) VALUES (@t, 1)", {{"@t", id}});
            const int members = i <= tasks ? 20 : speakers;
            for (int d = 0; d < members; ++d)
                db.run("INSERT INTO taskseed (taskid, devseedid) VALUES (@t, @d)",
                       {{"@t", id}, {"@d", (i + d) % speakers + 1}});
        }
        return true;
    });
}

} // namespace

int main(int argc, char** argv) {
    qputenv("TZ", "UTC");
    QCoreApplication application(argc, argv);
    const int speakers = argc > 1 ? atoi(argv[1]) : 20000;
    const int tasks = argc > 2 ? atoi(argv[2]) : 1000;
    qInstallMessageHandler(quiet);
    QTemporaryDir directory;
    QDir::setCurrent(directory.path());
    std::vector<ScriptedNode> nodes(4);
    sqlite db(QString(), 0, QString(), QString(), QString(), 3);
    db.init();
    fillDatabase(db, speakers, tasks, nodes);
    QJsonArray list;
    for (const ScriptedNode& node : nodes)
        list.append(QJsonObject{{"nodeip", "127.0.0.1"}, {"nodeport3", node.port()}});
    Task_workque queue(nullptr, 1, 2, 3, "", "", list, nullptr, "", nodes[0].port(), "", "", "", &db, 1000, 3,
                       0, 86399);
    qint64 now = Morning - 1;
    queue.setClock({[&] { return now * 1000; },
                    [&] {
                        return now * 1000;
                    }});
    LongestTurn turn;
    const auto received = [&] {
        int count = 0;
        for (const ScriptedNode& node : nodes)
            count += node.requests().size();
        return count;
    };
    const auto tick = [&](qint64 second, int commands) {
        QElapsedTimer clock;
        const int before = received();
        turn.reset();
        clock.start();
        now = second;
        queue.forqueout();
        const double first = double(clock.nsecsElapsed()) / 1e6;
        turn.lap();
        waitFor([&] { return received() - before >= commands; }, std::chrono::minutes(3));
        std::printf("%d starts: tick %.1f ms, longest turn %.1f ms, %d commands after %.1f s\n", commands,
                    first, turn.ms(), received() - before, double(clock.elapsed()) / 1000);
    };
    tick(Morning, tasks);
    std::printf("one task for %d speakers: ", speakers);
    tick(Morning + 100, 1);

    Severinit devices({}, {}, {}, {}, {}, {}, "key", 3000, 2048, 20, 3000, 10, {}, 0, 0, 0, 0, 0, 0, 0, 0, 0);
    QStringList serials;
    for (int i = 1; i <= speakers; ++i)
        serials += serial(i);
    devices.setStoredSerials(serials, {});
    devices.init_vison();
    DeviceStatus status(&devices, &db);
    for (const int vol : {7, 8}) {
        turn.reset();
        QElapsedTimer clock;
        clock.start();
        for (SAobj* const session : devices.sessions())
            session->setVol(vol);
        turn.lap();
        const auto written = [&] {
            status.write();
            return db.run("SELECT count(*) AS n FROM sbox_device_info WHERE vol = @v", {{"@v", vol}})
                       .integer(0, "n") == speakers;
        };
        waitFor(written, std::chrono::minutes(2));
        std::printf("changed state of %d speakers: longest turn %.1f ms, written after %.2f s\n", speakers,
                    turn.ms(), double(clock.elapsed()) / 1000);
    }
}
