#pragma once

#include <QByteArray>
#include <QString>

/// Cuts the byte stream of a command connection into JSON requests: bytes in, whole requests out,
/// however TCP split or joined them. No socket, no JSON parsing.
///
/// Two forms may follow each other in any order, with blanks and line ends between them:
///  - a frame: the length of the JSON in decimal digits, one line feed, then that many bytes;
///  - a bare JSON object, which ends at the brace that closes it.
class CommandFrameParser {
public:
    /// Longest request. 20,000 serials with their keys come to 0.7 MB; the rest is room for
    /// play lists.
    static constexpr qsizetype MaxRequestBytes = 16 * 1024 * 1024;
    /// Digits of the longest length line that can be valid.
    static constexpr qsizetype MaxLengthDigits = 8;

    enum class Status {
        NeedMore, ///< nothing whole is there
        Request,  ///< `json` holds the next request
        Broken,   ///< the stream can't be followed any further; `error` says why, and stays so
    };
    struct Result {
        Status status = Status::NeedMore;
        QByteArray json;
        QString error;
    };

    void append(const char* data, qsizetype size) { m_buffer.append(data, static_cast<int>(size)); }
    Result next();
    qsizetype bufferedBytes() const { return m_buffer.size(); }
    /// True in the middle of a request.
    bool isPartial() const { return !m_broken && m_begin < m_buffer.size(); }

private:
    void skipBlanks();
    Result takeFrame();
    Result takeBareObject();
    Result take(qsizetype begin, qsizetype size);
    Result tooLongObject();
    Result broken(const QString& why);

    QByteArray m_buffer;
    qsizetype m_begin = 0;         ///< first byte of the request that is being read
    qsizetype m_payload = 0;       ///< first byte after the length line; 0: not read yet
    qsizetype m_payloadLength = 0; ///< what the length line said
    qsizetype m_scanned = 0;       ///< bare object: bytes of it looked at so far
    int m_depth = 0;
    bool m_inText = false;
    bool m_escaped = false;
    bool m_broken = false;
    QString m_error;
};
