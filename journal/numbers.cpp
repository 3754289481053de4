#include "journal/numbers.h"

#include <algorithm>

namespace {
constexpr qint64 Epoch = 1'577'836'800'000; // 2020-01-01 UTC
constexpr qint64 UnitMs = 10;
constexpr int CountBits = 7;
constexpr int NodeBits = 8;

quint64 units(qint64 ms) {
    return static_cast<quint64>(std::max<qint64>(ms - Epoch, 0) / UnitMs);
}
} // namespace

quint64 BroadcastNumbers::next(qint64 nowMs) {
    const quint64 now = units(nowMs) << CountBits;
    quint64 last = m_last;
    quint64 mine = 0;
    do
        mine = std::max(now, last + 1);
    while (!m_last.compare_exchange_weak(last, mine));
    const quint64 count = mine & ((1U << CountBits) - 1);
    return (((mine >> CountBits) << NodeBits | m_node) << CountBits) | count;
}

void BroadcastNumbers::raise(quint64 number) {
    const quint64 count = number & ((1U << CountBits) - 1);
    const quint64 given = (number >> (NodeBits + CountBits) << CountBits) | count;
    quint64 last = m_last;
    while (last < given && !m_last.compare_exchange_weak(last, given)) {
    }
}

qint64 BroadcastNumbers::timeOf(quint64 number) {
    return Epoch + static_cast<qint64>(number >> (NodeBits + CountBits)) * UnitMs;
}

quint64 BroadcastNumbers::firstAt(qint64 ms) {
    return units(ms) << (NodeBits + CountBits);
}
