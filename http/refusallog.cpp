#include "http/refusallog.h"

#include <QDebug>

void RefusalLog::add(const QHostAddress& peer, int status, const char* reason) {
    if (mayLog())
        qWarning("HTTP: request of %s refused with %d: %s", qPrintable(peer.toString()), status, reason);
}

void RefusalLog::note(const char* text) {
    if (mayLog())
        qWarning("HTTP: %s", text);
}

bool RefusalLog::mayLog() {
    const std::lock_guard lock(m_mutex);
    const auto now = std::chrono::steady_clock::now();
    if (now - m_second >= std::chrono::seconds(1)) {
        if (m_suppressed > 0)
            qWarning("HTTP: %d more requests refused", m_suppressed);
        m_second = now;
        m_lines = 0;
        m_suppressed = 0;
    }
    if (++m_lines <= MaxLines)
        return true;
    ++m_suppressed;
    return false;
}
