#pragma once

#include "redis/reader.h"

#include <chrono>
#include <functional>
#include <memory>
#include <QMap>
#include <QObject>
#include <QString>
#include <QStringList>
#include <QVariant>

/// Synchronous Redis client: a command is sent and waited for in a nested event loop, so the
/// program's other events go on meanwhile. The wait ends with the next answer of any kind, a pushed
/// message included, or with the loss of the connection; a command that is issued while disconnected
/// sends nothing and waits all the same, so ask isConnected() first. One command at a time: a
/// second one, issued from within the first one's wait, takes the first one's answer. Main loop only.
class QtRedis : public QObject {
    Q_OBJECT
public:
    struct Reply {
        QString type;    ///< "error", "integer", "bulk", "list" or "string"
        QString message; ///< of a push: "message" or "pmessage"
        QString pattern; ///< of a "pmessage": the pattern that matched
        QString channel; ///< of a push: its channel
        QVariant value;  ///< int, QStringList or QString; a status keeps its CR LF

        bool isError() const { return type == QLatin1String("error"); }
    };

    QtRedis(QString host, int port, QObject* parent);
    ~QtRedis() override;

    void connectHost(const QString& host, quint16 port);
    /// Waits until the connection stands (true) or the attempt has failed (false).
    bool openConnection();
    void disconnectHost();
    bool isConnected() const { return m_reader->isConnected(); }
    /// Drops the connection or the attempt at once; whoever waits is told so.
    void giveUp() { m_reader->giveUp(); }

    /// What a command gives whose connection was lost.
    static Reply connectionLost();
    /// Sends one line and waits.
    Reply command(const QString& line);
    /// The same for arguments of any bytes.
    Reply command(const QByteArrayList& arguments);

    /// Takes answers whole, however TCP delivers them; without it each delivery counts as one answer.
    void setWholeReplies() { m_reader->setFraming(Reader::Framing::Whole); }
    /// From now on openConnection() and the commands wait on the socket alone, for at most `limit`, and no
    /// event loop runs.
    void setBlocking(std::chrono::milliseconds limit) { m_blockingLimit = limit; }

    // Not waited for.
    void publish(const QString& channel, const QString& message) { send("PUBLISH", channel, message); }
    void subscribe(const QString& channel) { send("SUBSCRIBE", channel); }
    void unsubscribe(const QString& channel) { send("UNSUBSCRIBE", channel); }
    void psubscribe(const QString& pattern) { send("PSUBSCRIBE", pattern); }
    void punsubscribe(const QString& pattern) { send("PUNSUBSCRIBE", pattern); }

