#pragma once

#include "device/statemirror.h"
#include "redis/qtredis.h"
#include "redis/writelink.h"

#include <functional>
#include <memory>
#include <QObject>
#include <QPair>
#include <QSet>
#include <QString>
#include <QStringList>
#include <QTimer>
#include <QVariant>
#include <QVector>
#include <vector>

/// The state link: the one bridge to the Redis server, keeper of every key, field and list name
/// (docs/redis.md has the catalogue). Reads wait for their answer on the synchronous client; writes go
/// out on a connection of their own and are never waited for. While the server is away the link tries
/// again with a pause of 1 s to 30 s; what is sent meanwhile is lost, and once it is back the
/// session source is asked for what stands now. Owner: start-up. Main loop only.
class fuck_redis : public QObject, public StateMirror {
    Q_OBJECT
public:
    explicit fuck_redis(QObject* parent = nullptr);
    ~fuck_redis() override;

    QString serverAddress; ///< this server's own address, written to "S_ip"

    /// True from the server's readiness to take commands until its connection is lost.
    bool isConnected() const override;
    /// Every serial that online_newdevices() was called for, in first-seen order.
    QStringList knownSerials() const { return m_knownSerials; }
    const WriteLink& writeLink() const { return m_writer; }

    /// What stands in one speaker's hash now: field names and values.
    struct SessionState {
        QString sn;
        QVector<QPair<QString, QVariant>> fields;
    };
    /// The sessions after `sn` in key order (from the first one for an empty text), at most `limit`.
    using SessionSource = std::function<std::vector<SessionState>(const QString& sn, int limit)>;
    void setSessionSource(SessionSource source) { m_sessionSource = std::move(source); }

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
    QStringList backsnlist(const QString& key) override;
    void online_newdevices(const QString& sn, int kindsk, int vol, int mic_d, int mic_e, const QString& l_ip,
                           const QString& r_ip, const QString& regDate) override;
    /// Without registration time and "Line", with "S_ip".
    void online_newdevices(const QString& sn, int kindsk, int vol, int mic_d, int mic_e, const QString& l_ip,
                           const QString& r_ip);
    /// A developer's self-test: a few sample commands, their answers in the log.
    void test();

signals:
    /// The server is there (again), and every known session has been written.
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
    void rewriteSlice();

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

    SessionSource m_sessionSource;
    QTimer m_rewriteTimer;
    QString m_rewrittenTo;
    int m_rewritten = 0;

    QStringList m_knownSerials;
    QSet<QString> m_knownSet;
};
