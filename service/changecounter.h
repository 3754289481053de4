#pragma once

#include <atomic>
#include <QtGlobal>

/// Counts what the interfaces change of names, owners, groups and rights, for those who tell others of it.
/// Any thread.
class ChangeCounter {
public:
    void count() { ++m_changes; } ///< after the change is stored
    quint64 value() const { return m_changes; }

private:
    std::atomic<quint64> m_changes{0};
};
