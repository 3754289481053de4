#pragma once

#include "core/sql/sqlite.h"

/// One line of the audit log: who changed what, when and from where. No secrets in it.
struct AuditLine {
    qint64 at = 0;      ///< ms since 1970
    qint64 account = 0; ///< sbox_users.id
    QString address;    ///< the client's
    QString action;     ///< "POST /groups"
    QString object;     ///< "/groups/7"
    QString detail;
};

/// A line that can't be written is told in the service's log. Blocks; `database`'s thread.
void writeAudit(sqlite& database, const AuditLine& line);

/// Which lines are asked for. Newest first: those with a number below `before`.
struct AuditQuery {
    qint64 from = 0;    ///< ms since 1970, included
    qint64 until = 0;   ///< not included
    qint64 account = 0; ///< 0: all that `of` may see
    qint64 of = 0;      ///< its own and its sub-accounts'; 0: everybody's
    qint64 before = 0;
    int limit = 0;
};
SqlResult findAudit(sqlite& database, const AuditQuery& query);

/// Deletes some of the lines before `before` (ms since 1970), the oldest first; whether there may be more.
bool forgetAudit(sqlite& database, qint64 before);
