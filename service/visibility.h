#pragma once

#include "service/caller.h"
#include "service/targets.h"

// What an account may see and play to: its own; for a sub-account the speakers of its master that its mask
// names; groups that others have given it a right on, with all within them, as far as that is their giver's
// own. An administrator's reach is everything. Any thread that may block, on its own database object; what a
// database that does not answer can't tell is out of reach.

Reachable visible(sqlite& database, const Caller& caller);
Reachable reachable(sqlite& database, const Caller& caller);
/// Accounts whose sounds it may play: nullopt for everybody's.
std::optional<QList<qint64>> soundOwners(sqlite& database, const Caller& caller);
