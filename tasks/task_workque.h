#pragma once

#include "tasks/handledseconds.h"
#include "tasks/nodeque.h"
#include "tasks/schedule/schedule.h"
#include "tasks/taskreader.h"
#include "tasks/writeback.h"

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <QJsonArray>
#include <QMap>
#include <QMultiHash>
#include <QObject>
#include <QString>
#include <QTimer>
#include <vector>

class Arrivals;
class DeviceStatus;
class Latecomers;
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
/// hands each started task to the poller of its node. Does nothing else until the database has let it
/// tidy up what an earlier process left. Owner: start-up. Main loop only.
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

    /// Goes by other clocks from now on; counting begins again at their present second, and what was
    /// handled by the clock before is forgotten.
    void setClock(TaskClock clock);
    /// The player that runs under this key on any node; null when there is none.
    Tasxkobj* runningPlayer(quint64 key) const;
    /// The tables have been tidied up: from now on bells ring.
    bool isReady() const { return m_isReady; }
    /// Starts of the last tick that go on in the loop's next turns.
    bool isStarting() const { return !pending.empty(); }
    /// The task is gone: ends its play, and one that is about to start.
    void endTask(quint64 key);
    /// The process is about to end: starts nothing any more and stops what plays. Serves the loop until
    /// the stops have left, at most for `limit`.
    void end(std::chrono::milliseconds limit);

public slots:
    /// Re-arms requests and gives this node's row its address and ports. False when the database failed.
    bool systeminit();
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
        qint64 dueAt = 0;   ///< second of the epoch; earlier ones start first
        bool isScheduled = false;
    };
    /// A play of another process, and who still plays it.
    struct Interrupted {
        NodeAddress node;
        QStringList seeds;
    };
    /// Seconds whose bells are lost and not yet named.
    struct Lost {
        qint64 first;
        qint64 last;
    };
    static constexpr int MaxNodes = 256; ///< each has a thread
    struct Node {
        Nodeque* poller = nullptr; ///< child of this object
        bool nocdn = true;
    };

    void scheduleTick();
    void handleSeconds(qint64 now);
    bool handleSecond(const ScheduleSecond& second);
    void startDue(const SqlResult& tasks, const ScheduleSecond& second);

    // taskready.cpp
    bool prepare();
    bool emptyRequests();
    std::optional<std::vector<Interrupted>> interruptedPlays();
    void silence(const std::vector<Interrupted>& plays);
    bool isThisNode(const NodeAddress& address) const;

    // tasklost.cpp
    void logSkipped(const ScheduleSecond& second);
    void lose(qint64 first, qint64 last);
    void nameLost();
    bool nameLost(const LocalStretch& stretch);

    // taskrequests.cpp
    void takeStarts();
    void takeStops();
    void takeTemporaryStarts();
    void takeTemporaryStops();
    bool mark(const QList<qint64>& requests, const QString& statement);
    void endStopping();

    // taskstart.cpp
    void addPending(Start start);
    void startPending();
    void startOne(quint64 key);
    bool fill(Start& start);
    void refuse(const Tasxkobj& player, const char* why);
    void bind(Start start);
    void bindLate(std::unique_ptr<Tasxkobj> play);
    void endLate(quint64 task);
    void markPlaying();
    void record(Start& start);
    void recordAbsent(const Tasxkobj& player, const QStringList& seeds);
    Node* node(const NodeAddress& address, bool nocdn = true);
    static QString nodeKey(const NodeAddress& address);

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
    bool m_isReady = false;

    TaskClock m_clock;
    LocalTime m_localTime;
    HandledFile m_handledFile;
    HandledSeconds m_handled;
    SecondSequence m_seconds;
    StartGuard m_guard;
    std::vector<Lost> m_lost;
    bool m_emptyRequests = false; ///< it is time to, and the database has not let it yet
    qint64 m_tickStarted = 0;     ///< steady ms
    QTimer m_tickTimer;           ///< aligned to the wall clock's seconds
    QTimer m_writeTimer;

    TaskReader m_reader;
    WriteBack m_writeBack;
    std::map<quint64, Start> pending;    ///< created and not yet started, by key
    std::map<quint64, Start> m_retrying; ///< could not be read from the database: the next tick tries again
    std::vector<quint64> stopping;       ///< keys of the players to end in this tick
    std::vector<quint64> m_bound;        ///< tasks bound in this turn and not yet marked as playing
    QMap<QString, Node> m_nodes;         ///< by "nodeip_nodeport3"
    // Without devices null.
    std::unique_ptr<Arrivals> m_arrivals;
    std::unique_ptr<Latecomers> m_latecomers;
    std::unique_ptr<DeviceStatus> m_deviceStatus;
    QMultiHash<quint64, quint64> m_latePlays; ///< task to the keys of its further plays
    quint64 m_lastLateKey = quint64{2} << 32; ///< above tasks and temporary plays
};
