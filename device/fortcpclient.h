#pragma once

#include "core/pooled.h"
#include "core/timingwheel.h"
#include "device/devicesocket.h"

#include <memory>
#include <QByteArray>
#include <QJsonObject>
#include <QMap>
#include <QObject>
#include <QString>

/// One speaker's control connection, from registration to its end. Main loop only. Its parent is the
/// speaker's session; it schedules its own deletion when the connection is over.
class fortcpclient : public QObject,
                     private TimingWheel::Client,
                     private DeviceSocket::Owner,
                     public Pooled<fortcpclient> {
    Q_OBJECT
public:
    /// `map` is the listener's map of live connections, in which the listener enters this one; it
    /// outlives every client.
    fortcpclient(QMap<QString, fortcpclient*>* map, std::unique_ptr<DeviceSocket> socket, QString sn,
                 TimingWheel& wheel, QObject* parent = nullptr);

    const QString& sn() const { return m_sn; }
    DeviceSocket* socket() const { return m_socket.get(); }
    /// What the speaker said of itself when it registered; keys as packets::registration().
    const QJsonObject& description() const { return m_description; }
    void setDescription(const QJsonObject& description) { m_description = description; }
    /// Fourth byte of the last 4-byte beat, 0 before the first.
    int lastStatus() const { return m_lastStatus; }

    /// Writes a command; returns the bytes taken, 0 (and a log line) when the connection is no longer
    /// usable, -1 when it broke just now.
    int Writedata(const QByteArray& bytes);
    /// The same without looking first; -1 when nothing could be written.
    int sn_Writedata(const QByteArray& bytes);

    /// A newer connection has taken this one's place: nobody hears of it any more, nothing is written
    /// to it, and it is closed after a grace period unless the speaker closes it before.
    void supersede();
    /// Closes the connection and schedules the deletion; emits nothing.
    void release();

signals:
    /// Whatever arrived in one read, 4-byte beats excepted.
    void backdata(const QByteArray& bytes);
    /// The connection is gone.
    void sn_imoutline(const QString& sn);

private:
    void wheelTimeout(int tag) override;
    void wheelSoon() const override;
    void socketRead(const char* bytes, int size) override { sn_datain(bytes, size); }
    void socketEnded() override { sn_disconnect(); }
    void sn_datain(const char* bytes, int size);
    void sn_heartbeat();
    void sn_disconnect();
    void leaveMap();

    std::unique_ptr<DeviceSocket> m_socket;
    int m_lastStatus = 0;
    bool m_alive = true;
    QMap<QString, fortcpclient*>* m_map;
    TimingWheel& m_wheel;
    TimingWheel::Handle m_timer;
    QString m_sn;
    QJsonObject m_description;
};
