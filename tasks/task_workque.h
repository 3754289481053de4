#pragma once

#include "tasks/belloutcome.h"
#include "tasks/handledfile.h"
#include "tasks/nodeque.h"
#include "tasks/schedule/handling.h"
#include "tasks/schedule/schedule.h"
#include "tasks/taskreader.h"
#include "tasks/taskruns.h"
#include "tasks/toldbells.h"
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
class Tasxkobj;
struct DueBells;

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
    /// Times that the clock skips ring at the first second after the gap.
    void setRingsAfterGap(bool rings) { m_house.ringsAfterGap = rings; }
    /// What holds for every bell; any thread, once start-up is over.
    const HouseRules& house() const { return m_house; }
    /// Who tells which speakers the groups of a task hold.
    void setResolver(TaskReader::Resolve resolve) { m_reader.setResolver(std::move(resolve)); }
    /// Who is told what became of each bell.
    void setBellSink(BellSink sink) { m_tellBell = std::move(sink); }
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
        qint64 due = 0;     ///< of a bell: the second that names it; 0: somebody asked for the start
        MissedPolicy missed;
        bool isScheduled() const { return due != 0; }
    };
    /// A play of another process, and who still plays it.
    struct Interrupted {
        NodeAddress node;
        QStringList seeds;
    };
    static constexpr int MaxNodes = 256; ///< each has a thread
    struct Node {
        Nodeque* poller = nullptr; ///< child of this object
        bool nocdn = true;
    };

    void scheduleTick();
    void handleSeconds(qint64 now);
    void setBack(qint64 by, qint64 now);
    void noteAbsence(qint64 now);
    void keepHandled();
    qint64 handedOut() const;

    // taskbells.cpp
    void judge(const DueBells& due, const Bell& bell, qint64 now);
    void skip(const DueBells& due, const Bell& bell, int row, const QString& reason);
    void tellOnce(const BellOutcome& outcome);
    void tellInherited();

    // taskready.cpp
    bool prepare();
    bool readHandled();
    bool emptyRequests();
    std::optional<std::vector<Interrupted>> interruptedPlays();
    void silence(const std::vector<Interrupted>& plays);
    bool isThisNode(const NodeAddress& address) const;

    // taskrequests.cpp
    void takeStarts();
    void takeStops();
    void takeTemporaryStarts();
    void takeTemporaryStops();
    bool mark(const QList<qint64>& requests, const QString& statement);
    void endStopping();

    // taskstart.cpp
    void addPending(Start start);
    std::vector<quint64> pendingOrder() const;
    void startPending();
    std::vector<Start> fillNext(const std::vector<quint64>& keys);
    bool fill(Start& start);
    void giveUpOrRetry(quint64 key, Start start);
    void claim(std::vector<Start>& starts);
    void refuse(const Start& start, const char* why, const QString& reason = {});
    std::optional<std::chrono::milliseconds> timeLeft(const Start& start) const;
    void tell(const Start& start, const QString& reason = {});
    void bind(Start start);
    void bindLate(std::unique_ptr<Tasxkobj> play);
    void endLate(quint64 task);
    void markPlaying();
    bool record(Start& start);
    void recordAbsent(const Tasxkobj& player, const QStringList& seeds, std::chrono::milliseconds wait);
    Node* node(const NodeAddress& address, bool nocdn = true);
    static QString nodeKey(const NodeAddress& address);

    bool hasRelayedAll() const; // taskend.cpp

    sqlite* m_database;
    Severinit* m_devices;
    std::unique_ptr<Gate> m_ownGate; ///< when none is given
    const Nodeque::Relay m_relay;
    const QString m_sourceHost;
    const QString m_cdnHost;
    HouseRules m_house;
    const int m_DPort;
    const int m_PS1;
    const int m_PS2;
    const int m_DataPort;
    QString m_ownAddress;
    bool m_isReady = false;

    TaskClock m_clock;
    LocalTime m_localTime;
    HandledFile m_handledFile;
    bool m_isHandledKnown = false; ///< the file told it
    SecondSequence m_seconds;
    Absences m_absences;
    bool m_isUnread = false;  ///< the last tick could not read the schedules
    qint64 m_lastWall = 0;    ///< of the last tick, ms
    qint64 m_lastSteady = 0;  ///< the same
    qint64 m_handledKept = 0; ///< the last second that the database was told
    BellSink m_tellBell;
    bool m_emptyRequests = false; ///< it is time to, and the database has not let it yet
    qint64 m_tickStarted = 0;     ///< steady ms
    QTimer m_tickTimer;           ///< aligned to the wall clock's seconds
    QTimer m_writeTimer;

    TaskReader m_reader;
    WriteBack m_writeBack;
    TaskRuns m_runs;
    ToldBells m_told;
    std::vector<TaskRuns::Run> m_inherited; ///< claimed by earlier processes, until they are looked through
    qint64 m_readyAt = 0;                   ///< steady ms
    std::map<quint64, Start> pending;       ///< created and not yet started, by key
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
