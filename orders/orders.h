#pragma once

#include "device/playwatch.h"
#include "device/speakerevents.h"
#include "orders/announcement.h"
#include "orders/outbox.h"
#include "zones/zone.h"

#include <functional>
#include <map>
#include <QHash>
#include <QJsonObject>
#include <QObject>
#include <QSet>
#include <QTimer>
#include <queue>

class Ledger;
class LevelStore;
class SAobj;
class Severinit;
struct Broadcast;

/// The running broadcasts on this node's speakers: who gets which speaker (zones), starts and next titles,
/// what waits, what goes on after an interruption, volumes, stops. Announcements come in as "ORDER" commands,
/// streams by beginStream(); the plays of all other ways in are seen, and where they must not be refused, as
/// a watch of the dispatcher. Main loop only. Owner: start-up.
class Orders : public QObject, private PlayWatch {
    Q_OBJECT
public:
    /// `send` takes commands for this node. `levels` may be null: then volumes are not put back after a kill.
    /// All outlive this object.
    Orders(Severinit* devices, Ledger& ledger, LevelStore* levels, Outbox::Send send,
           QObject* parent = nullptr);
    ~Orders() override;

    /// Files whose address begins so are this service's, which gives them from any second on.
    void setFilePrefix(const QString& prefix) { m_filePrefix = prefix; }
    /// Volumes that an earlier run has left to be put back.
    void restore(const QHash<QString, int>& levels);

    // --- announcements that are given out from here ---
    /// Opens a broadcast; returns its number.
    quint64 open(const Broadcast& broadcast);
    /// The node of these speakers does not answer.
    void markUnreached(quint64 id, const QStringList& serials);
    /// Every node has it. One that no speaker of this node wants is over here.
    void allGiven(quint64 id);

    // --- what is fed over the data path: alarm files, live inputs ---
    /// Told when a speaker begins or ceases to hear it.
    using Hears = std::function<void(const QString& sn, bool hears)>;
    struct Stream {
        int priority = 150;
        int volume = 0;
        zones::WhenBusy whenBusy = zones::WhenBusy::Interrupt;
        std::chrono::seconds queueSpan{60};
        bool lastHolds = false;
    };
    /// `hears` is called at once for the speakers that it gets.
    void beginStream(quint64 id, const Stream& stream, const QStringList& serials, Hears hears);
    void endStream(quint64 id);
    /// These speakers don't want it any more.
    void leaveStream(quint64 id, const QStringList& serials);

    /// Stops the broadcast on this node's speakers, whoever plays it. False when none of them wants it.
    bool stop(quint64 id);
    /// Stops it on these alone; it goes on elsewhere and does not come back to them.
    bool stopOn(quint64 id, const QStringList& serials);
    /// The broadcast that holds the speaker; 0: none.
    quint64 holder(const QString& sn) const;
    int running() const { return static_cast<int>(m_running.size()); }

private:
    /// How a broadcast comes to its speakers.
    enum class Way : quint8 {
        Announced, ///< by this object
        Relayed,   ///< by a player, which sends title after title and a stop
        Direct,    ///< by a command of an older path
        Stream,
    };
    struct Running {
        zones::Order terms;
        Way way = Way::Announced;
        std::vector<Announcement::Title> titles; ///< of an announcement
        QString url;                             ///< of the others: what was sent last
        zones::Time urlSince{0};
        QSet<QString> left;     ///< speakers that were taken out of it
        int claims = 0;         ///< speakers that want it
        bool isBegun = false;   ///< its first command has gone through
        bool isOver = false;    ///< its player has told it to stop
        bool isStopped = false; ///< whatever its player still sends is refused
        bool isEndTold = false;
        Hears hears;
    };
    struct Spot {
        zones::Zone zone;
        zones::Time due = zones::Never; ///< the earliest entry of m_due for it
        quint64 batch = 0;              ///< the last one that has commands for it
        int base = 0;                   ///< as it is stored
    };
    using Due = std::pair<zones::Time, QString>;
    /// How what is to be done with a speaker gets to it.
    enum class Road {
        Outbox,  ///< with what is gathered
        AtOnce,  ///< before the command that is about to be sent to it
        NoStops, ///< as the first, but it has just been told to stop
    };

    // commands
    QJsonObject order(const QJsonObject& request, const QStringList& serials);
    QJsonObject endOrder(const QJsonObject& request, const QStringList& serials);
    void startOn(Running& running, const QStringList& serials);

    // what speakers tell
    void heard(const SpeakerEvents::Batch& batch);
    void changed(const SAobj& session, SpeakerEvents::Kinds kinds);
    void reported(const SpeakerEvents::Report& report);

    // carrying out
    static zones::Time now();
    Spot& spotOf(const SAobj& session);
    void carryOut(const QString& sn, Spot& spot, const zones::Actions& actions, Road road = Road::Outbox);
    void silence(const QString& sn, quint64 order, Road road);
    void setVolume(const QString& sn, int level, Road road);
    void sendPlay(const QString& sn, const zones::Action& action);
    void told(const QString& sn, const zones::Action& action);
    void after(const QString& sn, Spot& spot);
    void flush();
    void tellLedger();
    void dropEnded();
    void dropIdle();
    void endClaim(const QString& sn, quint64 order, zones::Fate fate, Road road);
    void arm();
    void takeDue();

    // PlayWatch: playpolicy.cpp
    quint64 begin(const PlayCommand& command) override;
    const Refusal* refusal(const PlayCommand& command, SAobj& session) override;
    void cameOf(const PlayCommand& command, const QString& sn, SAobj* session, Fate fate,
                const Refusal* refusal) override;
    void end(const PlayCommand& command) override;
    Running* relayed(const PlayCommand& command);
    void prune();
    const Refusal* mayPlay(Running& running, SAobj& session);
    const Refusal* mayStop(quint64 order, SAobj& session);
    const Refusal* refused(const zones::Order* by, const QString& reason);
    static void describe(Running& running, const PlayCommand& command, const Broadcast* broadcast);

    Severinit* m_devices;
    Ledger& m_ledger;
    LevelStore* m_levels;
    QString m_filePrefix;
    std::map<quint64, Running> m_running; ///< claims point to the terms in it
    QHash<QString, Spot> m_spots;         ///< of speakers that somebody wants, by serial
    std::priority_queue<Due, std::vector<Due>, std::greater<>> m_due;
    QTimer m_timer; ///< for the first of m_due
    QTimer m_soon;  ///< flushes in the next turn of the loop
    Outbox m_outbox;
    quint64 m_batch = 1; ///< number of what is being gathered
    /// What the ledger is to be told, by broadcast, fate and who did it.
    std::map<std::tuple<quint64, zones::Fate, quint64>, QStringList> m_tellings;
    QSet<quint64> m_ended; ///< broadcasts that may be over
    QSet<QString> m_idle;  ///< speakers that nobody may want any more
    Refusal m_refusal;
};
