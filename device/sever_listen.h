#pragma once

#include <memory>
#include <QByteArray>
#include <QJsonObject>
#include <QMap>
#include <QObject>
#include <QString>

class DeviceSocket;
class fortcpclient;
class Lobby;
class Mp3DataServer;
class QUdpSocket;
class SAobj;
class Severinit;
class TcpAcceptor;

/// The device control listener: takes speakers' connections on two ports, registers each by its first
/// packet and hands it to the registry; the MP3 data server stands beside it. Main loop only. To be
/// destroyed before the registry.
class sever_listen : public QObject {
    Q_OBJECT
public:
    /// Binds `DPort`, `DataPortBack3` and the MP3 data port `DPort` + 2; a port that cannot be bound
    /// is logged ("exit er2s", "exit er1", "exit er5") and ends the process with status 0.
    /// Connections are taken from set_svi() on. `TSWait`: keep-alive wait, ms.
    sever_listen(int TSWait, int DPort, int DataPortBack3, QObject* parent = nullptr);
    ~sever_listen() override;

    /// The registry; not owned.
    void set_svi(Severinit* registry);
    /// Whether a speaker that was heard of a moment ago is kept from a registration from another address.
    void setKeepBound(bool keep) { m_keepBound = keep; }

    /// Descriptions as packets::registration() and packets::statusForm() give them.
    static QJsonObject didiv3(const QByteArray& packet);
    static unsigned char to_vol(unsigned char level);
    static unsigned char back_vol(unsigned char code);
    static void getmsg(const QString& first, const QString& second);

    const QMap<QString, fortcpclient*>& connections() const { return m_connections; }
    int keepAliveWait() const { return m_keepAliveWait; }

public slots:
    /// Decodes a long status form and logs it with the tag "FDEFS:".
    static QJsonObject didi(const QByteArray& packet);
    void remotion_newcom();
    void remotion_newcom2();
    void remotion_error(const QString& reason);
    void remotion_error2(const QString& reason);
    /// Registers a connection by its first packet. Takes `socket` over.
    void rdremotion_newcom(DeviceSocket* accepted, const QByteArray& firstPacket);

private:
    static void listenOrExit(TcpAcceptor& acceptor, int port, const char* exitTag);
    void enter(TcpAcceptor& acceptor);
    bool mayTake(const QString& sn, const DeviceSocket& socket);
    void bind(std::unique_ptr<DeviceSocket> socket, const QJsonObject& description);

    int m_keepAliveWait;
    int m_port;
    int m_takeovers = 0; ///< of live speakers by another address
    bool m_keepBound = false;
    Severinit* m_registry = nullptr;
    std::unique_ptr<QUdpSocket> m_datagramSocket;
    std::unique_ptr<TcpAcceptor> m_control;
    std::unique_ptr<TcpAcceptor> m_control2;
    std::unique_ptr<Mp3DataServer> m_mp3Server;
    std::unique_ptr<Lobby> m_lobby;
    QMap<QString, fortcpclient*> m_connections; ///< newest of each serial; not owned
};
