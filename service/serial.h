#pragma once

#include "core/serial.h"

constexpr int SerialLength = 32;

/// 32 lower-case hexadecimal digits, as an account stores a speaker's serial.
inline bool isFullSerial(const QString& text) {
    return isSerialOf(text, SerialLength);
}
