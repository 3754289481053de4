#pragma once

#include <ctime>
#include <optional>
#include <QByteArray>

/// "Sun, 06 Nov 1994 08:49:37 GMT" (RFC 9110, section 5.6.7).
QByteArray httpDate(std::time_t time);
/// Reads that form and the two obsolete ones; nullopt for anything else.
std::optional<std::time_t> parseHttpDate(const QByteArray& text);
