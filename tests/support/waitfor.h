#pragma once

#include <chrono>
#include <QDeadlineTimer>
#include <QEventLoop>
#include <QTimer>

/// Runs the event loop until `predicate` holds or `deadline` has passed; returns whether it holds.
template<typename Predicate>
bool waitFor(Predicate predicate, std::chrono::milliseconds deadline = std::chrono::seconds(20)) {
    constexpr std::chrono::milliseconds poll{2};
    const QDeadlineTimer end(deadline);
    QEventLoop loop;
    QTimer timer;
    QObject::connect(&timer, &QTimer::timeout, &loop, [&] {
        if (predicate() || end.hasExpired())
            loop.quit();
    });
    if (predicate())
        return true;
    timer.start(poll);
    loop.exec();
    return predicate();
}

/// Runs the event loop for `time`, for what must not happen; returns whether `predicate` held throughout.
template<typename Predicate>
bool holdsFor(Predicate predicate, std::chrono::milliseconds time) {
    return !waitFor([&] { return !predicate(); }, time);
}
