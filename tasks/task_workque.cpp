#include "tasks/task_workque.h"

#include "tasks/arrivals.h"
#include "tasks/bellrows.h"
#include "tasks/devicestatus.h"
#include "tasks/latecomers.h"
#include "tasks/nodeque.h"
#include "tasks/schedule/tasktime.h"
#include "tasks/tasxkobj.h"

#include "core/sql/sqlite.h"
#include "nodes/gate.h"

#include <algorithm>
#include <chrono>
#include <QDateTime>
#include <QDebug>
#include <QJsonObject>

namespace {

using namespace std::chrono_literals;

constexpr auto WriteBackInterval = 707ms;
constexpr int EmptyRequestsAt = 10;                        ///< second of the day
const QString HandledName = QStringLiteral(".Elvor.rung"); // beside the database file

// The clock is put back by so much by hand: who has heard a bell then does not want it again, though the date
// changes once more.
constexpr qint64 ByHand = 2 * 3600;
constexpr qint64 JumpMs = 2000;        ///< that the wall clock gains on the steady one: it was set
constexpr qint64 KeepHandledEach = 60; ///< s between two notes of the last second in the database

const QString KeepHandled = QStringLiteral("UPDATE taskclock SET handled = @second WHERE id = 1 ;");
} // namespace

TaskClock TaskClock::system() {
    return {[] { return QDateTime::currentMSecsSinceEpoch(); },
            [] {
                return static_cast<qint64>(std::chrono::duration_cast<std::chrono::milliseconds>(
                                               std::chrono::steady_clock::now().time_since_epoch())
                                               .count());
            }};
}

Task_workque::Task_workque(Severinit* devices, int DPort, int DataPort, int PS1, QString src_ipstr,
                           QString cdn_str, const QJsonArray& nodeList, QCoreApplication* /*application*/,
                           const QString& /*Meida_ip*/, int PS2, const QString& /*task_username*/,
                           const QString& /*task_passwd*/, const QString& /*basename*/, sqlite* database,
                           int /*sqltaskid*/, int /*mode*/, int taskstart, int taskend, QObject* parent,
                           Nodeque::Relay relay)
    : QObject(parent)
    , m_database(database)
    , m_devices(devices)
    , m_ownGate(relay.gate ? nullptr : std::make_unique<Gate>(nullptr, QString(), QList<int>()))
    , m_relay{relay.gate ? relay.gate : m_ownGate.get(), relay.pause, relay.journal}
    , m_sourceHost(std::move(src_ipstr))
    , m_cdnHost(std::move(cdn_str))
    , m_house{{taskstart, taskend}, false}
    , m_DPort(DPort)
    , m_PS1(PS1)
    , m_PS2(PS2)
    , m_DataPort(DataPort)
    , m_ownAddress(nodeList.first().toObject().value(QLatin1String("nodeip")).toString())
    , m_clock(TaskClock::system())
    , m_handledFile(HandledName)
    , m_seconds(m_clock.epochMs() / 1000)
    , m_reader(database)
    , m_writeBack(database)
    , m_runs(database, &m_writeBack)
    , m_told(database) {
    m_absences.note(m_seconds.last(), Absence::NotRunning);
    if (const auto handled = m_handledFile.read()) {
        m_isHandledKnown = true;
        m_seconds.handled(*handled);
    }
    connect(m_database, &sqlite::error, this, &Task_workque::sqlerror);
    if (m_devices) {
        m_arrivals = std::make_unique<Arrivals>(m_devices);
        m_deviceStatus = std::make_unique<DeviceStatus>(m_devices, m_database);
        m_latecomers = std::make_unique<Latecomers>(
            m_devices, [this](std::unique_ptr<Tasxkobj> play) { bindLate(std::move(play)); });
    }
    for (const QJsonValue& entry : nodeList) {
        const QJsonObject object = entry.toObject();
        node({object.value(QLatin1String("nodeip")).toString(),
              object.value(QLatin1String("nodeport3")).toInt()},
             object.value(QLatin1String("nocdn")).toBool(true));
    }
    prepare();
    m_tickTimer.setSingleShot(true);
    m_tickTimer.setTimerType(Qt::PreciseTimer);
    connect(&m_tickTimer, &QTimer::timeout, this, &Task_workque::forqueout);
    scheduleTick();
    connect(&m_writeTimer, &QTimer::timeout, this, &Task_workque::fndout);
    m_writeTimer.start(WriteBackInterval);
}

Task_workque::~Task_workque() {
    for (const Node& node : qAsConst(m_nodes))
        node.poller->stop();
    for (const Node& node : qAsConst(m_nodes))
        delete node.poller; // waits; before the gate goes
}

