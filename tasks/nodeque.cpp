#include "tasks/nodeque.h"

#include "tasks/alarms/warning.h"
#include "tasks/serviceperiod.h"
#include "tasks/tasxkobj.h"

#include "core/sql/sqlite.h"
#include "device/severinit.h"
#include "journal/journal.h"
#include "nodes/gate.h"

#include <algorithm>
#include <QDebug>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <utility>

namespace {

using namespace std::chrono_literals;

const QString CloseRequest = QStringLiteral("UPDATE `taskpop` SET `status` = '0' WHERE (`id` = '@id') ;");
const QString TaskIdle = QStringLiteral("UPDATE `task` SET `statu` = '0' WHERE (`id` = '@taskid');");

/// For the whole frame to leave: a list of 20,000 speakers is 700 kB.
constexpr NodeCall::Limits RelayLimits{1000ms, 5000ms};
constexpr int LoggedBytes = 256; ///< of a payload; the list of speakers in it may be long

RelayQueue::Time steadyNow() {
    return std::chrono::duration_cast<RelayQueue::Time>(std::chrono::steady_clock::now().time_since_epoch());
}

} // namespace

Nodeque::Nodeque(Severinit* devices, int /*kind*/, sqlite* database, const QString& address, int port,
                 Relay relay, QObject* parent)
    : QThread(parent)
    , m_devices(devices)
    , m_database(database)
    , m_node{address.isEmpty() ? QStringLiteral("127.0.0.1") : address, port}
    , m_relay(relay) {
    if (!relay.gate->isThisMachine(address))
        return;
    connect(&m_pollTimer, &QTimer::timeout, this, &Nodeque::getinfotime);
    m_pollTimer.start(PollInterval);
}

Nodeque::~Nodeque() {
    stop();
    wait();
}

void Nodeque::stop() {
    m_stopping = true;
    m_waiting.release();
    m_pauseOver.release();
}

void Nodeque::insert(quint64 taskid, Tasxkobj* player) {
    if (m_players.contains(taskid)) {
        qWarning() << "tasx 已被启动" << player->name << taskid;
        player->deleteLater();
        return;
    }
    player->setParent(this);
    m_players.insert(taskid, player);
    connect(player, &Tasxkobj::Ocmd, this, [this, player](const QByteArray& command) {
        enqueue({command, player->userid, steadyNow() + player->playLeft()});
    });
    connect(player, &Tasxkobj::Over, this, &Nodeque::fuckover);
    player->Start();
    if (!player->isPlaying() && m_players.contains(taskid))
        fuckover(taskid); // it had nothing to play: its task must not stay bound
}

Tasxkobj* Nodeque::player(quint64 taskid) const {
    return m_players.value(taskid, nullptr);
}

void Nodeque::endDue(std::chrono::milliseconds time) {
    for (Tasxkobj* player : m_players.values()) {
        if (player->endsWithin(time))
            player->TimerOut();
    }
}

int Nodeque::endAll() {
    const QList<Tasxkobj*> players = m_players.values();
    for (Tasxkobj* player : players)
        player->TimerOut();
    return players.size();
}

void Nodeque::fuckover(quint64 taskid) {
    Tasxkobj* player = m_players.take(taskid);
    if (!player)
        return;
    disconnect(player, nullptr, this, nullptr);
    qInfo() << "fuckover" << player->name << taskid;
    if (player->requestRow != 0)
        emit updatedatabase(sqlLine(CloseRequest, {{QStringLiteral("@id"), player->requestRow}}));
    if (!player->isTemporary)
        emit updatedatabase(sqlLine(TaskIdle, {{QStringLiteral("@taskid"), static_cast<qint64>(taskid)}}));
    player->deleteLater();
}

// --- command relay ---

void Nodeque::fuckin(const QByteArray& command) {
    enqueue({command});
}

void Nodeque::enqueue(RelayQueue::Command command) {
    {
        const QMutexLocker lock(&m_mutex);
        if (m_arrivedBytes + m_queuedBytes + command.payload.size() > MaxWaitingBytes) {
            qWarning() << "node queue full, command lost:" << m_node.host << m_node.port;
            return;
        }
        m_arrivedBytes += command.payload.size();
        m_arrived.push_back(std::move(command));
        m_isIdle = false;
    }
    m_waiting.release();
}

