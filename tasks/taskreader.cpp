#include "tasks/taskreader.h"

#include "tasks/bellrows.h"
#include "tasks/ownership.h"
#include "tasks/tasxkobj.h"

#include "core/fileaddress.h"
#include "core/sql/sqlite.h"

#include <QDebug>

namespace {

// A list has the order in which it was given. No index makes a server keep to it that reads the smaller
// table first: the order is asked for.
const QString SelectTask = selectBells("WHERE task.id = '@id' ;");
const QString SelectNode = QStringLiteral("SELECT * FROM  sbox_node where id = '@nodeid';");
const QString SelectSeeds = QStringLiteral(
    "SELECT sbox_device_info.device_seed as seed   FROM taskseed ,sbox_device_info where "
    "taskseed.taskid = @taskid and taskseed.devseedid = sbox_device_info.id  order by taskseed.id ;");
const QString SelectEveryone = QStringLiteral("SELECT everyone FROM taskrule WHERE taskid = @taskid ;");
const QString SelectGroups = QStringLiteral("SELECT gid FROM taskaim WHERE taskid = @taskid ORDER BY id ;");
const QString SelectFiles =
    QStringLiteral("SELECT userfile.url as url ,userfile.len as len FROM  taskfile , userfile where "
                   "taskfile.taskid = @taskid and taskfile.fileid = userfile.id order by taskfile.id ;");
const QString SelectOwnFiles = QStringLiteral(
    "SELECT userfile.url as url ,userfile.len as len FROM  taskfile , userfile where taskfile.taskid = "
    "@taskid and taskfile.fileid = userfile.id and userfile.userid = '@userid' order by taskfile.id ;");
const QString SelectLength =
    QStringLiteral("SELECT `len` FROM `userfile` WHERE (`url` = '@url' and `userid` = '@userid');");

} // namespace

std::unique_ptr<Tasxkobj> TaskReader::player(const SqlResult& tasks, int row) const {
    auto player = std::make_unique<Tasxkobj>(m_database);
    player->id = static_cast<quint64>(tasks.value(row, "id").toLongLong());
    player->name = tasks.text(row, "task_name");
    player->userid = tasks.integer(row, "userid");
    player->nodeid = tasks.integer(row, "nodeid");
    player->jiange = tasks.integer(row, "jiange");
    player->len = tasks.integer(row, "len");
    player->repeat = tasks.integer(row, "kind");
    const BellTerms terms = bellTerms(tasks, row);
    player->priority = terms.priority;
    player->volume = terms.volume;
    return player;
}

std::unique_ptr<Tasxkobj> TaskReader::temporaryPlayer(const SqlResult& requests, int row, quint64 key) const {
    auto player = std::make_unique<Tasxkobj>(m_database);
    player->isTemporary = true;
    player->id = key;
    player->requestRow = requests.value(row, "id").toLongLong();
    player->name = QStringLiteral("PLAYTMP_%1").arg(player->requestRow);
    player->userid = requests.integer(row, "userid");
    player->jiange = requests.integer(row, "jiange");
    player->len = requests.integer(row, "len");
    player->repeat = requests.integer(row, "playmode");
    player->seeds = requests.text(row, "seeds").split(QLatin1Char('|'), Qt::SkipEmptyParts);
    player->files = requests.text(row, "urls").split(QLatin1Char('|'), Qt::SkipEmptyParts);
    return player;
}

SqlResult TaskReader::task(int id) const {
    return m_database->run(SelectTask, {{QStringLiteral("@id"), id}});
}

bool TaskReader::readNode(int nodeid, NodeAddress& address) {
    if (!m_nodes.contains(nodeid)) {
        const SqlResult found = m_database->run(SelectNode, {{QStringLiteral("@nodeid"), nodeid}});
        if (!found.ok)
            return false;
        m_nodes.insert(nodeid, {found.text(0, "nodeip"), found.integer(0, "nodeport3")});
    }
    address = m_nodes.value(nodeid);
    return true;
}

bool TaskReader::readSeeds(Tasxkobj& player) const {
    if (!player.isTemporary) {
        const SqlResult found =
            m_database->run(SelectSeeds, {{QStringLiteral("@taskid"), static_cast<qint64>(player.id)}});
        if (!found.ok)
            return false;
        player.seeds.reserve(found.rows.size());
        for (const auto& row : found.rows)
            player.seeds += row.first().toString();
        if (!keepOwnSeeds(player) || !addGroups(player))
            return false;
    }
    player.seeds.removeDuplicates(); // a speaker named twice plays once
    return true;
}

/// What the groups hold is asked when the sound starts, not before.
bool TaskReader::addGroups(Tasxkobj& player) const {
    const SqlArgs task{{QStringLiteral("@taskid"), static_cast<qint64>(player.id)}};
    const SqlResult rule = m_database->run(SelectEveryone, task);
    const SqlResult rows = m_database->run(SelectGroups, task);
    if (!rule.ok || !rows.ok)
        return false;
    QList<qint64> groups;
    for (const auto& row : rows.rows)
        groups += row.first().toLongLong();
    const bool everyone = rule.integer(0, "everyone") != 0;
    if (!m_resolve || (!everyone && groups.isEmpty()))
        return true;
    const auto serials = m_resolve(player.userid, everyone, groups);
    player.seeds += serials.value_or(QStringList());
    return serials.has_value();
}

bool TaskReader::keepOwnSeeds(Tasxkobj& player) const {
    if (!isOwnOnly(*m_database))
        return true;
    const auto own = ownSerials(*m_database, player.userid, player.seeds);
    if (own && own->size() < player.seeds.size())
        qWarning() << "task start" << player.name << player.id
                   << "left out, speakers of others:" << player.seeds.size() - own->size();
    player.seeds = own.value_or(QStringList());
    return own.has_value();
}

bool TaskReader::readFiles(Tasxkobj& player) const {
    return player.isTemporary ? readTemporaryFiles(player) : readStoredFiles(player);
}

bool TaskReader::readStoredFiles(Tasxkobj& player) const {
    const SqlResult found = m_database->run(isOwnOnly(*m_database) ? SelectOwnFiles : SelectFiles,
                                            {{QStringLiteral("@taskid"), static_cast<qint64>(player.id)},
                                             {QStringLiteral("@userid"), player.userid}});
    player.files.clear(); // of an earlier try
    for (int row = 0; row < found.rows.size(); ++row) {
        player.files += absolute(found.text(row, "url"));
        player.fileLengths.insert(player.files.last(), found.integer(row, "len"));
    }
    return found.ok;
}

bool TaskReader::readTemporaryFiles(Tasxkobj& player) const {
    QStringList addresses;
    for (const QString& url : qAsConst(player.files)) {
        const SqlResult found = m_database->run(
            SelectLength, {{QStringLiteral("@url"), url}, {QStringLiteral("@userid"), player.userid}});
        if (!found.ok)
            return false;
        addresses += absolute(url);
        if (!found.isEmpty())
            player.fileLengths.insert(addresses.last(), found.integer(0, "len"));
    }
    player.files = addresses;
    return true;
}

QString TaskReader::absolute(const QString& url) const {
    return url.contains(QStringLiteral("://")) ? url : fileAddress(m_database->site.preurl, url);
}
