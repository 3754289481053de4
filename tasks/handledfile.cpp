#include "tasks/handledfile.h"

#include <QDebug>

std::optional<qint64> HandledFile::parse(const QByteArray& text) {
    std::optional<qint64> last;
    const QList<QByteArray> lines = text.left(text.lastIndexOf('\n') + 1).split('\n'); // whole lines only
    for (const QByteArray& line : lines) {
        const int blank = line.indexOf(' ');
        bool isFirst = false;
        bool isLast = false;
        const qint64 first = line.left(blank).toLongLong(&isFirst);
        const qint64 second = line.mid(blank + 1).toLongLong(&isLast);
        if (blank > 0 && isFirst && isLast && first <= second)
            last = second;
    }
    return last;
}

std::optional<qint64> HandledFile::read() {
    constexpr qint64 MaxBytes = 4096;
    if (!m_file.isOpen() && !m_file.open(QIODevice::ReadWrite | QIODevice::Unbuffered)) {
        m_failed = true;
        qWarning() << "task clock: the last second is not kept:" << m_file.fileName() << m_file.errorString();
        return {};
    }
    m_file.seek(0);
    return parse(m_file.read(MaxBytes));
}

void HandledFile::write(qint64 second) {
    const QByteArray number = QByteArray::number(second);
    const QByteArray text = number + ' ' + number + '\n';
    if (m_failed)
        return;
    m_failed = !m_file.seek(0) || m_file.write(text) != text.size() ||
               (m_file.size() > text.size() && !m_file.resize(text.size()));
    if (m_failed)
        qWarning() << "task clock: the last second is not kept:" << m_file.fileName() << m_file.errorString();
}
