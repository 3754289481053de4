#pragma once

#include "http/requestbody.h"
#include "http/workerpool.h"

#include <chrono>
#include <QByteArray>
#include <QString>

class Settings;

// What the HTTP objects are made with. The keys and their defaults stand in the table of settings; relative
// paths are relative to the configuration file.

struct HttpListenerSettings {
    QString host; ///< empty: every address
    quint16 port;
    std::chrono::milliseconds readTimeout;
    BodyLimits limits;
    WorkerPool::Settings workers;

    static HttpListenerSettings of(const Settings& settings);
};

struct DocrootSettings {
    QByteArray path;     ///< absolute
    QByteArray encoding; ///< charset of text files
    int maxAgeSeconds;   ///< that a client may keep a file

    static DocrootSettings of(const Settings& settings);
};

struct SessionStoreSettings {
    std::chrono::milliseconds expirationTime;
    QByteArray cookieName;

    static SessionStoreSettings of(const Settings& settings);
};

struct TemplateSettings {
    QString directory; ///< absolute
    QString suffix;
    QByteArray encoding;

    static TemplateSettings of(const Settings& settings);
};
