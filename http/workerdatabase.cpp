#include "http/workerdatabase.h"

#include "core/sqlite.h"

WorkerDatabase::WorkerDatabase(const sqlite* source)
    : m_source(source) {}

WorkerDatabase::~WorkerDatabase() = default;

sqlite* WorkerDatabase::get() {
    if (m_source && !m_clone)
        m_clone = m_source->forThread();
    return m_clone.get();
}

void WorkerDatabase::release() {
    m_clone.reset();
}
