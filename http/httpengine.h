#pragma once

#include "http/connectionguard.h"
#include "http/httpsettings.h"
#include "http/lateanswers.h"
#include "http/refusallog.h"
#include "http/requestbody.h"
#include "http/workerpool.h"

#include <atomic>
#include <chrono>
#include <memory>
#include <QString>

/// Memory of the answers that clients have not taken yet. Thread-safe.
struct AnswerBudget {
    static constexpr qint64 MaxMemory = 16 * 1024 * 1024; ///< six lists of a fleet of 20,000 at once
    /// An answer that tells an outcome always goes: what was done must not be asked for again.
    static constexpr qint64 Outcome = 4096;
    std::atomic<qint64> memory{0};

    /// False past the limit. What is taken must be given back.
    bool take(qint64 bytes);
    void giveBack(qint64 bytes) { memory -= bytes; }
};

class HttpRequestHandler;
class sqlite;
struct MHD_Daemon;

/// Connections that the engine may hold: a quarter of the process's descriptors, because a download
/// takes two and the rest belong to speakers.
unsigned int httpConnectionLimit();

/// The threads that accept, parse and send, over libmicrohttpd's epoll loop, with the worker pool and
/// the connection guard beside them. Started by the constructor, ended by the destructor.
class HttpEngine {
public:
    static constexpr unsigned int Threads = 2;
    /// Per connection, for the request head and the answer's head; a longer request head is refused.
    static constexpr std::size_t ConnectionMemory = 8 * 1024;
    /// Kernel memory per download: a speaker's own buffer refills from it; unset, each slow reader
    /// would take megabytes.
    static constexpr int SendBuffer = 64 * 1024;
    /// A download that makes no progress for so long is given up. Players stop reading while their own
    /// buffer lasts: half a megabyte is a minute of speech at 64 kbit/s.
    static constexpr std::chrono::seconds StalledDownload{120};
    /// How long the end waits for finished answers to reach their clients.
    static constexpr std::chrono::seconds FlushTime{1};

    /// `listenSocket` is taken over, whether or not the engine starts. `files` may be null.
    HttpEngine(int listenSocket, const HttpListenerSettings& settings, HttpRequestHandler* handler,
               HttpRequestHandler* files, const sqlite* database);
    /// Main loop, which goes on serving what running handlers ask of it.
    ~HttpEngine();
    HttpEngine(const HttpEngine&) = delete;
    HttpEngine& operator=(const HttpEngine&) = delete;
    bool isRunning() const { return m_daemon != nullptr; }

    /// Whether the library refuses sloppy request heads by itself. Where it doesn't, the head is
    /// compared with its bytes in the library's buffer (see isVerbatim), which needs that parser.
    static bool libraryIsStrict();

    // For connections, on engine threads.
    const HttpListenerSettings& settings() const { return m_settings; }
    HttpRequestHandler* handler() const { return m_handler; }
    HttpRequestHandler* files() const { return m_files; }
    WorkerPool& workers() { return m_workers; }
    ConnectionGuard& guard() { return m_guard; }
    LateAnswers& lateAnswers() { return m_lateAnswers; }
    RefusalLog& refusals() { return m_refusals; }
    BodyBudget bodies;
    AnswerBudget answers;
    /// Counts connections; a full house is logged.
    void connectionBegins();
    void connectionEnds() { --m_connections; }
    std::atomic<int> inFlight{0}; ///< requests given to the workers and not yet answered in full

private:
    const HttpListenerSettings m_settings;
    const unsigned int m_connectionLimit = httpConnectionLimit();
    std::atomic<int> m_connections{0};
    HttpRequestHandler* m_handler;
    HttpRequestHandler* m_files;
    RefusalLog m_refusals;
    WorkerPool m_workers;
    ConnectionGuard m_guard;
    LateAnswers m_lateAnswers;
    MHD_Daemon* m_daemon = nullptr;
};
