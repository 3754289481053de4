#pragma once

#include <functional>
#include <QByteArray>

/// Calls `take` for each content line (RFC 5545, 3.1), unfolded, until it returns false.
void forEachContentLine(const QByteArray& text, const std::function<bool(const QByteArray& line)>& take);

/// The name of a content line's property or component mark, in capitals: what stands before ";" or ":".
QByteArray nameOf(const QByteArray& line);
