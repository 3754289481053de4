#pragma once

#include <QByteArray>
#include <QString>
#include <QStringList>

/// A flat reply list is how a Redis reply travels in this room: first a type word ("error",
/// "integer", "bulk", "list", "string"), then the values as text. A missing bulk value is "NULL". The
/// value of "error", "integer" and "string" keeps its CR LF.

/// Reads `chunk` as exactly one reply. A reply that is cut short gives what is there; what follows a
/// whole one is ignored. Bulk lengths count characters.
QStringList flatReplyOfChunk(const QString& chunk);

/// Cuts a byte stream into whole replies, however it was split or joined on its way. Bulk lengths
/// count bytes. Arrays inside arrays are flattened into the one list.
class ReplyStream {
public:
    /// A reply larger than this (a group of 400,000 serials) or an element count beyond it is a
    /// framing error: nothing the service reads comes near it.
    static constexpr int MaxReplyBytes = 16 * 1024 * 1024;

    enum class Status { NeedMore, Reply, Broken };
    struct Result {
        Status status;
        QStringList reply; ///< set with Status::Reply
    };

    void append(const QByteArray& bytes) { m_buffer += bytes; }
    /// The next whole reply. After Broken the stream stays broken until reset().
    Result next();
    void reset();

private:
    enum class Step { Done, NeedMore, Broken };
    Step header(QByteArray& line);
    Step element();
    Step aggregate(qint64 count);
    Step bulk(qint64 length);
    void simple(const QByteArray& line);
    Result finish();

    QByteArray m_buffer;
    int m_cursor = 0;     ///< first byte of m_buffer not yet taken
    qint64 m_missing = 1; ///< elements still to come before the reply is whole
    QStringList m_reply;
    bool m_broken = false;
};
