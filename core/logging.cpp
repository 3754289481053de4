#include "core/logging.h"

#include "core/logline.h"
#include "core/logoutput.h"

#include <mutex>
#include <QByteArray>
#include <QDateTime>
#include <QString>
#include <QtGlobal>
#include <sys/stat.h>
#include <unistd.h>

namespace {

// journald names the device and inode of the stream that it reads.
bool journaldReadsStderr() {
    struct stat st {};
    if (fstat(STDERR_FILENO, &st) != 0)
        return false;
    const QByteArray own =
        QByteArray::number(quint64(st.st_dev)) + ':' + QByteArray::number(quint64(st.st_ino));
    return qgetenv("JOURNAL_STREAM") == own;
}

const bool ToJournal = journaldReadsStderr();

// Priorities that journald takes from a line's beginning.
const char* journalPriority(QtMsgType type) {
    switch (type) {
    case QtDebugMsg:
    case QtInfoMsg:
        return "<6>";
    case QtWarningMsg:
        return "<4>";
    case QtCriticalMsg:
        return "<3>";
    case QtFatalMsg:
        break;
    }
    return "<2>";
}

// Local time down to the millisecond. The date part is worked out once a second: in a storm of lines it
// would cost more than all the rest of a line.
QByteArray timeStamp() {
    thread_local qint64 second = -1;
    thread_local QByteArray text;
    const qint64 now = QDateTime::currentMSecsSinceEpoch();
    if (now / 1000 != second) {
        second = now / 1000;
        const QDateTime time = QDateTime::fromSecsSinceEpoch(second);
        text = time.toString(QStringLiteral("yyyy-MM-dd hh:mm:ss.")).toLatin1();
    }
    return text + QByteArray::number(now % 1000).rightJustified(3, '0') + ' ';
}

QByteArray lineOf(QtMsgType type, const QString& message) {
    const QByteArray head = ToJournal ? QByteArray(journalPriority(type)) : timeStamp();
    return head + logLine(message, LogOutput::MaxLine - head.size() - 2) +
           '\n'; // 2: line ends, see LogOutput
}

/// What all threads write to.
class Log {
public:
    void write(QtMsgType type, const QString& message) {
        const QByteArray line = lineOf(type, message);
        const std::lock_guard lock(m_mutex); // held for no longer than a write that does not wait
        if (!tellLost() || !m_output.write(line))
            ++m_lost;
    }

private:
    bool tellLost() {
        if (m_lost == 0)
            return true;
        const bool told = m_output.write(lineOf(QtWarningMsg, QStringLiteral("%1 lines lost").arg(m_lost)));
        if (told)
            m_lost = 0;
        return told;
    }

    std::mutex m_mutex; ///< guards all below
    LogOutput m_output{STDERR_FILENO};
    qint64 m_lost = 0;
};

void handleMessage(QtMsgType type, const QMessageLogContext& /*context*/, const QString& message) {
    static auto* const log =
        new Log; // never destroyed: objects that go later may still have something to say
    log->write(type, message);
}

} // namespace

void installLogging() {
    qInstallMessageHandler(handleMessage);
}
