#include "support/testmain.h"

#include <QDirIterator>
#include <QFile>
#include <QMap>
#include <QRegularExpression>
#include <QSet>

// Holds every #include of the rooms against the table of docs/architecture.md: an arrow that it does not name
// fails.

static QString readSource(const QString& path) {
    QFile file(QStringLiteral(SOURCE_DIR "/") + path);
    return file.open(QIODevice::ReadOnly) ? QString::fromUtf8(file.readAll()) : QString();
}

static QStringList backticked(const QString& text) {
    static const QRegularExpression name("`([a-z/-]+/)`");
    QStringList names;
    for (auto found = name.globalMatch(text); found.hasNext();)
        names += found.next().captured(1);
    return names;
}

/// Room to the rooms that it may include.
static QMap<QString, QSet<QString>> documentedRooms() {
    QMap<QString, QSet<QString>> rooms;
    const QStringList lines = readSource("docs/architecture.md").split('\n');
    for (const QString& line : lines) {
        const QStringList cells = line.split('|');
        if (cells.size() != 5 || backticked(cells.at(1)).isEmpty())
            continue;
        const QStringList allowed = backticked(cells.at(3));
        for (const QString& room : backticked(cells.at(1)))
            rooms[room] = QSet<QString>(allowed.begin(), allowed.end());
    }
    return rooms;
}

class RoomsTest : public QObject {
    Q_OBJECT
private slots:
    void noArrowRunsUpwards() {
        const auto rooms = documentedRooms();
        QVERIFY(rooms.size() > 10);
        const auto roomOf = [&rooms](QString path) {
            do
                path = path.left(path.lastIndexOf('/', path.size() - 2) + 1);
            while (!path.isEmpty() && !rooms.contains(path));
            return path;
        };
        static const QRegularExpression include("^#include \"([^\"]+)\"",
                                                QRegularExpression::MultilineOption);
        QStringList wrong;
        int checked = 0;
        for (const QString& top : topDirectories()) {
            QDirIterator files(QStringLiteral(SOURCE_DIR "/") + top, {"*.cpp", "*.h"}, QDir::Files,
                               QDirIterator::Subdirectories);
            while (files.hasNext()) {
                const QString path = files.next().mid(int(sizeof SOURCE_DIR));
                const QString room = roomOf(path);
                if (room.isEmpty())
                    wrong += path + " stands in no room";
                for (auto found = include.globalMatch(readSource(path)); found.hasNext(); ++checked) {
                    const QString header = found.next().captured(1);
                    const QString other = roomOf(header);
                    if (other != room && !rooms.value(room).contains(other))
                        wrong += path + " includes " + header;
                }
            }
        }
        QVERIFY(checked > 500);
        QVERIFY2(wrong.isEmpty(), qPrintable(wrong.join('\n')));
    }

    /// The order of the table is a way down: a room names only rooms that stand above it there.
    void theTableHasNoCircle() {
        const auto rooms = documentedRooms();
        QSet<QString> seen;
        bool moved = true;
        while (moved) {
            moved = false;
            for (auto room = rooms.begin(); room != rooms.end(); ++room) {
                if (seen.contains(room.key()) || !seen.contains(room.value()))
                    continue;
                seen.insert(room.key());
                moved = true;
            }
        }
        QCOMPARE(seen.size(), rooms.size());
    }

private:
    /// Whatever holds sources but tests and benches, which may include everything.
    static QStringList topDirectories() {
        QStringList tops = QDir(SOURCE_DIR).entryList(QDir::Dirs | QDir::NoDotAndDotDot);
        for (const char* other : {"build", "tests", "bench", "programs", "docs", "var", "console"})
            tops.removeAll(other);
        return tops;
    }
};

int main(int argc, char** argv) {
    return runTest<RoomsTest>(argc, argv);
}
#include "rooms_test.moc"
