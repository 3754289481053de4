#include "device/commandrun.h"

#include "device/dispatcher.h"
#include "device/jsontext.h"
#include "device/saobj.h"
#include "device/severinit.h"

#include <algorithm>

namespace {

/// Failed serials that "info" names; the rest is counted.
constexpr int NamedFailures = 20;

/// A fleet's sessions are never in the cache when a command comes: what the next ones need is fetched,
/// a step of the way to the socket each, while the kernel sends.
void fetchSessions(const std::vector<SAobj*>& sessions, size_t index) {
    const auto known = [](auto step) {
        return [step](const SAobj* session) {
            if (session)
                (session->*step)();
        };
    };
    fetchAhead(sessions, index, known(&SAobj::fetch), known(&SAobj::fetchConnection),
               known(&SAobj::fetchSocket));
}

} // namespace

QStringList TargetList::serials() const {
    QStringList all;
    all.reserve(size());
    for (int i = 0; i < size(); ++i)
        all << at(i);
    return all;
}

void TargetList::prepareCount() {
    m_hashes.reserve(static_cast<size_t>(size()));
    for (int i = static_cast<int>(m_hashes.size()); i < size(); ++i)
        m_hashes.push_back(qHash(at(i)));
}

int TargetList::indexOf(const QString& sn, int from) {
    prepareCount();
    const uint wanted = qHash(sn);
    auto place = m_hashes.begin() + from;
    for (; (place = std::find(place, m_hashes.end(), wanted)) != m_hashes.end(); ++place) {
        const int index = static_cast<int>(place - m_hashes.begin());
        if (at(index) == sn)
            return index;
    }
    return -1;
}

int TargetList::count(const QString& sn, int from) {
    prepareCount();
    int found = 0;
    const uint wanted = qHash(sn);
    auto place = m_hashes.begin() + from;
    for (; (place = std::find(place, m_hashes.end(), wanted)) != m_hashes.end(); ++place)
        found += at(static_cast<int>(place - m_hashes.begin())) == sn ? 1 : 0;
    return found;
}

CommandRun::CommandRun(Severinit& devices, const CommandRow& row, SessionCall call, TargetList targets)
    : m_devices(devices)
    , m_row(row)
    , m_call(std::move(call))
    , m_targets(std::move(targets))
    , m_word(row.words.done) {}

CommandRun::CommandRun(Severinit& devices, const CommandRow& row, SessionCall call)
    : CommandRun(devices, row, std::move(call), TargetList()) {
    m_isForAll = true;
}

void CommandRun::watch(const PlayCommand& command, const PlayOrders& orders) {
    if (m_devices.playWatches().empty())
        return;
    m_command = command;
    m_orders = orders;
}

/// Makes the order the one that is being served.
void CommandRun::enterOrder(quint64 order) {
    const auto known = m_begun.constFind(order);
    if (known != m_begun.constEnd()) {
        m_command.order = *known;
        return;
    }
    m_command.order = order;
    for (PlayWatch* const watch : m_devices.playWatches())
        m_command.order = watch->begin(m_command);
    m_begun.insert(order, m_command.order);
}

void CommandRun::endOrders() {
    for (const quint64 order : std::as_const(m_begun)) {
        m_command.order = order;
        for (PlayWatch* const watch : m_devices.playWatches())
            watch->end(m_command);
    }
    m_begun.clear();
}

int CommandRun::size() const {
    return m_isForAll ? m_devices.sessions().size() : m_targets.size();
}

QStringList CommandRun::serials() const {
    return m_isForAll ? m_devices.sessions().keys() : m_targets.serials();
}

bool CommandRun::proceed(const QDeadlineTimer& until) {
    do
        serveBlock();
    while (!m_isOver && !until.hasExpired());
    return m_isOver;
}

void CommandRun::serveBlock() {
    const bool isFirst = m_served == 0;
    const int first = m_next;
    const QStringList serials = m_isForAll ? QStringList() : nextSerials();
    const std::vector<SAobj*> sessions = m_isForAll ? nextSessions() : sessionsOf(serials);
    for (size_t i = 0; i < sessions.size(); ++i) {
        if (m_call)
            fetchSessions(sessions, i);
        const QString& sn = m_isForAll ? sessions[i]->sn() : serials.at(static_cast<int>(i));
        const auto early = m_early.constFind(sn);
        note(sn, sessions[i],
             early == m_early.cend() ? serve(sn, sessions[i], first + static_cast<int>(i)) : *early);
    }
    if (m_isOver)
        endOrders();
    if (isFirst && m_served > 0) // the list will be as long in proportion, or a little longer
        m_list.reserve(static_cast<int>(m_list.size() * 1.1 / m_served * size()));
}

QStringList CommandRun::nextSerials() {
    const int end = std::min(m_next + BlockSize, m_targets.size());
    QStringList serials;
    serials.reserve(BlockSize);
    while (m_next < end)
        serials << m_targets.at(m_next++);
    m_isOver = m_next == m_targets.size();
    return serials;
}

