#pragma once

#include "core/loop/devicesocket.h"
#include "core/loop/timingwheel.h"

#include <memory>
#include <QByteArray>
#include <QObject>
#include <QString>

class Lobby;

/// Waits for the first read of one accepted connection, at most 30 s, then hands the connection to the
/// lobby, which owns this object. Whatever arrives in that read is taken as it comes. Main loop only.
class juice_tcp : public QObject, private TimingWheel::Client, private DeviceSocket::Owner {
    Q_OBJECT
public:
    /// `ticket` is what the lobby knows this reader by.
    juice_tcp(Lobby& lobby, quint64 ticket, std::unique_ptr<DeviceSocket> socket, TimingWheel& wheel);
    ~juice_tcp() override;

    /// Hands the connection on if its first bytes are there already, closes it otherwise.
    void makeRoom();

private:
    void wheelTimeout(int tag) override;
    void socketRead(const char* bytes, int size) override;
    void socketEnded() override;
    void refuse(const QString& reason);

    Lobby& m_lobby;
    quint64 m_ticket;
    std::unique_ptr<DeviceSocket> m_socket;
    TimingWheel::Handle m_deadline;
};
