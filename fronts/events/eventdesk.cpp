#include "fronts/events/eventdesk.h"

#include "fronts/events/logtopic.h"
#include "fronts/events/speakertopic.h"

#include "rest/services.h"
#include "service/changecounter.h"
#include "service/tokens.h"

#include <algorithm>
#include <QDateTime>
#include <QJsonDocument>
#include <QJsonObject>

EventDesk::EventDesk(const Services& services)
    : m_tokens(*services.tokens)
    , m_changes(*services.changes)
    , m_voided(std::make_shared<Voided>()) {
    m_topics.emplace(QStringLiteral("speakers"),
                     std::make_unique<SpeakerTopic>(*services.board, *services.gate));
    if (services.journal) {
        using Kind = LogTopic::Kind;
        m_topics.emplace(QStringLiteral("broadcasts"),
                         std::make_unique<LogTopic>(Kind::Broadcasts, *services.journal));
        m_topics.emplace(QStringLiteral("journal"),
                         std::make_unique<LogTopic>(Kind::Entries, *services.journal));
    }
    services.tokens->onVoided([voided = m_voided](qint64 account) {
        const std::lock_guard lock(voided->mutex);
        voided->accounts.insert(account);
    });
}

EventDesk::~EventDesk() = default;

QStringList EventDesk::topicNames() const {
    QStringList names;
    for (const auto& [name, topic] : m_topics)
        names += name;
    return names;
}

QByteArray EventDesk::refusal(int status, const QString& detail) {
    return QJsonDocument(QJsonObject{{QStringLiteral("event"), QStringLiteral("error")},
                                     {QStringLiteral("status"), status},
                                     {QStringLiteral("detail"), detail}})
        .toJson(QJsonDocument::Compact);
}

std::vector<EventDelivery> EventDesk::run(const EventRound& round, sqlite* database) {
    Deliveries deliveries;
    for (const quint64 id : round.ended)
        m_clients.remove(id);
    for (const auto& begun : round.begun)
        begin(begun, database, deliveries);
    const Look look = lookDue();
    if (database && (!m_clients.isEmpty() || !round.ended.empty())) {
        checkTokens(*database, look != Look::News, deliveries);
        refresh(*database, look);
    }
    for (const quint64 id : round.late) {
        const auto client = m_clients.find(id);
        for (size_t i = 0; client != m_clients.end() && i < client->topics.size(); ++i)
            client->topics[i].cursor = {};
    }
    Messages messages;
    for (const auto& begun : round.begun)
        tell(begun.client, false, messages, deliveries);
    for (const quint64 id : round.ready)
        tell(id, round.isTick, messages, deliveries);
    return deliveries;
}

void EventDesk::begin(const EventRound::Begun& begun, sqlite* database, Deliveries& deliveries) {
    const TokenCheck check = database ? m_tokens.check(*database, begun.token) : TokenCheck{};
    if (!check.caller) {
        const QByteArray answer =
            check.isKnown ? refusal(401, QStringLiteral("a valid token is needed"))
                          : refusal(503, QStringLiteral("the database does not answer; try again"));
        deliveries.push_back({begun.client, EventDelivery::Kind::Refused, answer});
        return;
    }
    Client client{begun.token, check.expires, *check.caller, {}};
    for (const QString& name : begun.topics)
        client.topics.push_back({m_topics.at(name).get(), {}});
    m_clients.insert(begun.client, client);
    deliveries.push_back({begun.client, EventDelivery::Kind::Accepted});
}

/// Each token once, however many clients use it.
void EventDesk::checkTokens(sqlite& database, bool all, Deliveries& deliveries) {
    QSet<qint64> voided;
    {
        const std::lock_guard lock(m_voided->mutex);
        voided.swap(m_voided->accounts);
    }
    const qint64 now = QDateTime::currentMSecsSinceEpoch();
    QHash<QByteArray, TokenCheck> checks;
    for (auto client = m_clients.begin(); client != m_clients.end();) {
        const bool isDue = all || voided.contains(client->caller.account) ||
                           (client->tokenEnds > 0 && client->tokenEnds <= now);
        if (isDue && !checks.contains(client->token))
            checks.insert(client->token, m_tokens.check(database, client->token));
        const TokenCheck check = isDue ? checks.value(client->token) : TokenCheck{};
        if (check.caller) {
            client->caller = *check.caller;
            client->tokenEnds = check.expires;
        }
        if (check.isKnown && !check.caller) {
            deliveries.push_back({client.key(), EventDelivery::Kind::Voided});
            client = m_clients.erase(client);
        } else {
            ++client;
        }
    }
}

Look EventDesk::lookDue() const {
    const auto now = Clock::now();
    if (m_changes.value() != m_seenChanges && now >= m_earliest)
        return Look::Rights;
    return now >= m_nextLook ? Look::Polled : Look::News;
}

void EventDesk::refresh(sqlite& database, Look look) {
    const auto begin = Clock::now();
    const quint64 changes = m_changes.value(); // what comes while it looks is looked for again
    for (const auto& [name, topic] : m_topics) {
        Watchers watchers;
        for (const Client& client : qAsConst(m_clients)) {
            for (const Subscribed& subscribed : client.topics) {
                if (subscribed.topic == topic.get())
                    watchers.insert(client.caller.account, client.caller);
            }
        }
        topic->refresh(database, watchers, look);
    }
    if (look == Look::News)
        return;
    const auto end = Clock::now();
    m_seenChanges = changes;
    m_nextLook = end + LookInterval;
    m_earliest = end + 4 * (end - begin);
}

const std::optional<Feed::Message>& EventDesk::next(const Subscribed& subscribed, qint64 account,
                                                    Messages& messages) const {
    static const std::optional<Feed::Message> nothing;
    const Feed* const feed = subscribed.topic->feedOf(account);
    if (!feed)
        return nothing;
    const auto known = messages.find({feed, subscribed.cursor});
    if (known != messages.end())
        return known->second;
    return messages.emplace(std::pair(feed, subscribed.cursor), feed->next(subscribed.cursor)).first->second;
}

void EventDesk::tell(quint64 id, bool isTick, Messages& messages, Deliveries& deliveries) {
    const auto client = m_clients.find(id);
    if (client == m_clients.end())
        return;
    const size_t first = deliveries.size();
    const size_t count = client->topics.size();
    const size_t turn = client->turn;
    int bytes = 0;
    for (size_t i = 0; i < count; ++i) {
        Subscribed& subscribed = client->topics[(turn + i) % count];
        if (!isTick && !subscribed.cursor.isInSnapshot())
            continue;
        const auto& message = next(subscribed, client->caller.account, messages);
        if (!message)
            continue;
        if (bytes > 0 && bytes + message->text.size() > RoundBytes) {
            client->turn = (turn + i) % count;
            break;
        }
        bytes += message->text.size();
        subscribed.cursor = message->next;
        deliveries.push_back({id, EventDelivery::Kind::Told, message->text});
    }
    const bool hasMore = std::any_of(client->topics.cbegin(), client->topics.cend(),
                                     [](const Subscribed& s) { return s.cursor.isInSnapshot(); });
    for (size_t i = first; i < deliveries.size(); ++i)
        deliveries[i].hasMore = hasMore;
}
