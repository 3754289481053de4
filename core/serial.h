#pragma once

#include <algorithm>
#include <QString>

inline constexpr int MaxSerialLength = 64;

inline bool isAsciiLetterOrDigit(QChar c) {
    return c.unicode() < 128 && c.isLetterOrNumber();
}

/// Whether a text can be a speaker's serial number wherever one came from: 1 to 64 ASCII letters and digits.
inline bool isSerial(const QString& text) {
    return !text.isEmpty() && text.size() <= MaxSerialLength &&
           std::all_of(text.begin(), text.end(), isAsciiLetterOrDigit);
}

/// Whether it is one that speakers register with, in full: as many lower-case hexadecimal digits.
inline bool isSerialOf(const QString& text, int digits) {
    return text.size() == digits && std::all_of(text.begin(), text.end(), [](QChar c) {
               return (c >= QLatin1Char('0') && c <= QLatin1Char('9')) ||
                      (c >= QLatin1Char('a') && c <= QLatin1Char('f'));
           });
}
