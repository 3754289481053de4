#pragma once

#include "api/onlinelist.h"
#include "api/wronglogins.h"
#include "http/httprequesthandler.h"

#include <memory>
#include <mutex>
#include <optional>
#include <QHash>
#include <QMap>
#include <QReadWriteLock>
#include <QString>

class Gate;
class Journal;
class PlanKeys;
class QCoreApplication;
class Severinit;
class sqlite;
class Task_workque;
class TemplateLoader;

/// Routes requests by path prefix and owns the token table. Built once, on the main loop, after the
/// database is open and its site settings are assigned; service() runs on the HTTP workers.
class RequestMapper : public HttpRequestHandler {
    Q_OBJECT
public:
    RequestMapper(QCoreApplication* application, int RDDATAPORT, const QString& mediaAddress,
                  sqlite* database, Severinit* devices, Task_workque* tasks, QObject* parent = nullptr);
    ~RequestMapper() override;

    bool wants(const QByteArray& method, const QByteArray& path) const override;
    JobLanes lanes(const HttpRequest& request) const override;
    /// Uploads have one file, in the part "file"; whose it is, is known when "id" and "token" came first.
    FileFate fateOfFile(const QByteArray& path, const QByteArray& field,
                        const QMap<QByteArray, QByteArray>& parameters) const override;
    void service(HttpRequest& request, HttpResponse& response) override;

    struct Answer {
        QByteArray body;
        std::chrono::milliseconds delay{0}; ///< for so long it is to be held back
    };
    /// The reply to a POST of `path` from `address` for a front that does not speak HTTP; no files can be
    /// uploaded. A path that is no endpoint's is refused with "path_error". May block; `database` is the
    /// calling thread's own.
    Answer post(const QByteArray& path, const QMap<QByteArray, QByteArray>& parameters,
                const QString& address, sqlite* database);
    /// Lanes in which such a POST waits: encodings and speech, two of an account at once and as many in all
    /// as there are processors; programs of the query sets, two at once.
    JobLanes lanes(const QByteArray& path, const QMap<QByteArray, QByteArray>& parameters) const;
    /// The main object, for clones.
    const sqlite* database() const { return m_database; }

    /// What "/template" renders; before the first request. Must outlive the router; may be null.
    void setTemplates(const TemplateLoader* templates) { m_templates = templates; }

    /// The road of the endpoints' commands; before the first request. Must outlive the router; without one
    /// they go over TCP.
    void setGate(Gate* gate) { m_gate = gate; }
    Gate* gate() const { return m_gate; } ///< any thread
    /// Where plays are recorded; null: nowhere. Not owned; before the listener starts.
    void setJournal(Journal* journal) { m_journal = journal; }
    Journal* journal() const { return m_journal; } ///< any thread

    // Token table: user id to token. Any thread.
    std::optional<QString> token(int userid) const; ///< nullopt for an unknown user; never an empty text
    /// Takes over what the database has: after a login, a new password, a deletion. Whatever happens at the
    /// same time, the last one to come reads what is valid. `database` is the calling thread's own.
    void refreshToken(sqlite& database, int userid);
    /// The same for all accounts; who has no token is given one.
    void loadTokens(sqlite& database);
    static QString randomToken(); ///< 40 random lower-case hexadecimal digits

    WrongLogins& wrongLogins() { return m_wrongLogins; }
    /// Random parts of the plans' call-back addresses; null when none are asked for. Any thread.
    const PlanKeys* planKeys() const { return m_planKeys.get(); }

    OnlineList& onlineList() { return m_onlineList; }

private:
    sqlite* m_database;
    Severinit* m_devices;
    Task_workque* m_tasks;
    const TemplateLoader* m_templates = nullptr;
    Journal* m_journal = nullptr;
    Gate* m_gate = nullptr;
    const std::unique_ptr<const PlanKeys> m_planKeys; ///< with the key `tokenpaths`
    OnlineList m_onlineList;
    mutable QReadWriteLock m_lock;
    QHash<int, QString> m_tokens; ///< guarded by m_lock
    WrongLogins m_wrongLogins;
    std::mutex m_refreshing; ///< from reading the database to writing m_tokens
};
