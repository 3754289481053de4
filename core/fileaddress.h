#pragma once

#include <QString>
#include <QUrl>

/// Address of a file below the document root, percent-encoded. `prefix` is one of the settings that end
/// in "/"; `path` is relative to the root. A "%" stays: no name that the service gives has one, so it
/// belongs to an address that was encoded before.
inline QString fileAddress(const QString& prefix, const QString& path) {
    return prefix + QString::fromLatin1(QUrl::toPercentEncoding(path, "/%"));
}
