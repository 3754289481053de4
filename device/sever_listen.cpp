#include "device/sever_listen.h"

#include "core/logthrottle.h"
#include "core/loop/devicesocket.h"
#include "core/loop/tcpacceptor.h"
#include "device/fortcpclient.h"
#include "device/lobby.h"
#include "device/mp3dataserver.h"
#include "device/packets.h"
#include "device/saobj.h"
#include "device/severinit.h"
#include "device/volume.h"

#include <chrono>
#include <cstdlib>
#include <QDebug>
#include <QUdpSocket>

using namespace std::chrono_literals;

namespace {
/// A speaker beats every 5 s: one that was heard of within this time is there.
constexpr auto KeepBoundTime = 10s;
} // namespace

sever_listen::sever_listen(int TSWait, int DPort, int DataPortBack3, QObject* parent)
    : QObject(parent)
    , m_keepAliveWait(TSWait)
    , m_port(DPort)
    , m_datagramSocket(std::make_unique<QUdpSocket>())
    , m_control(std::make_unique<TcpAcceptor>())
    , m_control2(std::make_unique<TcpAcceptor>())
    , m_mp3Server(std::make_unique<Mp3DataServer>()) {
    listenOrExit(*m_control, DPort, "exit er2s");
    connect(m_control.get(), &TcpAcceptor::newConnection, this, &sever_listen::remotion_newcom);
    connect(m_control.get(), &TcpAcceptor::acceptError, this, &sever_listen::remotion_error);
    listenOrExit(*m_control2, DataPortBack3, "exit er1");
    connect(m_control2.get(), &TcpAcceptor::newConnection, this, &sever_listen::remotion_newcom2);
    connect(m_control2.get(), &TcpAcceptor::acceptError, this, &sever_listen::remotion_error2);
    listenOrExit(m_mp3Server->acceptor(), DPort + 2, "exit er5");
}

sever_listen::~sever_listen() {
    // The sessions' connections refer to the map below.
    for (fortcpclient* const client : std::as_const(m_connections))
        client->release();
    if (m_registry)
        m_registry->removeSessionsOf(this);
}

void sever_listen::listenOrExit(TcpAcceptor& acceptor, int port, const char* exitTag) {
    if (acceptor.listen(static_cast<quint16>(port))) {
        qInfo() << "Remotion :" << port;
        return;
    }
    qCritical().noquote() << exitTag << port << acceptor.errorText();
    std::exit(EXIT_SUCCESS);
}

void sever_listen::set_svi(Severinit* registry) {
    m_registry = registry;
    m_lobby = std::make_unique<Lobby>(QStringLiteral("sev_listen_3333"), registry->wheel());
    connect(m_lobby.get(), &Lobby::firstRead, this, &sever_listen::rdremotion_newcom);
    m_mp3Server->start(registry);
    qInfo() << "un_useing" << registry->blockedSerials();
}

void sever_listen::remotion_newcom() {
    enter(*m_control);
}

void sever_listen::remotion_newcom2() {
    enter(*m_control2);
}

void sever_listen::enter(TcpAcceptor& acceptor) {
    if (auto socket = acceptor.nextPendingConnection(); socket && m_lobby)
        m_lobby->enter(std::move(socket));
}

void sever_listen::remotion_error(const QString& reason) {
    if (mayLog("remotion_error", QString()))
        qWarning().noquote() << "remotion_error" << reason;
    m_lobby->makeRoom();
}

void sever_listen::remotion_error2(const QString& reason) {
    if (mayLog("remotion_error2", QString()))
        qWarning().noquote() << "remotion_error2" << reason;
    m_lobby->makeRoom();
}

void sever_listen::rdremotion_newcom(DeviceSocket* accepted, const QByteArray& firstPacket) {
    std::unique_ptr<DeviceSocket> socket(accepted);
    QJsonObject description = didiv3(firstPacket);
    const QString peer = socket->peerAddress().toString();
    const QString sn = description.value(QLatin1String("sn")).toString();
    description.insert(QStringLiteral("localip"), peer);
    if (!description.value(QLatin1String("res_____")).toBool()) {
        if (mayLog("No registration packet", socket->peerAddress()))
            qInfo().noquote() << "No registration packet:" << firstPacket.size() << "bytes from" << peer;
    } else if (!m_registry->serialAllowed(sn)) {
        if (mayLog("Reject_list", socket->peerAddress()))
            qInfo().noquote() << "Reject_list:->" << sn << peer;
    } else if (mayTake(sn, *socket)) {
        bind(std::move(socket), description);
    }
}

/// Anybody can register with a serial that he has read somewhere; a speaker that has moved does it, too.
bool sever_listen::mayTake(const QString& sn, const DeviceSocket& socket) {
    const fortcpclient* const bound = m_connections.value(sn);
    if (!bound || bound->socket()->peerAddress() == socket.peerAddress())
        return true;
    const QString holder = bound->socket()->peerAddress().toString();
    const QString taker = socket.peerAddress().toString();
    if (m_keepBound && bound->isHeardWithin(KeepBoundTime)) {
        qWarning().noquote() << "Takeover refused:" << sn << "of" << holder << "by" << taker;
        return false;
    }
    qWarning().noquote() << "Takeover:" << sn << "of" << holder << "by" << taker << "- takeovers so far"
                         << ++m_takeovers;
    return true;
}

void sever_listen::bind(std::unique_ptr<DeviceSocket> socket, const QJsonObject& description) {
    const QString sn = description.value(QLatin1String("sn")).toString();
    SAobj* const session = m_registry->admit(sn, socket->peerAddress(), this);
    if (!session)
        return;
    session->setDatagramSocket(m_datagramSocket.get());
    auto* const client = new fortcpclient(&m_connections, std::move(socket), sn, m_registry->env());
    client->setDescription(description);
    m_connections.insert(sn, client);
    const auto mp3Port = static_cast<unsigned>(m_port + 2);
    if (m_registry->isRestricted(sn))
        m_registry->sasn_online_CL(sn, client, mp3Port, false);
    else
        m_registry->sasn_online(sn, client, mp3Port);
}

QJsonObject sever_listen::didiv3(const QByteArray& packet) {
    return packets::registration(packet);
}

QJsonObject sever_listen::didi(const QByteArray& packet) {
    QJsonObject description = packets::statusForm(packet);
    const QByteArray trailer = packets::statusTrailer();
    if (packet.endsWith(trailer)) {
        const QByteArray form = packet.left(packet.size() - trailer.size());
        qInfo().noquote() << "FDEFS:" << QString::fromLatin1(form.toHex()) << form.size();
    }
    return description;
}

unsigned char sever_listen::to_vol(unsigned char level) {
    return volumeCode(level);
}

unsigned char sever_listen::back_vol(unsigned char code) {
    return volumeLevel(code);
}

void sever_listen::getmsg(const QString& first, const QString& second) {
    qInfo().noquote() << first + QLatin1Char(':') + second;
}
