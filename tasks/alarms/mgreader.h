#pragma once

#include "tasks/alarms/mgfile.h"

#include <memory>
#include <optional>
#include <QByteArray>
#include <QFile>
#include <QString>
#include <QVector>

/// Reads one MG file packet by packet, so that a file of any length costs the event loop no more than
/// its header and size table at once and a slice of its packets now and then: the kernel is told to
/// read ahead, and a slice is read when the packets of the last are used up. Every size is checked
/// against what the file holds.
class MgReader {
public:
    /// Bytes read at once: half a minute of 64 kbit/s.
    static constexpr qint64 SliceBytes = 256 * 1024;

    /// Opens a regular file and logs its header. False, with a log line, when it can't be read or has
    /// no whole header.
    bool open(const QString& path);
    const mg::Header& header() const { return m_header; }
    bool atEnd() const { return m_next >= m_sizes.size(); }
    /// The next packet; shorter than its size where the file is. Empty at the end and for a packet
    /// of size 0.
    QByteArray next();

private:
    void logHeader() const;
    bool loadSlice(qint64 size);

    QFile m_file;
    mg::Header m_header;
    QVector<qint16> m_sizes;
    int m_next = 0;
    qint64 m_dataBytes = 0;
    qint64 m_offset = 0; ///< of the next packet in the data
    QByteArray m_slice;
    qint64 m_sliceOffset = 0;
};