void Task_workque::sqlerror() {
    qWarning() << "db init error 1"
               << "Task_workque";
}

void Task_workque::setClock(TaskClock clock) {
    m_clock = std::move(clock);
    m_seconds = SecondSequence(m_clock.epochMs() / 1000);
    m_absences.clear();
    m_lastWall = 0;
    m_tickTimer.stop();
    scheduleTick();
}

void Task_workque::forNodeout() {
    for (const Node& node : qAsConst(m_nodes)) {
        if (connect(node.poller, &Nodeque::updatedatabase, this, &Task_workque::instsqk,
                    Qt::UniqueConnection))
            qInfo() << "nodeport3" << node.poller->address() << node.poller->port();
    }
}

// --- the scheduling tick ---

void Task_workque::scheduleTick() {
    m_tickTimer.start(static_cast<int>(1000 - m_clock.epochMs() % 1000));
}

void Task_workque::forqueout() {
    scheduleTick();
    if (!prepare()) {
        m_isUnread = true;
        return;
    }
    m_tickStarted = m_clock.steadyMs();
    m_runs.beginTick();
    const qint64 now = m_clock.epochMs() / 1000;
    handleSeconds(now);
    m_reader.forgetNodes();
    pending.merge(m_retrying);
    if (m_house.span.strictlyContains(m_localTime.at(now).secondOfDay)) {
        takeStarts();
        takeStops();
    }
    forNodeCMD();
    // Of a write nobody knows how long it has to wait: no bell waits for it.
    if (m_emptyRequests && emptyRequests())
        m_emptyRequests = false;
    endStopping();
    startPending();
    keepHandled();
    tellInherited();
}

void Task_workque::handleSeconds(qint64 now) {
    const SecondSequence::Due due = m_seconds.due(now);
    if (due.setBack != 0)
        setBack(due.setBack, now);
    noteAbsence(now);
    if (due.first > due.last)
        return;
    const auto bells = readDueBells(*m_database, m_localTime, m_house, due.first, due.last);
    m_isUnread = !bells;
    if (!bells)
        return; // the next tick begins with the same second
    for (const Bell& bell : bells->bells)
        judge(*bells, bell, now);
    if (bells->passes(EmptyRequestsAt)) {
        m_emptyRequests = true;
        m_runs.forgetBefore(now - TaskRuns::Kept);
        m_told.forgetBefore(now - TaskRuns::Kept);
    }
    if (due.forgotten != 0)
        qWarning() << "task clock: seconds lost:" << due.forgotten;
    m_seconds.handled(due.last);
    m_absences.forgetUntil(due.last);
}

void Task_workque::setBack(qint64 by, qint64 now) {
    qWarning() << "task clock: jumped by" << -by << "s, going on at"
               << timeOfSeconds(m_localTime.at(now).secondOfDay);
    m_absences.clear();
    if (by <= ByHand)
        return;
    const qint64 tomorrow = m_localTime.days(now, now).back().stretches.back().last + 1;
    m_runs.forgetFrom(tomorrow);
    m_told.forgetFrom(tomorrow);
}

void Task_workque::noteAbsence(qint64 now) {
    const qint64 wall = m_clock.epochMs();
    const qint64 steady = m_clock.steadyMs();
    const bool isFirst = m_lastWall == 0;
    if (m_isUnread)
        m_absences.note(now, Absence::DatabaseAway);
    else if (!isFirst && (wall - m_lastWall) - (steady - m_lastSteady) > JumpMs)
        m_absences.note(now, Absence::SetForward);
    else
        m_absences.note(now, Absence::HeldUp);
    m_lastWall = wall;
    m_lastSteady = steady;
}

/// The second until which a process that goes on from here has nothing to make up for: bells that still wait
/// for their turn are not handled. Those that only memory knows to have rung are.
qint64 Task_workque::handedOut() const {
    qint64 last = m_seconds.last();
    for (const auto* starts : {&pending, &m_retrying}) {
        for (const auto& [key, start] : *starts) {
            if (start.isScheduled())
                last = std::min(last, start.dueAt - 1);
        }
    }
    return std::min(std::max(last, m_runs.unwritten()), m_seconds.last());
}

void Task_workque::keepHandled() {
    const qint64 last = handedOut();
    m_handledFile.write(last);
    if (std::abs(last - m_handledKept) < KeepHandledEach)
        return;
    m_handledKept = last;
    instsqk(sqlLine(KeepHandled, {{QStringLiteral("@second"), last}}));
}
