#pragma once

#include <atomic>
#include <QtGlobal>

/// Gives out the numbers of broadcasts and entries: 53 bits, so that JSON and every language hold them. From
/// the highest bit: 38 bits of time in units of 10 ms since 2020-01-01 UTC (87 years), 8 bits of the node, 7
/// bits that count within the unit. Who needs more than 128 in 10 ms borrows from the next. Any thread.
class BroadcastNumbers {
public:
    explicit BroadcastNumbers(int node)
        : m_node(static_cast<quint64>(node) & 0xff) {}

    /// Higher than all before, also when the clock has been set back.
    quint64 next(qint64 nowMs);
    /// What is given out from now on is higher than this number: an earlier run of the service has given it.
    void raise(quint64 number);

    static int nodeOf(quint64 number) { return static_cast<int>(number >> 7 & 0xff); }
    /// When it was given out, ms since 1970-01-01 UTC.
    static qint64 timeOf(quint64 number);
    /// The lowest that any node can give out from this time on.
    static quint64 firstAt(qint64 ms);

private:
    const quint64 m_node;
    std::atomic<quint64> m_last{0}; ///< time and count of the last one, without the node
};
