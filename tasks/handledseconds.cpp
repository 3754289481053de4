#include "tasks/handledseconds.h"

#include <algorithm>
#include <QDebug>

void HandledSeconds::add(qint64 second) {
    if (!m_stretches.empty() && m_stretches.back().last + 1 == second)
        m_stretches.back().last = second;
    else
        m_stretches.push_back({second, second});
    if (m_stretches.size() > MaxStretches)
        m_stretches.pop_front();
}

bool HandledSeconds::contains(qint64 second) const {
    return std::any_of(m_stretches.begin(), m_stretches.end(), [second](const Stretch& stretch) {
        return stretch.first <= second && second <= stretch.last;
    });
}

std::optional<qint64> HandledSeconds::last() const {
    return m_stretches.empty() ? std::nullopt : std::optional<qint64>(m_stretches.back().last);
}

QByteArray HandledSeconds::text() const {
    QByteArray lines;
    for (const Stretch& stretch : m_stretches)
        lines += QByteArray::number(stretch.first) + ' ' + QByteArray::number(stretch.last) + '\n';
    return lines;
}

HandledSeconds HandledSeconds::parse(const QByteArray& text) {
    HandledSeconds seconds;
    const QList<QByteArray> lines = text.left(text.lastIndexOf('\n') + 1).split('\n'); // whole lines only
    for (const QByteArray& line : lines) {
        const int blank = line.indexOf(' ');
        bool isFirst = false;
        bool isLast = false;
        const Stretch stretch{line.left(blank).toLongLong(&isFirst), line.mid(blank + 1).toLongLong(&isLast)};
        if (blank > 0 && isFirst && isLast && stretch.first <= stretch.last)
            seconds.m_stretches.push_back(stretch);
    }
    while (seconds.m_stretches.size() > MaxStretches)
        seconds.m_stretches.pop_front();
    return seconds;
}

HandledSeconds HandledFile::read() {
    constexpr qint64 MaxBytes = 4096;
    if (!m_file.isOpen() && !m_file.open(QIODevice::ReadWrite | QIODevice::Unbuffered)) {
        m_failed = true;
        qWarning() << "task clock: what has rung is not kept:" << m_file.fileName() << m_file.errorString();
        return {};
    }
    m_file.seek(0);
    return HandledSeconds::parse(m_file.read(MaxBytes));
}

void HandledFile::write(const HandledSeconds& seconds) {
    const QByteArray text = seconds.text();
    if (m_failed)
        return;
    m_failed = !m_file.seek(0) || m_file.write(text) != text.size() ||
               (m_file.size() > text.size() && !m_file.resize(text.size()));
    if (m_failed)
        qWarning() << "task clock: what has rung is not kept:" << m_file.fileName() << m_file.errorString();
}
