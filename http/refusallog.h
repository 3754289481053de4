#pragma once

#include <chrono>
#include <mutex>
#include <QHostAddress>

/// Logs refused requests and the engine's troubles, one line each, at most MaxLines a second: what
/// exceeds that is counted and told in one line, so that a flood of bad requests does not become a
/// flood of log. Thread-safe.
class RefusalLog {
public:
    static constexpr int MaxLines = 10;
    void add(const QHostAddress& peer, int status, const char* reason);
    void note(const char* text);

private:
    bool mayLog();

    std::mutex m_mutex;
    std::chrono::steady_clock::time_point m_second;
    int m_lines = 0;
    int m_suppressed = 0;
};
