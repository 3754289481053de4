#pragma once

#include <QString>
#include <QStringList>

/// Serials that are refused: a JSON array of texts. A file that is missing, unreadable or no such
/// array gives an empty list.
QStringList readBlockList(const QString& path);
/// The same from the file's content.
QStringList parseBlockList(const QByteArray& json);
