#include "http/httpsettings.h"

#include "core/settings.h"

#include <algorithm>
#include <QDir>
#include <QFileInfo>

namespace {

std::chrono::milliseconds duration(const Settings& settings, const char* key) {
    constexpr int least = 100; // shorter ones would cut off honest clients
    return std::chrono::milliseconds(std::max(least, settings.integer(key)));
}

QString absolutePath(const Settings& settings, const char* key) {
    const QDir base(QFileInfo(settings.iniPath()).absolutePath());
    return QDir::cleanPath(base.absoluteFilePath(settings.text(key)));
}

} // namespace

HttpListenerSettings HttpListenerSettings::of(const Settings& settings) {
    const int minThreads = std::max(1, settings.integer("listener/minThreads"));
    return {settings.text("listener/host"),
            static_cast<quint16>(settings.integer("listener/port")),
            duration(settings, "listener/readTimeout"),
            // A list of twenty thousand serials is 660 kB; an hour of speech at 128 kbit/s is 58 MB.
            {settings.integer("listener/maxRequestSize"), settings.integer("listener/maxMultiPartSize")},
            {minThreads, std::max(minThreads, settings.integer("listener/maxThreads")),
             duration(settings, "listener/cleanupInterval")}};
}

DocrootSettings DocrootSettings::of(const Settings& settings) {
    return {QFile::encodeName(absolutePath(settings, "docroot/path")),
            settings.text("docroot/encoding").toLatin1(), settings.integer("docroot/maxAge") / 1000};
}

SessionStoreSettings SessionStoreSettings::of(const Settings& settings) {
    return {std::chrono::milliseconds(settings.integer("sessions/expirationTime")),
            settings.text("sessions/cookieName").toLatin1()};
}

TemplateSettings TemplateSettings::of(const Settings& settings) {
    return {absolutePath(settings, "templates/path"), settings.text("templates/suffix"),
            settings.text("templates/encoding").toUtf8()};
}
