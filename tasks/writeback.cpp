#include "tasks/writeback.h"

#include "core/sql/sqlite.h"

#include <QDebug>
#include <QElapsedTimer>

namespace {

constexpr qint64 SliceMs = 5; ///< of one turn of the main loop

} // namespace

WriteBack::WriteBack(sqlite* database, QObject* parent)
    : QObject(parent)
    , m_database(database) {
    m_next.setSingleShot(true);
    m_next.setTimerType(Qt::PreciseTimer);
    connect(&m_next, &QTimer::timeout, this, &WriteBack::writeNextSlice);
}

void WriteBack::append(const QString& sql) {
    if (sqlQueue.size() >= MaxWaiting) {
        qWarning() << "write-back queue full, statement lost:" << sql;
        return;
    }
    sqlQueue.append(sql);
    qDebug() << "append :" << sql;
}

void WriteBack::flush() {
    if (!sqlQueue.isEmpty())
        writeNextSlice();
}

bool WriteBack::writeSlice(sqlite& database, const std::function<bool()>& writeNext) {
    return database.transaction([&] {
        QElapsedTimer clock; // the wait for the lock is not counted
        clock.start();
        while (writeNext() && clock.elapsed() < SliceMs) {
        }
        return true;
    });
}

void WriteBack::writeNextSlice() {
    const bool isSqlite = m_database->dialect() == SqlDialect::Sqlite;
    int done = 0;
    const auto writeNext = [&] {
        if (done == sqlQueue.size())
            return false;
        if (m_database->exec(sqlQueue.at(done++)) && isSqlite)
            qDebug() << "update1";
        return true;
    };
    if (!writeSlice(*m_database, writeNext)) {
        qWarning() << "write-back failed, statements waiting:" << sqlQueue.size();
        m_next.stop();
        return;
    }
    sqlQueue.erase(sqlQueue.begin(), sqlQueue.begin() + done);
    if (sqlQueue.isEmpty())
        qDebug() << "update3";
    else
        m_next.start(SlicePause);
}
