#pragma once

#include "core/loop/addressfilter.h"
#include "device/didocmd.h"

#include <memory>
#include <QTcpServer>

class Severinit;

/// What the command servers share: accepts peers that the filter allows and gives each a didocmd.
/// Main loop only.
class CommandServer : public QTcpServer {
    Q_OBJECT
public:
    /// Connections that the kernel holds for us while a storm of them arrives.
    static constexpr int Backlog = 4096;
    /// Peers connect for one command or keep one connection each; more than this is a fault or an
    /// attack, and descriptors are needed for speakers. Whoever has been silent the longest makes room.
    static constexpr int MaxConnections = 2048;

    /// `tag` begins the log lines.
    CommandServer(QString tag, QObject* parent);
    void setFilter(const AddressFilter& filter) { m_filter = filter; }
    /// Starts to listen; a failure is logged and gives false. `address` is QHostAddress::Any for IPv6
    /// and IPv4 both.
    bool start(QHostAddress::SpecialAddress address, quint16 port, CommandHandler handler);

protected:
    void incomingConnection(qintptr descriptor) override;

private:
    bool listenWithBacklog(QHostAddress::SpecialAddress address, quint16 port);
    bool makeRoom();
    QString m_tag;
    AddressFilter m_filter;
    CommandHandler m_handler;
    std::shared_ptr<CommandPeers> m_peers = std::make_shared<CommandPeers>();
    int m_evicted = 0; ///< since the last log line about it
    QTimer m_evictionLog;
};

/// The first command server: IPv4, on `PS1`.
class cmdthread : public CommandServer {
    Q_OBJECT
public:
    /// `PS1` 0 takes a free port.
    explicit cmdthread(int PS1, QObject* parent = nullptr);
    /// Starts to listen and hands each request to `devices`, which outlives the server.
    bool init(Severinit* devices);

private:
    int m_ps1;
};

/// The second command server: IPv6 and IPv4, on `PS2`, the port that this node announces.
class cmdthread6 : public CommandServer {
    Q_OBJECT
public:
    explicit cmdthread6(int PS2, QObject* parent = nullptr);
    bool init(Severinit* devices);

private:
    int m_ps2;
};
