#include "tasks/task_workque.h"

#include "tasks/arrivals.h"
#include "tasks/devicestatus.h"
#include "tasks/latecomers.h"
#include "tasks/nodeque.h"
#include "tasks/schedule/tasktime.h"
#include "tasks/tasxkobj.h"

#include "core/sql/sqlite.h"
#include "nodes/gate.h"

#include <chrono>
#include <QDateTime>
#include <QDebug>
#include <QJsonObject>

namespace {

using namespace std::chrono_literals;

constexpr auto WriteBackInterval = 707ms;
constexpr int EmptyRequestsAt = 10;                        ///< second of the day
const QString HandledName = QStringLiteral(".Elvor.rung"); // beside the database file

const QString SelectDue =
    QStringLiteral("SELECT  *  FROM   task   where  start_time = '@StartTime' and enable != 0 ;");
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
    , m_span{taskstart, taskend}
    , m_DPort(DPort)
    , m_PS1(PS1)
    , m_PS2(PS2)
    , m_DataPort(DataPort)
    , m_ownAddress(nodeList.first().toObject().value(QLatin1String("nodeip")).toString())
    , m_clock(TaskClock::system())
    , m_handledFile(HandledName)
    , m_handled(m_handledFile.read())
    , m_seconds(m_handled.last().value_or(m_clock.epochMs() / 1000))
    , m_reader(database)
    , m_writeBack(database) {
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
    m_handled = {};
    m_lost.clear();
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
    if (!prepare())
        return;
    m_tickStarted = m_clock.steadyMs();
    const qint64 now = m_clock.epochMs() / 1000;
    handleSeconds(now);
    m_reader.forgetNodes();
    pending.merge(m_retrying);
    if (m_span.strictlyContains(m_localTime.at(now).secondOfDay)) {
        takeStarts();
        takeStops();
    }
    forNodeCMD();
    // Of a write nobody knows how long it has to wait: no bell waits for it.
    if (m_emptyRequests && emptyRequests())
        m_emptyRequests = false;
    endStopping();
    startPending();
    m_handledFile.write(m_handled);
}

void Task_workque::handleSeconds(qint64 now) {
    const SecondSequence::Due due = m_seconds.due(now);
    if (due.setBack != 0)
        qWarning() << "task clock: jumped by" << -due.setBack << "s, going on at"
                   << timeOfSeconds(m_localTime.at(now).secondOfDay);
    lose(due.lostFirst, due.lostLast);
    for (qint64 second = due.first; second <= due.last; ++second) {
        if (!handleSecond(m_localTime.at(second)))
            return; // the next tick goes on here
        m_seconds.handled(second);
        m_handled.add(second);
    }
    nameLost();
}

bool Task_workque::handleSecond(const ScheduleSecond& second) {
    const SqlResult tasks = m_database->run(SelectDue, {{QStringLiteral("@StartTime"), second.secondOfDay}});
    if (!tasks.ok)
        return false;
    logSkipped(second);
    startDue(tasks, second);
    m_emptyRequests = m_emptyRequests || second.secondOfDay == EmptyRequestsAt;
    return true;
}

void Task_workque::startDue(const SqlResult& tasks, const ScheduleSecond& second) {
    const bool working = m_span.contains(second.secondOfDay);
    if (!working)
        qDebug() << "outside the working span:" << timeOfSeconds(second.secondOfDay);
    for (int row = 0; row < tasks.rows.size(); ++row) {
        if (!isDue(TaskReader::times(tasks, row), second))
            continue;
        auto player = m_reader.player(tasks, row);
        if (!working)
            qWarning() << "task not started outside the working span:" << player->name << player->id;
        else if (second.firstPass && m_handled.contains(*second.firstPass))
            qInfo() << "task already had its start before the clock went back:" << player->name << player->id;
        else if (!m_guard.admit(static_cast<int>(player->id), second.secondOfDay, second.localDay,
                                m_clock.steadyMs()))
            qWarning() << "task already had its start today:" << player->name << player->id;
        else
            addPending({std::move(player), {}, 0, second.epoch, true});
    }
}
