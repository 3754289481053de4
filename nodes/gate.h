#pragma once

#include "nodes/nodecall.h"

#include <atomic>
#include <functional>
#include <QElapsedTimer>
#include <QHash>
#include <QList>
#include <QMutex>
#include <QObject>

class QHostAddress;
class Severinit;

/// The one road of commands for speakers: a command for this node goes straight to the dispatcher on the
/// main loop, without any connection; one for another node goes to its command server over TCP. What
/// does not arrive is logged, at most once in `LogInterval` for a node, and counted. Lives on the main
/// loop; methods may be called from any thread. Owner: start-up.
class Gate : public QObject {
    Q_OBJECT
public:
    using Result = NodeCall::Result;
    using Limits = NodeCall::Limits;
    /// Called once, on the main loop.
    using Reply = std::function<void(const Result&)>;
    static constexpr std::chrono::milliseconds LogInterval{10000};

    /// `ownAddress`: one that only the world outside may know this machine by; may be empty.
    /// `commandPorts`: those of this node's command servers. Without `devices` every node is another one.
    Gate(Severinit* devices, QString ownAddress, QList<int> commandPorts, QObject* parent = nullptr);
    ~Gate() override;

    /// Runs a command, on the main loop at once, from another thread a moment later; never waits. With
    /// `reply` the node's answer is waited for and told.
    void run(const NodeAddress& node, const QByteArray& request, const Reply& reply = {},
             const Limits& limits = {});
    /// The same for a thread that may block, never for the main loop. For this node, and without
    /// `waitForAnswer`, it returns at once.
    Result runAndWait(const NodeAddress& node, const QByteArray& request, bool waitForAnswer,
                      const Limits& limits = {});

    bool isThisMachine(const QString& host) const;
    bool isThisNode(const NodeAddress& node) const;
    quint64 lostCommands() const { return m_lost; }

private:
    struct Silence {
        QElapsedTimer since; ///< the last line
        int unlogged = 0;
    };
    Result tell(const NodeAddress& node, Result result);
    void noteLost(const NodeAddress& node, const QString& error);

    Severinit* m_devices;
    const QString m_ownAddress;
    const QList<int> m_commandPorts;
    const QList<QHostAddress> m_ownAddresses; ///< of the machine, as it was at start
    std::atomic<quint64> m_lost{0};
    QMutex m_mutex;
    QHash<QString, Silence> m_silences; ///< by node; guarded by m_mutex
};
