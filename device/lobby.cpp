#include "device/lobby.h"

#include "core/loop/devicesocket.h"
#include "device/juice_tcp.h"

Lobby::Lobby(QString name, TimingWheel& wheel)
    : m_name(std::move(name))
    , m_wheel(wheel) {}

Lobby::~Lobby() = default;

void Lobby::enter(std::unique_ptr<DeviceSocket> socket) {
    const quint64 ticket = m_arrivals++;
    m_waiting.emplace(ticket, std::make_unique<juice_tcp>(*this, ticket, std::move(socket), m_wheel));
    if (m_waiting.size() > MaxWaiting)
        m_waiting.begin()->second->makeRoom();
}

void Lobby::makeRoom() {
    for (int i = 0; i < ExhaustedBatch && !m_waiting.empty(); ++i)
        m_waiting.begin()->second->makeRoom();
}

void Lobby::handOn(quint64 ticket, std::unique_ptr<DeviceSocket> socket, const QByteArray& bytes) {
    leave(ticket);
    emit firstRead(socket.release(), bytes);
}

/// The reader calls this itself, so it lives until the event loop is back.
void Lobby::leave(quint64 ticket) {
    const auto entry = m_waiting.find(ticket);
    if (entry == m_waiting.end())
        return;
    entry->second.release()->deleteLater();
    m_waiting.erase(entry);
}
