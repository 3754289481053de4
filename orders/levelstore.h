#pragma once

#include <functional>
#include <memory>
#include <QHash>
#include <QMutex>
#include <QSemaphore>
#include <QString>
#include <QThread>

class sqlite;

/// Volumes to go back to, in the database: those of speakers that an order has set for the time that it
/// plays. A service that was killed meanwhile puts them back after its next start. A thread of its own
/// writes; methods belong to the main loop. Owner: start-up.
class LevelStore : public QThread {
    Q_OBJECT
public:
    using Levels = QHash<QString, int>; ///< by serial

    /// `database`, which outlives this object, is cloned for the thread.
    explicit LevelStore(const sqlite& database);
    /// Writes what is left; what the database does not take is given up.
    ~LevelStore() override;

    /// What an earlier run left behind; on `database`'s thread.
    static Levels load(sqlite& database);
    /// The speaker shall go back to this volume; 0: it has.
    void set(const QString& sn, int level);

protected:
    void run() override;

private:
    bool write(sqlite& database, const Levels& levels);

    const sqlite& m_database;
    QMutex m_mutex;
    Levels m_changed;       ///< guarded by m_mutex
    bool m_isOver = false;  ///< guarded by m_mutex
    QSemaphore m_something; ///< has changed, or the end has come
};
