#pragma once

#include <atomic>
#include <QObject>
#include <QTimer>
#include <thread>

class sqlite;

/// Deletes what is older than `days` from the audit log, once an hour, some lines at a time, in a thread and
/// on a database connection of its own. Main loop; owner: start-up.
class AuditKeeper : public QObject {
    Q_OBJECT
public:
    AuditKeeper(const sqlite* database, int days, QObject* parent = nullptr);
    /// Waits for the statement that is under way.
    ~AuditKeeper() override;

private:
    void look();
    const sqlite* m_database;
    int m_days;
    QTimer m_timer;
    std::thread m_thread;
    std::atomic<bool> m_isBusy{false};
    std::atomic<bool> m_isEnding{false};
};
