#pragma once

#include "http/joblanes.h"

#include <chrono>
#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

class QThread;
class sqlite;
class WorkerDatabase;

/// The threads that run controllers: as many as there is work for, between the settings' bounds.
/// A thread that finds nothing to do for `idleTime` ends, or at the lower bound gives its database
/// connection back. All methods are thread-safe.
class WorkerPool {
public:
    struct Settings {
        int minThreads = 1;
        int maxThreads = 1;
        std::chrono::milliseconds idleTime{0}; ///< after which one beyond the least ends
    };

    /// Exactly one of the two is called, once, from any thread. The owner keeps the job until then.
    class Job {
    public:
        virtual void run(WorkerDatabase& database) = 0;
        virtual void cancel() = 0; ///< the pool ends before its turn came, or its lanes are full
        /// Asked for once, on a worker, before run(). A job without room in its lanes waits without a worker.
        virtual JobLanes lanes() { return {}; }

    protected:
        ~Job() = default;
    };

    /// Jobs that may wait. At 5 ms each and four threads the last one waits about a second, which
    /// clients bear; past that a prompt refusal serves them better.
    static constexpr std::size_t MaxQueued = 1024;

    WorkerPool(const Settings& settings, const sqlite* database);
    ~WorkerPool();

    /// False when the queue is full or the pool ends: the job was not taken.
    bool submit(Job* job);
    /// Takes no more jobs and cancels those that wait. Does not wait for those that run.
    void stop();
    /// Waits up to `timeout` for the running jobs; whether they are done.
    bool waitIdle(std::chrono::milliseconds timeout);
    int threadCount() const;

private:
    struct Entry {
        Job* job;
        JobLanes lanes = {};
        bool hasRoom = false; ///< in its lanes, and counted there
    };

    void startThread();
    void work();
    std::optional<Entry> next(std::unique_lock<std::mutex>& lock, WorkerDatabase& database);
    bool enterLanes(Entry& entry, std::unique_lock<std::mutex>& lock);
    void leaveLanes(const JobLanes& lanes);
    void retire();
    void reapRetired();

    const Settings m_settings;
    const sqlite* m_database;
    mutable std::mutex m_mutex; ///< guards all below
    std::condition_variable m_wake;
    std::condition_variable m_idle;
    std::deque<Entry> m_queue;
    std::deque<Entry> m_held; ///< without room in their lanes
    LaneCounts m_lanes;
    std::vector<std::unique_ptr<QThread>> m_threads;
    std::vector<std::unique_ptr<QThread>> m_retired; ///< ended or about to
    int m_waiting = 0;                               ///< threads with nothing to do
    bool m_stopping = false;
};
