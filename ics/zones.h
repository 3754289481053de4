#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <QByteArray>
#include <QHash>

typedef struct icalcomponent_impl icalcomponent;

// The time zones that calendar files name. Thread: that of the file's reader.

/// Local times of one zone.
class FileZone {
public:
    virtual ~FileZone() = default;
    /// Seconds since 1970-01-01 UTC of a local time given as seconds by the local clock. A time that is
    /// skipped is moved past the gap, of one that comes twice the first is meant.
    virtual qint64 epochOf(qint64 local) = 0;
    virtual qint64 localOf(qint64 epoch) = 0;
};

/// The zones of one file: by their names in the tz database, by those that mail programs write, or by the
/// definition that the file itself has for a name of its own.
class FileZones {
public:
    static constexpr int MaxZones = 64; ///< different names in one file

    FileZones();
    ~FileZones();
    /// `definition`: a VTIMEZONE, copied.
    void define(const QByteArray& name, icalcomponent* definition);
    /// Null for a name that nobody knows.
    FileZone* find(const QByteArray& name);
    FileZone* utc();

private:
    std::unique_ptr<FileZone> make(const QByteArray& name);
    QHash<QByteArray, icalcomponent*> m_definitions;
    QHash<QByteArray, FileZone*> m_byName;
    std::unique_ptr<FileZone> m_utc;
};