bool Nodeque::isIdle() {
    const QMutexLocker lock(&m_mutex);
    return m_isIdle;
}

void Nodeque::hurry() {
    m_isHurrying = true;
    m_pauseOver.release();
}

// --- the poller's thread ---

void Nodeque::run() {
    while (!m_stopping) {
        collect();
        const auto command = m_queue.take(steadyNow());
        m_queuedBytes = m_queue.bytes();
        if (const int dropped = m_queue.takeDropped())
            qWarning() << "plays not sent, their time was over:" << dropped << m_node.host << m_node.port;
        if (command) {
            fuckmg(*command);
            pause();
        } else {
            waitForCommands();
        }
    }
}

void Nodeque::collect() {
    std::vector<RelayQueue::Command> arrived;
    {
        const QMutexLocker lock(&m_mutex);
        arrived.swap(m_arrived);
        m_queuedBytes += std::exchange(m_arrivedBytes, 0);
    }
    for (const RelayQueue::Command& command : arrived)
        m_queue.add(command);
}

void Nodeque::waitForCommands() {
    {
        const QMutexLocker lock(&m_mutex);
        m_isIdle = m_arrived.empty();
    }
    m_waiting.acquire(std::max(1, m_waiting.available()));
}

void Nodeque::pause() {
    if (m_relay.pause > 0ms && !m_isHurrying)
        m_pauseOver.tryAcquire(1, static_cast<int>(m_relay.pause.count()));
}

void Nodeque::fuckmg(const QByteArray& command) {
    qInfo() << "[fuckmg:]" << m_node.host << m_node.port;
    NodeCall::Limits limits = RelayLimits;
    limits.cancelled = &m_stopping;
    if (QThread::currentThread() != this)
        m_relay.gate->run(m_node, command, {}, RelayLimits);
    else if (m_relay.gate->runAndWait(m_node, command, Gate::Until::Written, limits).isLost())
        return;
    noteSent(command);
    qInfo() << "writedata" << m_node.host << m_node.port << command.size() << command.left(LoggedBytes);
}

/// What this machine's speakers get the journal sees itself.
void Nodeque::noteSent(const QByteArray& command) const {
    if (!m_relay.journal || m_relay.gate->isThisNode(m_node))
        return;
    const QJsonObject document = QJsonDocument::fromJson(command).object();
    const PlayOrders orders = PlayOrders::read(document.value(QLatin1String("order")));
    for (const auto& [order, count] : orders.runs()) {
        if (order != 0 && document.contains(QLatin1String("filelist")))
            m_relay.journal->sentElsewhere(order);
    }
}

// --- alarm sources ---

void Nodeque::insertwarming(const QString& name, Warning* warning) {
    diswarming(name);
    m_warnings.insert(name, connect(warning, &Warning::cmd, this, &Nodeque::fuckmg));
}

void Nodeque::diswarming(const QString& name) {
    disconnect(m_warnings.take(name));
}

// --- this machine's node ---

void Nodeque::getinfotime() {
    const ServicePeriods periods(m_database);
    if (!periods.exists())
        return;
    const QStringList expired = periods.expired();
    if (!expired.isEmpty()) {
        qInfo() << "Disable sn:" << expired.join(QLatin1Char(','));
        useing_disable(expired);
        periods.markDisabled(expired);
    }
    const QStringList renewed = periods.renewed();
    if (!renewed.isEmpty()) {
        qInfo() << "Enable sn:" << renewed.join(QLatin1Char(','));
        useing_enable(renewed);
        periods.markEnabled(renewed);
    }
}

void Nodeque::useing_enable(const QStringList& serials) {
    sendUseing("useing_enable", serials);
}

void Nodeque::useing_disable(const QStringList& serials) {
    sendUseing("useing_disable", serials);
}

void Nodeque::sendUseing(const char* word, const QStringList& serials) {
    const QJsonObject request{{QStringLiteral("cmd"), QLatin1String(word)},
                              {QStringLiteral("snlist"), QJsonArray::fromStringList(serials)}};
    m_devices->Diamonds_jsondidocom(QJsonDocument(request).toJson(QJsonDocument::Compact));
}
