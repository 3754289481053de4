#include "tasks/writeback.h"

#include "core/sql/sqlite.h"

#include <chrono>
#include <QDebug>
#include <QElapsedTimer>

namespace {

/// Of one turn of the main loop, and the rest that everybody else has before the next: the state of a
/// whole fleet takes seconds to write, and a command to the fleet comes in many turns.
constexpr qint64 SliceMs = 5;
constexpr std::chrono::milliseconds SlicePause{5};
const QString SpeakerTable = QStringLiteral("`sbox_device_info`");
const QString Separator = QStringLiteral(">_#@#_<");

/// Executes from the front until `clock` says that it is enough. Returns how many were executed.
int write(sqlite& database, const QStringList& statements, const QElapsedTimer& clock) {
    const bool isSqlite = database.dialect() == SqlDialect::Sqlite;
    int done = 0;
    while (done < statements.size() && clock.elapsed() < SliceMs) {
        if (database.exec(statements.at(done++)) && isSqlite)
            qDebug() << "update1";
    }
    return done;
}

} // namespace

WriteBack::WriteBack(sqlite* database, QObject* parent)
    : QObject(parent)
    , m_database(database) {
    m_next.setSingleShot(true);
    m_next.setTimerType(Qt::PreciseTimer);
    connect(&m_next, &QTimer::timeout, this, &WriteBack::writeSlice);
}

void WriteBack::append(const QString& sql) {
    if (sqlQueue.size() + m_speakers.size() >= MaxWaiting) {
        qWarning() << "write-back queue full, statement lost:" << sql;
        return;
    }
    (sql.contains(SpeakerTable) ? m_speakers : sqlQueue).append(sql);
    qDebug() << "append :" << sql;
}

void WriteBack::flush() {
    if (isEmpty())
        return;
    if (m_database->dialect() == SqlDialect::Mysql && !sqlQueue.isEmpty()) // there they travel as one text
        sqlQueue = sqlQueue.join(Separator).split(Separator);
    writeSlice();
}

void WriteBack::writeSlice() {
    int tasks = 0;
    int speakers = 0;
    const auto writeSome = [&] {
        QElapsedTimer clock; // the wait for the lock is not counted
        clock.start();
        tasks = write(*m_database, sqlQueue, clock);
        if (tasks == sqlQueue.size())
            speakers = write(*m_database, m_speakers, clock);
        return true;
    };
    if (!m_database->transaction(writeSome)) {
        qWarning() << "write-back failed, statements waiting:" << sqlQueue.size() + m_speakers.size();
        m_next.stop();
        return;
    }
    sqlQueue.erase(sqlQueue.begin(), sqlQueue.begin() + tasks);
    m_speakers.erase(m_speakers.begin(), m_speakers.begin() + speakers);
    if (isEmpty())
        qDebug() << "update3";
    else
        m_next.start(SlicePause);
}
