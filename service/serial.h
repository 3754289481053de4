#pragma once

#include <algorithm>
#include <QString>

constexpr int SerialLength = 32;

/// 32 lower-case hexadecimal digits, as an account stores a speaker's serial.
inline bool isFullSerial(const QString& text) {
    return text.size() == SerialLength && std::all_of(text.begin(), text.end(), [](QChar c) {
               return (c >= QLatin1Char('0') && c <= QLatin1Char('9')) ||
                      (c >= QLatin1Char('a') && c <= QLatin1Char('f'));
           });
}
