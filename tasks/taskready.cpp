// What an earlier process left: its plays end, its requests go, and then bells ring.
#include "tasks/task_workque.h"

#include "tasks/arrivals.h"
#include "tasks/nodeque.h"
#include "tasks/tasxkobj.h"

#include "core/sql/migrations.h"
#include "core/sql/sqlite.h"

#include <QDebug>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

namespace {

// The main loop waits no longer than this for another connection's transaction; what does not get
// through is tried again by a later tick.
const QString ShortLockWait = QStringLiteral("PRAGMA busy_timeout = 40;");

const QString SelectPlaying = QStringLiteral("SELECT  *  FROM  task   where  statu = '1'  ;");
const QString SelectPlayingRequests =
    QStringLiteral("SELECT * FROM  taskpop where status = '11' and kind = '2' ;");
const QString TasksIdle = QStringLiteral("UPDATE  `task` SET `statu` = '0' where id > 0 ;");
const QString SelectHandled = QStringLiteral("SELECT handled FROM taskclock where id = 1 ;");
const QString EmptyRequests = QStringLiteral("DELETE FROM taskpop  WHERE (`id` > 0)");
const QString RearmCommands =
    QStringLiteral("UPDATE  `taskpop` SET `status` = '0' WHERE (`id` > '0') and (`status` = '11');");
const QString RewriteNode =
    QStringLiteral("UPDATE `sbox_node` SET `nodeip` = '@nodeip', `nodeport1` = '@3333', `nodeport2` = "
                   "'@6003', `nodeport3` = '@6006', `nodeport4` = '@6002', `nodeport5` = '@6003' WHERE "
                   "(`id` = '1');");

} // namespace

bool Task_workque::prepare() {
    if (m_isReady)
        return true;
    if (m_database->dialect() == SqlDialect::Sqlite && !m_database->exec(ShortLockWait))
        return false;
    QString why;
    if (!migrateSchema(*m_database, why))
        return false;
    const auto interrupted = interruptedPlays();
    const auto tidyUp = [this] {
        return m_database->run(TasksIdle).ok && emptyRequests() && systeminit();
    };
    if (!interrupted || !readHandled() || !m_database->transaction(tidyUp))
        return false;
    silence(*interrupted);
    m_isReady = true;
    qInfo() << "task queue: ready";
    return true;
}

/// What rang before, and until when.
bool Task_workque::readHandled() {
    const SqlResult kept = m_database->run(SelectHandled);
    const qint64 since = m_clock.epochMs() / 1000 - SecondSequence::LookBack;
    if (!kept.ok || !m_runs.load() || !m_told.load(since))
        return false;
    m_inherited = m_runs.since(since);
    m_readyAt = m_clock.steadyMs();
    const qint64 last = kept.value(0, "handled").toLongLong();
    if (!m_isHandledKnown && last != 0)
        m_seconds.handled(last);
    m_isHandledKnown = true;
    return true;
}

bool Task_workque::emptyRequests() {
    return m_database->run(EmptyRequests).ok;
}

bool Task_workque::systeminit() {
    return m_database->run(RearmCommands).ok &&
           m_database
               ->run(RewriteNode, {{QStringLiteral("@nodeip"), m_ownAddress},
                                   {QStringLiteral("@3333"), m_DPort},
                                   {QStringLiteral("@6003"), m_PS1},
                                   {QStringLiteral("@6006"), m_PS2},
                                   {QStringLiteral("@6002"), m_DataPort}})
               .ok;
}

/// What the rows say is playing; nothing when the database can't be read.
std::optional<std::vector<Task_workque::Interrupted>> Task_workque::interruptedPlays() {
    std::vector<Interrupted> plays;
    const SqlResult tasks = m_database->run(SelectPlaying);
    const SqlResult requests = m_database->run(SelectPlayingRequests);
    if (!tasks.ok || !requests.ok)
        return std::nullopt;
    for (int row = 0; row < tasks.rows.size(); ++row) {
        const auto player = m_reader.player(tasks, row);
        NodeAddress node;
        if (!m_reader.readNode(player->nodeid, node) || !m_reader.readSeeds(*player))
            return std::nullopt;
        plays.push_back({node, player->seeds});
    }
    for (int row = 0; row < requests.rows.size(); ++row)
        plays.push_back({{requests.text(row, "ip"), requests.integer(row, "port")},
                         m_reader.temporaryPlayer(requests, row, 0)->seeds});
    return plays;
}

void Task_workque::silence(const std::vector<Interrupted>& plays) {
    QMap<QString, QStringList> seeds; // by node
    QMap<QString, NodeAddress> nodes;
    for (const Interrupted& play : plays) {
        const QString key = isThisNode(play.node) ? QString() : nodeKey(play.node);
        seeds[key] += play.seeds;
        nodes[key] = play.node;
    }
    QJsonObject stop{{QStringLiteral("cmd"), QStringLiteral("FORCESTOP")}};
    for (auto list = seeds.begin(); list != seeds.end(); ++list) {
        list->removeDuplicates();
        qInfo() << "stopping what played before the start:" << list.key() << list->size() << "speakers";
        if (list.key().isEmpty()) {
            if (m_arrivals)
                m_arrivals->deliver({stop}, *list);
        } else if (Node* const other = node(nodes[list.key()])) {
            stop.insert(QStringLiteral("snlist"), QJsonArray::fromStringList(*list));
            other->poller->fuckin(QJsonDocument(stop).toJson(QJsonDocument::Compact));
            stop.remove(QStringLiteral("snlist"));
        }
    }
}

bool Task_workque::isThisNode(const NodeAddress& address) const {
    return address.host == m_ownAddress && address.port == m_PS2;
}
