#pragma once

#include "core/timingwheel.h"

#include <memory>
#include <QByteArray>
#include <QObject>
#include <QString>

class DeviceSocket;

/// Waits for the first read of one accepted connection, at most 30 s, then hands the connection on.
/// Whatever arrives in that read is taken as it comes. Main loop only.
class juice_tcp : public QObject, private TimingWheel::Client {
    Q_OBJECT
public:
    /// `name` stands in the log for the listener that accepted the connection.
    juice_tcp(QString name, std::unique_ptr<DeviceSocket> socket, TimingWheel& wheel, QObject* parent);
    ~juice_tcp() override;

    /// Hands the connection on if its first bytes are there already, closes it otherwise.
    void makeRoom();

signals:
    /// The receiver owns `socket` from now on. over() follows.
    void firstRead(DeviceSocket* socket, const QByteArray& bytes);
    /// Nothing more comes; the receiver deletes this object (later).
    void over();

private:
    void wheelTimeout(int tag) override;
    void readFirst();
    void refuse(const QString& reason);

    QString m_name;
    std::unique_ptr<DeviceSocket> m_socket;
    TimingWheel::Handle m_deadline;
};
