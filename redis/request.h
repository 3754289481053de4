#pragma once

#include <QByteArray>
#include <QByteArrayList>
#include <QString>
#include <QStringList>

/// Splits a command line into its arguments. White space (QChar::isSpace) separates; inside double
/// quotes it is kept, and \" stands for one quote there. Every other backslash is an ordinary character.
QStringList splitCommandLine(const QString& line);

/// The request as the line client has always written it: lengths count UTF-16 code units, so a
/// non-ASCII argument announces fewer bytes than it has. Only for lines of plain ASCII.
QByteArray encodeCharacters(const QStringList& arguments);

/// The request with lengths in bytes: any argument arrives byte for byte.
QByteArray encodeBytes(const QByteArrayList& arguments);

/// The arguments of a request that encodeBytes() made.
QByteArrayList decodeBytes(const QByteArray& request);
