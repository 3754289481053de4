#pragma once

#include <chrono>
#include <functional>
#include <QObject>
#include <QStringList>
#include <QTimer>

class sqlite;

/// Statements waiting to be executed on the main connection, and their execution: in transactions that
/// are cut when one would keep the main loop longer than a moment, in their order. A transaction that fails
/// as a whole (the database is busy or away) is tried again by the next flush(). Main loop only.
class WriteBack : public QObject {
    Q_OBJECT
public:
    /// Statements kept while the database is away; more are dropped, with a log line.
    static constexpr int MaxWaiting = 200000;
    /// What everybody else has of the main loop before the next slice: the state of a whole fleet takes
    /// seconds to write, and a command to the fleet comes in many turns.
    static constexpr std::chrono::milliseconds SlicePause{5};
    /// Calls `writeNext` in one transaction until it has nothing more to write and says so by false, or a
    /// moment is over. Returns false, with nothing written, when the transaction failed.
    static bool writeSlice(sqlite& database, const std::function<bool()>& writeNext);

    explicit WriteBack(sqlite* database, QObject* parent = nullptr);
    void append(const QString& sql);
    /// Writes as much as a moment allows; the rest follows by itself.
    void flush();

private:
    void writeNextSlice();
    sqlite* m_database;
    QStringList sqlQueue;
    QTimer m_next; ///< active between two slices
};
