#pragma once

#include "api/onlinelist.h"
#include "api/wronglogins.h"
#include "http/httprequesthandler.h"
#include "service/tokentable.h"

#include <memory>
#include <optional>
#include <QMap>
#include <QString>

class ChangeCounter;
class Gate;
class Journal;
class Passwords;
class PlanKeys;
class QCoreApplication;
class Severinit;
class sqlite;
class Task_workque;
class TemplateLoader;
class Tokens;

/// Routes requests by path prefix. Built once, on the main loop, after the
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
    FileFate fateOfFile(const HttpRequest& head, const QByteArray& field,
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

    /// Told when names, owners or groups of speakers change; before the first request. May be null.
    void setChanges(ChangeCounter* changes) { m_changes = changes; }
    ChangeCounter* changes() const { return m_changes; }

    /// What the older paths share with others; before the first request. Must outlive the router, which
    /// has its own without them.
    void setAccounts(TokenTable* tokens, Passwords* passwords, Tokens* newTokens);
    Passwords& passwords() const { return *m_passwords; }
    /// Tokens of the interface v1, which end with a password; null without any.
    Tokens* newTokens() const { return m_newTokens; }

    /// See TokenTable.
    std::optional<QString> token(int userid) const { return m_tokens->token(userid); }
    void refreshToken(sqlite& database, int userid) { m_tokens->refresh(database, userid); }
    void loadTokens(sqlite& database) { m_tokens->load(database); }
    static QString randomToken() { return TokenTable::randomToken(); }

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
    ChangeCounter* m_changes = nullptr;
    const std::unique_ptr<const PlanKeys> m_planKeys; ///< with the key `tokenpaths`
    OnlineList m_onlineList;
    WrongLogins m_wrongLogins;
    TokenTable m_ownTokens;
    TokenTable* m_tokens = &m_ownTokens;
    std::unique_ptr<Passwords> m_ownPasswords;
    Passwords* m_passwords;
    Tokens* m_newTokens = nullptr;
};
