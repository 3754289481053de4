#include "device/lobby.h"

#include "device/devicesocket.h"
#include "device/juice_tcp.h"

Lobby::Lobby(QString name, TimingWheel& wheel, QObject* parent)
    : QObject(parent)
    , m_name(std::move(name))
    , m_wheel(wheel) {}

Lobby::~Lobby() = default;

void Lobby::enter(std::unique_ptr<DeviceSocket> socket) {
    const quint64 ticket = m_arrivals++;
    auto* const reader = new juice_tcp(m_name, std::move(socket), m_wheel, this);
    m_waiting.emplace(ticket, reader);
    connect(reader, &juice_tcp::firstRead, this, &Lobby::firstRead);
    connect(reader, &juice_tcp::over, this, [this, reader, ticket] {
        m_waiting.erase(ticket);
        reader->deleteLater();
    });
    if (m_waiting.size() > MaxWaiting)
        m_waiting.begin()->second->makeRoom();
}
