#include "tasks/toldbells.h"

#include "core/sql/sqlite.h"
#include "journal/numbers.h"

#include <functional>
#include <iterator>
#include <map>
#include <QSet>

namespace {

const QString SelectTold =
    QStringLiteral("SELECT schedule, due FROM journal WHERE kind = 'bell' and due > 0 and id >= @number ;");
const QString SelectTasks = QStringLiteral("SELECT id, task_name, userid FROM task WHERE id IN (@ids) ;");
const QString SelectStarted = QStringLiteral(
    "SELECT id, schedule, due, started FROM broadcast WHERE id >= @number and kind = 'bell' and due > 0 and "
    "started > 0 and schedule IN (@ids) ;");

// In an hour that comes twice a run is named by the first pass, its row by the pass in which it rang.
constexpr qint64 SecondPass = 2 * 3600;
constexpr qint64 InTimeMs = 2000;

using Key = std::pair<qint64, qint64>; ///< schedule, second

Key keyOf(const Key& key) {
    return key;
}
template<typename Value>
Key keyOf(const std::pair<const Key, Value>& entry) {
    return entry.first;
}

/// The run's own, or that of its second pass.
template<typename Sorted>
auto findRun(const Sorted& sorted, const TaskRuns::Run& run) {
    const auto found = sorted.lower_bound(Key(run.task, run.due));
    const bool isFound = found != sorted.end() && keyOf(*found).first == run.task &&
                         keyOf(*found).second <= run.due + SecondPass;
    return isFound ? found : sorted.end();
}

SqlArg numberArg(qint64 since) {
    return {QStringLiteral("@number"), static_cast<qint64>(BroadcastNumbers::firstAt(since * 1000))};
}

struct Started {
    quint64 broadcast;
    qint64 at; ///< ms
};

void decide(BellOutcome& outcome, const Started& started) {
    const qint64 lateMs = started.at - outcome.due * 1000;
    outcome.state = lateMs < InTimeMs ? BellOutcome::State::Played : BellOutcome::State::Late;
    outcome.late = lateMs < InTimeMs ? 0 : lateMs / 1000;
    outcome.broadcast = started.broadcast;
    outcome.reason.clear();
}

std::map<Key, Started> startedOf(const SqlResult& broadcasts) {
    std::map<Key, Started> started;
    for (int row = 0; row < broadcasts.rows.size(); ++row)
        started[{broadcasts.value(row, "schedule").toLongLong(),
                 broadcasts.value(row, "due").toLongLong() / 1000}] = {
            broadcasts.value(row, "id").toULongLong(), broadcasts.value(row, "started").toLongLong()};
    return started;
}

/// As if it never began.
BellOutcome endedBefore(const TaskRuns::Run& run, const SqlResult& tasks) {
    BellOutcome outcome;
    outcome.schedule = run.task;
    outcome.due = run.due;
    outcome.state = BellOutcome::State::Skipped;
    outcome.reason = QStringLiteral("the service ended");
    for (int row = 0; row < tasks.rows.size(); ++row) {
        if (tasks.value(row, "id").toLongLong() != run.task)
            continue;
        outcome.name = tasks.text(row, "task_name");
        outcome.userid = tasks.integer(row, "userid");
    }
    return outcome;
}

void eraseIf(std::set<Key>& told, const std::function<bool(qint64 due)>& isGone) {
    for (auto one = told.begin(); one != told.end();)
        one = isGone(one->second) ? told.erase(one) : std::next(one);
}

} // namespace

bool ToldBells::load(qint64 since) {
    const SqlResult rows = m_database->run(SelectTold, {numberArg(since)});
    for (int row = 0; row < rows.rows.size(); ++row)
        add(rows.value(row, "schedule").toLongLong(), rows.value(row, "due").toLongLong() / 1000);
    return rows.ok;
}

std::optional<std::vector<BellOutcome>> ToldBells::untold(const std::vector<TaskRuns::Run>& runs,
                                                          qint64 since) const {
    std::vector<TaskRuns::Run> open;
    QSet<qint64> schedules;
    for (const TaskRuns::Run& run : runs) {
        if (findRun(m_told, run) != m_told.end())
            continue;
        open.push_back(run);
        schedules.insert(run.task);
    }
    if (open.empty())
        return std::vector<BellOutcome>();
    const SqlArg ids{QStringLiteral("@ids"), QList<qint64>(schedules.begin(), schedules.end())};
    const SqlResult tasks = m_database->run(SelectTasks, {ids});
    const SqlResult broadcasts = m_database->run(SelectStarted, {ids, numberArg(since)});
    if (!tasks.ok || !broadcasts.ok)
        return std::nullopt;
    const std::map<Key, Started> started = startedOf(broadcasts);
    std::vector<BellOutcome> outcomes;
    for (const TaskRuns::Run& run : open) {
        BellOutcome outcome = endedBefore(run, tasks);
        if (const auto found = findRun(started, run); found != started.end()) {
            outcome.due = found->first.second;
            decide(outcome, found->second);
        }
        outcomes.push_back(std::move(outcome));
    }
    return outcomes;
}

void ToldBells::forgetFrom(qint64 epoch) {
    eraseIf(m_told, [epoch](qint64 due) { return due >= epoch; });
}

void ToldBells::forgetBefore(qint64 epoch) {
    eraseIf(m_told, [epoch](qint64 due) { return due < epoch; });
}
