#pragma once

#include <QByteArray>

/// Content-Type of a file by its name's ending; text types carry `encoding` as their charset.
QByteArray mimeType(const QByteArray& fileName, const QByteArray& encoding);
