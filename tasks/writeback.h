#pragma once

#include <QObject>
#include <QStringList>

class sqlite;

/// Statements waiting to be executed on the main connection, and their execution: in order, in one
/// transaction, which is cut into several when it would keep the main loop longer than a moment. A
/// transaction that fails as a whole (the database is busy or away) is tried again by the next
/// flush(). Main loop only.
class WriteBack : public QObject {
    Q_OBJECT
public:
    /// Statements kept while the database is away; more are dropped, with a log line.
    static constexpr int MaxWaiting = 200000;

    explicit WriteBack(sqlite* database, QObject* parent = nullptr);
    void append(const QString& sql);
    void flush();
    bool isIdle() const { return sqlQueue.isEmpty() && m_writing.isEmpty(); }

private:
    void writeSlice();
    bool writeSome(int& done);
    sqlite* m_database;
    QStringList sqlQueue;  ///< waits for the next flush
    QStringList m_writing; ///< the flush under way
};
