#pragma once

#include <QHostAddress>

/// Logs refused requests and the engine's troubles, one line each, throttled as core/logthrottle.h tells.
/// Thread-safe.
class RefusalLog {
public:
    static void add(const QHostAddress& peer, int status, const char* reason);
    static void note(const char* text);
};
