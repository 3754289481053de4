#pragma once

#include <optional>
#include <QByteArray>
#include <QMap>

/// Decodes percent escapes; nullopt when one is malformed or stands for NUL. `plusIsSpace` is for
/// query strings and forms.
std::optional<QByteArray> decodePercent(const QByteArray& text, bool plusIsSpace = false);

/// Splits a query string or form body ("a=1&b=2") into `parameters`; the last value of a name wins, a
/// name without "=" gets an empty value. False when an escape is malformed or there are more than
/// MaxFormFields fields; `parameters` then holds what came before.
bool decodeForm(const QByteArray& text, QMap<QByteArray, QByteArray>& parameters);

/// Fields in one form: an endpoint reads a dozen, so this only bounds what a hostile one may cost.
constexpr int MaxFormFields = 1000;
