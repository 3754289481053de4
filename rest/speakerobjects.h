#pragma once

#include "service/scope.h"
#include "service/speakers.h"

#include <QJsonObject>

class Gate;
class SpeakerBoard;
struct SpeakerState;

/// Speakers as clients get them: what the database, the board and the groups tell of them. Any thread that
/// may block, on its own database object.
class SpeakerObjects {
public:
    /// `groups`: those that may be named.
    SpeakerObjects(sqlite& database, const SpeakerBoard& board, const Gate& gate, Scope groups);

    /// In their order.
    std::vector<QJsonObject> of(const std::vector<Speaker>& speakers) const;
    /// The state of each, in their order: a speaker of another node has what that node has written.
    std::vector<SpeakerState> statesOf(const std::vector<Speaker>& speakers) const;
    /// Whether its node is another one; a speaker may be connected to this one all the same.
    bool isElsewhere(const Speaker& speaker) const { return m_otherNodes.contains(speaker.node); }
    static QJsonObject objectOf(const Speaker& speaker, const SpeakerState& state,
                                const QList<qint64>& groups);
    /// "offline", "idle", "playing", "live", in the order of SpeakerState::State.
    static const QStringList& stateWords();

private:
    sqlite& m_database;
    const SpeakerBoard& m_board;
    const Scope m_groups;
    QSet<int> m_otherNodes;
    QSet<QString> m_disabledElsewhere;
};
