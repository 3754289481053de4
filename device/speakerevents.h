#pragma once

#include <functional>
#include <list>
#include <QDeadlineTimer>
#include <QPointer>
#include <QString>
#include <QTimer>
#include <QVariant>
#include <vector>

class SAobj;

/// A session's place in the batch that is being gathered; what it derives from.
struct ChangeLink {
    quint32 kinds = 0; ///< that changed and have not been told yet; 0: it has no place
    quint32 place = 0;
};

/// Where the state of speakers is told: what has changed, in batches, at most one a turn of the loop. A
/// listener that throws is logged and the others are served; when the listeners take long, batches become
/// fewer and larger, so that they have no more than a share of the loop. Main loop only. Owner: the registry.
class SpeakerEvents {
public:
    enum Kind : quint32 {
        Online = 1 << 0,
        Offline = 1 << 1,
        Volume = 1 << 2,
        Playing = 1 << 3, ///< from its own store
        Idle = 1 << 4,    ///< the same is over
        StreamBegun = 1 << 5,
        StreamEnded = 1 << 6,
        AlarmInput = 1 << 7,
        Information = 1 << 8, ///< anything else that it tells of itself, or that a command has set
        CommandAccepted = 1 << 9,
        Reported = 1 << 10,       ///< what it plays from its own store, see Report
        KnownAgain = 1 << 11,     ///< somebody has begun to keep what is known of it
        Described = 1 << 12,      ///< it has told its device information, new or not
        VolumeSet = 1 << 13,      ///< its volume was told to it or by it, new or not
        MicrophonesSet = 1 << 14, ///< its microphones' levels were told to it, new or not
        Detailed = 1 << 15,       ///< see Detail
    };
    using Kinds = quint32; ///< a set of them

    struct Change {
        SAobj* session; ///< null when a listener has made it end meanwhile
        Kinds kinds;    ///< all that happened since the batch before; what holds now the session knows
    };
    struct Alarm {
        QString sn;
        char first; ///< second and third byte of the report, 0 where missing
        char second;
        qint64 at; ///< when it arrived, ms since 1970-01-01 UTC
    };
    /// What a speaker has told, or was told, that its session does not keep.
    struct Detail {
        QString sn;
        const char* name; ///< as docs/redis.md lists them; a literal
        QVariant value;
    };
    /// A report of what the speaker plays from its own store.
    struct Report {
        enum class What : quint8 {
            Done,    ///< "UA1": nothing plays any more
            Path,    ///< "UA2": begins with `path`
            Playing, ///< "UA3"
            Waiting, ///< "UA4"
            Paused,  ///< "UA5"
        };
        QString sn;
        What what;
        QString path; ///< as it told it, the path part of an address or the whole; at most 512 characters
        qint64 at;    ///< when it arrived, ms since 1970-01-01 UTC
    };
    struct Batch {
        std::vector<Change> speakers; ///< each once
        std::vector<Alarm> alarms;    ///< in their order
        std::vector<Detail> details;  ///< in their order
        std::vector<Report> reports;  ///< in their order
    };
    using Listener = std::function<void(const Batch&)>;

    /// Alarms kept for one batch; what comes beyond is lost with a line in the log.
    static constexpr size_t MaxAlarms = 10'000;
    /// The same of details: one for every speaker of the largest fleet.
    static constexpr size_t MaxDetails = 100'000;
    static constexpr qint64 MaxDetailBytes = 8 * 1024 * 1024; ///< of their values
    /// The same of reports: a few of every speaker of the largest fleet.
    static constexpr size_t MaxReports = 100'000;

    SpeakerEvents();
    /// Tells what is of these kinds until `context` is gone. A listener may do whatever may be done on the
    /// main loop; its own changes are told in a later turn.
    void listen(const QObject* context, Kinds kinds, Listener listener);

    /// Costs nothing while nobody listens for such a thing.
    void note(SAobj& session, Kind kind) {
        if (m_wanted & kind)
            add(session, kind);
    }
    void noteAlarm(SAobj& session, char first, char second);
    void noteDetail(SAobj& session, const char* name, const QVariant& value);
    bool wants(Kind kind) const { return m_wanted & kind; }
    void noteReport(SAobj& session, Report::What what, const QString& path = {});
    /// The session is about to be deleted: it leaves the batch.
    void forget(const SAobj& session);

private:
    struct Entry {
        QPointer<const QObject> context;
        Kinds kinds;
        Listener listener;
    };
    void add(SAobj& session, Kind kind);
    void schedule();
    void tell();
    void tell(const Entry& entry);
    void dropDead();

    std::list<Entry> m_listeners; ///< one may be added while another is told
    Kinds m_wanted = 0;           ///< by any of them
    // Gathered for the next batch.
    std::vector<SAobj*> m_changed; ///< null: it has ended
    std::vector<Alarm> m_alarms;
    std::vector<Detail> m_details;
    qint64 m_detailBytes = 0;
    std::vector<Report> m_reports;
    // Being told.
    std::vector<Change> m_told;
    std::vector<Alarm> m_toldAlarms;
    std::vector<Detail> m_toldDetails;
    std::vector<Report> m_toldReports;
    Batch m_batch; ///< of these what one listener wants
    bool m_isTelling = false;
    QTimer m_timer;        ///< active from the first change to its batch
    QDeadlineTimer m_rest; ///< of the listeners after a long batch
};
