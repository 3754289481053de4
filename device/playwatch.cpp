#include "device/playwatch.h"

#include <algorithm>
#include <cmath>
#include <QJsonArray>
#include <QJsonValue>

namespace {
constexpr double NumberEnd = 9007199254740992.0; // 2^53
/// Orders that are joined in one command at most: what a node's queue can hold of them is far less.
constexpr int MaxRuns = 100'000;
} // namespace

bool PlayOrders::isNumber(double value) {
    return value >= 1 && value < NumberEnd && std::floor(value) == value;
}

PlayOrders PlayOrders::read(const QJsonValue& value) {
    PlayOrders orders;
    if (value == QLatin1String("stop"))
        orders.m_word = Word::Stop;
    else if (value == QLatin1String("none"))
        orders.m_word = Word::None;
    else if (isNumber(value.toDouble()))
        orders.append(static_cast<quint64>(value.toDouble()), -1);
    const QJsonArray runs = value.toArray();
    for (int i = 0; i < runs.size() && i < MaxRuns; ++i) {
        const QJsonArray run = runs.at(i).toArray();
        const double order = run.at(0).toDouble();
        const int count = run.at(1).toInt();
        if (count < 1 || !(isNumber(order) || order == 0))
            return {};
        orders.append(static_cast<quint64>(order), count);
    }
    return orders;
}

QJsonValue PlayOrders::write() const {
    if (m_word != Word::Numbers)
        return m_word == Word::Stop ? QStringLiteral("stop") : QStringLiteral("none");
    if (m_runs.empty())
        return {};
    if (m_runs.size() == 1)
        return static_cast<double>(m_runs.front().first);
    QJsonArray list;
    for (const auto& [order, count] : m_runs)
        list.append(QJsonArray{static_cast<double>(order), count});
    return list;
}

bool PlayOrders::namesAny() const {
    return std::any_of(m_runs.begin(), m_runs.end(), [](const auto& run) { return run.first != 0; });
}

PlayKind PlayOrders::kindOf(PlayKind kind) const {
    if (kind == PlayKind::None || m_word == Word::Numbers)
        return kind;
    return m_word == Word::Stop ? PlayKind::Stop : PlayKind::None;
}

quint64 PlayOrders::at(int index) const {
    for (const auto& [order, count] : m_runs) {
        if (count < 0 || index < count)
            return order;
        index -= count;
    }
    return 0;
}

void PlayOrders::append(quint64 order, int count) {
    if (!m_runs.empty() && m_runs.back().first == order && m_runs.back().second >= 0 && count >= 0)
        m_runs.back().second += count;
    else
        m_runs.emplace_back(order, count);
}