/// All lookups before the first command: one by one between the writes each would wait for memory anew.
std::vector<SAobj*> CommandRun::sessionsOf(const QStringList& serials) const {
    std::vector<SAobj*> sessions;
    sessions.reserve(BlockSize);
    for (const QString& sn : serials)
        sessions.push_back(m_devices.session(sn));
    return sessions;
}

std::vector<SAobj*> CommandRun::nextSessions() {
    const auto& all = m_devices.sessions();
    std::vector<SAobj*> sessions;
    sessions.reserve(BlockSize);
    auto entry = all.lowerBound(m_nextSerial);
    for (; entry != all.end() && sessions.size() < BlockSize; ++entry)
        sessions.push_back(*entry);
    m_isOver = entry == all.end();
    if (!m_isOver)
        m_nextSerial = entry.key();
    return sessions;
}

void CommandRun::serveEarly(const QString& sn) {
    if (isQuiet() || m_early.contains(sn))
        return;
    SAobj* const session = m_devices.session(sn);
    const bool isLeft = session && !(sn < m_nextSerial);
    for (int times = m_isForAll ? isLeft : m_targets.count(sn, m_next); times > 0; --times)
        m_early.insert(sn, serve(sn, session, m_isForAll ? 0 : m_targets.indexOf(sn, m_next)));
}

CommandRun::Fate CommandRun::serve(const QString& sn, SAobj* session, int place) {
    if (m_row.mark)
        m_row.mark(m_devices, sn);
    return m_command.kind == PlayKind::None ? attempt(session) : attemptWatched(sn, session, place);
}

CommandRun::Fate CommandRun::attemptWatched(const QString& sn, SAobj* session, int place) {
    static constexpr PlayWatch::Fate Told[] = {PlayWatch::Fate::Sent,    PlayWatch::Fate::Offline,
                                               PlayWatch::Fate::Unknown, PlayWatch::Fate::Disabled,
                                               PlayWatch::Fate::Broken,  PlayWatch::Fate::Refused};
    enterOrder(m_orders.at(place));
    const std::vector<PlayWatch*>& watches = m_devices.playWatches();
    const PlayWatch::Refusal* refusal = nullptr;
    for (auto watch = watches.begin(); session && !refusal && watch != watches.end(); ++watch)
        refusal = (*watch)->refusal(m_command, *session);
    const Fate fate = refusal ? Fate::Refused : attempt(session);
    for (PlayWatch* const watch : watches)
        watch->cameOf(m_command, sn, session, Told[static_cast<int>(fate)], refusal);
    return fate;
}

CommandRun::Fate CommandRun::attempt(SAobj* session) {
    if (!session)
        return Fate::Unknown;
    if (!m_call)
        return Fate::Done;
    if (!session->isOnline())
        return Fate::Offline;
    const int written = m_call(*session);
    if (written == SAobj::NotBound)
        return Fate::Disabled;
    return written > 0 ? Fate::Done : Fate::Broken;
}

void CommandRun::note(const QString& sn, const SAobj* session, Fate fate) {
    const char* const word = wordOf(fate);
    ++m_served;
    if (fate != Fate::Done) {
        if (word)
            m_word = word;
        if (m_failed++ < NamedFailures)
            m_failures << sn + QLatin1Char(' ') + QLatin1String(word ? word : "not sent");
    }
    if (m_row.tellsEach)
        addToList(sn, word);
    if (m_row.entry && session) {
        if (!m_list.isEmpty())
            m_list += ',';
        m_row.entry(m_list, *session);
    }
}

const char* CommandRun::wordOf(Fate fate) const {
    switch (fate) {
    case Fate::Offline:
        return m_row.words.offline;
    case Fate::Unknown:
        return m_row.words.unknown;
    case Fate::Disabled:
    case Fate::Refused:
        return m_row.words.disabled;
    case Fate::Broken:
        return m_row.words.broken;
    case Fate::Done:
        break;
    }
    return m_row.words.done;
}

void CommandRun::addToList(const QString& sn, const char* word) {
    m_list += m_list.isEmpty() ? "{\"sn\":" : ",{\"sn\":";
    appendJsonText(m_list, sn);
    m_list += ",\"res\":\"";
    m_list += word;
    m_list += "\"}";
}

QByteArray CommandRun::reply() const {
    QByteArray json = Dispatcher::reply(m_word, info());
    if (!m_row.tellsEach && !m_row.entry)
        return json;
    json.chop(1);
    json.reserve(json.size() + m_list.size() + 16); // room for a line end too
    json += ",\"list\":[";
    json += m_list;
    json += "]}";
    return json;
}

QString CommandRun::info() const {
    if (m_row.entry)
        return QStringLiteral("%1 speakers").arg(m_served);
    const QString done = m_row.mark ? QStringLiteral("set for %1 of %2") : QStringLiteral("sent to %1 of %2");
    QString text = done.arg(m_served - m_failed).arg(m_served);
    if (m_failed > 0)
        text += QStringLiteral("; ") + m_failures.join(QStringLiteral(", "));
    if (m_failed > NamedFailures)
        text += QStringLiteral(", %1 more").arg(m_failed - NamedFailures);
    return text;
}
