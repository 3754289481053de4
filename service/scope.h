#pragma once

#include <QSet>

/// What somebody may see, or play to, of a table's rows: all, or those of an account and some more.
struct Scope {
    bool isAll = false;
    qint64 owner = 0;   ///< account; 0: none
    QSet<qint64> ids{}; ///< of rows of others

    bool holds(qint64 id, qint64 ownerOfRow) const {
        return isAll || (owner > 0 && ownerOfRow == owner) || ids.contains(id);
    }
};
