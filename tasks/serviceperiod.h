#pragma once

#include <QStringList>

class sqlite;

/// The service periods of speakers, kept in table `snover`: 1 active, 2 ran out and disabled,
/// 3 renewed and waiting to be enabled. Main loop only (runs on the main connection).
class ServicePeriods {
public:
    explicit ServicePeriods(sqlite* database)
        : m_database(database) {}

    /// False when the database has no such table.
    bool exists() const;
    QStringList expired() const; ///< active, and the last day is over
    QStringList renewed() const; ///< waiting to be enabled, and the last day is yet to come
    void markDisabled(const QStringList& serials) const;
    void markEnabled(const QStringList& serials) const;

private:
    QStringList serials(const char* statement) const;
    sqlite* m_database;
};
