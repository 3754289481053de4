#pragma once

#include <QObject>
#include <QStringList>
#include <QTimer>

class sqlite;

/// Statements waiting to be executed on the main connection, and their execution: in transactions that
/// are cut when one would keep the main loop longer than a moment. Those about tasks and requests come
/// first, in their order; those about speakers, which may be a whole fleet, behind them, in theirs. A
/// transaction that fails as a whole (the database is busy or away) is tried again by the next flush().
/// Main loop only.
class WriteBack : public QObject {
    Q_OBJECT
public:
    /// Statements kept while the database is away; more are dropped, with a log line.
    static constexpr int MaxWaiting = 200000;

    explicit WriteBack(sqlite* database, QObject* parent = nullptr);
    void append(const QString& sql);
    /// Writes as much as a moment allows; the rest follows by itself.
    void flush();

private:
    bool isEmpty() const { return sqlQueue.isEmpty() && m_speakers.isEmpty(); }
    void writeSlice();
    sqlite* m_database;
    QStringList sqlQueue; ///< tasks and requests
    QStringList m_speakers;
    QTimer m_next; ///< active between two slices
};
