#include "device/playwatch.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <iterator>
#include <QJsonArray>
#include <QJsonObject>
#include <QJsonValue>

namespace {
constexpr double NumberEnd = 9007199254740992.0; // 2^53
/// Orders that are joined in one command at most: what a node's queue can hold of them is far less.
constexpr int MaxRuns = 100'000;

constexpr int HighestPriority = 255;
constexpr int LoudestLevel = 25;
constexpr int LongestSeconds = 24 * 3600;
/// By their values.
constexpr std::array<const char*, 3> TermKinds{"direct", "bell", "alarm"};
} // namespace

std::optional<PlayTerms> PlayTerms::read(const QJsonValue& value) {
    const QJsonObject object = value.toObject();
    const QString word = object.value(QLatin1String("kind")).toString();
    const auto kind = std::find_if(TermKinds.begin(), TermKinds.end(),
                                   [&](const char* name) { return word == QLatin1String(name); });
    PlayTerms terms;
    terms.priority = object.value(QLatin1String("priority")).toInt(terms.priority);
    terms.volume = object.value(QLatin1String("volume")).toInt();
    terms.seconds = object.value(QLatin1String("seconds")).toInt();
    if (kind == TermKinds.end() || terms.priority < 0 || terms.priority > HighestPriority ||
        terms.volume < 0 || terms.volume > LoudestLevel || terms.seconds < 0 ||
        terms.seconds > LongestSeconds)
        return std::nullopt;
    terms.kind = static_cast<Kind>(std::distance(TermKinds.begin(), kind));
    return terms;
}

QJsonObject PlayTerms::write() const {
    return {{QStringLiteral("kind"), QLatin1String(TermKinds.at(static_cast<size_t>(kind)))},
            {QStringLiteral("priority"), priority},
            {QStringLiteral("volume"), volume},
            {QStringLiteral("seconds"), seconds}};
}

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
