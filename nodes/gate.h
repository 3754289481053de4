#pragma once

#include "nodes/nodecall.h"

#include <functional>
#include <memory>
#include <QElapsedTimer>
#include <QHash>
#include <QList>
#include <QObject>

class QHostAddress;
class Severinit;

/// The one road of commands for speakers: a command for this node goes straight to the dispatcher on the
/// main loop, without any connection; one for another node goes to its command server over TCP. Every
/// answer is read: speakers that were not reached are logged with the command. What does not arrive is
/// logged, at most once in `LogInterval` for a node, and counted. Lives on the main loop; methods may be
/// called from any thread unless they say otherwise. Owner: start-up.
class Gate : public QObject {
    Q_OBJECT
public:
    using Result = NodeCall::Result;
    using Limits = NodeCall::Limits;
    /// Called once, on the main loop.
    using Reply = std::function<void(const Result&)>;
    /// A command under way, for a thread that waits for it.
    struct Pending;
    using PendingPtr = std::shared_ptr<Pending>;
    /// What a thread waits for.
    enum class Until { Written, Answered };
    static constexpr std::chrono::milliseconds LogInterval{10000};
    /// Answers that nobody waits for: of more than so many connections at once they are left unread, so
    /// that a node that hangs does not use up the descriptors.
    static constexpr int MaxUnasked = 256;

    /// `ownAddress`: one that only the world outside may know this machine by; may be empty.
    /// `commandPorts`: those of this node's command servers. Without `devices` every node is another one.
    Gate(Severinit* devices, QString ownAddress, QList<int> commandPorts, QObject* parent = nullptr);
    ~Gate() override;

    /// Runs a command, on the main loop at once, from another thread a moment later; never waits.
    void run(const NodeAddress& node, const QByteArray& request, const Reply& reply = {},
             const Limits& limits = {});

    // For threads that may block, never for the main loop.
    PendingPtr begin(const NodeAddress& node, const QByteArray& request, Until until,
                     const Limits& limits = {});
    static Result await(const PendingPtr& pending);
    Result runAndWait(const NodeAddress& node, const QByteArray& request, Until until,
                      const Limits& limits = {}) {
        return await(begin(node, request, until, limits));
    }

    bool isThisMachine(const QString& host) const;
    bool isThisNode(const NodeAddress& node) const;
    quint64 lostCommands() const { return m_lost; } ///< main loop

private:
    struct Silence {
        QElapsedTimer since; ///< the last line
        int unlogged = 0;
    };
    void start(const NodeAddress& node, const QByteArray& request, Until until, const Reply& reply,
               const Limits& limits);
    void call(const NodeAddress& node, const QByteArray& request, Until until, const Reply& reply,
              const Limits& limits);
    void note(const NodeAddress& node, const QByteArray& word, const Result& result);
    void noteLost(const NodeAddress& node, const QString& error);

    Severinit* m_devices;
    const QString m_ownAddress;
    const QList<int> m_commandPorts;
    const QList<QHostAddress> m_ownAddresses; ///< of the machine, as it was at start
    int m_unasked = 0;                        ///< calls under way whose answer nobody waits for
    quint64 m_lost = 0;
    QHash<QString, Silence> m_silences; ///< by node
};
