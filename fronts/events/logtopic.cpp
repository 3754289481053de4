#include "fronts/events/logtopic.h"

#include "core/sql/sqlite.h"
#include "journal/journal.h"
#include "rest/broadcasts.h"
#include "rest/journal.h"
#include "service/playlog.h"

#include <mutex>
#include <QJsonDocument>
#include <QSet>

using namespace std::chrono_literals;

namespace {

constexpr qint64 Administrators = 0; ///< the view of all of them
/// Rows read at once when there is news; more of it means that all are read.
constexpr int SomeRows = 50;
/// While somebody watches, receipts are written so often instead of every ten seconds.
constexpr auto SettleInterval = 1s;
constexpr auto Settling = 300ms;

} // namespace

/// What the journal has told since the last look, from its thread.
struct LogTopic::News {
    std::mutex mutex;
    std::set<quint64> broadcasts;
    bool hasEntries = false;
};

LogTopic::LogTopic(Kind kind, Journal& journal)
    : m_kind(kind)
    , m_journal(journal)
    , m_news(std::make_shared<News>()) {
    if (kind == Kind::Broadcasts) {
        QObject::connect(&journal, &Journal::broadcastsChanged, &journal,
                         [news = m_news](const std::vector<quint64>& ids) {
                             const std::lock_guard lock(news->mutex);
                             if (news->broadcasts.size() <= SomeRows) // beyond, all are read anyway
                                 news->broadcasts.insert(ids.begin(), ids.end());
                         });
    } else {
        QObject::connect(&journal, &Journal::entriesAdded, &journal, [news = m_news] {
            const std::lock_guard lock(news->mutex);
            news->hasEntries = true;
        });
    }
}

LogTopic::~LogTopic() = default;

const Feed* LogTopic::feedOf(qint64 account) const {
    const auto view = m_views.find(m_viewOf.value(account, -1));
    return view != m_views.end() && view->second->isRead ? &view->second->feed : nullptr;
}

void LogTopic::refresh(sqlite& database, const Watchers& watchers, Look look) {
    QSet<qint64> used;
    m_viewOf.clear();
    for (const Caller& caller : watchers)
        used.insert(m_viewOf[caller.account] = caller.isAdmin ? Administrators : caller.account);
    for (auto view = m_views.begin(); view != m_views.end();)
        view = used.contains(view->first) ? std::next(view) : m_views.erase(view);
    const bool isNew = !watchers.isEmpty() && hasNews();
    // The rows of other nodes tell nothing by themselves.
    const bool isPolled = look == Look::Polled && database.dialect() == SqlDialect::Mysql;
    QSet<const View*> done;
    bool isAllRead = true;
    for (const Caller& caller : watchers) {
        View& view = viewFor(caller);
        const bool isAnew = !view.isRead || look == Look::Rights;
        if (done.contains(&view) || (!isAnew && !isNew && !isPolled))
            continue;
        done.insert(&view);
        isAllRead = read(database, caller, view, isAnew) && isAllRead;
    }
    if (isAllRead)
        m_changed.clear();
}

/// Whether there is something to read, which is in the table by then.
bool LogTopic::hasNews() {
    bool hasEntries = false;
    {
        const std::lock_guard lock(m_news->mutex);
        m_changed.merge(m_news->broadcasts);
        m_news->broadcasts.clear();
        hasEntries = std::exchange(m_news->hasEntries, false);
    }
    const auto now = std::chrono::steady_clock::now();
    const bool isLive = m_kind == Kind::Broadcasts && now >= m_nextSettling;
    if (isLive)
        m_nextSettling = now + SettleInterval;
    const bool isSettled = (!isLive && !hasEntries) || m_journal.settle(Settling);
    if (hasEntries && !isSettled) { // again at the next look
        const std::lock_guard lock(m_news->mutex);
        m_news->hasEntries = true;
    }
    return !m_changed.empty() || hasEntries;
}

bool LogTopic::read(sqlite& database, const Caller& caller, View& view, bool isAnew) const {
    const int changed = static_cast<int>(m_changed.size());
    if (isAnew || changed > SomeRows) {
        const SqlResult rows = rowsOf(database, caller, 0, MaxRows);
        if (!rows.ok)
            return false;
        leaveOnly(view, rows);
        take(view, rows);
        view.isRead = true;
        return true;
    }
    for (const quint64 id : m_changed) {
        const SqlResult rows = rowsOf(database, caller, static_cast<qint64>(id), 1);
        if (!rows.ok)
            return false;
        take(view, rows);
    }
    if (changed > 0)
        return true;
    const SqlResult rows = rowsOf(database, caller, 0, SomeRows);
    take(view, rows);
    return rows.ok;
}

SqlResult LogTopic::rowsOf(sqlite& database, const Caller& caller, qint64 id, int limit) const {
    if (m_kind == Kind::Broadcasts) {
        BroadcastQuery query;
        query.id = id;
        query.limit = limit;
        return findBroadcasts(database, caller, query);
    }
    EntryQuery query;
    query.limit = limit;
    return findEntries(database, caller, query);
}

/// Newest first, as they are read: the oldest is told first.
void LogTopic::take(View& view, const SqlResult& rows) const {
    for (int row = rows.rows.size() - 1; row >= 0; --row) {
        const qint64 id = rows.value(row, "id").toLongLong();
        const QJsonObject object =
            m_kind == Kind::Broadcasts ? broadcastJson(rows, row) : entryJson(rows, row);
        const QByteArray json = QJsonDocument(object).toJson(QJsonDocument::Compact);
        const QString key = QString::number(id);
        if (!view.feed.holds(key, json))
            view.feed.put(key, json);
        view.ids.insert(id);
    }
    while (view.ids.size() > MaxRows) {
        view.feed.drop(QString::number(*view.ids.begin()));
        view.ids.erase(view.ids.begin());
    }
}

/// What is not among the newest that the account may see now, it may not see any more, or is too old.
void LogTopic::leaveOnly(View& view, const SqlResult& rows) const {
    QSet<qint64> seen;
    for (int row = 0; row < rows.rows.size(); ++row)
        seen.insert(rows.value(row, "id").toLongLong());
    const qint64 oldest =
        rows.rows.size() < MaxRows ? 0 : rows.value(rows.rows.size() - 1, "id").toLongLong();
    for (auto id = view.ids.begin(); id != view.ids.end();) {
        if (seen.contains(*id)) {
            ++id;
            continue;
        }
        const QString key = QString::number(*id);
        *id < oldest ? view.feed.drop(key) : view.feed.remove(key);
        id = view.ids.erase(id);
    }
}

LogTopic::View& LogTopic::viewFor(const Caller& caller) {
    auto& view = m_views[m_viewOf.value(caller.account)];
    if (!view)
        view = std::make_unique<View>(m_kind == Kind::Broadcasts ? "broadcasts" : "journal");
    return *view;
}
