#include "service/speakernodes.h"

#include "core/sql/sqlite.h"
#include "nodes/gate.h"

#include <QMap>

namespace {

/// Values of one statement: SQLite takes a text of a million bytes.
constexpr int AtOnce = 1000;
constexpr int FirstNode = 1; ///< the row that the task queue rewrites with this node's address

const QString SelectNodes = QStringLiteral("SELECT `id`, `nodeip`, `nodeport3` FROM `sbox_node`;");
const QString SelectElsewhere =
    QStringLiteral("SELECT `device_seed`, `node_id` FROM `sbox_device_info` WHERE ( `device_seed` in "
                   "('@serials') and `node_id` in ( @nodes ) );");

QMap<int, NodeAddress> addressesOfOthers(sqlite& database, const Gate& gate) {
    QMap<int, NodeAddress> nodes;
    const SqlResult rows = database.run(SelectNodes);
    for (int i = 0; i < rows.rows.size(); ++i)
        nodes.insert(rows.integer(i, "id"), {rows.text(i, "nodeip"), rows.integer(i, "nodeport3")});
    const int all = nodes.size();
    for (auto node = nodes.begin(); node != nodes.end();)
        node = gate.isThisNode(*node) ? nodes.erase(node) : std::next(node);
    if (nodes.size() == all)
        nodes.remove(FirstNode);
    return nodes;
}

/// Serials of other nodes, with their node's number.
QHash<QString, int> elsewhere(sqlite& database, const QStringList& sns, const QList<int>& nodes) {
    QList<qint64> numbers;
    std::copy(nodes.begin(), nodes.end(), std::back_inserter(numbers));
    QHash<QString, int> found;
    for (int from = 0; from < sns.size() && !nodes.isEmpty(); from += AtOnce) {
        const SqlResult rows =
            database.run(SelectElsewhere, {{QStringLiteral("@serials"), sns.mid(from, AtOnce)},
                                           {QStringLiteral("@nodes"), numbers}});
        for (int i = 0; i < rows.rows.size(); ++i)
            found.insert(rows.text(i, "device_seed"), rows.integer(i, "node_id"));
    }
    return found;
}

} // namespace

std::vector<NodeShare> splitByNode(sqlite& database, const Gate& gate, const NodeAddress& own,
                                   const QStringList& sns) {
    const QMap<int, NodeAddress> nodes = addressesOfOthers(database, gate);
    const QHash<QString, int> away = elsewhere(database, sns, nodes.keys());
    NodeShare here{own, {}};
    QMap<int, NodeShare> shares;
    for (const QString& sn : sns) {
        const auto node = nodes.constFind(away.value(sn));
        NodeShare& share = node == nodes.constEnd() ? here : shares[node.key()];
        if (node != nodes.constEnd())
            share.node = *node;
        share.sns += sn;
    }
    std::vector<NodeShare> all;
    if (!here.sns.isEmpty() || shares.isEmpty())
        all.push_back(here);
    all.insert(all.end(), shares.begin(), shares.end());
    return all;
}

QSet<int> otherNodes(sqlite& database, const Gate& gate) {
    const QList<int> numbers = addressesOfOthers(database, gate).keys();
    return QSet<int>(numbers.begin(), numbers.end());
}
