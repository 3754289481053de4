#include "tasks/alarms/mgreader.h"

#include <algorithm>
#include <fcntl.h>
#include <QDebug>
#include <QFileInfo>
#include <sys/stat.h>
#include <unistd.h>

namespace {

/// Descriptor of a regular file, -1 for anything else. A pipe or device is never waited for.
int openRegular(const QString& path) {
    const int descriptor =
        ::open(QFile::encodeName(path).constData(), O_RDONLY | O_CLOEXEC | O_NONBLOCK); // NOLINT(*-vararg)
    struct stat status {};
    if (descriptor >= 0 && (::fstat(descriptor, &status) != 0 || !S_ISREG(status.st_mode))) {
        ::close(descriptor);
        return -1;
    }
    return descriptor;
}

} // namespace

bool MgReader::open(const QString& path) {
    const int descriptor = openRegular(path);
    if (descriptor < 0 || !m_file.open(descriptor, QIODevice::ReadOnly, QFileDevice::AutoCloseHandle)) {
        qWarning().noquote() << "文件打开失败" << path;
        qWarning().noquote() << "this->fl->open" << m_file.errorString();
        return false;
    }
    ::posix_fadvise(descriptor, 0, 0, POSIX_FADV_SEQUENTIAL);
    ::posix_fadvise(descriptor, 0, SliceBytes, POSIX_FADV_WILLNEED);
    const auto header = mg::parseHeader(m_file.read(mg::HeaderBytes));
    if (!header) {
        qWarning().noquote() << "文件打开失败" << path << "no whole header";
        return false;
    }
    m_header = *header;
    logHeader();
    const mg::Extent extent = mg::extent(m_header, m_file.size());
    m_dataBytes = extent.dataBytes;
    qDebug() << "Buff Data ReadLen :" << m_dataBytes;
    if (m_file.seek(extent.tableOffset))
        m_sizes = mg::parseSizes(m_file.read(qint64{extent.tableEntries} * 2));
    if (m_sizes.size() != m_header.packetCount)
        qWarning().noquote() << "Error Break CPack;" << path << "has" << m_sizes.size() << "sizes of"
                             << m_header.packetCount;
    if (!extent.isWhole)
        qWarning().noquote() << "MG file is not whole:" << path << "has" << m_dataBytes << "bytes of"
                             << m_header.byteCount << "-played as far as it goes";
    return true;
}

void MgReader::logHeader() const {
    qDebug() << "MG_magic:" << m_header.magic;
    qDebug() << "MG_all_nsample:" << m_header.samples;
    qDebug() << "MG_Bytecount:" << m_header.byteCount;
    qDebug() << "MG_count_pack:" << m_header.packetCount;
    qDebug() << "MG_ms:" << m_header.ms;
    qDebug() << "MG_ramplse:" << m_header.sampleRate;
}

QByteArray MgReader::next() {
    if (atEnd())
        return {};
    const qint64 size = std::min<qint64>(m_sizes.at(m_next++), m_dataBytes - m_offset);
    if (size <= 0 || !loadSlice(size))
        return {};
    QByteArray packet = m_slice.mid(static_cast<int>(m_offset - m_sliceOffset), static_cast<int>(size));
    m_offset += size;
    return packet;
}

/// Makes the next `size` bytes of the data lie in the slice.
bool MgReader::loadSlice(qint64 size) {
    if (m_offset + size <= m_sliceOffset + m_slice.size())
        return true;
    m_sliceOffset = m_offset;
    const qint64 wanted = std::min(SliceBytes, m_dataBytes - m_offset);
    m_slice = m_file.seek(mg::HeaderBytes + m_offset) ? m_file.read(wanted) : QByteArray();
    const qint64 ahead = mg::HeaderBytes + m_offset + wanted;
    ::posix_fadvise(m_file.handle(), ahead, SliceBytes, POSIX_FADV_WILLNEED);
    if (m_slice.size() >= size)
        return true;
    qWarning().noquote() << "MG file can't be read on:" << m_file.errorString();
    m_sizes.clear(); // cut or failing while it plays: it ends here
    return false;
}
