#pragma once

#include <QString>

/// Where a node's command server listens.
struct NodeAddress {
    QString host; ///< an address or a name; empty: this machine
    int port = 0;
};
