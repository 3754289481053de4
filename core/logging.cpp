#include "core/logging.h"

#include <cerrno>
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

void writeAll(const QByteArray& line) {
    const char* from = line.constData();
    auto left = static_cast<size_t>(line.size());
    while (left > 0) {
        const ssize_t n = write(STDERR_FILENO, from, left);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return;
        from += n;
        left -= static_cast<size_t>(n);
    }
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

void handleMessage(QtMsgType type, const QMessageLogContext& /*context*/, const QString& message) {
    QByteArray line = ToJournal ? QByteArray(journalPriority(type)) : timeStamp();
    QByteArray text = message.toUtf8();
    text.replace("\r\n", "\\n").replace('\n', "\\n").replace('\r', "\\n");
    line += text;
    line += '\n';
    writeAll(line);
}

} // namespace

void installLogging() {
    qInstallMessageHandler(handleMessage);
}
