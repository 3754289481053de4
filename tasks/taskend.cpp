// Ends of plays that no timer and no request in the database asks for.
#include "tasks/task_workque.h"

#include "tasks/tasxkobj.h"

#include <algorithm>
#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QDebug>

namespace {

using namespace std::chrono_literals;

constexpr auto Turn = 10ms;
// The commands of one speaker leave its session spaced.
constexpr auto LastCommands = 200ms;

void serveLoop(std::chrono::milliseconds time) {
    const QDeadlineTimer over(time);
    while (!over.hasExpired())
        QCoreApplication::processEvents(QEventLoop::AllEvents | QEventLoop::WaitForMoreEvents,
                                        static_cast<int>(Turn.count()));
}

} // namespace

void Task_workque::endTask(quint64 key) {
    endLate(key);
    for (auto* starts : {&pending, &m_retrying}) {
        const auto waiting = starts->find(key);
        if (waiting == starts->end())
            continue;
        refuse(waiting->second, "deleted before it started");
        starts->erase(waiting);
    }
    if (Tasxkobj* player = runningPlayer(key))
        player->TimerOut();
}

void Task_workque::end(std::chrono::milliseconds limit) {
    m_tickTimer.stop();
    m_writeTimer.stop();
    m_handledKept = 0;
    keepHandled();
    pending.clear();
    m_retrying.clear();
    int ended = 0;
    for (const Node& node : qAsConst(m_nodes)) {
        ended += node.poller->endAll();
        node.poller->hurry();
    }
    fndout();
    if (ended == 0 && hasRelayedAll())
        return;
    qInfo() << "stopping" << ended << "plays";
    const QDeadlineTimer deadline(limit - LastCommands);
    while (!hasRelayedAll() && !deadline.hasExpired())
        serveLoop(Turn);
    serveLoop(LastCommands);
}

bool Task_workque::hasRelayedAll() const {
    return std::all_of(m_nodes.begin(), m_nodes.end(),
                       [](const Node& node) { return node.poller->isIdle(); });
}
