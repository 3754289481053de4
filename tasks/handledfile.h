#pragma once

#include <optional>
#include <QByteArray>
#include <QFile>
#include <QString>

/// The last second that the schedule handled, in a file that outlives the process, a kill in the middle too.
/// What is written is not synced to the disk: nobody waits for it.
class HandledFile {
public:
    explicit HandledFile(const QString& path)
        : m_file(path) {}
    std::optional<qint64> read();
    void write(qint64 second);

    /// A line of two equal numbers. Of several lines the last whole one holds, of a line its second number:
    /// files of earlier versions list stretches of seconds.
    static std::optional<qint64> parse(const QByteArray& text);

private:
    QFile m_file;
    bool m_failed = false; ///< told once
};
