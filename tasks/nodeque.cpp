#include "tasks/nodeque.h"

#include "tasks/getdevinfo.h"
#include "tasks/serviceperiod.h"
#include "tasks/tasxkobj.h"
#include "tasks/warning.h"

#include "core/sqlite.h"
#include "device/severinit.h"

#include <QDebug>
#include <QHostAddress>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QNetworkInterface>

namespace {

// Statements handed over in one turn of the main loop.
constexpr int StatementsPerTurn = 200;

const QString CloseRequest = QStringLiteral("UPDATE `taskpop` SET `status` = '0' WHERE (`id` = '@id') ;");
const QString TaskIdle = QStringLiteral("UPDATE `task` SET `statu` = '0' WHERE (`id` = '@taskid');");

bool isThisMachine(const QString& address) {
    const QHostAddress host(address);
    return address.isEmpty() || address == QLatin1String("localhost") || host.isLoopback() ||
           QNetworkInterface::allAddresses().contains(host);
}

} // namespace

Nodeque::Nodeque(Severinit* devices, int kind, sqlite* database, const QString& address, int port,
                 QObject* parent)
    : QThread(parent)
    , m_devices(devices)
    , m_database(database)
    , m_node{address.isEmpty() ? QStringLiteral("127.0.0.1") : address, port}
    , m_deviceStatus(kind == 1 ? SqlDialect::Mysql : SqlDialect::Sqlite) {
    m_parser.setMaxThreadCount(1);
    // An address that only the world outside knows this machine by is its own too.
    if (!isThisMachine(address) && address != m_database->site.ownAddress)
        return;
    m_query = new Getdevinfo(this);
    connect(m_query, &Getdevinfo::over, this, &Nodeque::getdevinfo);
    connect(&m_pollTimer, &QTimer::timeout, this, &Nodeque::getinfotime);
    m_pollTimer.start(PollInterval);
}

Nodeque::~Nodeque() {
    stop();
    wait();
    m_parser.waitForDone();
}

void Nodeque::stop() {
    m_stopping = true;
    m_waiting.release();
    m_quit.release();
}

void Nodeque::insert(quint64 taskid, Tasxkobj* player) {
    if (m_players.contains(taskid)) {
        qWarning() << "tasx 已被启动" << player->name << taskid;
        player->deleteLater();
        return;
    }
    player->setParent(this);
    m_players.insert(taskid, player);
    connect(player, &Tasxkobj::Ocmd, this, &Nodeque::fuckin);
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

void Nodeque::fuckover(quint64 taskid) {
    Tasxkobj* player = m_players.take(taskid);
    if (!player)
        return;
    disconnect(player, nullptr, this, nullptr);
    qInfo() << "fuckover" << player->name << taskid;
    if (player->requestRow != 0)
        emit updatedatabase(
            fillSql(CloseRequest, {{QStringLiteral("@id"), player->requestRow}}, m_database->dialect()).sql);
    if (!player->isTemporary)
        emit updatedatabase(fillSql(TaskIdle, {{QStringLiteral("@taskid"), static_cast<qint64>(taskid)}},
                                    m_database->dialect())
                                .sql);
    player->deleteLater();
}

// --- command relay ---

void Nodeque::fuckin(const QByteArray& command) {
    {
        const QMutexLocker lock(&m_mutex);
        if (m_waitingBytes + command.size() > MaxWaitingBytes) {
            qWarning() << "node queue full, command lost:" << m_node.host << m_node.port << m_commands.size();
            return;
        }
        m_waitingBytes += command.size();
        m_commands.push_back(command);
    }
    m_waiting.release();
}

bool Nodeque::takeCommand(QByteArray& command) {
    const QMutexLocker lock(&m_mutex);
    if (m_commands.empty())
        return false;
    command = std::move(m_commands.front());
    m_commands.pop_front();
    m_waitingBytes -= command.size();
    return true;
}

void Nodeque::run() {
    QByteArray command;
    while (true) {
        m_waiting.acquire();
        if (m_stopping)
            return;
        if (takeCommand(command))
            fuckmg(command);
        if (m_quit.tryAcquire(1, static_cast<int>(CommandPause.count())))
            return;
    }
}

void Nodeque::fuckmg(const QByteArray& command) {
    qInfo() << "[fuckmg:]" << m_node.host << m_node.port;
    if (QThread::currentThread() == this)
        relayCommand(m_node, command);
    else
        relayCommandFromLoop(m_node, command, this);
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
    if (m_query && !m_polling)
        askForChanges();
    checkServicePeriods();
}

void Nodeque::askForChanges() {
    m_polling = true;
    m_query->doit(m_node.host, m_node.port, m_deviceStatus.question());
}

void Nodeque::checkServicePeriods() {
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

void Nodeque::getdevinfo(const QByteArray& answer) {
    if (answer.isEmpty()) {
        m_polling = false;
        return;
    }
    m_parser.start([this, answer] {
        const QStringList changes = m_deviceStatus.changes(answer);
        QMetaObject::invokeMethod(
            this,
            [this, changes] {
                m_statements += changes;
                emitStatements();
            },
            Qt::QueuedConnection);
    });
}

void Nodeque::emitStatements() {
    for (int i = 0; i < StatementsPerTurn && !m_statements.isEmpty(); ++i)
        emit updatedatabase(m_statements.takeFirst());
    m_polling = !m_statements.isEmpty();
    if (m_polling)
        QTimer::singleShot(0, this, &Nodeque::emitStatements);
    else if (m_deviceStatus.isMore())
        askForChanges();
}
