#include "http/workerdatabase.h"

#include "core/sql/sqlite.h"

#include <QCoreApplication>

WorkerDatabase::WorkerDatabase(const sqlite* source)
    : m_source(source) {}

WorkerDatabase::~WorkerDatabase() {
    release();
}

sqlite* WorkerDatabase::get() {
    if (m_source && !m_clone)
        m_clone = m_source->forThread();
    return m_clone.get();
}

void WorkerDatabase::release() {
    sqlite* clone = m_clone.release();
    if (!clone)
        return;
    clone->release();
    // A worker has no event loop that would delete it.
    QCoreApplication::sendPostedEvents(clone, QEvent::DeferredDelete);
}
