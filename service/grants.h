#pragma once

#include "core/sql/sqlite.h"
#include "service/caller.h"

// Rights to one group that its owner gives to other accounts: rows of `groupgrant`. Any thread that may
// block, on its own database object.

/// `groupgrant`.`role`
enum class GroupRole { None = 0, Viewer = 1, Operator = 2 };

/// Rows with "id", "account", "gid", "role", "owner" (of the group) that the caller may see, by id from
/// `after` on: all for an administrator, else those of its groups and those given to it.
SqlResult listGrants(sqlite& database, const Caller& caller, qint64 after, int limit);
/// One of them; no row: none.
SqlResult findGrant(sqlite& database, const Caller& caller, qint64 id);

enum class GrantOutcome { Done, NoAccount, NoGroup, NotOwner, OwnGroup, Exists, Failed };
/// By `caller`, who must own the group or administer; `id` is the new one's number. NoGroup also for one that
/// it may not see.
GrantOutcome addGrant(sqlite& database, const Caller& caller, qint64 account, qint64 group, GroupRole role,
                      qint64& id);
/// False when the database does not answer.
bool removeGrant(sqlite& database, qint64 id);
