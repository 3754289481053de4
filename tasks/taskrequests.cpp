// Requests that other programs and the management interface leave in table `taskpop`.
#include "tasks/task_workque.h"

#include "tasks/tasxkobj.h"

#include "core/sql/sqlite.h"

#include <algorithm>
#include <QDebug>
#include <utility>

namespace {

/// Requests of one kind taken in one tick; the rest waits for the next.
constexpr int MaxTaken = 300;

const QString SelectStarts = QStringLiteral("SELECT * FROM  taskpop where status = '1' and kind = '1' ;");
const QString SelectStops = QStringLiteral("SELECT * FROM  taskpop where status = '2' and kind = '1' ;");
const QString SelectCommands = QStringLiteral("SELECT * FROM  taskpop where status = '1' and kind = '2' ;");
const QString SelectFinished = QStringLiteral("SELECT * FROM  taskpop where status = '12' and kind = '2' ;");
const QString Close = QStringLiteral("UPDATE  `taskpop` SET `status` = '0' WHERE (`id` = '@id') ;");
const QString Taken = QStringLiteral("UPDATE  `taskpop` SET `status` = '11' WHERE (`id` = '@id') ;");
const QString TaskIdle = QStringLiteral("UPDATE  `task` SET `statu` = '0' WHERE (`id` = '@id');");

qint64 idOf(const SqlResult& requests, int row) {
    return requests.value(row, "id").toLongLong();
}

int rowsToTake(const SqlResult& requests) {
    return std::min(requests.rows.size(), MaxTaken);
}

} // namespace

bool Task_workque::mark(const QList<qint64>& ids, const QString& statement) {
    return std::all_of(ids.begin(), ids.end(), [&](qint64 id) {
        return m_database->run(statement, {{QStringLiteral("@id"), id}}).ok;
    });
}

void Task_workque::takeStarts() {
    const SqlResult requests = m_database->run(SelectStarts);
    QList<qint64> handled;
    std::vector<std::unique_ptr<Tasxkobj>> players;
    for (int row = 0; row < rowsToTake(requests); ++row) {
        const SqlResult task = m_reader.task(requests.integer(row, "taskid"));
        if (!task.ok)
            return;
        handled += idOf(requests, row);
        if (task.isEmpty()) {
            qWarning() << "task start error: no such task" << requests.integer(row, "taskid");
            continue;
        }
        players.push_back(m_reader.player(task, 0));
        players.back()->requestRow = handled.last();
        players.back()->forcePlayAs = requests.text(row, "info").startsWith(QLatin1String("Waringstar"));
    }
    if (handled.isEmpty() || !m_database->transaction([&] { return mark(handled, Close); }))
        return;
    for (auto& player : players)
        addPending({std::move(player), {}, 0, m_clock.epochMs() / 1000, 0, {}});
}

void Task_workque::takeStops() {
    const SqlResult requests = m_database->run(SelectStops);
    QList<qint64> handled;
    QList<qint64> tasks;
    for (int row = 0; row < rowsToTake(requests); ++row) {
        handled += idOf(requests, row);
        tasks += requests.value(row, "taskid").toLongLong();
    }
    if (handled.isEmpty() || !m_database->transaction([&] { return mark(handled, Close); }))
        return;
    for (const qint64 task : tasks) {
        instsqk(sqlLine(TaskIdle, {{QStringLiteral("@id"), task}}));
        stopping.push_back(static_cast<quint64>(task));
    }
}

void Task_workque::forNodeCMD() {
    takeTemporaryStarts();
    takeTemporaryStops();
}

void Task_workque::takeTemporaryStarts() {
    const SqlResult requests = m_database->run(SelectCommands);
    QList<qint64> taken;
    for (int row = 0; row < rowsToTake(requests); ++row)
        taken += idOf(requests, row);
    if (taken.isEmpty() || !m_database->transaction([&] { return mark(taken, Taken); }))
        return;
    for (int row = 0; row < taken.size(); ++row)
        addPending({m_reader.temporaryPlayer(requests, row, temporaryKey(taken.at(row))),
                    {requests.text(row, "ip"), requests.integer(row, "port")},
                    0,
                    m_clock.epochMs() / 1000,
                    0,
                    {}});
}

void Task_workque::takeTemporaryStops() {
    const SqlResult requests = m_database->run(SelectFinished);
    QList<qint64> closed;
    for (int row = 0; row < rowsToTake(requests); ++row)
        closed << idOf(requests, row) << requests.value(row, "taskid").toLongLong();
    if (closed.isEmpty() || !m_database->transaction([&] { return mark(closed, Close); }))
        return;
    for (int i = 1; i < closed.size(); i += 2)
        stopping.push_back(temporaryKey(closed.at(i)));
}

void Task_workque::endStopping() {
    for (const quint64 key : std::exchange(stopping, {})) {
        endLate(key);
        const auto waiting = pending.find(key);
        if (waiting != pending.end() && waiting->second.askedAt < m_tickStarted) {
            refuse(waiting->second, "stopped before it started");
            pending.erase(waiting);
        } else if (Tasxkobj* player = runningPlayer(key))
            player->TimerOut();
        else
            qInfo() << "task stop: it does not play" << key;
    }
    fndout();
}
