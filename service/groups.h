#pragma once

#include "service/scope.h"

#include <optional>
#include <QHash>
#include <QList>
#include <QSet>
#include <QString>
#include <QStringList>
#include <vector>

class sqlite;

// The groups of accounts: rows of `sbox_group`, their speakers in `group_seed`, the groups within them in
// `group_group`. The older paths know of speakers only. Any thread that may block, on its own database
// object; nullopt when the database does not answer.

struct Group {
    qint64 id = 0;
    int owner = 0;
    QString name;
    QStringList speakers; ///< serials, those directly in it, in their order
    QList<qint64> groups; ///< those directly in it, ascending
};

/// What a list of groups holds.
struct GroupQuery {
    Scope scope;
    Scope speakers;   ///< members out of it are left out, as are groups within that are out of `scope`
    qint64 after = 0; ///< only greater ids
};

/// At most `most` groups by ascending ids.
std::optional<std::vector<Group>> listGroups(sqlite& database, const GroupQuery& query, int most);
/// The one with this number; nullopt also when there is none within the scope.
std::optional<Group> findGroup(sqlite& database, GroupQuery query, qint64 id);

/// What a group is to be; what is not named stays.
struct GroupChange {
    std::optional<QString> name;
    std::optional<QStringList> speakers;
    std::optional<QList<qint64>> groups;
};
enum class GroupOutcome { Done, Circle, Failed };
/// Makes a group of this account; `id` is its number.
GroupOutcome addGroup(sqlite& database, int owner, const GroupChange& group, qint64& id);
/// Circle when the group would hold itself, however deep.
GroupOutcome changeGroup(sqlite& database, qint64 id, const GroupChange& change);
/// With what it holds, its places in other groups and the rights given on it; its members stay.
bool removeGroup(sqlite& database, qint64 id);

/// Those of the ids that are groups within the scope.
std::optional<QSet<qint64>> groupsAmong(sqlite& database, const Scope& scope, const QList<qint64>& ids);
/// These groups and all within them, however deep.
std::optional<QSet<qint64>> groupsWithin(sqlite& database, const QList<qint64>& ids);
/// Ids of the speakers of these groups and of all within them, each once, ascending.
std::optional<QList<qint64>> speakersWithin(sqlite& database, const QList<qint64>& ids);
/// By speaker (id of `sbox_device_info`) the groups of the scope that it is directly in, ascending.
QHash<qint64, QList<qint64>> groupsOf(sqlite& database, const Scope& scope, const QList<qint64>& speakers);

/// Which groups every speaker is directly in.
struct Memberships {
    QHash<qint64, QList<qint64>> groups; ///< by speaker (id of `sbox_device_info`), ascending
    QHash<qint64, int> owners;           ///< by group, of those that hold speakers
};
std::optional<Memberships> allMemberships(sqlite& database);
