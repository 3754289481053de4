#pragma once

#include <QByteArray>
#include <QByteArrayList>
#include <QHash>
#include <QMap>

/// Writes that the server refused or that were dropped on their way to it, to be made again: of a hash the
/// newest value of each field, of a list its entries in their order. A plain value.
class OwedWrites {
public:
    /// Beyond it everything is forgotten: what is known of every speaker is then written anew.
    static constexpr int MaxBytes = 8 * 1024 * 1024;

    enum class Why { Refused, Dropped };
    /// Keeps what an HSET, HMSET or LPUSH would have written; false when that was too much and nothing at
    /// all is kept any more.
    bool keep(const QByteArrayList& arguments, Why why);
    /// These fields have a newer value, sent or written.
    void supersede(const QByteArrayList& arguments);
    /// The key took a write: what is owed to it is due.
    void taken(const QByteArray& key);
    bool isRefused(const QByteArray& key) const { return m_keys.value(key).isRefused; }
    bool isEmpty() const { return m_keys.isEmpty(); }
    /// Makes due what is owed to so many refused keys: that shows whether they take writes again.
    void tryAgain(int keys);
    /// The requests for so many keys that are due; they are owed no more.
    QList<QByteArrayList> takeDue(int keys);
    void clear();

private:
    struct Key {
        QMap<QByteArray, QByteArray> fields;
        QByteArrayList entries;
        bool isRefused = false;
    };
    using Keys = QHash<QByteArray, Key>;
    void keepField(Key& key, const QByteArray& field, const QByteArray& value);
    static int sizeOf(const Key& key);

    Keys m_keys;
    int m_bytes = 0;
};
