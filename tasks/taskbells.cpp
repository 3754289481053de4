// What becomes of the bells that are due: they ring, or it is told why not.
#include "tasks/task_workque.h"

#include "tasks/bellrows.h"
#include "tasks/schedule/tasktime.h"
#include "tasks/tasxkobj.h"

#include <QDebug>

namespace {

// After so long the journals of other nodes have written what they knew.
constexpr qint64 OthersWriteMs = 3000;

/// The words of the log for a bell that does not ring.
const char* logged(Silence silence) {
    switch (silence) {
    case Silence::OutsideSpan:
        return "task not started outside the working span:";
    case Silence::Calendar:
        return "task silent by its calendar:";
    case Silence::NoSuchTime:
        return "task skipped: today has no";
    case Silence::None:
        break;
    }
    return "task lost: its time passed unseen:";
}

} // namespace

void Task_workque::judge(const DueBells& due, const Bell& bell, qint64 now) {
    const int row = due.rows.value(bell.schedule);
    const MissedPolicy missed = missedPolicy(due.tasks, row);
    auto player = m_reader.player(due.tasks, row);
    if (m_runs.has(bell.schedule, bell.due)) {
        qInfo() << "task already had its start today:" << player->name << player->id;
    } else if (bell.silence == Silence::None && missed.admits(now - bell.at)) {
        addPending({std::move(player), {}, 0, bell.at, bell.due, missed});
    } else if (!bell.isSecondPass()) {
        skip(due, bell, row,
             bell.silence == Silence::None ? QLatin1String(absenceText(m_absences.of(bell.at)))
                                           : silenceText(bell, due.calendars));
    }
}

void Task_workque::skip(const DueBells& due, const Bell& bell, int row, const QString& reason) {
    const QString name = due.tasks.text(row, "task_name");
    qWarning() << logged(bell.silence) << timeOfSeconds(due.tasks.integer(row, "start_time")) << name
               << bell.schedule;
    tellOnce({bell.schedule, name, due.tasks.integer(row, "userid"), bell.at, BellOutcome::State::Skipped, 0,
              reason, 0});
}

void Task_workque::tellOnce(const BellOutcome& outcome) {
    if (m_tellBell && m_told.add(outcome.schedule, outcome.due))
        m_tellBell(outcome);
}

/// What became of the bells that earlier processes claimed and did not tell of any more.
void Task_workque::tellInherited() {
    if (m_inherited.empty() || !m_tellBell || m_clock.steadyMs() - m_readyAt < OthersWriteMs)
        return;
    const qint64 since = m_clock.epochMs() / 1000 - SecondSequence::LookBack;
    const auto untold = m_told.load(since) ? m_told.untold(m_inherited, since) : std::nullopt;
    if (!untold)
        return; // the next tick tries again
    m_inherited.clear();
    for (const BellOutcome& outcome : *untold)
        tellOnce(outcome);
}
