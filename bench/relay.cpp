// How late a bell leaves for its node behind what others have to say: behind 400 tasks of another
// account in the same second, and right after 60 tasks that end in one second. With the pause between
// two commands as it is fixed and without one.
//     relay
#include "core/sql/sqlite.h"
#include "nodes/gate.h"
#include "support/scriptednode.h"
#include "support/waitfor.h"
#include "tasks/nodeque.h"
#include "tasks/tasxkobj.h"

#include <cstdio>
#include <QCoreApplication>
#include <QJsonArray>
#include <QTemporaryDir>

namespace {

using namespace std::chrono_literals;

void quiet(QtMsgType type, const QMessageLogContext&, const QString& text) {
    if (type != QtDebugMsg && type != QtInfoMsg)
        std::fprintf(stderr, "%s\n", qPrintable(text));
}

struct Bench {
    explicit Bench(std::chrono::milliseconds pause)
        : db(QString(), 0, QString(), QString(), QString(), 3)
        , poller(nullptr, 3, &db, "127.0.0.1", node.port(), {&gate, pause}) {
        poller.start();
        clock.start();
    }
    /// A task for ten speakers, of which `first` is the first, with a file of its own.
    void bell(quint64 id, int account, int first, int seconds = 600) {
        auto* player = new Tasxkobj(&db);
        player->id = id;
        player->userid = account;
        player->len = seconds;
        player->repeat = 1;
        for (int i = 0; i < 10; ++i)
            player->seeds += QStringLiteral("%1").arg(first + i, 32, 16, QLatin1Char('0'));
        player->files = QStringList{QStringLiteral("http://host/mp3/%1.mp3").arg(id)};
        player->fileLengths.insert(player->files.first(), seconds);
        poller.insert(id, player);
    }
    void begin() {
        began = clock.elapsed();
        before = node.requests().size();
    }
    /// Waits for everything; ms from begin() until the task's play was with the node.
    qint64 lateness(quint64 id) {
        waitIdle();
        waitFor([&] { return find(id) != nullptr; }, 1min);
        return find(id)->at - began;
    }
    const ScriptedNode::Request* find(quint64 id) const {
        const QByteArray file = "/" + QByteArray::number(id) + ".mp3";
        for (const ScriptedNode::Request& request : node.requests()) {
            if (request.bytes.contains(file))
                return &request;
        }
        return nullptr;
    }
    void waitIdle() {
        waitFor([&] { return poller.isIdle(); }, 2min);
    }

    ScriptedNode node;
    Gate gate{nullptr, {}, {}};
    sqlite db;
    Nodeque poller;
    QElapsedTimer clock;
    qint64 began = 0;
    int before = 0;
};

void measure(std::chrono::milliseconds pause) {
    std::printf("pause %d ms:", static_cast<int>(pause.count()));
    {
        Bench bench(pause);
        bench.begin();
        for (int i = 0; i < 400; ++i)
            bench.bell(static_cast<quint64>(i), 5, i * 10);
        bench.bell(1000, 6, 9000);
        const qint64 late = bench.lateness(1000);
        std::printf(" behind 400 of another account %lld ms (all after %.1f s);", late,
                    double(bench.clock.elapsed() - bench.began) / 1000);
    }
    for (const bool same : {false, true}) {
        Bench bench(pause);
        for (int i = 0; i < 60; ++i)
            bench.bell(static_cast<quint64>(i), 5, i * 10);
        bench.waitIdle();
        bench.begin();
        bench.poller.endAll();
        bench.bell(1000, 6, same ? 0 : 9000);
        const qint64 late = bench.lateness(1000);
        std::printf(" after 60 ends, %s speakers, %lld ms (%d commands)", same ? "their" : "other", late,
                    bench.node.requests().size() - bench.before);
    }
    std::printf("\n");
}

} // namespace

int main(int argc, char** argv) {
    const QCoreApplication application(argc, argv);
    qInstallMessageHandler(quiet);
    QTemporaryDir directory;
    QDir::setCurrent(directory.path());
    measure(100ms);
    measure(0ms);
    return 0;
}
