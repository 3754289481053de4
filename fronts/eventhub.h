#pragma once

#include "fronts/events/eventdesk.h"

#include <chrono>
#include <QHash>
#include <QJsonObject>
#include <QObject>
#include <QTimer>

class qwebsocktthread;
class WorkerPool;
struct WebSocketBudget;

/// The clients of the events on the front's thread: takes subscriptions, has a worker work out in rounds what
/// each client is told, and sends it. One round is under way at a time, and belongs to its worker with all
/// that the desk keeps. See docs/events.md.
class EventHub : public QObject {
    Q_OBJECT
public:
    static constexpr const char* Path = "/api/v1/events";
    /// From telling changes to telling the next ones: at most four messages a second.
    static constexpr std::chrono::milliseconds Pause{255};
    /// Who has read nothing for so long begins anew.
    static constexpr std::chrono::seconds LateAfter{3};
    static constexpr int LongestToken = 200;

    /// All outlive it.
    EventHub(EventDesk& desk, WorkerPool& workers, const WebSocketBudget& budget, QObject* parent);

    /// A client's request; takes the place of its former one.
    void subscribe(qwebsocktthread* connection, const QJsonObject& request);
    void forget(qwebsocktthread* connection);

private:
    class Round;
    struct Client {
        qwebsocktthread* connection;
        bool isAccepted = false;
        bool hasMore = false; ///< within a snapshot
        bool isLate = false;
    };

    void run(bool isTick);
    EventRound nextRound(bool isTick);
    void kick();
    void finish(const std::vector<EventDelivery>& deliveries, bool isTick);
    void giveBack(const EventRound& round);
    void deliver(const EventDelivery& delivery, QHash<const char*, QByteArray>& frames);
    void dropSilent();

    EventDesk& m_desk;
    WorkerPool& m_workers;
    const WebSocketBudget& m_budget;
    QTimer m_pause;
    bool m_isUnderWay = false;
    bool m_isTickDue = false;
    quint64 m_lastClient = 0;
    QHash<quint64, Client> m_clients;
    QHash<qwebsocktthread*, quint64> m_ids;
    EventRound m_news; ///< who has come and gone since the last round
};
