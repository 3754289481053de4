#pragma once

#include "http/httprequesthandler.h"

#include <optional>
#include <QHash>
#include <QReadWriteLock>
#include <QString>

class QCoreApplication;
class Severinit;
class sqlite;
class Task_workque;

/// Routes requests by path prefix and owns the token table. Built once, on the main loop, after the
/// database is open; service() runs on the HTTP workers.
class RequestMapper : public HttpRequestHandler {
    Q_OBJECT
public:
    RequestMapper(QCoreApplication* application, int RDDATAPORT, QString mediaAddress, sqlite* database,
                  Severinit* devices, Task_workque* tasks, QObject* parent = nullptr);
    ~RequestMapper() override;

    bool wants(const QByteArray& method, const QByteArray& path) const override;
    void service(HttpRequest& request, HttpResponse& response) override;

    // Token table: user id to token. Any thread.
    std::optional<QString> token(int userid) const; ///< nullopt for an unknown user; never an empty text
    void setToken(int userid, const QString& token);
    void removeToken(int userid);

private:
    void loadTokens();
    sqlite* m_database;
    Severinit* m_devices;
    Task_workque* m_tasks;
    mutable QReadWriteLock m_lock;
    QHash<int, QString> m_tokens; ///< guarded by m_lock
};
