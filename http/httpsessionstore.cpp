#include "http/httpsessionstore.h"

#include "http/httprequest.h"
#include "http/httpresponse.h"

#include <algorithm>
#include <array>
#include <QRandomGenerator>

namespace {

QByteArray randomId() {
    std::array<quint32, 4> words{};
    QRandomGenerator::system()->fillRange(words.data(), static_cast<qsizetype>(words.size()));
    return QByteArray(reinterpret_cast<const char*>(words.data()), sizeof words).toHex();
}

} // namespace

HttpSessionStore::HttpSessionStore(const SessionStoreSettings& settings, QObject* parent)
    : QObject(parent)
    , m_expirationTime(settings.expirationTime)
    , m_cookieName(settings.cookieName) {}

QByteArray HttpSessionStore::getSessionId(const HttpRequest& request) {
    return getSession(request.getCookie(m_cookieName)).getId();
}

HttpSession HttpSessionStore::getSession(const HttpRequest& request, HttpResponse& response,
                                         bool allowCreate) {
    HttpSession session = getSession(request.getCookie(m_cookieName));
    if (session.isNull() && allowCreate) {
        session = create();
        const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(m_expirationTime);
        response.setCookie(m_cookieName, session.getId(), static_cast<int>(seconds.count()));
    }
    return session;
}

HttpSession HttpSessionStore::getSession(const QByteArray& id) {
    const auto now = Clock::now();
    const QMutexLocker locker(&m_mutex);
    const auto found = m_sessions.constFind(id);
    if (found == m_sessions.constEnd())
        return {};
    HttpSession session = *found;
    if (now - session.m_data->lastUse > m_expirationTime) {
        m_sessions.remove(id);
        return {};
    }
    session.m_data->lastUse = now;
    return session;
}

void HttpSessionStore::removeSession(const HttpSession& session) {
    const QMutexLocker locker(&m_mutex);
    m_sessions.remove(session.getId());
}

int HttpSessionStore::sessionCount() {
    const QMutexLocker locker(&m_mutex);
    dropExpired(Clock::now());
    return m_sessions.size();
}

HttpSession HttpSessionStore::create() {
    const auto now = Clock::now();
    HttpSession session(std::make_shared<HttpSession::Data>());
    session.m_data->id = randomId();
    session.m_data->lastUse = now;
    const QMutexLocker locker(&m_mutex);
    // The sweep walks them all: once a minute is enough, the limit holds meanwhile.
    if (now - m_lastSweep > std::chrono::minutes(1))
        dropExpired(now);
    if (m_sessions.size() >= MaxSessions)
        dropOldest();
    m_sessions.insert(session.getId(), session);
    return session;
}

void HttpSessionStore::dropExpired(Clock::time_point now) {
    m_lastSweep = now;
    for (auto session = m_sessions.begin(); session != m_sessions.end();) {
        const bool expired = now - session->m_data->lastUse > m_expirationTime;
        session = expired ? m_sessions.erase(session) : std::next(session);
    }
}

void HttpSessionStore::dropOldest() {
    const auto oldest =
        std::min_element(m_sessions.begin(), m_sessions.end(),
                         [](const auto& a, const auto& b) { return a.m_data->lastUse < b.m_data->lastUse; });
    if (oldest != m_sessions.end())
        m_sessions.erase(oldest);
}
