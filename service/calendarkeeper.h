#pragma once

#include <atomic>
#include <QObject>
#include <QTimer>
#include <thread>

class sqlite;

/// Sees to it that what recurs in imported calendars reaches as far ahead as ever: once a day it is expanded
/// again, in a thread and on a database connection of its own. Main loop; owner: start-up.
class CalendarKeeper : public QObject {
    Q_OBJECT
public:
    explicit CalendarKeeper(const sqlite* database, QObject* parent = nullptr);
    /// Waits for a run that is under way.
    ~CalendarKeeper() override;

private:
    void look();
    const sqlite* m_database;
    QTimer m_timer;
    std::thread m_thread;
    std::atomic<bool> m_isBusy{false};
    std::atomic<qint64> m_doneOn{0}; ///< local date, days since 1970-01-01
};
