#pragma once

#include <QString>
#include <QStringList>

/// Where a node's command server listens.
struct NodeAddress {
    QString host; ///< an address or a name; empty: this machine
    int port = 0;
};

/// The speakers of a list that are on one node.
struct NodeShare {
    NodeAddress node;
    QStringList sns;
};
