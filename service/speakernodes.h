#pragma once

#include "nodes/nodeaddress.h"

#include <QSet>
#include <vector>

class Gate;
class sqlite;

/// The speakers by the node that they are on, each node's in their order; `own` is the address for this
/// node's, which come first: those without a row, with this node's number or that of no node, and all when
/// the database does not answer. This node's number is that of the row of `sbox_node` that bears its address
/// and port, else 1. Any thread, on its own database object.
std::vector<NodeShare> splitByNode(sqlite& database, const Gate& gate, const NodeAddress& own,
                                   const QStringList& sns);

/// Numbers of the nodes that are not this one, as above. Any thread, on its own database object.
QSet<int> otherNodes(sqlite& database, const Gate& gate);
