#pragma once

#include <QString>
#include <QStringList>

/// Serials that are refused: a JSON array of texts. A file that is missing, unreadable or no such
/// array gives an empty list.
QStringList readBlockList(const QString& path);
/// The same from the file's content.
QStringList parseBlockList(const QByteArray& json);
/// Writes the list under a temporary name and renames it, so that no reader sees half of it. False,
/// and a log line, when that fails.
bool writeBlockList(const QString& path, const QStringList& serials);
