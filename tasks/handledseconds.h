#pragma once

#include <deque>
#include <optional>
#include <QByteArray>
#include <QFile>
#include <QString>

/// Which seconds of the wall clock the schedule has handled, as stretches without a gap. Pure.
class HandledSeconds {
public:
    static constexpr int MaxStretches = 64; ///< the oldest give way: a stretch ends with every longer stop

    void add(qint64 second); ///< seconds since 1970-01-01 UTC
    bool contains(qint64 second) const;
    std::optional<qint64> last() const; ///< the one that was added last

    /// A line for each stretch: its first second, a blank, its last.
    QByteArray text() const;
    static HandledSeconds parse(const QByteArray& text);

private:
    struct Stretch {
        qint64 first;
        qint64 last;
    };
    std::deque<Stretch> m_stretches;
};

/// The file that outlives the process, a kill in the middle too. What is written is not synced to the
/// disk: nobody waits for it.
class HandledFile {
public:
    explicit HandledFile(const QString& path)
        : m_file(path) {}
    HandledSeconds read();
    void write(const HandledSeconds& seconds);

private:
    QFile m_file;
    bool m_failed = false; ///< told once
};
