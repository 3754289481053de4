#pragma once

#include <ctime>
#include <QByteArray>

/// What decides which part of a file is sent (RFC 9110, sections 13 and 14). Header values are empty
/// when absent.
struct FileQuery {
    QByteArray range;
    QByteArray ifRange;
    QByteArray ifNoneMatch;
    QByteArray ifModifiedSince;
};

struct FileVersion {
    qint64 size = 0;
    QByteArray etag; ///< strong, with its quotation marks
    std::time_t modified = 0;
};

/// Status 200, 206, 304 or 416, and for the first two the bytes to send.
struct FilePart {
    int status = 200;
    qint64 offset = 0;
    qint64 length = 0;
};

/// A single range is served as such; of several the whole file is sent, which every client must
/// accept, unless none of them lies inside it. A malformed range counts as none.
FilePart choosePart(const FileQuery& query, const FileVersion& version);
