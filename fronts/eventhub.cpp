#include "fronts/eventhub.h"

#include "fronts/qwebsocktthread.h"
#include "fronts/websocketframes.h"

#include "http/workerdatabase.h"
#include "http/workerpool.h"

#include <algorithm>
#include <QJsonArray>
#include <utility>

namespace {

/// What is wrong with a subscription; null when nothing is.
QString faultOf(const QJsonObject& request, const QStringList& known) {
    for (const QString& key : request.keys()) {
        if (key != QLatin1String("path") && key != QLatin1String("token") && key != QLatin1String("topics"))
            return QStringLiteral("unknown key \"%1\"").arg(key.left(32));
    }
    if (!request.value(QStringLiteral("token")).isString())
        return QStringLiteral("\"token\" must be a text");
    const QJsonArray topics = request.value(QStringLiteral("topics")).toArray();
    if (topics.isEmpty())
        return QStringLiteral("\"topics\" must be a list of at least one of: ") +
               known.join(QStringLiteral(", "));
    for (const QJsonValue& topic : topics) {
        if (!known.contains(topic.toString()))
            return QStringLiteral("there is no topic \"%1\"").arg(topic.toString().left(32));
    }
    return {};
}

QStringList topicsOf(const QJsonObject& request) {
    QStringList topics;
    for (const QJsonValue& topic : request.value(QStringLiteral("topics")).toArray())
        topics += topic.toString();
    topics.removeDuplicates();
    return topics;
}

} // namespace

/// One round on its way through the pool. Deletes itself.
class EventHub::Round final : public WorkerPool::Job {
public:
    Round(EventHub* hub, EventRound round)
        : m_hub(hub)
        , m_round(std::move(round)) {}

    void run(WorkerDatabase& database) override {
        const auto deliveries = m_hub->m_desk.run(m_round, database.get());
        post([hub = m_hub, deliveries, isTick = m_round.isTick] { hub->finish(deliveries, isTick); });
    }
    void cancel() override {
        post([hub = m_hub, round = m_round] { hub->giveBack(round); });
    }

private:
    template<typename Work>
    void post(Work work) {
        QMetaObject::invokeMethod(m_hub, work, Qt::QueuedConnection);
        delete this;
    }
    EventHub* m_hub;
    EventRound m_round;
};

EventHub::EventHub(EventDesk& desk, WorkerPool& workers, const WebSocketBudget& budget, QObject* parent)
    : QObject(parent)
    , m_desk(desk)
    , m_workers(workers)
    , m_budget(budget)
    , m_pause(this) {
    m_pause.setSingleShot(true);
    m_pause.setTimerType(Qt::PreciseTimer);
    connect(&m_pause, &QTimer::timeout, this, [this] {
        m_isTickDue = true;
        kick();
    });
}

void EventHub::subscribe(qwebsocktthread* connection, const QJsonObject& request) {
    const QString fault = faultOf(request, m_desk.topicNames());
    const QByteArray token = request.value(QStringLiteral("token")).toString().left(LongestToken).toUtf8();
    if (!fault.isNull())
        return connection->reply(EventDesk::refusal(422, fault));
    if (m_ids.contains(connection))
        forget(connection);
    else
        connect(connection, &qwebsocktthread::drained, this, &EventHub::kick);
    const quint64 id = ++m_lastClient;
    m_clients.insert(id, {connection});
    m_ids.insert(connection, id);
    m_news.begun.push_back({id, token, topicsOf(request)});
    kick();
}

void EventHub::forget(qwebsocktthread* connection) {
    const quint64 id = m_ids.take(connection);
    if (id == 0)
        return;
    m_clients.remove(id);
    m_news.ended.push_back(id);
    kick();
}

/// Runs a round, if there is reason to and none is under way.
void EventHub::kick() {
    if (m_isUnderWay)
        return;
    const bool isAsked = !m_news.begun.empty() || !m_news.ended.empty() ||
                         std::any_of(m_clients.cbegin(), m_clients.cend(), [](const Client& client) {
                             return client.hasMore && client.connection->hasRoom();
                         });
    if (m_isTickDue || isAsked)
        run(std::exchange(m_isTickDue, false));
}

void EventHub::run(bool isTick) {
    auto* round = new Round(this, nextRound(isTick));
    m_isUnderWay = true;
    if (!m_workers.submit(round))
        round->cancel();
}

EventRound EventHub::nextRound(bool isTick) {
    EventRound round = std::exchange(m_news, {});
    round.isTick = isTick;
    const auto now = qwebsocktthread::Clock::now();
    for (auto client = m_clients.begin(); client != m_clients.end(); ++client) {
        if (!client->isAccepted || (!isTick && !client->hasMore))
            continue;
        if (client->connection->hasRoom()) {
            round.ready.push_back(client.key());
            if (std::exchange(client->isLate, false))
                round.late.push_back(client.key());
        } else if (client->connection->standstill(now) > LateAfter) {
            client->isLate = true;
        }
    }
    return round;
}

/// The pool is full: later. It may also be ending, and then nothing more comes of it.
void EventHub::giveBack(const EventRound& round) {
    m_news.begun.insert(m_news.begun.begin(), round.begun.begin(), round.begun.end());
    m_news.ended.insert(m_news.ended.begin(), round.ended.begin(), round.ended.end());
    for (const quint64 id : round.late) {
        if (m_clients.contains(id))
            m_clients[id].isLate = true;
    }
    m_isUnderWay = false;
    m_pause.start(Pause);
}

void EventHub::finish(const std::vector<EventDelivery>& deliveries, bool isTick) {
    QHash<const char*, QByteArray> frames;
    for (const EventDelivery& delivery : deliveries)
        deliver(delivery, frames);
    dropSilent();
    m_isUnderWay = false;
    if (!m_clients.isEmpty() && (isTick || !m_pause.isActive()))
        m_pause.start(Pause);
    kick();
}

void EventHub::deliver(const EventDelivery& delivery, QHash<const char*, QByteArray>& frames) {
    const auto client = m_clients.find(delivery.client);
    if (client == m_clients.end())
        return;
    qwebsocktthread* const connection = client->connection;
    switch (delivery.kind) {
    case EventDelivery::Kind::Accepted:
        client->isAccepted = true;
        connection->setSubscribed();
        connection->endRequest();
        break;
    case EventDelivery::Kind::Refused:
        m_clients.erase(client);
        m_ids.remove(connection);
        connection->disconnect(this);
        connection->reply(delivery.text);
        break;
    case EventDelivery::Kind::Told: {
        QByteArray& frame = frames[delivery.text.constData()];
        if (frame.isEmpty())
            frame = websocket::frame(websocket::Opcode::Text, delivery.text);
        client->hasMore = delivery.hasMore;
        connection->tell(frame);
        break;
    }
    case EventDelivery::Kind::Voided:
        m_clients.erase(client);
        m_ids.remove(connection);
        connection->closeForPolicy("the token has ended");
        break;
    }
}

/// Those that have not read for the longest make room when too much waits to be read.
void EventHub::dropSilent() {
    const auto now = qwebsocktthread::Clock::now();
    while (m_budget.eventBytes > WebSocketBudget::MaxEventBytes) {
        qwebsocktthread* longest = nullptr;
        for (const Client& client : qAsConst(m_clients)) {
            if (client.connection->standstill(now) > LateAfter &&
                (!longest || client.connection->standstill(now) > longest->standstill(now)))
                longest = client.connection;
        }
        if (!longest)
            return;
        forget(longest);
        longest->dropForSilence();
    }
}
