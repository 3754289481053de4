#pragma once

#include "core/loop/timingwheel.h"

#include <chrono>
#include <functional>
#include <memory>
#include <QByteArray>
#include <QJsonObject>
#include <QMap>
#include <QObject>
#include <QSet>
#include <QStringList>
#include <QVector>
#include <vector>

class fortcpclient;
class LicenceCheck;
class Mp3Feeder;
class PlayWatch;
class QHostAddress;
class SAobj;
class SpeakerEvents;
struct SessionEnv;

/// What is told of a speaker that is online.
struct OnlineDevice {
    QString seed; ///< serial
    int status;   ///< SAobj::OnlineState
    int vol;
    int voltage;
    int debug;
};

/// The device service: registry of every speaker session of this node, and the dispatcher through
/// which every command for speakers passes. Owner: start-up. Main loop only; other threads reach it
/// with callOnLoop() or over the command servers.
class Severinit : public QObject {
    Q_OBJECT
public:
    Severinit(QString updateListPath, QString upstreamcdn, QString localcdn, const QString& privateKeyText,
              const QString& publicKeyText, const QString& key, QString askey, int TSWait, int PackSize,
              int AryLen, int Check_, int Check_len, QString LocalIP, int OPort0, int OPort1, int BjPort,
              int DataPort, int ManagePort, int Netcross_Port0, int Netcross_Port1, int DataPortBack2,
              int Pastcmd, QObject* parent = nullptr);
    ~Severinit() override;

    // --- settings assigned by start-up before the loop runs; read-only afterwards, from any thread ---
    int bitrate = 128;  ///< MP3 bit rate, kbit/s
    int ps2 = 6006;     ///< port of the second command server, this node's `nodeport3`
    bool quiet = false; ///< keeps printinfo() silent; nothing here sets it
    /// Pause between two commands to one speaker; none before it is set.
    void setCommandGap(std::chrono::milliseconds gap);
    void setStopsFirst(bool areFirst); ///< see SessionEnv

    /// Exact comparison with the service key; an empty service key matches nothing. Any thread.
    bool matchesServiceKey(const QString& sskey) const;
    /// The block list, read from "unuse.conf" at start. Any thread.
    QStringList blockedSerials() const;
    /// Replaces the block list, in "unuse.conf" first; false, with nothing changed, when the file
    /// can't be written. Takes effect on the next registrations.
    bool setBlockedSerials(const QStringList& serials);
    /// The serial-number check: false for a serial on the block list. Any thread.
    bool serialAllowed(const QString& sn) const;

    const LicenceCheck& licence() const;

    /// Device volume code of a level, see device/volume.h.
    static unsigned char to_vol(unsigned char level);

    // --- registry ---
    /// Most sessions: a bound on what made-up serials can cost, three and a half times the largest fleet.
    static constexpr int MaxSessions = 72'000;
    /// From here on serials that the database does not know come in one by one: made-up ones shall not take
    /// the places of speakers that are still to come.
    static constexpr int CrowdedSessions = MaxSessions / 4 * 3;
    /// Serials known before any speaker registered: each gets an offline session at init_vison();
    /// those in `restricted` start disabled.
    void setStoredSerials(const QStringList& serials, const QStringList& restricted);
    void init_vison();
    void init_redis(); ///< from now on reflushredis() is called regularly
    /// Reads a command's "group": its serials, none when there is no such group. Without it there are none.
    void setGroupReader(std::function<QStringList(const QString& group)> reader);
    QStringList group(const QString& name) const;
    /// The serial's session, created as a child of `parent` when there is none; null when the serial
    /// is not allowed or there are too many. At the limit the session that has been offline for the longest
    /// time makes room, unless the database knows its serial.
    SAobj* addSession(const QString& sn, QObject* parent);
    /// The same for a speaker that registers from `peer`; null also when it is a stranger and too many come
    /// from there (see Strangers).
    SAobj* admit(const QString& sn, const QHostAddress& peer, QObject* parent);
    /// Ends what `parent` created; for its destructor.
    void removeSessionsOf(const QObject* parent);
    const QMap<QString, SAobj*>& sessions() const;
    SAobj* session(const QString& sn) const; ///< null when unknown
    bool isOnline(const QString& sn) const;
    bool isRestricted(const QString& sn) const;
    /// Puts the serial on the restricted list and disables its session, or undoes both.
    void setRestricted(const QString& sn, bool restricted);
    TimingWheel& wheel();
    SpeakerEvents& events(); ///< what changes about speakers
    const SessionEnv& env() const;
    /// Who feeds the streams of this id and is told which speakers have them; null: nobody any more. Not
    /// owned.
    void setMp3Feeder(int streamId, Mp3Feeder* feeder);
    QVector<OnlineDevice> onlineDevices() const;
    QSet<QString> onlineSerials() const;
    void printinfo(); ///< for a debugger: nothing here calls it

