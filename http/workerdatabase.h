#pragma once

#include <memory>

class sqlite;

/// One worker's own database object: made when a handler first asks for it, released when the worker
/// has been idle. Belongs to the worker's thread.
class WorkerDatabase {
public:
    /// `source` is the main object; null when the listener carries none.
    explicit WorkerDatabase(const sqlite* source);
    ~WorkerDatabase();
    sqlite* get();
    void release();

private:
    const sqlite* m_source;
    std::unique_ptr<sqlite> m_clone;
};
