#include "tasks/schedule/handling.h"

#include <algorithm>

SecondSequence::Due SecondSequence::due(qint64 now) {
    const qint64 ahead = now - m_last;
    Due due;
    if (-ahead > Tolerated) {
        due.setBack = -ahead;
        m_last = now - 1;
    }
    if (ahead > LookBack) {
        due.forgotten = ahead - LookBack;
        m_last = now - LookBack;
    }
    if (now > m_last) {
        due.first = m_last + 1;
        due.last = now;
    }
    return due;
}

const char* absenceText(Absence absence) {
    switch (absence) {
    case Absence::NotRunning:
        return "the service was not running";
    case Absence::SetForward:
        return "the clock was set forward";
    case Absence::DatabaseAway:
        return "the database did not answer";
    case Absence::HeldUp:
        break;
    }
    return "the service was held up";
}

void Absences::note(qint64 last, Absence why) {
    if (!m_noted.empty() && m_noted.back().why == why)
        m_noted.back().last = std::max(m_noted.back().last, last);
    else if (m_noted.empty() || m_noted.back().last < last)
        m_noted.push_back({last, why});
}

Absence Absences::of(qint64 second) const {
    const auto noted = std::find_if(m_noted.begin(), m_noted.end(),
                                    [second](const Noted& one) { return second <= one.last; });
    return noted == m_noted.end() ? Absence::HeldUp : noted->why;
}

void Absences::forgetUntil(qint64 second) {
    m_noted.erase(std::remove_if(m_noted.begin(), m_noted.end(),
                                 [second](const Noted& one) { return one.last <= second; }),
                  m_noted.end());
}

int MissedPolicy::limit() const {
    if (!within)
        return Usual;
    return *within == 0 ? SkipGrace + 1 : *within;
}
