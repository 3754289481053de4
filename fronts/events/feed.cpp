#include "fronts/events/feed.h"

/// A message that grows item by item.
class Feed::Text {
public:
    Text(const char* event, const QByteArray& topic, const char* list) {
        m_text.reserve(64 * 1024);
        m_text.append("{\"event\":\"").append(event).append("\",\"topic\":\"").append(topic);
        m_text.append("\",\"").append(list).append("\":[");
    }
    void add(const QByteArray& item) {
        if (m_count++ > 0)
            m_text.append(',');
        m_text.append(item);
    }
    bool isFull() const { return m_count >= MaxItems || m_text.size() >= EnoughBytes; }
    bool isEmpty() const { return m_count == 0; }
    QByteArray end(const char* tail) { return m_text.append(tail); }

private:
    QByteArray m_text;
    int m_count = 0;
};

void Feed::put(const QString& key, const QByteArray& json) {
    const auto known = m_places.constFind(key);
    quint32 place = known == m_places.constEnd() ? None : *known;
    if (place != None) {
        unlink(place);
    } else if (!m_free.empty()) {
        place = m_free.back();
        m_free.pop_back();
    } else {
        place = static_cast<quint32>(m_entries.size());
        m_entries.emplace_back();
    }
    if (known == m_places.constEnd())
        m_places.insert(key, place);
    m_entries[place].key = key;
    m_entries[place].json = json;
    append(place);
}

bool Feed::holds(const QString& key, const QByteArray& json) const {
    const auto known = m_places.constFind(key);
    return known != m_places.constEnd() && m_entries[*known].json == json;
}

void Feed::drop(const QString& key) {
    const auto known = m_places.find(key);
    if (known == m_places.end())
        return;
    unlink(*known);
    m_entries[*known] = {};
    m_free.push_back(*known);
    m_places.erase(known);
}

void Feed::remove(const QString& key) {
    if (!contains(key))
        return;
    drop(key);
    m_gone.emplace(++m_changes, key);
    if (m_gone.size() > MaxGone) {
        m_goneBefore = m_gone.begin()->first;
        m_gone.erase(m_gone.begin());
    }
}

void Feed::append(quint32 place) {
    Entry& entry = m_entries[place];
    entry.change = ++m_changes;
    entry.before = m_newest;
    entry.after = None;
    (m_newest == None ? m_oldest : m_entries[m_newest].after) = place;
    m_newest = place;
}

void Feed::unlink(quint32 place) {
    const Entry& entry = m_entries[place];
    (entry.before == None ? m_oldest : m_entries[entry.before].after) = entry.after;
    (entry.after == None ? m_newest : m_entries[entry.after].before) = entry.before;
}

quint32 Feed::firstAfter(quint64 change, int& count) const {
    quint32 first = None;
    for (quint32 place = m_newest; place != None && m_entries[place].change > change;
         place = m_entries[place].before, ++count)
        first = place;
    return first;
}

std::optional<Feed::Message> Feed::next(const Cursor& cursor) const {
    if (cursor.phase == Cursor::Phase::Begin || cursor.gone < m_goneBefore)
        return beginAnew();
    if (cursor.phase == Cursor::Phase::Snapshot)
        return snapshot(cursor);
    if (auto message = gone(cursor))
        return message;
    return change(cursor);
}

Feed::Message Feed::beginAnew() const {
    return snapshot({Cursor::Phase::Snapshot, 0, m_changes, m_changes});
}

/// By places, which objects keep: what is there all the time is in it, and what changes meanwhile is told
/// again afterwards.
Feed::Message Feed::snapshot(Cursor cursor) const {
    Text text("snapshot", m_topic, "items");
    for (; cursor.place < m_entries.size() && !text.isFull(); ++cursor.place) {
        if (!m_entries[cursor.place].key.isNull())
            text.add(m_entries[cursor.place].json);
    }
    const bool isMore = cursor.place < m_entries.size();
    if (!isMore)
        cursor.phase = Cursor::Phase::Following;
    return {text.end(isMore ? "],\"more\":true}" : "],\"more\":false}"), cursor};
}

std::optional<Feed::Message> Feed::gone(Cursor cursor) const {
    Text text("gone", m_topic, "ids");
    for (auto gone = m_gone.upper_bound(cursor.gone); gone != m_gone.end() && !text.isFull(); ++gone) {
        cursor.gone = gone->first;
        if (contains(gone->second))
            continue; // it has come back, which is told as a change
        const QByteArray key = gone->second.toUtf8();
        text.add(m_keys == Keys::Numbers ? key : '"' + key + '"');
    }
    return text.isEmpty() ? std::nullopt : std::optional(Message{text.end("]}"), cursor});
}

std::optional<Feed::Message> Feed::change(Cursor cursor) const {
    int count = 0;
    const quint32 first = firstAfter(cursor.change, count);
    if (count > TooFarBehind)
        return beginAnew();
    Text text("change", m_topic, "items");
    for (quint32 place = first; place != None && !text.isFull(); place = m_entries[place].after) {
        cursor.change = m_entries[place].change;
        text.add(m_entries[place].json);
    }
    return text.isEmpty() ? std::nullopt : std::optional(Message{text.end("]}"), cursor});
}
