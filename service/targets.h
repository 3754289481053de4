#pragma once

#include "service/scope.h"

#include <optional>
#include <QList>
#include <QString>
#include <QStringList>
#include <vector>

class sqlite;

/// Speakers as an order names them: all that its giver may play to, or these and those of the groups.
struct Targets {
    bool isAll = false;
    QStringList speakers; ///< serials
    QList<qint64> groups;
};

/// What somebody may see, or the giver of an order play to.
struct Reachable {
    Scope speakers; ///< ids of `sbox_device_info`
    Scope groups;   ///< ids of `sbox_group`
};

/// What is wrong with targets: the place as a JSON pointer below them, "" for the whole, and words.
struct TargetFault {
    QString pointer;
    QString detail;
};

// Any thread that may block, on its own database object; nullopt when the database does not answer.

/// Members that do not exist or are out of reach, and targets that name nobody; empty when all is well. Asked
/// when an order is given.
std::optional<std::vector<TargetFault>> faultsOf(sqlite& database, const Reachable& reachable,
                                                 const Targets& targets);

/// The members that do not exist or are out of reach alone.
std::optional<std::vector<TargetFault>> membersOutOf(sqlite& database, const Reachable& reachable,
                                                     const Targets& targets);

/// The serials of the targets as they are now, each once: groups with all within them, and what has gone or
/// come out of reach since the order was given left out. Asked when its sound starts.
std::optional<QStringList> resolve(sqlite& database, const Reachable& reachable, const Targets& targets);
