#pragma once

#include "tasks/nodeque.h"
#include "tasks/schedule.h"
#include "tasks/taskreader.h"
#include "tasks/writeback.h"

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <QJsonArray>
#include <QMap>
#include <QObject>
#include <QString>
#include <QTimer>
#include <vector>

class QCoreApplication;
class Severinit;
class sqlite;
struct SqlResult;
class Tasxkobj;

/// The clocks that the task queue goes by.
struct TaskClock {
    std::function<qint64()> epochMs;  ///< wall clock, ms since 1970-01-01 UTC
    std::function<qint64()> steadyMs; ///< ms; never set, never back
    static TaskClock system();
};

/// The scheduler of play tasks: reads due tasks and requests from the database once a second and
/// hands each started task to the poller of its node. Owner: start-up. Main loop only.
class Task_workque : public QObject {
    Q_OBJECT
public:
    /// `nodeList`: objects with "nodeip", "nodeport3" and "nocdn"; the first one is this node.
    /// `taskstart`, `taskend`: the daily working span, seconds since local midnight. On a node that
    /// uses the CDN ("nocdn" false) files of the host `src_ipstr` are fetched from `cdn_str`.
    /// The database's credentials travel in `database`. Without a gate every command goes over TCP.
    Task_workque(Severinit* devices, int DPort, int DataPort, int PS1, QString src_ipstr, QString cdn_str,
                 const QJsonArray& nodeList, QCoreApplication* application, const QString& Meida_ip, int PS2,
                 const QString& task_username, const QString& task_passwd, const QString& basename,
                 sqlite* database, int sqltaskid, int mode, int taskstart, int taskend,
                 QObject* parent = nullptr, Nodeque::Relay relay = {});
    /// Ends the threads of the node pollers: waits for the command that each has under way.
    ~Task_workque() override;

    /// Key of the player of a temporary play, by its `taskpop` row; never a task's id.
    static quint64 temporaryKey(qint64 requestRow) {
        return (quint64{1} << 32) + static_cast<quint64>(requestRow);
    }

    /// Goes by other clocks from now on; counting begins again at their present second.
    void setClock(TaskClock clock);
    /// The player that runs under this key on any node; null when there is none.
    Tasxkobj* runningPlayer(quint64 key) const;
    /// Starts of the last tick that go on in the loop's next turns.
    bool isStarting() const { return !pending.empty(); }
    /// The task is gone: ends its play, and one that is about to start.
    void endTask(quint64 key);
    /// The process is about to end: starts nothing any more and stops what plays. Serves the loop until
    /// the stops have left, at most for `limit`.
    void end(std::chrono::milliseconds limit);

public slots:
    void systeminit();
    void sqlerror();
    /// Queues a statement for the next write-back.
    void instsqk(const QString& sql) { m_writeBack.append(sql); }
    /// The write-back tick.
    void fndout() { m_writeBack.flush(); }
    void forNodeout();
    void forNodeCMD();
    /// The scheduling tick.
    void forqueout();

signals:
    /// A player has been bound to its node and started.
    void started(quint64 key);

private:
    /// A player that waits to be bound to its node.
    struct Start {
        std::unique_ptr<Tasxkobj> player;
        NodeAddress node;   ///< given by a temporary play; read for a task
        qint64 askedAt = 0; ///< steady ms
    };
    static constexpr int MaxNodes = 256; ///< each has a thread
    struct Node {
        Nodeque* poller = nullptr; ///< child of this object
        bool nocdn = true;
    };

    void scheduleTick();
    bool handleSecond(const ScheduleSecond& second);
    void logSkipped(const ScheduleSecond& second);
    void startDue(const SqlResult& tasks, const ScheduleSecond& second);

    // taskrequests.cpp
    void takeStarts();
    void takeStops();
    void takeTemporaryStarts();
    void takeTemporaryStops();
    bool mark(const QList<qint64>& requests, const QString& statement);
    void endStopping();

    // taskstart.cpp
    void addPending(std::unique_ptr<Tasxkobj> player, const NodeAddress& node = {});
    void startPending();
    void startFirst();
    bool fill(Start& start);
    void refuse(const Tasxkobj& player, const char* why);
    void bind(Start start);
    void markPlaying();
    Node* node(const NodeAddress& address, bool nocdn = true);

    bool hasRelayedAll() const; // taskend.cpp

    sqlite* m_database;
    Severinit* m_devices;
    std::unique_ptr<Gate> m_ownGate; ///< when none is given
    const Nodeque::Relay m_relay;
    const QString m_sourceHost;
    const QString m_cdnHost;
    const WorkingSpan m_span;
    const int m_DPort;
    const int m_PS1;
    const int m_PS2;
    const int m_DataPort;
    QString m_ownAddress;

    TaskClock m_clock;
    LocalTime m_localTime;
    SecondSequence m_seconds;
    StartGuard m_guard;
    qint64 m_tickStarted = 0; ///< steady ms
    QTimer m_tickTimer;       ///< aligned to the wall clock's seconds
    QTimer m_writeTimer;

    TaskReader m_reader;
    WriteBack m_writeBack;
    std::map<quint64, Start> pending;    ///< created and not yet started, by key
    std::map<quint64, Start> m_retrying; ///< could not be read from the database: the next tick tries again
    std::vector<quint64> stopping;       ///< keys of the players to end in this tick
    std::vector<quint64> m_bound;        ///< tasks bound in this turn and not yet marked as playing
    QMap<QString, Node> m_nodes;         ///< by "nodeip_nodeport3"
};
