#pragma once

#include "core/loop/devicesocket.h"
#include "core/loop/pooled.h"
#include "core/loop/timingwheel.h"
#include "device/sessionenv.h"

#include <chrono>
#include <memory>
#include <QByteArray>
#include <QJsonObject>
#include <QList>
#include <QMap>
#include <QObject>
#include <QString>

/// One speaker's control connection, from registration to its end. Main loop only. The speaker's session
/// owns it while it is bound; it schedules its own deletion when the connection is over.
///
/// Commands are spaced by the environment's pause: the first is written at once, one that follows too soon
/// waits. A connection without waiting commands has no deadline for them.
class fortcpclient : public QObject,
                     private TimingWheel::Client,
                     private DeviceSocket::Owner,
                     public Pooled<fortcpclient> {
    Q_OBJECT
public:
    /// Most commands that wait for their turn, and most bytes of them; whoever sends more is refused.
    static constexpr int MaxWaiting = 128;
    static constexpr int MaxWaitingBytes = DeviceSocket::MaxBacklog;

    /// `map` is the listener's map of live connections, in which the listener enters this one; it and `env`
    /// outlive every client.
    fortcpclient(QMap<QString, fortcpclient*>* map, std::unique_ptr<DeviceSocket> socket, QString sn,
                 const SessionEnv& env, QObject* parent = nullptr);
    ~fortcpclient() override;

    const QString& sn() const { return m_sn; }
    DeviceSocket* socket() const { return m_socket.get(); }
    /// What the speaker said of itself when it registered; keys as packets::registration().
    const QJsonObject& description() const { return m_description; }
    void setDescription(const QJsonObject& description) { m_description = description; }
    /// Fourth byte of the last 4-byte beat, 0 before the first.
    int lastStatus() const { return m_lastStatus; }

    /// Whether anything has come from the speaker within this time; its registration counts.
    bool isHeardWithin(std::chrono::milliseconds time) const;

    /// Writes a command, or lets it wait for its turn; returns the bytes taken, 0 (and a log line) when the
    /// connection is no longer usable, -1 when it broke just now or too many commands wait.
    int Writedata(const QByteArray& bytes);
    /// Writes at once, without looking first; -1 when nothing could be written.
    int sn_Writedata(const QByteArray& bytes);
    int waitingCommands() const { return m_waiting ? m_waiting->commands.size() : 0; }

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
    bool writeBeat();
    void sn_disconnect();
    void leaveMap();
    quint32 clock() const;
    std::chrono::milliseconds sinceCommand() const;
    bool isPausing() const;
    int putOff(const QByteArray& bytes);
    bool dropPlays();
    void writeNext();

    struct Waiting {
        QList<QByteArray> commands; ///< in the order in which they were given
        int bytes = 0;
        TimingWheel::Handle turn; ///< of the first
    };

    std::unique_ptr<DeviceSocket> m_socket;
    std::unique_ptr<Waiting> m_waiting; ///< null while none wait
    // Milliseconds of the wheel's clock, of which the low 32 bits are enough for short times.
    quint32 m_commandAt;
    quint32 m_heardAt;
    quint8 m_lastStatus = 0;
    bool m_alive = true;
    QMap<QString, fortcpclient*>* m_map;
    const SessionEnv& m_env;
    TimingWheel::Handle m_timer;
    QString m_sn;
    QJsonObject m_description;
};
