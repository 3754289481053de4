#include "device/blocklist.h"

#include <QDebug>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QSaveFile>

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

bool writeBlockList(const QString& path, const QStringList& serials) {
    QSaveFile file(path);
    const bool isWritten = file.open(QIODevice::WriteOnly) &&
                           file.write(QJsonDocument(QJsonArray::fromStringList(serials)).toJson()) >= 0 &&
                           file.commit();
    if (!isWritten)
        qWarning().noquote() << path << "not written:" << file.errorString();
    return isWritten;
}
