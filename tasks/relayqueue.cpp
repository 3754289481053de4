#include "tasks/relayqueue.h"

#include <algorithm>
#include <initializer_list>
#include <QJsonArray>
#include <QJsonDocument>
#include <QSet>
#include <tuple>
#include <utility>

namespace {

const auto SpeakersKey = QStringLiteral("snlist");
const auto OrderKey = QStringLiteral("order");

bool isOneOf(const QString& word, std::initializer_list<const char*> words) {
    return std::any_of(words.begin(), words.end(),
                       [&](const char* one) { return word == QLatin1String(one); });
}

} // namespace

void RelayQueue::add(const Command& command) {
    const Number number = ++m_number;
    Entry& entry = m_waiting[number];
    entry.document = QJsonDocument::fromJson(command.payload).object();
    entry.account = command.account;
    entry.over = command.over;
    entry.bytes = command.payload.size();
    m_bytes += entry.bytes;
    const QString word = entry.document.value(QLatin1String("cmd")).toString();
    const bool hasFiles = entry.document.contains(QLatin1String("filelist"));
    const QJsonArray speakers = entry.document.take(SpeakersKey).toArray();
    entry.orders = PlayOrders::read(entry.document.take(OrderKey));
    if (speakers.isEmpty() || !isOneOf(word, {"FORCESTOP", "PLAYAS", "PLAYOFF"}))
        entry.payload = command.payload;
    else if (word == QLatin1String("FORCESTOP") || !hasFiles)
        entry.kind = Kind::Stop;
    else
        entry.kind = Kind::Play;
    entry.speakers.reserve(static_cast<size_t>(speakers.size()));
    for (const QJsonValue speaker : speakers) {
        const QString sn = speaker.toString();
        entry.speakers.push_back(sn);
        const Number before = std::exchange(m_lastOf[sn], number);
        if (before != 0 && before != number)
            entry.after.insert(before);
    }
}

std::optional<QByteArray> RelayQueue::take(Time now) {
    refresh(now);
    const auto entry = next();
    if (entry == m_waiting.end())
        return std::nullopt;
    const QByteArray payload =
        entry->second.kind == Kind::Other ? entry->second.payload : joined(entry->first);
    remove(entry);
    return payload;
}

int RelayQueue::takeDropped() {
    return std::exchange(m_dropped, 0);
}

/// Whatever an entry waits for has a lower number, so that one walk upwards sees it first.
void RelayQueue::refresh(Time now) {
    for (auto it = m_waiting.begin(); it != m_waiting.end();) {
        Entry& entry = it->second;
        if (!entry.isDone && entry.kind == Kind::Play && entry.over <= now) {
            entry.isDone = true;
            ++m_dropped;
        }
        entry.isBehindAny = entry.isBehindPlay = false;
        for (const Number number : entry.after) {
            const auto before = m_waiting.find(number);
            if (before == m_waiting.end())
                continue;
            const Entry& other = before->second;
            entry.isBehindAny |= !other.isDone || other.isBehindAny;
            entry.isBehindPlay |= (!other.isDone && other.kind != Kind::Stop) || other.isBehindPlay;
        }
        it = entry.isDone && !entry.isBehindAny ? remove(it) : std::next(it);
    }
}

RelayQueue::Waiting::iterator RelayQueue::remove(Waiting::iterator entry) {
    for (const QString& sn : entry->second.speakers) {
        const auto last = m_lastOf.find(sn);
        if (last != m_lastOf.end() && *last == entry->first)
            m_lastOf.erase(last);
    }
    m_bytes -= entry->second.bytes;
    const auto following = m_waiting.erase(entry);
    if (m_waiting.empty())
        m_turns.clear();
    return following;
}

/// Of each account the first play that waits for nothing or, when all its plays wait, the first of them:
/// then what that one waits for. Without any play whatever came first.
RelayQueue::Waiting::iterator RelayQueue::next() {
    QHash<int, Number> first;
    for (const auto& [number, entry] : m_waiting) {
        if (entry.isDone || entry.kind == Kind::Stop)
            continue;
        const auto known = first.find(entry.account);
        if (known == first.end())
            first.insert(entry.account, number);
        else if (!entry.isBehindAny && m_waiting.at(*known).isBehindAny)
            *known = number;
    }
    if (first.isEmpty())
        return m_waiting.begin();
    auto chosen = first.constBegin();
    for (auto it = first.constBegin(); it != first.constEnd(); ++it) {
        if (std::tuple(m_turns.value(it.key()), *it) < std::tuple(m_turns.value(chosen.key()), *chosen))
            chosen = it;
    }
    m_turns[chosen.key()] = ++m_turn;
    return firstBefore(m_waiting.find(*chosen));
}

/// The entry itself, or the first that has to go before it can.
RelayQueue::Waiting::iterator RelayQueue::firstBefore(Waiting::iterator entry) {
    while (entry->second.isBehindAny) {
        for (const Number number : entry->second.after) {
            const auto before = m_waiting.find(number);
            if (before == m_waiting.end() || (before->second.isDone && !before->second.isBehindAny))
                continue;
            entry = before;
            break;
        }
    }
    return entry;
}

/// The document with the speakers of every equal one that may go now too: a stop unless a play for one
/// of its speakers waits before it, a play unless anything does.
QByteArray RelayQueue::joined(Number first) {
    Entry& entry = m_waiting.at(first);
    QSet<QString> known;
    QJsonArray speakers;
    PlayOrders orders;
    for (auto& [number, other] : m_waiting) {
        const bool mayGo = entry.kind == Kind::Stop ? !other.isBehindPlay : !other.isBehindAny;
        if (number != first &&
            (other.isDone || other.kind != entry.kind || !mayGo || other.document != entry.document))
            continue;
        other.isDone = true;
        for (const QString& sn : other.speakers) {
            const int place = static_cast<int>(&sn - other.speakers.data());
            if (!known.contains(sn)) {
                speakers.append(sn);
                orders.append(other.orders.at(place), 1);
            }
            known.insert(sn);
        }
    }
    QJsonObject document = entry.document;
    document.insert(SpeakersKey, speakers);
    if (orders.namesAny())
        document.insert(OrderKey, orders.write());
    return QJsonDocument(document).toJson(QJsonDocument::Compact);
}