    /// What of the registry is new to somebody who asks again and again.
    struct Changes {
        QByteArray mark; ///< to be given back with the next question
        std::vector<const SAobj*> sessions;
        bool isMore = false; ///< there are others: ask again
    };
    /// Most sessions in one answer: a fleet that changes at once is told in several.
    static constexpr size_t MaxChanges = 2000;
    /// The sessions whose numbers have changed since `mark` was given out, the oldest changes first; all
    /// of them for a mark that this run of the service did not give out.
    Changes changesSince(const QByteArray& mark);
    /// The database has got these serials. Their sessions count as changed: somebody has begun to keep their
    /// numbers. Any thread; a moment later.
    void tellAgain(const QStringList& serials);
    /// The database does not know this serial any more. Any thread; a moment later.
    void forgetStored(const QString& sn);

    // --- dispatcher ---
    /// A command that another room adds: gets the request and its resolved targets (each serial
    /// of "snlist", or the expanded "group"; never empty), returns the reply object.
    using Command = std::function<QJsonObject(const QJsonObject& request, const QStringList& targets)>;
    void addCommand(const QString& word, const Command& command);
    /// From now on the watch is asked of every play and stop, after those that came before it. Not owned;
    /// before the first command.
    void addPlayWatch(PlayWatch* watch);
    const std::vector<PlayWatch*>& playWatches() const;
    /// Runs one request as Diamonds_jsondidocom() does, but a command to many speakers goes on over turns
    /// of the loop; `reply` is called once, at once or later. `peer`: address of who sent it.
    void runCommand(const QByteArray& request, const std::function<void(QByteArray)>& reply,
                    const QString& peer = {});

public slots:
    /// Binds a connection to its session; a serial without a session drops the connection. `port` is
    /// the one that the speaker is told to fetch MP3 data from.
    void sasn_online(const QString& sn, fortcpclient* client, unsigned port);
    /// The same for a serial on the restricted list; `flag` becomes the session's enable flag.
    void sasn_online_CL(const QString& sn, fortcpclient* client, unsigned port, bool flag);
    void sasn_offline(const QString& sn);
    /// It is time that every session's status is mirrored.
    void reflushredis() { emit refreshDue(); }
    /// Runs one JSON request; returns the reply as compact JSON, without "\r\n". Never fails: what
    /// does not parse is answered with "json_error", an unknown word with "unknown_cmd".
    QByteArray Diamonds_jsondidocom(const QByteArray& request);

signals:
    /// A speaker has registered and is bound to its session; commands reach it from now on.
    void registered(const QString& sn);
    /// These stored serials have their sessions from now on.
    void storedKnown(const QStringList& serials);
    void refreshDue(); ///< see reflushredis()

private:
    SAobj* bindable(const QString& sn, fortcpclient* client) const;
    void bind(SAobj* session, fortcpclient* client, unsigned port);
    bool makeRoom();
    void endSession(SAobj* session);

    struct State;
    std::unique_ptr<State> m_state;
};
