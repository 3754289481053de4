#pragma once

#include <QPair>
#include <QSet>
#include <vector>

class sqlite;
class WriteBack;

/// Which bells have had their start, so that none has a second one, whatever becomes of the process and the
/// clock: the table `taskrun`, and what is in memory while the database does not answer. Main loop only.
class TaskRuns {
public:
    struct Run {
        qint64 task;
        qint64 due; ///< seconds since 1970-01-01 UTC
    };
    static constexpr qint64 Kept = 8 * 86400; ///< s after its second

    /// What can't be written at once goes through `writeBack`.
    TaskRuns(sqlite* database, WriteBack* writeBack)
        : m_database(database)
        , m_writeBack(writeBack) {}

    /// Reads what earlier processes rang. False when the database does not answer.
    bool load();
    bool has(qint64 task, qint64 due) const { return m_runs.contains({task, due}); }
    std::vector<Run> since(qint64 epoch) const; ///< those with their second from there on
    /// The latest second of which only memory knows what rang; 0 none.
    qint64 unwritten() const { return m_unwritten; }
    /// Notes the bells in one transaction; true for each that had no start before. While the database does
    /// not answer it is asked once a tick.
    std::vector<bool> claim(const std::vector<Run>& runs);
    /// It rang so many seconds after its time.
    void noteLate(const Run& run, qint64 late);
    void beginTick() { m_isAway = false; }
    void forgetFrom(qint64 epoch);   ///< what a wrong clock rang ahead of time
    void forgetBefore(qint64 epoch); ///< what is too old to come again

private:
    bool write(const std::vector<Run>& runs, std::vector<bool>& isOurs);
    sqlite* m_database;
    WriteBack* m_writeBack;
    QSet<QPair<qint64, qint64>> m_runs; ///< task and second
    qint64 m_unwritten = 0;
    bool m_isAway = false;
};
