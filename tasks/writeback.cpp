#include "tasks/writeback.h"

#include "core/sqlite.h"

#include <chrono>
#include <QDebug>
#include <QElapsedTimer>
#include <QTimer>
#include <utility>

namespace {

/// Of one turn of the main loop, and the rest that everybody else has before the next: the state of a
/// whole fleet takes seconds to write, and a command to the fleet comes in many turns.
constexpr qint64 SliceMs = 5;
constexpr std::chrono::milliseconds SlicePause{5};
const QString Separator = QStringLiteral(">_#@#_<");

} // namespace

WriteBack::WriteBack(sqlite* database, QObject* parent)
    : QObject(parent)
    , m_database(database) {}

void WriteBack::append(const QString& sql) {
    if (sqlQueue.size() >= MaxWaiting) {
        qWarning() << "write-back queue full, statement lost:" << sql;
        return;
    }
    sqlQueue.append(sql);
    qDebug() << "append :" << sql;
}

void WriteBack::flush() {
    if (sqlQueue.isEmpty() || !m_writing.isEmpty())
        return;
    m_writing = std::exchange(sqlQueue, {});
    if (m_database->dialect() == SqlDialect::Mysql) // there they travel as one text
        m_writing = m_writing.join(Separator).split(Separator);
    writeSlice();
}

void WriteBack::writeSlice() {
    int done = 0;
    if (!m_database->transaction([this, &done] { return writeSome(done); })) {
        qWarning() << "write-back failed, statements waiting:" << m_writing.size() + sqlQueue.size();
        sqlQueue = std::exchange(m_writing, {}) + sqlQueue;
        return;
    }
    m_writing.erase(m_writing.begin(), m_writing.begin() + done);
    if (m_writing.isEmpty())
        qDebug() << "update3";
    else
        QTimer::singleShot(SlicePause, Qt::PreciseTimer, this, &WriteBack::writeSlice);
}

bool WriteBack::writeSome(int& done) {
    const bool oneByOne = m_database->dialect() == SqlDialect::Sqlite;
    QElapsedTimer clock;
    clock.start();
    while (done < m_writing.size() && clock.elapsed() < SliceMs) {
        if (m_database->execAlike(m_writing.at(done++)) && oneByOne)
            qDebug() << "update1";
    }
    return true;
}
