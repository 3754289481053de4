#pragma once

#include <map>
#include <optional>
#include <QByteArray>
#include <QHash>
#include <QString>
#include <tuple>
#include <vector>

/// The objects of one topic as one kind of client sees them, in the order of their last change, and the
/// messages that tell of them. Clients keep a cursor each; whoever has fallen behind is told each object
/// once, as it is then. Pure.
class Feed {
public:
    static constexpr int MaxItems = 1000; ///< of a message
    /// A message's items end with the one that reaches it: with what a client has not read yet, below 1 MB.
    static constexpr int EnoughBytes = 384 * 1024;
    /// With more changes behind, a second's worth of messages, a snapshot is sooner there.
    static constexpr int TooFarBehind = 4 * MaxItems;
    /// What is gone is remembered for as many; who is further behind begins anew.
    static constexpr size_t MaxGone = 20'000;

    enum class Keys { Texts, Numbers }; ///< how "gone" tells them

    /// How far a client has been told; made of nothing: it begins with a snapshot.
    struct Cursor {
        enum class Phase { Begin, Snapshot, Following };
        Phase phase = Phase::Begin;
        size_t place = 0;   ///< of the next object of the snapshot
        quint64 change = 0; ///< the last one told
        quint64 gone = 0;   ///< likewise, of what is gone
        bool isInSnapshot() const { return phase != Phase::Following; }
        bool operator<(const Cursor& other) const {
            return std::tie(phase, place, change, gone) <
                   std::tie(other.phase, other.place, other.change, other.gone);
        }
    };
    /// A text of the events, and where it brings a client.
    struct Message {
        QByteArray text;
        Cursor next;
    };

    Feed(QByteArray topic, Keys keys)
        : m_topic(std::move(topic))
        , m_keys(keys) {}

    /// The object as it is from now on, as JSON.
    void put(const QString& key, const QByteArray& json);
    /// It is gone, for those who see this.
    void remove(const QString& key);
    /// It is told no more, though it is still there: lists that only grow are cut.
    void drop(const QString& key);
    bool contains(const QString& key) const { return m_places.contains(key); }
    /// Whether the object is known, and as this.
    bool holds(const QString& key, const QByteArray& json) const;

    /// What a client at the cursor is told next; nullopt when it knows everything. "gone" precedes changes.
    std::optional<Message> next(const Cursor& cursor) const;

private:
    static constexpr quint32 None = ~quint32{0};
    struct Entry {
        QString key; ///< null: free
        QByteArray json;
        quint64 change = 0;
        quint32 before = None;
        quint32 after = None;
    };
    class Text;

    void append(quint32 place);
    void unlink(quint32 place);
    quint32 firstAfter(quint64 change, int& count) const;
    Message beginAnew() const;
    Message snapshot(Cursor cursor) const;
    std::optional<Message> gone(Cursor cursor) const;
    std::optional<Message> change(Cursor cursor) const;

    QByteArray m_topic;
    Keys m_keys;
    std::vector<Entry> m_entries;
    std::vector<quint32> m_free;
    QHash<QString, quint32> m_places;
    std::map<quint64, QString> m_gone; ///< by change
    quint64 m_goneBefore = 0;          ///< what was gone until then is forgotten
    quint64 m_changes = 0;
    quint32 m_oldest = None;
    quint32 m_newest = None;
};
