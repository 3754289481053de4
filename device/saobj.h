#pragma once

#include "core/loop/fetch.h"
#include "core/loop/pooled.h"
#include "device/mp3path.h"
#include "device/playwatch.h"
#include "device/sessionenv.h"
#include "device/speakerevents.h"
#include "device/strangers.h"

#include <array>
#include <memory>
#include <QByteArray>
#include <QDateTime>
#include <QJsonObject>
#include <QObject>
#include <QString>
#include <utility>

class fortcpclient;
class QUdpSocket;
namespace words {
struct Word;
}

/// One speaker's session, known by its serial number; it outlives the speaker's connections. Commands
/// are built here, reports arrive here, and it owns the speaker's MP3 path. Main loop only. Owner: the
/// registry or the listener, whichever created it; while the service runs only a session that makes room for
/// another (see Strangers) is deleted, from a registration.
///
/// Commands return the bytes written or waiting for their turn (see fortcpclient), or -99 when no connection
/// is bound or the session is disabled: then nothing was sent. 0 and -1 tell that the connection has just
/// broken, -1 also that too many commands wait. Texts go out as UTF-8.
class SAobj : public QObject,
              public StrangerLink,
              public ChangeLink,
              private Mp3Path::Speaker,
              public PlayLink,
              public Pooled<SAobj> {
    Q_OBJECT
public:
    enum OnlineState { Offline = 0, Online = 1, Streaming = 2 };
    /// A speaker takes MP3 by asking for each chunk over the data connection, or, with Wi-Fi, as it comes.
    enum Kind { PullKind = Mp3Path::Pull, WifiKind = Mp3Path::Wifi };
    static constexpr int RequestLength = Mp3Path::RequestLength;
    static constexpr int NotBound = -99;

    SAobj(QString sn, SessionEnv& env, QObject* parent);
    ~SAobj() override;

    // --- what is known of the speaker ---
    const QString& sn() const { return m_sn; }
    const QString& name() const { return m_name; }
    void setName(const QString& name) { m_name = name; }
    int onlineState() const { return m_onlineState; }
    bool isOnline() const { return m_onlineState != Offline; }
    bool isBound() const { return m_client != nullptr; }
    bool isBusy() const { return m_busy; } ///< plays from its own store
    bool isEnabled() const { return m_enabled; }
    void setEnabled(bool enabled) {
        if (std::exchange(m_enabled, enabled) != enabled)
            note(SpeakerEvents::Information);
    }
    int kind() const { return m_kind; } ///< kind code as the speaker reports it
    int leixing() const { return m_mp3.kind(); }
    /// How the speaker takes MP3; decides for the next data connection.
    void setleixing(int kind) { m_mp3.setKind(kind); }
    int vol() const { return m_vol; } ///< as the speaker or the last command gave it
    void setVol(int vol) { change(m_vol, vol, SpeakerEvents::Volume); }
    int micD() const { return m_micD; }
    int micE() const { return m_micE; }
    int debugState() const { return m_debugState; } ///< 0 unknown, 1 on, 2 off
    int voltage() const { return m_voltage; }       ///< 0 until the speaker reports it
    int version() const { return m_version; }       ///< of its program; 0 until the speaker reports it
    int xuhao() const { return m_xuhao; }           ///< number that the speaker gives itself
    void setXuhao(int xuhao) { change(m_xuhao, xuhao, SpeakerEvents::Information); }
    const QString& localIp() const { return m_localIp; } ///< the speaker's own address as it reports it
    void setLocalIp(const QString& address) { m_localIp = address; }
    const QString& remoteIp() const { return m_remoteIp; }       ///< peer of the control connection
    QString statusText() const;                                  ///< "在线", "掉线", "空闲"
    const QString& playingPath() const { return m_playingPath; } ///< last "UA1"/"UA2"; "Nothing" at rest
    bool isClockUnset() const { return m_clockUnset; }
    const SessionSettings& settings() const { return m_settings; }
    void setSettings(const SessionSettings& settings) {
        m_settings = settings;
        m_mp3.setLimit(settings.AryLen);
    }
    void setDatagramSocket(QUdpSocket* socket) { m_datagramSocket = socket; }
    QUdpSocket* datagramSocket() const { return m_datagramSocket; }

    /// The numbers that the list of speakers tells: vol, online state, kind, microphones, debug, xuhao.
    using Numbers = std::array<int, 7>;
    Numbers numbers() const { return {m_vol, m_onlineState, m_kind, m_micD, m_micE, m_debugState, m_xuhao}; }
    /// Looks whether the numbers are others than at the last look, and if so counts `changes` on.
    /// Returns what it was at the last change seen, at least 1.
    quint64 changeOfNumbers(quint64& changes);

    // --- life of the control connection ---
    void setMp3Port(quint16 port) { m_mp3Port = port; }
    /// Binds `connection`, which is the session's from now on; one bound before is let go of.
    void gonline(fortcpclient* connection, int kind);
    /// The bound connection has ended; it deletes itself.
    void goffline();
    /// Somebody has begun to keep what is known of the speaker: all of it counts as changed.
    void tellAgain();
    /// Writes a command to the control connection.
    int wirteonlinecmd(const QByteArray& command);
    /// Ask for what a command will touch to be brought into the cache; each needs the one before to
    /// have arrived. They change nothing.
    void fetch() const { fetchObject(this); }
    void fetchConnection() const { fetchObject(m_client.get()); }
    void fetchSocket() const;
    void fetchMp3Socket() const { m_mp3.fetchSocket(); }

    // --- commands ---
    int get_baojing(int a, int b);
    int get_baojing_over(int a, int b);
    int set_vol(int v);
    int set_vol_V(int v);
    int set_Mic_V(int e, int d);
    int set_debug_ks(int v);
    int set_GPIO_ks(int v);
    int get_devinfo();
    int PLAY_TTS(const QString& text);
    int push_ipinfo(const QString& address, int port);
    int domp3connect();
    int update_time();
    int cdn_url(const QString& url);
    int cdn_url2(const QString& url);
    int addMp3list(const QByteArray& list);
    int exec_Mp3_url(const QByteArray& list);
    int NewMp3list_start(const QByteArray& list);
    int Play_Mp3_url(const QByteArray& url);
    int stopcurl();
    int addMp3list2(const QByteArray& list);
    int stopcurl2();
    /// Sends nothing and returns -1 unless the URL begins with "http".
    int addStreamlist(const QByteArray& url);
    int addStreamlistback(const QByteArray& url);
    int addStreamlistbackascmd(const QByteArray& url);
    int Test_unlineTasklist(int id);
    /// Record: second, first, text, bytes; in this order.
    int add_unlineTasklist(const QString& text, int first, int second, const QByteArray& bytes);
    int add_unlineTasklistGS(const QString& text, int first, int second, const QByteArray& bytes, int p,
                             int q, int r, int t);
    int remove_unlineTasklist(int id);
    int stop_unlineTasklist(int id);
    int Get_unlinetasklist();
    // NOLINTBEGIN(bugprone-reserved-identifier): names that the protocol gives these commands
    int _AR();
    int _AAT();
    int _AAT_ALL();
    int _AATS(const QString& a, const QString& b, const QString& c);
    // NOLINTEND(bugprone-reserved-identifier)
    int QT_test(const QByteArray& bytes);

    // --- MP3 path (see Mp3Path) ---
    int forward(const Mp3Stream& stream, bool allowed, const QByteArray& chunk) {
        return m_mp3.forward(stream, allowed, chunk);
    }
    int send_mp3data_mut(const QString& sourceName, int streamId, const QString& taskName, int priority,
                         int sequence, bool allowed, const QByteArray& chunk) {
        return forward({streamId, priority, sequence, sourceName, taskName}, allowed, chunk);
    }
    /// The same for a source without a name.
    int send_mp3data(int streamId, const QString& taskName, int priority, int sequence, bool allowed,
                     const QByteArray& chunk) {
        return send_mp3data_mut(streamSource(), streamId, taskName, priority, sequence, allowed, chunk);
    }
    void push_mp3(const QByteArray& chunk) { m_mp3.push(chunk); }
    void wifi_push_mp3(const QByteArray& chunk) { m_mp3.pushWifi(chunk); }
    void clear_que(int id) { m_mp3.clear(id); }
    void setHold(bool hold) { m_mp3.setHold(hold); }
    void setmp3tcpsocket(std::unique_ptr<DeviceSocket> socket) { m_mp3.attach(std::move(socket)); }
    void mp3_rdy(int bytes) { m_mp3.asked(bytes); }
    bool isMp3Connected() const { return m_mp3.isAttached(); }
    bool isStreamActive() const { return m_mp3.isActive(); }
    int queuedChunks() const { return m_mp3.queuedChunks(); }
    int streamPriority() const { return m_mp3.stream().priority; }
    int streamSequence() const { return m_mp3.stream().sequence; }
    int streamId() const { return m_mp3.stream().id; }
    const QString& streamSource() const { return m_mp3.stream().source; }
    const QString& taskName() const { return m_mp3.stream().task; }
    QString taskId() const;
    void timeout() { m_mp3.tick(); }

    // --- reports ---
    /// Decodes a device information reply (one byte, then a JSON object) into the session; returns the
    /// object with "res" added: whether it could be read.
    QJsonObject dido(const QByteArray& reply);
    /// "OFFLINE", "ONLINE", "PLAYING1" or "PLAYING2".
    QString statusWord() const;
    bool hasRegistered() const { return m_registeredAt != 0; } ///< since the service started
    /// "yyyy-MM-dd hh:mm:ss" of its last registration, with the separator in the place of the blank.
    QString registrationTime(QChar separator) const;

public slots:
    /// One read's bytes from the control connection.
    void sn_onlinebackdata(const QByteArray& bytes);

signals:
    /// An alarm input of the speaker changed: its report's second and third byte, 0 where missing.
    void sn_get_kg_back(const QString& sn, char first, char second);

private:
    enum StatusText : quint8 { NeverOnline, CameOnline, WentOffline, StreamOver };
    struct Report;
    static const Report Reports[];

    const QString& serial() const override { return m_sn; }
    bool hasConnection() const override { return isBound(); }
    bool mayBeWrittenTo() const override { return isBound() && m_enabled; }
    int askForDataConnection() override;
    void streamChanged(Mp3Path::Speaker::Change change) override;
    void note(SpeakerEvents::Kind kind) { m_env.events.note(*this, kind); }
    /// Notes the kind when the value is another than before.
    void change(int& value, int to, SpeakerEvents::Kind kind) {
        if (std::exchange(value, to) != to)
            note(kind);
    }
    void setBusy(bool busy);
    void noteReport(SpeakerEvents::Report::What what, const QString& path = {}) {
        m_env.events.noteReport(*this, what, path);
    }
    int command(const words::Word& word, const QByteArray& argument = {});
    int pushContentServer(const words::Word& word, const QString& url);
    void mirror(const char* field, const QVariant& value) { m_env.events.noteDetail(*this, field, value); }
    void letGo();
    QString addressForSpeaker() const;

    void takeInfo(const QJsonObject& info);
    void take(const QJsonObject& info, const char* key, int& value,
              SpeakerEvents::Kind kind = SpeakerEvents::Information);
    void reportDeviceForm(const QByteArray& form);
    void reportConnectReply(const QByteArray& rest);
    void reportMp3Path(const QByteArray& rest);
    void reportPathDone(const QByteArray& rest);
    void reportPath(const QByteArray& path);
    void reportPlaying(const QByteArray& rest);
    void reportWaiting(const QByteArray& rest);
    void reportPaused(const QByteArray& rest);
    void reportPreloaded(const QByteArray& rest);
    void reportPurged(const QByteArray& rest);
    void reportTimeWanted(const QByteArray& rest);
    void reportTaskList(const QByteArray& list);
    void reportUpdate(const QByteArray& rest);
    void reportVersion(const QByteArray& number);
    void reportAlarm(const QByteArray& rest);
    void reportLocalStatus(const QString& status, bool busy);

    SessionEnv& m_env;
    // What every tick and every command of a fleet touches stands together, next to the object's head.
    std::unique_ptr<fortcpclient> m_client; ///< bound while not null
    quint8 m_onlineState = Offline;
    bool m_enabled = true;
    bool m_busy = false;
    StatusText m_statusText = NeverOnline;
    bool m_clockUnset = false;
    int m_vol = 0;
    int m_kind = PullKind;
    Mp3Path m_mp3{*this, m_env};
    int m_micD = 0;
    int m_micE = 0;
    int m_debugState = 0;
    int m_voltage = 0;
    int m_version = 0;
    int m_xuhao = 0;
    QString m_sn;
    QString m_name;
    QString m_localIp;
    QString m_remoteIp;
    QString m_playingPath;
    QUdpSocket* m_datagramSocket = nullptr;
    quint64 m_numbersChange = 0;
    Numbers m_numbersSeen{};
    quint32 m_registeredAt = 0; ///< seconds since 1970
    SessionSettings m_settings;
    quint16 m_mp3Port = 0;
};
