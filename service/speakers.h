#pragma once

#include "service/scope.h"

#include <functional>
#include <optional>
#include <QList>
#include <QString>
#include <QStringList>
#include <vector>

class Severinit;
class sqlite;

// The speakers of accounts: rows of `sbox_device_info`. What changes there that the registry must know is
// told to it. Any thread that may block, on its own database object.

enum class SerialFault { None, Missing, Length, Digits, Blocked };
/// Why a speaker of this serial can't be added.
SerialFault serialFault(const QString& serial, const Severinit& devices);

/// `iswarning` of a speaker that takes part in alarms.
constexpr int AlarmSpeaker = 99;

/// Key that ties a speaker to its account.
QString accountSerial(int userid, const QString& serial);

struct NewSpeakers {
    int userid;
    QString name; ///< of each
    QStringList serials;
    int iswarning; ///< 0 or AlarmSpeaker
};
/// Adds all or none of them.
bool addSpeakers(sqlite& database, Severinit& devices, const NewSpeakers& added);

/// A row of `sbox_device_info`.
struct Speaker {
    qint64 id = 0;
    QString serial;
    QString name;
    int owner = 0;
    int node = 0;   ///< `sbox_node`.`id`
    int volume = 0; ///< as its node has last written it
    int status = 0; ///< SAobj::OnlineState, likewise
};

/// Which speakers a list holds.
struct SpeakerQuery {
    Scope scope;
    std::optional<QList<qint64>> among{}; ///< only these ids, ascending
    QString text{};                       ///< part of name or serial, in any case; empty: all
    qint64 after = 0;                     ///< only greater ids
    std::function<void(std::vector<Speaker>&)> sieve = {}; ///< leaves what is wanted of some rows
};

/// At most `most` speakers by ascending ids; nullopt when the database does not answer.
std::optional<std::vector<Speaker>> listSpeakers(sqlite& database, const SpeakerQuery& query, size_t most);
/// nullopt when there is none.
std::optional<Speaker> findSpeaker(sqlite& database, const QString& serial);
/// Those of the serials that have a row, in no order; nullopt when the database does not answer.
std::optional<std::vector<Speaker>> findSpeakers(sqlite& database, const QStringList& serials);
bool renameSpeaker(sqlite& database, qint64 id, const QString& name);
/// With its places in groups and tasks.
bool removeSpeaker(sqlite& database, Severinit& devices, const Speaker& speaker);

/// The serial of a row; empty when there is none of this id.
QString serialOf(sqlite& database, qint64 id);
/// Tells the registry of a serial that no row holds any more: from now on it is a stranger's.
void tellIfForgotten(sqlite& database, Severinit& devices, const QString& serial);
