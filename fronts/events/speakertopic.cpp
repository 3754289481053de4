#include "fronts/events/speakertopic.h"

#include "core/sql/sqlite.h"
#include "rest/speakerobjects.h"
#include "service/groups.h"
#include "service/visibility.h"

#include <algorithm>
#include <limits>
#include <QJsonDocument>

namespace {

constexpr size_t AtOnce = 4096; ///< changes that are taken from the board under its lock

bool isSame(const Scope& a, const Scope& b) {
    return a.isAll == b.isAll && a.owner == b.owner && a.ids == b.ids;
}

bool isSame(const Reachable& a, const Reachable& b) {
    return isSame(a.speakers, b.speakers) && isSame(a.groups, b.groups);
}

/// Without the groups, which differ between those who see the speaker.
QByteArray textOf(const Speaker& speaker, const SpeakerState& state) {
    QJsonObject object = SpeakerObjects::objectOf(speaker, state, {});
    object.remove(QStringLiteral("groups"));
    return QJsonDocument(object).toJson(QJsonDocument::Compact);
}

QByteArray withGroups(const QByteArray& text, const QList<qint64>& groups) {
    QByteArray all = QByteArrayLiteral("{\"groups\":[");
    all.reserve(text.size() + 64);
    for (const qint64 group : groups)
        all.append(QByteArray::number(group)).append(',');
    if (!groups.isEmpty())
        all.chop(1);
    return all.append("],").append(text.constData() + 1, text.size() - 1);
}

} // namespace

/// A speaker as the database has it.
struct SpeakerTopic::Row {
    Speaker speaker;
    QList<qint64> groups; ///< all that it is directly in, ascending
    SpeakerState state;
    bool isElsewhere = false; ///< on another node: its state is what the database tells
    bool isChanged = true;    ///< since the last look at the database
    QByteArray text;          ///< without groups; written when it is asked for
    QByteArray object;        ///< with `objectGroups`, shared by the views
    QList<qint64> objectGroups;

    bool isSameAs(const Row& other) const {
        return speaker.id == other.speaker.id && speaker.serial == other.speaker.serial &&
               speaker.name == other.speaker.name && speaker.owner == other.speaker.owner &&
               speaker.node == other.speaker.node && groups == other.groups &&
               isElsewhere == other.isElsewhere &&
               (!isElsewhere || (state.state == other.state.state && state.volume == other.state.volume &&
                                 state.isEnabled == other.state.isEnabled));
    }
    void setState(const SpeakerState& now) {
        state = now;
        text.clear();
        object.clear();
    }
    const QByteArray& objectWith(const QList<qint64>& shown) {
        if (text.isEmpty())
            text = textOf(speaker, state);
        if (object.isEmpty() || objectGroups != shown) {
            object = withGroups(text, shown);
            objectGroups = shown;
        }
        return object;
    }
};

/// What accounts see that have the same rights.
struct SpeakerTopic::View {
    struct Shown {
        qint64 id;
        QList<qint64> groups;
    };
    Reachable seen;
    Feed feed{"speakers", Feed::Keys::Texts};
    QHash<QString, Shown> shown; ///< of several rows with a serial the first that is seen
    bool isStale = true;         ///< rows or rights have changed
};

struct SpeakerTopic::Stored {
    std::vector<Row> rows;
    QHash<qint64, int> groupOwners;
};

SpeakerTopic::SpeakerTopic(const SpeakerBoard& board, const Gate& gate)
    : m_board(board)
    , m_gate(gate) {}

SpeakerTopic::~SpeakerTopic() = default;

const Feed* SpeakerTopic::feedOf(qint64 account) const {
    const View* const view = m_viewOf.value(account);
    return view ? &view->feed : nullptr;
}

void SpeakerTopic::refresh(sqlite& database, const Watchers& watchers, Look look) {
    dropUnwatched(watchers);
    if (watchers.isEmpty())
        return forget();
    auto stored = look != Look::News || !m_isLoaded ? read(database) : std::nullopt;
    const bool isAnew = stored.has_value();
    if (stored)
        takeStored(std::move(*stored));
    if (!m_isLoaded)
        return;
    takeStates();
    assignViews(database, watchers, isAnew);
    for (const auto& view : m_views) {
        if (view->isStale)
            reconcile(*view);
    }
    for (Row& row : m_rows)
        row.isChanged = false;
}

void SpeakerTopic::forget() {
    m_rows = {};
    m_places.clear();
    m_mark = {};
    m_isLoaded = false;
}

std::optional<SpeakerTopic::Stored> SpeakerTopic::read(sqlite& database) const {
    auto speakers = listSpeakers(database, {Scope{true}}, std::numeric_limits<size_t>::max());
    const auto places = speakers ? allMemberships(database) : std::nullopt;
    if (!places)
        return std::nullopt;
    const SpeakerObjects objects(database, m_board, m_gate, Scope{true});
    const std::vector<SpeakerState> states = objects.statesOf(*speakers);
    Stored stored{{}, places->owners};
    stored.rows.resize(speakers->size());
    for (size_t i = 0; i < stored.rows.size(); ++i) {
        Row& row = stored.rows[i];
        row.speaker = std::move((*speakers)[i]);
        row.groups = places->groups.value(row.speaker.id);
        row.state = states[i];
        row.isElsewhere = objects.isElsewhere(row.speaker) && !m_board.state(row.speaker.serial).isOnline();
    }
    return stored;
}

