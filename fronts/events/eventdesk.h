#pragma once

#include "fronts/events/feed.h"
#include "fronts/events/topic.h"

#include <chrono>
#include <map>
#include <memory>
#include <mutex>
#include <QSet>
#include <QStringList>
#include <vector>

class ChangeCounter;
class Tokens;
struct Services;

/// What has become of the clients of the events since the last round.
struct EventRound {
    struct Begun {
        quint64 client;
        QByteArray token;
        QStringList topics; ///< each once, of EventDesk::topicNames()
    };
    bool isTick = false; ///< changes are told; otherwise only what belongs to snapshots
    std::vector<Begun> begun;
    std::vector<quint64> ended;
    std::vector<quint64> ready; ///< take something; those that have begun do so too
    std::vector<quint64> late;  ///< did not read for a while: they begin anew
};

/// What one client is to be told.
struct EventDelivery {
    enum class Kind {
        Accepted,
        Refused, ///< with the answer; it is no client any more
        Told,
        Voided, ///< its token has ended; it is no client any more
    };
    quint64 client = 0;
    Kind kind = Kind::Told;
    QByteArray text = {};
    bool hasMore = false; ///< within a snapshot: it is told more as soon as it has read this
};

/// Keeps what the clients of the events have subscribed to and been told, and works out what each is told
/// next. Knows no sockets. Owner: start-up, after what `services` names. run() is called by one thread at a
/// time, which may block.
class EventDesk {
public:
    /// What a client is told in one round, but for one message that is longer.
    static constexpr int RoundBytes = 448 * 1024;
    /// What nobody has told of is found in the database after so long.
    static constexpr std::chrono::seconds LookInterval{5};

    explicit EventDesk(const Services& services);
    ~EventDesk();

    QStringList topicNames() const; ///< any thread
    /// `database`: the calling thread's; null when there is none.
    std::vector<EventDelivery> run(const EventRound& round, sqlite* database);

    /// The answer to a subscription that can't be.
    static QByteArray refusal(int status, const QString& detail);

private:
    using Clock = std::chrono::steady_clock;
    struct Subscribed {
        Topic* topic;
        Feed::Cursor cursor;
    };
    struct Client {
        QByteArray token;
        qint64 tokenEnds = 0; ///< ms since 1970; 0: never
        Caller caller;
        std::vector<Subscribed> topics;
        size_t turn = 0; ///< the topic that comes first
    };
    struct Voided {
        std::mutex mutex;
        QSet<qint64> accounts;
    };
    using Messages = std::map<std::pair<const Feed*, Feed::Cursor>, std::optional<Feed::Message>>;
    using Deliveries = std::vector<EventDelivery>;

    void begin(const EventRound::Begun& begun, sqlite* database, Deliveries& deliveries);
    void checkTokens(sqlite& database, bool all, Deliveries& deliveries);
    Look lookDue() const;
    void refresh(sqlite& database, Look look);
    void tell(quint64 id, bool isTick, Messages& messages, Deliveries& deliveries);
    const std::optional<Feed::Message>& next(const Subscribed& subscribed, qint64 account,
                                             Messages& messages) const;

    const Tokens& m_tokens;
    const ChangeCounter& m_changes;
    const std::shared_ptr<Voided> m_voided;
    std::map<QString, std::unique_ptr<Topic>> m_topics; ///< by name
    QHash<quint64, Client> m_clients;
    quint64 m_seenChanges = 0;
    Clock::time_point m_nextLook; ///< by itself
    Clock::time_point m_earliest; ///< however much changes: looks take a fifth of the time at most
};
