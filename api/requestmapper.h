#pragma once

#include "http/httprequesthandler.h"

#include <optional>
#include <QHash>
#include <QMap>
#include <QReadWriteLock>
#include <QString>

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
    /// Uploads have one file, in the part "file"; whose it is, is known when "id" and "token" came first.
    FileFate fateOfFile(const QByteArray& path, const QByteArray& field,
                        const QMap<QByteArray, QByteArray>& parameters) const override;
    void service(HttpRequest& request, HttpResponse& response) override;

    /// The reply to a POST of `path` for a front that does not speak HTTP; no files can be uploaded.
    /// A path that is no endpoint's is refused with "path_error". May block; `database` is the calling
    /// thread's own.
    QByteArray post(const QByteArray& path, const QMap<QByteArray, QByteArray>& parameters, sqlite* database);
    /// The main object, for clones.
    const sqlite* database() const { return m_database; }

    /// What "/template" renders; before the first request. Must outlive the router; may be null.
    void setTemplates(const TemplateLoader* templates) { m_templates = templates; }

    // Token table: user id to token. Any thread.
    std::optional<QString> token(int userid) const;  ///< nullopt for an unknown user; never an empty text
    void setToken(int userid, const QString& token); ///< `token` must not be empty
    static QString randomToken();                    ///< 40 random lower-case hexadecimal digits

    /// Host under which the endpoints reach this node's own command server. Any thread.
    QString commandHost() const { return m_commandHost; }

private:
    void loadTokens();
    sqlite* m_database;
    Severinit* m_devices;
    Task_workque* m_tasks;
    const TemplateLoader* m_templates = nullptr;
    const QString m_commandHost;
    mutable QReadWriteLock m_lock;
    QHash<int, QString> m_tokens; ///< guarded by m_lock
};
