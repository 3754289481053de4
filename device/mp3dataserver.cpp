#include "device/mp3dataserver.h"

#include "core/logthrottle.h"
#include "core/loop/devicesocket.h"
#include "core/loop/tcpacceptor.h"
#include "device/lobby.h"
#include "device/packets.h"
#include "device/saobj.h"
#include "device/severinit.h"

#include <QDebug>
#include <QJsonObject>

namespace {
/// Digits of the serial in a long status form: the first of the 32 that a speaker registers with.
constexpr int ShortSerialLength = 24;

/// A first message: who it is, and how many bytes of requests for chunks TCP joined to it.
struct Introduction {
    QJsonObject description;
    int requestBytes = 0;
};

Introduction read(const QByteArray& message) {
    if (message.endsWith(packets::statusTrailer()))
        return {packets::statusForm(message), 0};
    // A whole number of requests may follow a packet at once.
    const int rest = message.size() - packets::RegistrationLength;
    if (rest < 0 || rest % SAobj::RequestLength != 0)
        return {};
    return {packets::registration(message.left(packets::RegistrationLength)), rest};
}

bool isPeerOf(const SAobj& session, const DeviceSocket& socket) {
    return session.isBound() && session.remoteIp() == socket.peerAddress().toString();
}
} // namespace

Mp3DataServer::Mp3DataServer(QObject* parent)
    : QObject(parent)
    , m_acceptor(std::make_unique<TcpAcceptor>()) {}

Mp3DataServer::~Mp3DataServer() = default;

void Mp3DataServer::start(Severinit* registry) {
    m_registry = registry;
    m_lobby = std::make_unique<Lobby>(QStringLiteral("mp3_data"), registry->wheel());
    connect(m_lobby.get(), &Lobby::firstRead, this, &Mp3DataServer::attach);
    connect(m_acceptor.get(), &TcpAcceptor::newConnection, this,
            [this] { m_lobby->enter(m_acceptor->nextPendingConnection()); });
    connect(m_acceptor.get(), &TcpAcceptor::acceptError, this, [this](const QString& reason) {
        if (mayLog("MP3 data port", QString()))
            qWarning().noquote() << "MP3 data port:" << reason;
        m_lobby->makeRoom();
    });
}

void Mp3DataServer::attach(DeviceSocket* accepted, const QByteArray& firstMessage) {
    std::unique_ptr<DeviceSocket> socket(accepted);
    const Introduction who = read(firstMessage);
    SAobj* const session = sessionFor(who.description.value(QLatin1String("sn")).toString(), *socket);
    if (!session) {
        if (mayLog("MP3 data connection refused", socket->peerAddress()))
            qInfo().noquote() << "MP3 data connection refused:" << firstMessage.size() << "bytes from"
                              << socket->peerAddress().toString();
        return;
    }
    session->setleixing(who.description.value(QLatin1String("leixing")).toVariant().toInt());
    session->setmp3tcpsocket(std::move(socket));
    session->mp3_rdy(who.requestBytes);
}

/// The session that the serial names, when its control connection comes from the same address.
SAobj* Mp3DataServer::sessionFor(const QString& sn, const DeviceSocket& socket) const {
    const auto& sessions = m_registry->sessions();
    if (sn.isEmpty())
        return nullptr;
    if (SAobj* const exact = sessions.value(sn); exact || sn.size() != ShortSerialLength)
        return exact && isPeerOf(*exact, socket) ? exact : nullptr;
    SAobj* only = nullptr;
    for (auto entry = sessions.lowerBound(sn); entry != sessions.end() && entry.key().startsWith(sn);
         ++entry) {
        if (!isPeerOf(**entry, socket))
            continue;
        if (only)
            return nullptr;
        only = *entry;
    }
    return only;
}
