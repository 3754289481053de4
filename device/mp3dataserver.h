#pragma once

#include <memory>
#include <QByteArray>
#include <QObject>
#include <QString>

class DeviceSocket;
class Lobby;
class SAobj;
class Severinit;
class TcpAcceptor;

/// Takes the connections that speakers open for MP3 data and hands each to its speaker's session.
/// A connection names its speaker by its first message: the registration packet, or the long status
/// form. Main loop only.
class Mp3DataServer : public QObject {
    Q_OBJECT
public:
    explicit Mp3DataServer(QObject* parent = nullptr);
    ~Mp3DataServer() override;

    TcpAcceptor& acceptor() { return *m_acceptor; }
    /// Connections are taken from here on; `registry` is not owned.
    void start(Severinit* registry);

private:
    void attach(DeviceSocket* accepted, const QByteArray& firstMessage);
    SAobj* sessionFor(const QString& sn, const DeviceSocket& socket) const;

    std::unique_ptr<TcpAcceptor> m_acceptor;
    std::unique_ptr<Lobby> m_lobby;
    Severinit* m_registry = nullptr;
};
