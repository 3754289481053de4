#include "tasks/task_workque.h"

#include "tasks/nodeque.h"
#include "tasks/tasktime.h"
#include "tasks/tasxkobj.h"

#include "core/sqlite.h"

#include <chrono>
#include <QDateTime>
#include <QDebug>
#include <QJsonObject>

namespace {

using namespace std::chrono_literals;

constexpr auto WriteBackInterval = 707ms;
constexpr int EmptyRequestsAt = 10; ///< second of the day
// The main loop waits no longer than this for another connection's transaction; what does not get
// through is tried again by a later tick.
const QString ShortLockWait = QStringLiteral("PRAGMA busy_timeout = 40;");

const QString TasksIdle = QStringLiteral(" UPDATE  `task` SET `statu` = '0' where id > 0 ;");
const QString EmptyRequests = QStringLiteral("DELETE FROM taskpop  WHERE (`id` > 0)");
const QString RearmCommands =
    QStringLiteral("UPDATE  `taskpop` SET `status` = '0' WHERE (`id` > '0') and (`status` = '11');");
const QString RewriteNode =
    QStringLiteral("UPDATE `sbox_node` SET `nodeip` = '@nodeip', `nodeport1` = '@3333', `nodeport2` = "
                   "'@6003', `nodeport3` = '@6006', `nodeport4` = '@6002', `nodeport5` = '@6003' WHERE "
                   "(`id` = '1');");
const QString SelectDue =
    QStringLiteral("SELECT  *  FROM   task   where  start_time = '@StartTime' and enable != 0 ;");
const QString SelectSkipped = QStringLiteral(
    "SELECT  *  FROM   task   where  start_time >= '@first' and start_time <= '@last' and enable != 0 ;");

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
                           int /*sqltaskid*/, int /*mode*/, int taskstart, int taskend, QObject* parent)
    : QObject(parent)
    , m_database(database)
    , m_devices(devices)
    , m_sourceHost(std::move(src_ipstr))
    , m_cdnHost(std::move(cdn_str))
    , m_span{taskstart, taskend}
    , m_DPort(DPort)
    , m_PS1(PS1)
    , m_PS2(PS2)
    , m_DataPort(DataPort)
    , m_ownAddress(nodeList.first().toObject().value(QLatin1String("nodeip")).toString())
    , m_clock(TaskClock::system())
    , m_seconds(m_clock.epochMs() / 1000)
    , m_reader(database)
    , m_writeBack(database) {
    connect(m_database, &sqlite::error, this, &Task_workque::sqlerror);
    m_database->run(TasksIdle);
    m_database->run(EmptyRequests);
    systeminit();
    if (m_database->dialect() == SqlDialect::Sqlite)
        m_database->exec(ShortLockWait);
    for (const QJsonValue& entry : nodeList) {
        const QJsonObject object = entry.toObject();
        node({object.value(QLatin1String("nodeip")).toString(),
              object.value(QLatin1String("nodeport3")).toInt()},
             object.value(QLatin1String("nocdn")).toBool(true));
    }
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
        node.poller->wait();
}

void Task_workque::systeminit() {
    m_database->run(RearmCommands);
    m_database->run(RewriteNode, {{QStringLiteral("@nodeip"), m_ownAddress},
                                  {QStringLiteral("@3333"), m_DPort},
                                  {QStringLiteral("@6003"), m_PS1},
                                  {QStringLiteral("@6006"), m_PS2},
                                  {QStringLiteral("@6002"), m_DataPort}});
}

void Task_workque::sqlerror() {
    qWarning() << "db init error 1"
               << "Task_workque";
}

void Task_workque::setClock(TaskClock clock) {
    m_clock = std::move(clock);
    m_seconds = SecondSequence(m_clock.epochMs() / 1000);
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
    m_tickStarted = m_clock.steadyMs();
    const qint64 now = m_clock.epochMs() / 1000;
    const SecondSequence::Due due = m_seconds.due(now);
    if (due.jump != 0)
        qWarning() << "task clock: jumped by" << due.jump << "s, going on at"
                   << timeOfSeconds(m_localTime.at(now).secondOfDay);
    for (qint64 second = due.first; second <= due.last; ++second) {
        if (!handleSecond(m_localTime.at(second)))
            break; // the next tick goes on here
        m_seconds.handled(second);
    }
    m_reader.forgetNodes();
    pending.merge(m_retrying);
    if (m_span.strictlyContains(m_localTime.at(now).secondOfDay)) {
        takeStarts();
        takeStops();
    }
    forNodeCMD();
    endStopping();
    startPending();
    scheduleTick();
}

bool Task_workque::handleSecond(const ScheduleSecond& second) {
    if (second.secondOfDay == EmptyRequestsAt && !m_database->run(EmptyRequests).ok)
        return false;
    logSkipped(second);
    const SqlResult tasks = m_database->run(SelectDue, {{QStringLiteral("@StartTime"), second.secondOfDay}});
    if (tasks.ok)
        startDue(tasks, second);
    return tasks.ok;
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
        else if (second.repeated)
            qInfo() << "task already had its start before the clock went back:" << player->name << player->id;
        else if (!m_guard.admit(static_cast<int>(player->id), second.secondOfDay, m_clock.steadyMs()))
            qWarning() << "task already started within a minute:" << player->name << player->id;
        else
            addPending(std::move(player));
    }
}

void Task_workque::logSkipped(const ScheduleSecond& second) {
    for (const SkippedTimes& skipped : m_localTime.skippedBefore(second.epoch)) {
        const SqlResult tasks = m_database->run(SelectSkipped, {{QStringLiteral("@first"), skipped.first},
                                                                {QStringLiteral("@last"), skipped.last}});
        for (int row = 0; row < tasks.rows.size(); ++row) {
            if (isDueIn(TaskReader::times(tasks, row), skipped))
                qWarning() << "task skipped: today has no" << timeOfSeconds(tasks.integer(row, "start_time"))
                           << tasks.text(row, "task_name") << tasks.integer(row, "id");
        }
    }
}
