#pragma once

#include "http/httpsession.h"
#include "http/httpsettings.h"

#include <QHash>
#include <QObject>

class HttpRequest;
class HttpResponse;

/// The sessions of all browsers, found by a cookie. A session ends when it was not used for
/// `expirationTime` ms. Thread-safe; owned by start-up. None of today's endpoints needs one: they go by
/// tokens.
class HttpSessionStore : public QObject {
    Q_OBJECT
public:
    /// Sessions at once. Past that the one unused for longest goes: a client that drops its cookies
    /// can't make the service remember without end.
    static constexpr int MaxSessions = 10'000;

    explicit HttpSessionStore(const SessionStoreSettings& settings, QObject* parent = nullptr);

    /// Id of the live session that the request's cookie names; empty when there is none.
    QByteArray getSessionId(const HttpRequest& request);
    /// The request's session. When it has none: a new one, whose cookie is set on the response, or a
    /// null one when `allowCreate` is false.
    HttpSession getSession(const HttpRequest& request, HttpResponse& response, bool allowCreate = true);
    /// The live session of that id, or a null one.
    HttpSession getSession(const QByteArray& id);
    void removeSession(const HttpSession& session);
    int sessionCount();

private:
    using Clock = std::chrono::steady_clock;
    HttpSession create();
    void dropExpired(Clock::time_point now);
    void dropOldest();

    const std::chrono::milliseconds m_expirationTime;
    const QByteArray m_cookieName;
    QMutex m_mutex; ///< guards all below
    QHash<QByteArray, HttpSession> m_sessions;
    Clock::time_point m_lastSweep{};
};
