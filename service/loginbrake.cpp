#include "service/loginbrake.h"

#include "core/logthrottle.h"

#include <algorithm>
#include <QDebug>

namespace {

constexpr int LongestName = 200; ///< of what is kept; no account's is longer

QString keyOf(const QString& name, const QString& address) {
    return address + QLatin1Char(' ') + name.left(LongestName);
}

std::chrono::seconds delayAfter(int failures) {
    constexpr int doublings = 6; // 64 s, which is above the longest
    if (failures < LoginBrake::Free)
        return std::chrono::seconds(0);
    const int exponent = std::min(failures - LoginBrake::Free, doublings);
    return std::min(LoginBrake::Longest, std::chrono::seconds(1LL << exponent));
}

} // namespace

std::chrono::seconds LoginBrake::wait(const QString& name, const QString& address, Clock::time_point now) {
    const std::lock_guard lock(m_mutex);
    makeRoom(now);
    const auto place = m_places.constFind(keyOf(name, address));
    if (place == m_places.constEnd() || (*place)->open <= now)
        return std::chrono::seconds(0);
    return std::chrono::ceil<std::chrono::seconds>((*place)->open - now);
}

void LoginBrake::failed(const QString& name, const QString& address, Clock::time_point now) {
    const QString key = keyOf(name, address);
    const std::lock_guard lock(m_mutex);
    const auto place = m_places.constFind(key);
    if (place == m_places.constEnd())
        m_entries.push_front({key, 0, now, now});
    else
        m_entries.splice(m_entries.begin(), m_entries, *place);
    Entry& entry = m_entries.front();
    m_places.insert(key, m_entries.begin());
    entry.last = now;
    entry.open = now + delayAfter(++entry.failures);
    if ((entry.failures == 1 || entry.failures == Free) && mayLog("wrong login", address))
        qWarning() << "wrong login" << name.left(LongestName) << "from" << address << "count"
                   << entry.failures;
    makeRoom(now);
}

void LoginBrake::succeeded(const QString& name, const QString& address) {
    const std::lock_guard lock(m_mutex);
    const auto place = m_places.find(keyOf(name, address));
    if (place == m_places.end())
        return;
    m_entries.erase(*place);
    m_places.erase(place);
}

void LoginBrake::makeRoom(Clock::time_point now) {
    while (!m_entries.empty() && (m_entries.size() > MaxKept || now - m_entries.back().last > Forgotten)) {
        m_places.remove(m_entries.back().key);
        m_entries.pop_back();
    }
}
