#pragma once

#include <algorithm>
#include <QString>

/// Whether a text can be a speaker's serial number: 1 to 64 ASCII letters and digits.
inline bool isSerial(const QString& text) {
    return !text.isEmpty() && text.size() <= 64 && std::all_of(text.begin(), text.end(), [](QChar c) {
        return c.unicode() < 128 && c.isLetterOrNumber();
    });
}
