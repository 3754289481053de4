#pragma once

#include "fronts/events/feed.h"
#include "fronts/events/topic.h"

#include <chrono>
#include <memory>
#include <set>

class Journal;
struct SqlResult;

/// The topics "broadcasts" and "journal": the newest rows of a table as each account sees them,
/// administrators all the same.
class LogTopic : public Topic {
public:
    enum class Kind { Broadcasts, Entries };
    /// Of the rows, that many are kept for each who looks; the others are read over the interface.
    static constexpr int MaxRows = 500;

    /// To be made before the journal's loop runs; `journal` outlives it.
    LogTopic(Kind kind, Journal& journal);
    ~LogTopic() override;

    void refresh(sqlite& database, const Watchers& watchers, Look look) override;
    const Feed* feedOf(qint64 account) const override;

private:
    struct News;
    struct View {
        explicit View(const QByteArray& topic)
            : feed(topic, Feed::Keys::Numbers) {}
        Feed feed;
        std::set<qint64> ids;
        bool isRead = false;
    };

    bool hasNews();
    bool read(sqlite& database, const Caller& caller, View& view, bool isAnew) const;
    SqlResult rowsOf(sqlite& database, const Caller& caller, qint64 id, int limit) const;
    void take(View& view, const SqlResult& rows) const;
    void leaveOnly(View& view, const SqlResult& rows) const;
    View& viewFor(const Caller& caller);

    const Kind m_kind;
    Journal& m_journal;
    const std::shared_ptr<News> m_news;
    std::set<quint64> m_changed; ///< broadcasts that are to be read again
    std::map<qint64, std::unique_ptr<View>> m_views;
    QHash<qint64, qint64> m_viewOf; ///< by account: the view's; Administrators
    std::chrono::steady_clock::time_point m_nextSettling;
};
