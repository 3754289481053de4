#include "orders/levelstore.h"

#include "core/sql/sqlite.h"

#include <chrono>
#include <QMutexLocker>
#include <utility>

namespace {

using namespace std::chrono_literals;

constexpr auto RetryPause = 1000ms;

const QString SelectLevels = QStringLiteral("SELECT `sn`, `level` FROM `speaker_level`;");
const QString SetLevel =
    QStringLiteral("REPLACE INTO `speaker_level` (`sn`, `level`) VALUES ('@sn', @level);");
const QString DropLevel = QStringLiteral("DELETE FROM `speaker_level` WHERE `sn` = '@sn';");

} // namespace

LevelStore::LevelStore(const sqlite& database)
    : m_database(database) {
    start();
}

LevelStore::~LevelStore() {
    {
        const QMutexLocker lock(&m_mutex);
        m_isOver = true;
    }
    m_something.release();
    wait();
}

LevelStore::Levels LevelStore::load(sqlite& database) {
    Levels levels;
    const SqlResult rows = database.run(SelectLevels);
    for (int row = 0; row < rows.rows.size(); ++row)
        levels.insert(rows.text(row, "sn"), rows.integer(row, "level"));
    return levels;
}

void LevelStore::set(const QString& sn, int level) {
    bool isFirst = false;
    {
        const QMutexLocker lock(&m_mutex);
        isFirst = m_changed.isEmpty();
        m_changed.insert(sn, level);
    }
    if (isFirst)
        m_something.release();
}

void LevelStore::run() {
    const auto database = m_database.forThread();
    for (bool isOver = false; !isOver;) {
        m_something.acquire();
        Levels levels;
        {
            const QMutexLocker lock(&m_mutex);
            levels.swap(m_changed);
            isOver = m_isOver;
        }
        if (levels.isEmpty() || write(*database, levels) || isOver)
            continue;
        // What has changed meanwhile is newer.
        const QMutexLocker lock(&m_mutex);
        for (auto level = levels.cbegin(); level != levels.cend(); ++level) {
            if (!m_changed.contains(level.key()))
                m_changed.insert(level.key(), level.value());
        }
        m_something.tryAcquire(m_something.available());
        m_something.release();
    }
}

bool LevelStore::write(sqlite& database, const Levels& levels) {
    const bool isWritten = database.transaction([&] {
        for (auto level = levels.cbegin(); level != levels.cend(); ++level) {
            const SqlArgs values{{QStringLiteral("@sn"), level.key()},
                                 {QStringLiteral("@level"), level.value()}};
            const SqlResult done = level.value() == 0
                                       ? database.run(DropLevel, {{QStringLiteral("@sn"), level.key()}})
                                       : database.run(SetLevel, values);
            if (!done.ok)
                return false;
        }
        return true;
    });
    if (!isWritten)
        m_something.tryAcquire(1, static_cast<int>(RetryPause.count())); // sooner at the end
    return isWritten;
}
