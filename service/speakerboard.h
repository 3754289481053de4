#pragma once

#include <array>
#include <chrono>
#include <mutex>
#include <optional>
#include <QHash>
#include <QObject>
#include <QString>
#include <QStringList>
#include <vector>

class SAobj;
class Severinit;

/// What the board tells of one speaker of this node.
struct SpeakerState {
    enum class State : quint8 { Offline, Idle, Playing, Live };
    enum class Health : quint8 { Ok, Flaky, Silent };

    QString serial;
    State state = State::Offline;
    Health health = Health::Ok;
    bool isEnabled = true;
    int volume = 0;        ///< level as the speaker or the last command gave it; 0 unknown
    int battery = 0;       ///< as it reports it; 0 unknown
    int firmware = 0;      ///< number of its program; 0 unknown
    QString address;       ///< its own as it reports it, else the peer of its connection
    QString playing;       ///< name of what plays; empty when nothing does or nobody has told
    quint64 broadcast = 0; ///< whose sound it is; 0 none
    qint64 since = 0;      ///< of the state; ms since 1970
    qint64 lastSeen = 0;   ///< last moment it was connected, ms since 1970; 0 not since the start

    bool isOnline() const { return state != State::Offline; }
};

/// The state of this node's speakers for whoever must not wait for the main loop: a copy kept by the speaker
/// events, a moment behind the sessions. Every change of a speaker has a number; who remembers the last one
/// that he has seen can ask for what came later. Owner: start-up. Made and destroyed on the main loop, read
/// from any thread; a reader holds up the loop for a few microseconds.
class SpeakerBoard : public QObject {
    Q_OBJECT
public:
    explicit SpeakerBoard(Severinit* devices, QObject* parent = nullptr);

    /// What is known of a speaker that no session has told anything of: offline since the board was made.
    SpeakerState state(const QString& serial) const;
    /// The same of many, in their order.
    std::vector<SpeakerState> states(const QStringList& serials) const;
    /// Speakers by state, in the order of the enumeration. Those that were never connected are not among
    /// them.
    std::array<int, 4> counts() const;

    /// How much somebody has been told; made of nothing: nothing yet.
    struct Mark {
        quint64 change = 0; ///< the last speaker's
        quint64 gone = 0;   ///< as of which change those that are gone have been told
    };
    struct Changes {
        Mark mark; ///< to be given back with the next question
        std::vector<SpeakerState> speakers;
        std::vector<QString> gone; ///< sessions that have ended: nothing is known of them any more
        bool isMore = false;       ///< there are others: ask again
        bool isWhole = false;      ///< this begins anew: forget what was known before
    };
    /// At most `most` speakers that have changed since `mark` was given out, each once, the oldest change
    /// first. Begins with all of them for a mark of nothing or one that is too old.
    Changes changesSince(const Mark& mark, size_t most) const;
    quint64 lastChange() const; ///< differs as soon as there is something new

    /// A broadcast has put its sound on some speakers, and is over on others. Main loop.
    void setPlaying(quint64 broadcast, const QString& name, const QStringList& playing,
                    const QStringList& silent = {});
    /// Main loop.
    void setHealth(const QString& serial, SpeakerState::Health health);

private:
    static constexpr quint32 None = ~quint32{0};
    /// Entries stand in the order of their changes, as a list through the slots.
    struct Entry {
        SpeakerState speaker;
        quint64 change = 0;
        quint32 before = None;
        quint32 after = None;
    };
    void update(const SAobj& session, qint64 now);
    bool take(const SAobj& session, qint64 now, SpeakerState& speaker);
    quint32 slotOf(const QString& serial);
    void changed(quint32 slot);
    void unlink(quint32 slot);
    void dropEnded();
    quint32 firstAfter(quint64 change) const;

    Severinit* m_devices;
    const qint64 m_began;
    mutable std::mutex m_mutex; ///< guards what follows
    std::vector<Entry> m_entries;
    std::vector<quint32> m_free;
    QHash<QString, quint32> m_slots;
    std::vector<std::pair<quint64, QString>> m_gone; ///< the last ones, by change
    quint64 m_goneBefore = 0;                        ///< older ones are forgotten
    quint64 m_changes = 0;
    quint32 m_oldest = None;
    quint32 m_newest = None;
    std::array<int, 4> m_counts{};
};
