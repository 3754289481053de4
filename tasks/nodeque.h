#pragma once

#include "nodes/nodeaddress.h"
#include "tasks/relayqueue.h"

#include <atomic>
#include <chrono>
#include <QMap>
#include <QMutex>
#include <QSemaphore>
#include <QThread>
#include <QTimer>
#include <vector>

class Gate;
class Journal;
class Severinit;
class sqlite;
class Tasxkobj;
class Warning;

/// One play node: an address and the port of its command server. Relays the commands of the players
/// bound to it, as RelayQueue orders them, and on the node that is this machine watches service periods.
/// Owner: the task queue. Every method and slot belongs to the main loop;
/// only run() is the object's own thread, and all it touches is the commands.
class Nodeque : public QThread {
    Q_OBJECT
public:
    /// How commands leave.
    struct Relay {
        Gate* gate = nullptr;                 ///< outlives this object
        std::chrono::milliseconds pause{100}; ///< between two commands of a node
        Journal* journal = nullptr;           ///< null: nothing is recorded
    };
    static constexpr std::chrono::milliseconds PollInterval{5171};
    /// What waits for a node that can't be reached: a day of it must not eat the machine's memory.
    static constexpr qint64 MaxWaitingBytes = 256 * 1024 * 1024;

    /// `kind`: of the database, as sqlite::kind() has it.
    Nodeque(Severinit* devices, int kind, sqlite* database, const QString& address, int port, Relay relay,
            QObject* parent = nullptr);
    ~Nodeque() override;

    QString address() const { return m_node.host; }
    int port() const { return m_node.port; }

    /// Takes the player, starts it and drops it when it is over. An id that is bound already is
    /// logged; the player is then given up.
    void insert(quint64 taskid, Tasxkobj* player);
    Tasxkobj* player(quint64 taskid) const; ///< null when there is none
    /// Ends the players that would end by themselves within `time`.
    void endDue(std::chrono::milliseconds time);
    /// Ends every player. Returns how many there were.
    int endAll();

    void insertwarming(const QString& name, Warning* warning);
    void diswarming(const QString& name);

    /// Relays what waits without pauses from now on.
    void hurry();
    /// Nothing waits and nothing is on its way.
    bool isIdle();
    /// Asks the thread to end. What waits is dropped, a command under way given up.
    void stop();

public slots:
    /// Queues a command.
    void fuckin(const QByteArray& command);
    /// Relays a command at once: from the poller's own thread it waits for the node, from the main
    /// loop it does not.
    void fuckmg(const QByteArray& command);
    void fuckover(quint64 taskid);
    void getinfotime();
    void useing_enable(const QStringList& serials);
    void useing_disable(const QStringList& serials);

signals:
    /// A statement for the database, complete.
    void updatedatabase(const QString& sql);

protected:
    void run() override;

private:
    void sendUseing(const char* word, const QStringList& serials);
    void enqueue(RelayQueue::Command command);
    void collect();
    void waitForCommands();
    void pause();
    void noteSent(const QByteArray& command) const;

    Severinit* m_devices;
    sqlite* m_database;
    const NodeAddress m_node;
    const Relay m_relay;

    QMutex m_mutex;
    std::vector<RelayQueue::Command> m_arrived; ///< guarded by m_mutex
    qint64 m_arrivedBytes = 0;                  ///< guarded by m_mutex
    bool m_isIdle = true;                       ///< guarded by m_mutex
    std::atomic<qint64> m_queuedBytes{0};
    RelayQueue m_queue;     ///< the thread's
    QSemaphore m_waiting;   ///< counts what arrives, and one for stop()
    QSemaphore m_pauseOver; ///< ends the pause between two commands
    std::atomic<bool> m_isHurrying{false};
    std::atomic<bool> m_stopping{false};

    QMap<quint64, Tasxkobj*> m_players; ///< children of this object
    QMap<QString, QMetaObject::Connection> m_warnings;

    QTimer m_pollTimer; ///< on this machine's node only
};
