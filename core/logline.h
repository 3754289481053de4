#pragma once

#include <QByteArray>
#include <QString>

/// A message as one line of the log holds it, without line end. What a reader of the log could take for
/// something else is written out: line breaks as "\n", control and escape characters as "\x1b", marks
/// that change the direction or the joining of text as "\u202e". Cut to `longest` bytes, which the end tells.
QByteArray logLine(const QString& message, int longest);
