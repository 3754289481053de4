#pragma once

#include <climits>
#include <QByteArray>

/// The end of the log: a pipe, a socket, a terminal or a file, whose reader may be slow or stopped.
/// Not thread-safe.
class LogOutput {
public:
    /// Longest line with its end. A pipe takes it whole or not at all.
    static constexpr int MaxLine = PIPE_BUF;

    explicit LogOutput(int descriptor);

    /// Writes one line, which ends in a line break, if there is room for it now. Never waits; false when
    /// the line is lost.
    bool write(const QByteArray& line);

private:
    ssize_t offer(const QByteArray& bytes) const;
    int m_descriptor;
    bool m_isSocket = false;
    bool m_mustAsk = true; ///< for room, because a write could wait
    bool m_isTorn = false; ///< the last line lacks its end
};
