#pragma once

#include "redis/qtredis.h"
#include "redis/statemirror.h"
#include "redis/writelink.h"

#include <memory>
#include <QObject>
#include <QSet>
#include <QString>
#include <QStringList>
#include <QTimer>
#include <QVariant>

/// The state link: the one bridge to the Redis server, keeper of every key, field and list name
/// (docs/redis.md has the catalogue). Reads wait for their answer on the synchronous client; writes go
/// out on a connection of their own and are never waited for. While the server is away the link tries
/// again with a pause of 1 s to 30 s; what is sent meanwhile is lost, and restored() asks for it again.
/// Owner: start-up. Main loop only.
class fuck_redis : public QObject, public StateMirror {
    Q_OBJECT
public:
    explicit fuck_redis(QObject* parent = nullptr);
    ~fuck_redis() override;

    QString serverAddress; ///< this server's own address, written to "S_ip"

    /// True from the server's readiness to take commands until its connection is lost.
    bool isConnected() const override;
    bool isBacklogged() const override;
    /// Every serial that online_newdevices() was called for, in first-seen order.
    QStringList knownSerials() const { return m_knownSerials; }
    const WriteLink& writeLink() const { return m_writer; }

public slots:
    /// Connects and authenticates, waiting at most a few seconds. Returns whether the server was
    /// reached, whatever it thinks of the password; when it was not, the link goes on trying.
    bool try_connect(const QString& host, int port, const QString& password);
    void redis_connected();
    void redis_disconnected();
    void slotMessage(const QtRedis::Reply& reply);

    void Set_sn_key_value(const QString& sn, const QString& field, const QVariant& value) override;
    /// Writes to the list "Warmingup".
    void Warmingdown_push(const QString& sn, const QString& time) override;
    /// Writes to the list "Warmingdown".
    void Warmingup_push(const QString& sn, const QString& time) override;
    /// Serials of a group kept as a list; empty when the list is missing, empty or unreachable. Waits for the
    /// answer in a nested event loop.
    QStringList backsnlist(const QString& key);
    void online_newdevices(const QString& sn, int kindsk, int vol, int mic_d, int mic_e, const QString& l_ip,
                           const QString& r_ip, const QString& regDate) override;
    /// Without registration time and "Line", with "S_ip".
    void online_newdevices(const QString& sn, int kindsk, int vol, int mic_d, int mic_e, const QString& l_ip,
                           const QString& r_ip);
    /// A developer's self-test: a few sample commands, their answers in the log.
    void test();

signals:
    void lost(); ///< the connection to it
    /// The server is back, or there for the first time after a start without it, or it takes writes again
    /// after it refused more than could be kept: what it holds may be old or gone, and wants to be
    /// written again.
    void restored();

private:
    enum class Phase { Idle, Starting, Away, Opening, Ready };
    using Fields = QMap<QString, QVariant>;

    std::unique_ptr<QtRedis> makeReader();
    bool openReaders();
    bool openReader(QtRedis& client);
    void openWriter();
    void waitForWriter();
    void settle(bool up);
    void goAway(const QString& reason);
    void retry();
    void finishRetry();

    static Fields deviceFields(const QString& sn, int kindsk, int vol, int mic_d, int mic_e,
                               const QString& l_ip, const QString& r_ip);
    void writeDevice(const QString& sn, const Fields& fields);
    QStringList readGroup(QtRedis& client, const QByteArray& key);
    QtRedis::Reply askGroup(QtRedis& client, const QByteArray& key);

    QString m_host;
    int m_port = 0;
    QString m_password;
    std::unique_ptr<QtRedis> m_redis;
    std::unique_ptr<QtRedis> m_spare; ///< for a read that comes while m_redis is waiting
    WriteLink m_writer;
    bool m_connected = false; ///< m_redis is
    bool m_reading = false;   ///< m_redis is waiting for an answer
    Phase m_phase = Phase::Idle;
    QTimer m_retryTimer;
    std::chrono::seconds m_pause;
    bool m_awayLogged = false;

    QStringList m_knownSerials;
    QSet<QString> m_knownSet;
};