    // One method a Redis command. Arguments are joined with blanks: one that holds blanks is
    // quoted by the caller, one that stands for several (fields, keys, args, options) holds blanks. An
    // error answer gives false, 0, an empty list or its text. Those that compare with "OK" are false
    // for a plain status, whose value ends in CR LF.
    using Text = const QString&;
    using Map = QMap<QString, QVariant>;
    // clang-format off
    int append(Text key, Text value) { return integer("APPEND", key, value); }
    bool auth(Text password) { return ok("AUTH", password); }
    QStringList blpop(Text key, int timeout) { return list("BLPOP", key, timeout); }
    QStringList brpop(Text key, int timeout) { return list("BRPOP", key, timeout); }
    QStringList brpoplpush(Text source, Text destination, int timeout) { return list("BRPOPLPUSH", source, destination, timeout); }
    int decr(Text key) { return integer("DECR", key); }
    int decrby(Text key, int decrement) { return integer("DECRBY", key, decrement); }
    int del(Text key) { return integer("DEL", key); }
    QString dump(Text key) { return string("DUMP", key); }
    bool exists(Text key) { return flag("EXISTS", key); }
    bool expire(Text key, int seconds) { return flag("EXPIRE", key, seconds); }
    bool expireat(Text key, qint64 timestamp) { return flag("EXPIREAT", key, timestamp); }
    QVariant eval(Text script, int numkeys, Text keys, Text args) { return ask("EVAL", script, numkeys, keys, args).value; }
    QVariant evalsha(Text sha1, int numkeys, Text keys, Text args) { return ask("EVALSHA", sha1, numkeys, keys, args).value; }
    QString get(Text key) { return string("GET", key); }
    QString getrange(Text key, int start, int end) { return string("GETRANGE", key, start, end); }
    int hdel(Text key, Text field) { return integer("HDEL", key, field); }
    bool hexists(Text key, Text field) { return flag("HEXISTS", key, field); }
    QString hget(Text key, Text field) { return string("HGET", key, field); }
    Map hgetall(Text key) { return pairs(list("HGETALL", key)); }
    int hincrby(Text key, Text field, int increment) { return integer("HINCRBY", key, field, increment); }
    float hincrbyfloat(Text key, Text field, float increment) { return ask("HINCRBYFLOAT", key, field, increment).value.toFloat(); }
    QStringList hkeys(Text key) { return list("HKEYS", key); }
    int hlen(Text key) { return integer("HLEN", key); }
    QStringList hmget(Text key, Text fields) { return list("HMGET", key, fields); }
    bool hmset(Text key, const Map& map) { return ok("HMSET", key, map); }
    bool hset(Text key, Text field, Text value) { return flag("HSET", key, field, value); }
    bool hsetnx(Text key, Text field, Text value) { return flag("HSETNX", key, field, value); }
    QStringList hvals(Text key) { return list("HVALS", key); }
    int incr(Text key) { return integer("INCR", key); }
    int incrby(Text key, int increment) { return integer("INCRBY", key, increment); }
    QStringList keys(Text pattern) { return list("KEYS", pattern); }
    int lindex(Text key, int index) { return integer("LINDEX", key, index); }
    int linsert(Text key, Text position, Text pivot, Text value) { return integer("LINSERT", key, position, pivot, value); }
    int llen(Text key) { return integer("LLEN", key); }
    QString lpop(Text key) { return string("LPOP", key); }
    int lpush(Text key, Text value) { return integer("LPUSH", key, value); }
    int lpushx(Text key, Text value) { return integer("LPUSHX", key, value); }
    QStringList lrange(Text key, int start, int stop) { return list("LRANGE", key, start, stop); }
    int lrem(Text key, int count, Text value) { return integer("LREM", key, count, value); }
    int lset(Text key, int index, Text value) { return integer("LSET", key, index, value); }
    bool ltrim(Text key, int start, int stop) { return ok("LTRIM", key, start, stop); }
    QStringList mget(Text keys) { return list("MGET", keys); }
    bool migrate(Text host, int port, Text key, int db, int timeout) { return ok("MIGRATE", host, port, key, db, timeout); }
    bool move(Text key, int db) { return flag("MOVE", key, db); }
    bool mset(const Map& map) { return ok("MSET", map); }
    QVariant object(Text subcommand, Text key) { return ask("OBJECT", subcommand, key).value; }
    bool persist(Text key) { return flag("PERSIST", key); }
    bool pexpire(Text key, qint64 milliseconds) { return flag("PEXPIRE", key, milliseconds); }
    bool pexpireat(Text key, qint64 timestamp) { return flag("PEXPIREAT", key, timestamp); }
    int pttl(Text key) { return integer("PTTL", key); }
    bool rename(Text key, Text newkey) { return ok("RENAME", key, newkey); }
    bool renamex(Text key, Text newkey) { return ok("RENAMEX", key, newkey); } ///< a word no server knows
    bool restore(Text key, int ttl, Text serialized) { return ok("RESTORE", key, ttl, serialized); }
    QString rpop(Text key) { return string("RPOP", key); }
    QString rpoplpush(Text source, Text destination) { return string("RPOPLPUSH", source, destination); }
    int rpush(Text key, Text value) { return integer("RPUSH", key, value); }
    int rpushx(Text key, Text value) { return integer("RPUSHX", key, value); }
    bool sadd(Text key, Text member) { return flag("SADD", key, member); }
    int scard(Text key) { return integer("SCARD", key); }
    QStringList scriptexists(Text sha1s) { return list("SCRIPT EXISTS", sha1s); }
    QString scriptflush() { return string("SCRIPT FLUSH"); }
    QString scriptkill() { return string("SCRIPT KILL"); }
    QString scriptload(Text script) { return string("SCRIPT LOAD", script); }
    QStringList sdiff(Text keys) { return list("SDIFF", keys); }
    int sdiffstore(Text destination, Text keys) { return integer("SDIFFSTORE", destination, keys); }
    QStringList sinter(Text keys) { return list("SINTER", keys); }
    int sinterstore(Text destination, Text keys) { return integer("SINTERSTORE", destination, keys); }
    bool sismember(Text key, Text member) { return flag("SISMEMBER", key, member); }
    QStringList smembers(Text key) { return list("SMEMBERS", key); }
    bool smove(Text source, Text destination, Text member) { return flag("SMOVE", source, destination, member); }
    QString spop(Text key) { return string("SPOP", key); }
    QStringList srandmember(Text key, int count) { return list("SRANDMEMBER", key, count); }
    int srem(Text key, Text member) { return integer("SREM", key, member); }
    QStringList sunion(Text keys) { return list("SUNION", keys); }
    int sunionstore(Text destination, Text keys) { return integer("SUNIONSTORE", destination, keys); }
    bool set(Text key, Text value) { return ok("SET", key, value); }
    int setrange(Text key, int offset, Text value) { return integer("SETRANGE", key, offset, value); }
    QStringList sort(Text key, Text options) { return list("SORT", key, options); }
    int ttl(Text key) { return integer("TTL", key); }
    QString type(Text key) { return string("TYPE", key); }
    // clang-format on

signals:
    void connected();
    void disconnected();
    /// A pushed message.
    void returnData(const QtRedis::Reply& reply);

private slots:
    void slotConnected();
    void slotDisconnected();
    void response(const QVariant& list);

private:
    static QString word(const QString& text) { return text; }
    static QString word(const Map& map);
    template<typename Number>
    static QString word(Number number) {
        return QString::number(number);
    }
    template<typename... Args>
    static QString line(const char* command, const Args&... args) {
        return (QStringList{QLatin1String(command)} << ... << word(args)).join(QLatin1Char(' '));
    }
    template<typename... Args>
    void send(const char* command, const Args&... args) {
        m_reader->sendData(line(command, args...));
    }
    template<typename... Args>
    Reply ask(const char* name, const Args&... args) {
        return command(line(name, args...));
    }
    template<typename... Args>
    QString string(const char* name, const Args&... args) {
        return ask(name, args...).value.toString();
    }
    template<typename... Args>
    int integer(const char* name, const Args&... args) {
        return ask(name, args...).value.toInt();
    }
    template<typename... Args>
    bool flag(const char* name, const Args&... args) {
        const Reply reply = ask(name, args...);
        return !reply.isError() && reply.value.toBool();
    }
    template<typename... Args>
    bool ok(const char* name, const Args&... args) {
        return string(name, args...) == QLatin1String("OK");
    }
    template<typename... Args>
    QStringList list(const char* name, const Args&... args) {
        const Reply reply = ask(name, args...);
        return reply.isError() ? QStringList() : reply.value.toStringList();
    }
    static Map pairs(const QStringList& list);

    Reply await(const std::function<void()>& send);
    Reply replyFromResponse() const;

    QString m_host;
    int m_port;
    std::unique_ptr<Reader> m_reader;
    QStringList m_responseData; ///< last answer that was not a pushed message
    std::chrono::milliseconds m_blockingLimit{0};
};

Q_DECLARE_METATYPE(QtRedis::Reply)
