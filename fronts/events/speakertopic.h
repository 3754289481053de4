#pragma once

#include "fronts/events/feed.h"
#include "fronts/events/topic.h"
#include "service/speakerboard.h"
#include "service/speakers.h"
#include "service/targets.h"

#include <memory>
#include <optional>
#include <vector>

class Gate;

/// The topic "speakers": names, owners and groups from the database, states from the board. Each speaker is
/// written as JSON once; accounts that see the same have one view.
class SpeakerTopic : public Topic {
public:
    SpeakerTopic(const SpeakerBoard& board, const Gate& gate);
    ~SpeakerTopic() override;

    void refresh(sqlite& database, const Watchers& watchers, Look look) override;
    const Feed* feedOf(qint64 account) const override;

private:
    struct Row;
    struct View;
    struct Stored;

    void forget();
    std::optional<Stored> read(sqlite& database) const;
    void takeStored(Stored stored);
    void assignViews(sqlite& database, const Watchers& watchers, bool isAnew);
    void assign(qint64 account, const Reachable& seen);
    void dropUnwatched(const Watchers& watchers);
    Reachable sightOf(sqlite& database, const Caller& caller) const;
    void reconcile(View& view);
    void takeStates();
    void tell(const SpeakerState& state);
    QList<qint64> visibleGroups(const View& view, const Row& row) const;

    const SpeakerBoard& m_board;
    const Gate& m_gate;
    SpeakerBoard::Mark m_mark;
    std::vector<Row> m_rows; ///< by ascending ids
    QHash<QString, std::vector<size_t>> m_places;
    QHash<qint64, int> m_groupOwners;
    QSet<qint64> m_owners; ///< accounts that own a speaker or a group
    bool m_isLoaded = false;
    std::vector<std::unique_ptr<View>> m_views;
    QHash<qint64, View*> m_viewOf; ///< by account
};
