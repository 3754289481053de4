#include "device/blocklist.h"

#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>

QStringList readBlockList(const QString& path) {
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? parseBlockList(file.readAll()) : QStringList();
}

QStringList parseBlockList(const QByteArray& json) {
    QStringList serials;
    for (const QJsonValue entry : QJsonDocument::fromJson(json).array())
        serials.append(entry.toVariant().toString());
    return serials;
}
