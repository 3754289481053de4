#include "http/workerpool.h"

#include "http/workerdatabase.h"

#include <algorithm>
#include <QThread>
#include <sys/resource.h>

namespace {
constexpr int WorkerNiceness = 5; ///< a third of the main loop's share
} // namespace

WorkerPool::WorkerPool(const Settings& settings, const sqlite* database)
    : m_settings(settings)
    , m_database(database) {}

WorkerPool::~WorkerPool() {
    stop();
    std::vector<std::unique_ptr<QThread>> threads;
    {
        const std::lock_guard lock(m_mutex);
        threads.swap(m_threads);
        std::move(m_retired.begin(), m_retired.end(), std::back_inserter(threads));
        m_retired.clear();
    }
    for (const auto& thread : threads)
        thread->wait();
}

bool WorkerPool::submit(Job* job) {
    const std::lock_guard lock(m_mutex);
    if (m_stopping || m_queue.size() >= MaxQueued)
        return false;
    m_queue.push_back(job);
    const auto most = static_cast<std::size_t>(std::max(1, m_settings.maxThreads));
    if (m_queue.size() > static_cast<std::size_t>(m_waiting) && m_threads.size() < most)
        startThread();
    m_wake.notify_one();
    return true;
}

void WorkerPool::stop() {
    std::deque<Job*> cancelled;
    {
        const std::lock_guard lock(m_mutex);
        m_stopping = true;
        cancelled.swap(m_queue);
    }
    m_wake.notify_all();
    for (Job* job : cancelled)
        job->cancel();
}

bool WorkerPool::waitIdle(std::chrono::milliseconds timeout) {
    std::unique_lock lock(m_mutex);
    return m_idle.wait_for(lock, timeout, [this] {
        return m_queue.empty() && (m_threads.empty() || m_waiting == static_cast<int>(m_threads.size()));
    });
}

int WorkerPool::threadCount() const {
    const std::lock_guard lock(m_mutex);
    return static_cast<int>(m_threads.size());
}

void WorkerPool::startThread() {
    reapRetired();
    m_threads.emplace_back(QThread::create([this] { work(); }));
    m_threads.back()->setObjectName(QStringLiteral("http worker"));
    m_threads.back()->start();
}

void WorkerPool::work() {
    // A hundred lists that are made at once must not keep the main loop, and with it a bell, from the
    // processor. On Linux this is the calling thread's own value.
    ::setpriority(PRIO_PROCESS, 0, WorkerNiceness);
    WorkerDatabase database(m_database);
    std::unique_lock lock(m_mutex);
    while (Job* job = nextJob(lock, database)) {
        lock.unlock();
        job->run(database);
        lock.lock();
    }
    retire();
}

WorkerPool::Job* WorkerPool::nextJob(std::unique_lock<std::mutex>& lock, WorkerDatabase& database) {
    ++m_waiting;
    m_idle.notify_all();
    Job* job = nullptr;
    while (!job) {
        const bool woken =
            m_wake.wait_for(lock, m_settings.idleTime, [this] { return m_stopping || !m_queue.empty(); });
        if (!m_queue.empty()) {
            job = m_queue.front();
            m_queue.pop_front();
        } else if (woken || static_cast<int>(m_threads.size()) > m_settings.minThreads) {
            break;
        } else {
            database.release();
        }
    }
    --m_waiting;
    return job;
}

void WorkerPool::retire() {
    const auto self = std::find_if(m_threads.begin(), m_threads.end(), [](const auto& thread) {
        return thread.get() == QThread::currentThread();
    });
    if (self == m_threads.end())
        return; // the pool's end waits for this thread already
    m_retired.push_back(std::move(*self));
    m_threads.erase(self);
    m_idle.notify_all();
}

void WorkerPool::reapRetired() {
    const auto ended = std::remove_if(m_retired.begin(), m_retired.end(),
                                      [](const auto& thread) { return thread->isFinished(); });
    m_retired.erase(ended, m_retired.end());
}
