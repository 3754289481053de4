#pragma once

#include "nodes/nodeaddress.h"

#include <QStringList>

class Gate;
class QJsonObject;
class Severinit;
class sqlite;

/// How many of the speakers that a command was for it has got to.
struct Reach {
    int targets = 0;
    int reached = 0;
};

/// Commands to speakers that wait for what comes of them, on whichever node those are. One object for one
/// request, in a thread that may block, on its own database object.
class SpeakerCommands {
public:
    SpeakerCommands(sqlite& database, Gate& gate, const Severinit& devices);

    Reach setVolume(const QStringList& serials, int level); ///< 1 to 25
    /// A disabled speaker takes no commands. Kept in the database: it stays so over a restart. Returns
    /// whether it could be kept.
    bool setEnabled(const QString& serial, bool isEnabled);

private:
    Reach send(const QStringList& serials, QJsonObject command);

    sqlite& m_database;
    Gate& m_gate;
    const NodeAddress m_own;
};

/// The speakers that somebody has disabled for good.
QStringList disabledSpeakers(sqlite& database);
/// They have been enabled by another road.
void forgetDisabled(sqlite& database, const QStringList& serials);