/// Rows that are as they were keep their texts.
void SpeakerTopic::takeStored(Stored stored) {
    bool isOther = !m_isLoaded || stored.rows.size() != m_rows.size();
    auto before = m_rows.begin();
    for (Row& row : stored.rows) {
        before = std::lower_bound(before, m_rows.end(), row.speaker.id,
                                  [](const Row& known, qint64 id) { return known.speaker.id < id; });
        if (before != m_rows.end() && row.isSameAs(*before)) {
            row = std::move(*before++);
            row.isChanged = false;
        } else {
            isOther = true;
        }
    }
    const bool isRegrouped = stored.groupOwners != m_groupOwners;
    m_rows = std::move(stored.rows);
    m_groupOwners = std::move(stored.groupOwners);
    m_isLoaded = true;
    if (!isOther && !isRegrouped)
        return;
    m_places.clear();
    m_owners.clear();
    for (size_t i = 0; i < m_rows.size(); ++i) {
        m_places[m_rows[i].speaker.serial].push_back(i);
        m_owners.insert(m_rows[i].speaker.owner);
    }
    for (const int owner : qAsConst(m_groupOwners))
        m_owners.insert(owner);
    for (const auto& view : m_views)
        view->isStale = true;
}

/// Accounts that own nothing see the same when they have the same rights.
Reachable SpeakerTopic::sightOf(sqlite& database, const Caller& caller) const {
    Reachable seen = visible(database, caller);
    const bool isOwner = !caller.isAdmin && m_owners.contains(caller.account);
    seen.speakers.owner = seen.groups.owner = isOwner ? caller.account : 0;
    return seen;
}

void SpeakerTopic::dropUnwatched(const Watchers& watchers) {
    QSet<const View*> used;
    for (auto view = m_viewOf.begin(); view != m_viewOf.end();) {
        if (watchers.contains(view.key())) {
            used.insert(*view);
            ++view;
        } else {
            view = m_viewOf.erase(view);
        }
    }
    m_views.erase(std::remove_if(m_views.begin(), m_views.end(),
                                 [&used](const auto& view) { return !used.contains(view.get()); }),
                  m_views.end());
}

void SpeakerTopic::assignViews(sqlite& database, const Watchers& watchers, bool isAnew) {
    for (const Caller& caller : watchers) {
        if (isAnew || !m_viewOf.contains(caller.account))
            assign(caller.account, sightOf(database, caller));
    }
}

/// Who comes to see something else than the others of his view takes a copy of it along: what he has been
/// told so far holds there.
void SpeakerTopic::assign(qint64 account, const Reachable& seen) {
    View*& view = m_viewOf[account];
    if (view && isSame(view->seen, seen))
        return;
    if (!view) {
        for (const auto& other : m_views) {
            if (isSame(other->seen, seen)) {
                view = other.get();
                return;
            }
        }
    }
    const auto users = view ? std::count(m_viewOf.cbegin(), m_viewOf.cend(), view) : 0;
    if (users != 1) {
        m_views.push_back(view ? std::make_unique<View>(*view) : std::make_unique<View>());
        view = m_views.back().get();
    }
    view->seen = seen;
    view->isStale = true;
}

QList<qint64> SpeakerTopic::visibleGroups(const View& view, const Row& row) const {
    QList<qint64> groups;
    for (const qint64 group : row.groups) {
        if (view.seen.groups.holds(group, m_groupOwners.value(group)))
            groups += group;
    }
    return groups;
}

void SpeakerTopic::reconcile(View& view) {
    QHash<QString, View::Shown> shown;
    shown.reserve(view.shown.size());
    for (Row& row : m_rows) {
        const QString& serial = row.speaker.serial;
        if (!view.seen.speakers.holds(row.speaker.id, row.speaker.owner) || shown.contains(serial))
            continue;
        const View::Shown now{row.speaker.id, visibleGroups(view, row)};
        const auto before = view.shown.constFind(serial);
        if (row.isChanged || before == view.shown.constEnd() || before->id != now.id ||
            before->groups != now.groups)
            view.feed.put(serial, row.objectWith(now.groups));
        shown.insert(serial, now);
    }
    for (auto before = view.shown.cbegin(); before != view.shown.cend(); ++before) {
        if (!shown.contains(before.key()))
            view.feed.remove(before.key());
    }
    view.shown = std::move(shown);
    view.isStale = false;
}

void SpeakerTopic::takeStates() {
    if (m_board.lastChange() == m_mark.gone && m_mark.gone != 0)
        return;
    SpeakerBoard::Changes changes;
    do {
        changes = m_board.changesSince(m_mark, AtOnce);
        m_mark = changes.mark;
        if (changes.isWhole)
            changes.speakers = m_board.states(m_places.keys());
        for (const SpeakerState& state : changes.speakers)
            tell(state);
        for (const QString& serial : changes.gone)
            tell(m_board.state(serial));
    } while (changes.isMore);
}

void SpeakerTopic::tell(const SpeakerState& state) {
    const auto places = m_places.constFind(state.serial);
    if (places == m_places.constEnd())
        return;
    for (const size_t place : *places) {
        Row& row = m_rows[place];
        if (row.isElsewhere && !state.isOnline())
            continue;
        row.isElsewhere = false;
        row.setState(state);
        for (const auto& view : m_views) {
            const auto shown = view->shown.constFind(state.serial);
            if (shown != view->shown.constEnd() && shown->id == row.speaker.id)
                view->feed.put(state.serial, row.objectWith(shown->groups));
        }
    }
}
