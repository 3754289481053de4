#pragma once

#include "core/loop/timingwheel.h"

#include <map>
#include <memory>
#include <QByteArray>
#include <QObject>
#include <QString>

class DeviceSocket;
class juice_tcp;

/// Where accepted connections wait for their first read. Main loop only.
class Lobby : public QObject {
    Q_OBJECT
public:
    /// Most connections that wait at once; one more sends the oldest away, unless it has spoken by then.
    /// More than a fleet that comes back at once, whose speakers speak as soon as they are connected.
    static constexpr int MaxWaiting = 32'768;
    /// Connections that are sent away in the same manner when the system runs out of descriptors.
    static constexpr int ExhaustedBatch = 64;

    /// `name` stands in the log for the listener.
    Lobby(QString name, TimingWheel& wheel);
    ~Lobby() override;

    const QString& name() const { return m_name; }
    void enter(std::unique_ptr<DeviceSocket> socket);
    /// The system has no descriptors left: speakers are worth more than who has not said a word.
    void makeRoom();

    // --- for the readers ---
    void handOn(quint64 ticket, std::unique_ptr<DeviceSocket> socket, const QByteArray& bytes);
    void leave(quint64 ticket);

signals:
    /// A connection has spoken. The receiver owns `socket` from now on.
    void firstRead(DeviceSocket* socket, const QByteArray& bytes);

private:
    QString m_name;
    TimingWheel& m_wheel;
    std::map<quint64, std::unique_ptr<juice_tcp>> m_waiting; ///< by order of arrival
    quint64 m_arrivals = 0;
};
