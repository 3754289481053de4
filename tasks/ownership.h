#pragma once

#include <optional>
#include <QList>
#include <QSet>
#include <QStringList>

class sqlite;

// What an account may command and play: speakers of its own, for a sub-account those of its master's that
// its mask names too, and files of its own. Any thread, on its own database object; nullopt when the
// database does not answer.

/// Whether that is asked at all: the key `ownonly`. On database kind 0 speakers belong to nobody.
bool isOwnOnly(const sqlite& database);

/// Those of the serials that the account may command, in their order.
std::optional<QStringList> ownSerials(sqlite& database, int userid, const QStringList& serials);
/// Those of the ids of `sbox_device_info`.
std::optional<QSet<qint64>> ownDevices(sqlite& database, int userid, const QList<qint64>& ids);
/// Those of the ids of `userfile`.
std::optional<QSet<qint64>> ownFiles(sqlite& database, int userid, const QList<qint64>& ids);
