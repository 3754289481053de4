#pragma once

#include <QMetaObject>
#include <QObject>
#include <QThread>
#include <type_traits>

/// Runs `work` in the thread of `context` (the main loop for every service object) and waits for it.
/// Safe from any thread; on the context's own thread it is a plain call. `work` must not wait for the
/// calling thread. Returns what `work` returns, a default-constructed value when the loop has ended.
template<typename Work>
auto callOnLoop(QObject* context, Work work) -> std::invoke_result_t<Work> {
    using Result = std::invoke_result_t<Work>;
    if (QThread::currentThread() == context->thread())
        return work();
    if constexpr (std::is_void_v<Result>) {
        QMetaObject::invokeMethod(context, work, Qt::BlockingQueuedConnection);
    } else {
        Result result{};
        QMetaObject::invokeMethod(
            context, [&] { result = work(); }, Qt::BlockingQueuedConnection);
        return result;
    }
}
