#pragma once

#include <QByteArray>
#include <QString>

/// Appends `text` as a JSON string with its quotes, escaped, in UTF-8: for replies of thousands of
/// entries, which would take a document object too long.
void appendJsonText(QByteArray& json, const QString& text);
