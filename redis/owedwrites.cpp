#include "redis/owedwrites.h"

namespace {

/// What keeping a text costs besides its bytes.
constexpr int Overhead = 64;

int cost(const QByteArray& text) {
    return text.size() + Overhead;
}

bool isList(const QByteArrayList& arguments) {
    return arguments.at(0) == "LPUSH";
}

} // namespace

bool OwedWrites::keep(const QByteArrayList& arguments, Why why) {
    Key& key = m_keys[arguments.at(1)];
    key.isRefused = key.isRefused || why == Why::Refused;
    for (int i = 2; isList(arguments) && i < arguments.size(); ++i) {
        key.entries << arguments.at(i);
        m_bytes += cost(arguments.at(i));
    }
    for (int i = 2; !isList(arguments) && i + 1 < arguments.size(); i += 2)
        keepField(key, arguments.at(i), arguments.at(i + 1));
    if (m_bytes + m_keys.size() * Overhead <= MaxBytes)
        return true;
    clear();
    return false;
}

void OwedWrites::keepField(Key& key, const QByteArray& field, const QByteArray& value) {
    const auto old = key.fields.constFind(field);
    if (old != key.fields.cend())
        m_bytes -= cost(field) + cost(*old);
    key.fields.insert(field, value);
    m_bytes += cost(field) + cost(value);
}

void OwedWrites::supersede(const QByteArrayList& arguments) {
    const auto key = m_keys.find(arguments.at(1));
    if (key == m_keys.end() || isList(arguments))
        return;
    for (int i = 2; i + 1 < arguments.size(); i += 2) {
        const auto old = key->fields.find(arguments.at(i));
        if (old == key->fields.end())
            continue;
        m_bytes -= cost(old.key()) + cost(*old);
        key->fields.erase(old);
    }
    if (key->fields.isEmpty() && key->entries.isEmpty())
        m_keys.erase(key);
}

void OwedWrites::taken(const QByteArray& key) {
    const auto found = m_keys.find(key);
    if (found != m_keys.end())
        found->isRefused = false;
}

void OwedWrites::tryAgain(int keys) {
    for (auto key = m_keys.begin(); keys > 0 && key != m_keys.end(); ++key) {
        keys -= key->isRefused ? 1 : 0;
        key->isRefused = false;
    }
}

QList<QByteArrayList> OwedWrites::takeDue(int keys) {
    QList<QByteArrayList> requests;
    for (auto key = m_keys.begin(); keys > 0 && key != m_keys.end();) {
        if (key->isRefused) {
            ++key;
            continue;
        }
        QByteArrayList hash{"HMSET", key.key()};
        for (auto field = key->fields.cbegin(); field != key->fields.cend(); ++field)
            hash << field.key() << *field;
        if (hash.size() > 2)
            requests << hash;
        if (!key->entries.isEmpty())
            requests << QByteArrayList{"LPUSH", key.key()} + key->entries;
        m_bytes -= sizeOf(*key);
        key = m_keys.erase(key);
        --keys;
    }
    return requests;
}

int OwedWrites::sizeOf(const Key& key) {
    int bytes = 0;
    for (auto field = key.fields.cbegin(); field != key.fields.cend(); ++field)
        bytes += cost(field.key()) + cost(*field);
    for (const QByteArray& entry : key.entries)
        bytes += cost(entry);
    return bytes;
}

void OwedWrites::clear() {
    m_keys.clear();
    m_bytes = 0;
}
