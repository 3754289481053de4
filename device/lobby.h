#pragma once

#include "core/timingwheel.h"

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
    /// Speakers that come back together speak at once, so only silent connections are pushed out.
    static constexpr int MaxWaiting = 32'768;

    /// `name` stands in the log for the listener.
    Lobby(QString name, TimingWheel& wheel, QObject* parent);
    ~Lobby() override;

    void enter(std::unique_ptr<DeviceSocket> socket);

signals:
    /// A connection has spoken. The receiver owns `socket` from now on.
    void firstRead(DeviceSocket* socket, const QByteArray& bytes);

private:
    QString m_name;
    TimingWheel& m_wheel;
    std::map<quint64, juice_tcp*> m_waiting; ///< by order of arrival; children of this object
    quint64 m_arrivals = 0;
};
