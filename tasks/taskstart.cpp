// Binding players to the pollers of their nodes.
#include "tasks/task_workque.h"

#include "tasks/nodeque.h"
#include "tasks/tasxkobj.h"

#include "core/sqlite.h"

#include <QDebug>
#include <QElapsedTimer>
#include <utility>

namespace {

using namespace std::chrono_literals;

constexpr qint64 TurnMs = 15; ///< of one turn of the main loop: what is left starts in the next turns
constexpr qint64 GiveUpMs = SecondSequence::MaxCatchUp * 1000; ///< no bell rings later than this
// A play that ends this close to another's start ends first: its stop must not silence the next one.
constexpr auto SameMoment = 500ms;

const QString MarkPlaying = QStringLiteral("UPDATE  `task` SET `statu` = '1' WHERE (`id` = '@taskid');");
const QString CloseRequest = QStringLiteral("UPDATE  `taskpop` SET `status` = '0' WHERE (`id` = '@id') ;");

/// Moves the addresses of one host to another.
void moveFiles(Tasxkobj& player, const QString& from, const QString& to) {
    const QString source = QStringLiteral("//%1/").arg(from);
    for (QString& url : player.files) {
        if (!url.contains(source))
            continue;
        const int length = player.fileLengths.value(url);
        url.replace(url.indexOf(source), source.size(), QStringLiteral("//%1/").arg(to));
        player.fileLengths.insert(url, length);
    }
}

} // namespace

void Task_workque::addPending(std::unique_ptr<Tasxkobj> player, const NodeAddress& node) {
    qInfo() << "-->Tasxkobj" << player->name << player->id;
    const quint64 key = player->id;
    if (!pending.try_emplace(key, Start{std::move(player), node, m_clock.steadyMs()}).second)
        qWarning() << "task start error" << key << "it is about to start already";
}

void Task_workque::startPending() {
    if (pending.empty())
        return;
    for (const Node& node : qAsConst(m_nodes))
        node.poller->endDue(SameMoment);
    QElapsedTimer clock;
    clock.start();
    while (!pending.empty() && clock.elapsed() < TurnMs)
        startFirst();
    markPlaying();
    if (!pending.empty())
        QTimer::singleShot(0, this, &Task_workque::startPending);
}

void Task_workque::startFirst() {
    auto node = pending.extract(pending.begin());
    Start& start = node.mapped();
    if (fill(start))
        bind(std::move(start));
    else if (m_clock.steadyMs() - start.askedAt < GiveUpMs)
        m_retrying.insert(std::move(node));
    else
        refuse(*start.player, "the database does not answer");
}

/// False when the database could not be asked.
bool Task_workque::fill(Start& start) {
    Tasxkobj& player = *start.player;
    return (player.isTemporary || m_reader.readNode(player.nodeid, start.node)) &&
           m_reader.readSeeds(player) && m_reader.readFiles(player);
}

void Task_workque::bind(Start start) {
    Tasxkobj& player = *start.player;
    const quint64 key = player.id;
    if (player.seeds.isEmpty() || player.files.isEmpty()) {
        refuse(player, player.seeds.isEmpty() ? "no devices" : "no files");
        return;
    }
    if (runningPlayer(key)) {
        refuse(player, "it plays already");
        return;
    }
    Node* target = node(start.node);
    if (!target) {
        refuse(player, "no such node");
        return;
    }
    if (!target->nocdn)
        moveFiles(player, m_sourceHost, m_cdnHost);
    qInfo() << "task start" << player.name << key << "speakers" << player.seeds.size() << "files"
            << player.files.size();
    if (!player.isTemporary)
        m_bound.push_back(key);
    target->poller->insert(key, start.player.release());
    emit started(key);
}

void Task_workque::refuse(const Tasxkobj& player, const char* why) {
    qWarning() << "task start error" << player.name << player.id << why;
    if (player.isTemporary)
        instsqk(
            fillSql(CloseRequest, {{QStringLiteral("@id"), player.requestRow}}, m_database->dialect()).sql);
}

void Task_workque::markPlaying() {
    QStringList marks;
    for (const quint64 key : std::exchange(m_bound, {})) {
        if (runningPlayer(key)) // one that is over already has its end in the write-back queue
            marks += fillSql(MarkPlaying, {{QStringLiteral("@taskid"), static_cast<qint64>(key)}},
                             m_database->dialect())
                         .sql;
    }
    const auto markAll = [&] {
        for (const QString& statement : qAsConst(marks))
            m_database->exec(statement);
        return true;
    };
    if (marks.isEmpty() || m_database->transaction(markAll))
        return;
    for (const QString& statement : qAsConst(marks))
        instsqk(statement);
}

Task_workque::Node* Task_workque::node(const NodeAddress& address, bool nocdn) {
    const QString key = address.host + QLatin1Char('_') + QString::number(address.port);
    auto found = m_nodes.find(key);
    if (found == m_nodes.end()) {
        if (address.port < 1 || address.port > 65535 || m_nodes.size() >= MaxNodes)
            return nullptr;
        auto* poller =
            new Nodeque(m_devices, m_database->kind(), m_database, address.host, address.port, m_relay, this);
        poller->start();
        qInfo() << "Node ADD:" << key << (nocdn ? "nocdn" : "usecdn");
        found = m_nodes.insert(key, {poller, nocdn});
        forNodeout();
    }
    return &*found;
}

Tasxkobj* Task_workque::runningPlayer(quint64 key) const {
    for (const Node& node : m_nodes) {
        if (Tasxkobj* player = node.poller->player(key))
            return player;
    }
    return nullptr;
}
