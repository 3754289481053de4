#include "tasks/taskruns.h"

#include "tasks/writeback.h"

#include "core/sql/sqlite.h"

#include <algorithm>
#include <functional>
#include <iterator>

namespace {

const QString SelectRuns = QStringLiteral("SELECT taskid, due FROM taskrun ;");
const QString InsertRun =
    QStringLiteral("INSERT OR IGNORE INTO taskrun (taskid, due) VALUES (@taskid, @due) ;");
const QString InsertRunMysql =
    QStringLiteral("INSERT IGNORE INTO taskrun (taskid, due) VALUES (@taskid, @due) ;");
const QString UpdateLate =
    QStringLiteral("UPDATE taskrun SET late = @late WHERE taskid = @taskid and due = @due ;");
const QString DeleteFrom = QStringLiteral("DELETE FROM taskrun WHERE due >= @due ;");
const QString DeleteBefore = QStringLiteral("DELETE FROM taskrun WHERE due < @due ;");

const QString& insertRun(const sqlite& database) {
    return database.dialect() == SqlDialect::Mysql ? InsertRunMysql : InsertRun;
}

SqlArgs argsOf(const TaskRuns::Run& run) {
    return {{QStringLiteral("@taskid"), run.task}, {QStringLiteral("@due"), run.due}};
}

void eraseIf(QSet<QPair<qint64, qint64>>& runs, const std::function<bool(qint64 due)>& isGone) {
    for (auto run = runs.begin(); run != runs.end();)
        run = isGone(run->second) ? runs.erase(run) : std::next(run);
}

} // namespace

bool TaskRuns::load() {
    const SqlResult rows = m_database->run(SelectRuns);
    for (const auto& row : rows.rows)
        m_runs.insert({row.value(0).toLongLong(), row.value(1).toLongLong()});
    return rows.ok;
}

std::vector<TaskRuns::Run> TaskRuns::since(qint64 epoch) const {
    std::vector<Run> runs;
    for (const auto& [task, due] : m_runs) {
        if (due >= epoch)
            runs.push_back({task, due});
    }
    return runs;
}

std::vector<bool> TaskRuns::claim(const std::vector<Run>& runs) {
    std::vector<bool> isOurs;
    isOurs.reserve(runs.size());
    for (const Run& run : runs)
        isOurs.push_back(!has(run.task, run.due));
    if (!runs.empty() && (m_isAway || !write(runs, isOurs))) {
        m_isAway = true;
        for (const Run& run : runs) {
            m_writeBack->append(sqlLine(insertRun(*m_database), argsOf(run)));
            m_unwritten = std::max(m_unwritten, run.due);
        }
    }
    for (const Run& run : runs)
        m_runs.insert({run.task, run.due});
    return isOurs;
}

bool TaskRuns::write(const std::vector<Run>& runs, std::vector<bool>& isOurs) {
    std::vector<bool> written = isOurs;
    const bool isDone = m_database->transaction([&] {
        for (size_t i = 0; i < runs.size(); ++i) {
            const SqlResult row = m_database->run(insertRun(*m_database), argsOf(runs[i]));
            if (!row.ok)
                return false;
            written[i] = written[i] && row.affected != 0;
        }
        return true;
    });
    if (isDone)
        isOurs = written;
    return isDone;
}

void TaskRuns::noteLate(const Run& run, qint64 late) {
    SqlArgs args = argsOf(run);
    args.emplace_back(QStringLiteral("@late"), late);
    m_writeBack->append(sqlLine(UpdateLate, args));
}

void TaskRuns::forgetFrom(qint64 epoch) {
    eraseIf(m_runs, [epoch](qint64 due) { return due >= epoch; });
    m_writeBack->append(sqlLine(DeleteFrom, {{QStringLiteral("@due"), epoch}}));
}

void TaskRuns::forgetBefore(qint64 epoch) {
    eraseIf(m_runs, [epoch](qint64 due) { return due < epoch; });
    m_writeBack->append(sqlLine(DeleteBefore, {{QStringLiteral("@due"), epoch}}));
}
