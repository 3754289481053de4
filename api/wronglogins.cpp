#include "api/wronglogins.h"

#include <QDebug>

namespace {

constexpr int LongestName = 64; ///< of what is kept and logged

/// The 1st, the 5th, 10th, 20th …: whoever goes on for hours fills no log.
bool isWorthALine(int count) {
    const int fives = count / static_cast<int>(WrongLogins::Free);
    const bool isPowerOfTwo = fives > 0 && (fives & (fives - 1)) == 0;
    return count == 1 || (count % static_cast<int>(WrongLogins::Free) == 0 && isPowerOfTwo);
}

} // namespace

std::chrono::milliseconds WrongLogins::add(const QString& name, const QString& address,
                                           Clock::time_point now) {
    const QString shortName = name.left(LongestName);
    const std::lock_guard lock(m_mutex);
    makeRoom(now);
    Count& count = m_counts[address + QLatin1Char(' ') + shortName];
    if (!count.last.empty() && now - count.last.back() > Window)
        count = {};
    if (isWorthALine(++count.total))
        qWarning() << "wrong login" << shortName << "from" << address << "count" << count.total;
    const bool isLate = count.last.size() == Free && now - count.last.front() <= Window;
    count.last.push_back(now);
    if (count.last.size() > Free)
        count.last.pop_front();
    return isLate ? Delay : std::chrono::milliseconds(0);
}

void WrongLogins::makeRoom(Clock::time_point now) {
    if (m_counts.size() < MaxKept)
        return;
    for (auto count = m_counts.begin(); count != m_counts.end();)
        count = now - count->last.back() > Window ? m_counts.erase(count) : std::next(count);
    if (m_counts.size() > MaxKept / 2) // else every further one would walk over them all
        m_counts.clear();
}
