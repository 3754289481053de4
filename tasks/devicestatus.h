#pragma once

#include <array>
#include <chrono>
#include <QHash>
#include <QObject>
#include <QSet>
#include <QStringList>
#include <QTimer>
#include <utility>
#include <vector>

class Severinit;
class sqlite;

/// Keeps `sbox_device_info` as this node's speakers are: listens to what changes about them and writes it,
/// each speaker at most once in a WriteInterval, all of them once after the start. What can't be written is
/// tried again an interval later. Owner: the task queue. Main loop only.
class DeviceStatus : public QObject {
    Q_OBJECT
public:
    static constexpr std::chrono::milliseconds WriteInterval{5171};

    DeviceStatus(Severinit* devices, sqlite* database, QObject* parent = nullptr);
    /// Writes what has changed: as much as a moment allows, the rest follows by itself. Does nothing while an
    /// earlier call's rest is under way.
    void write();

private:
    using Row = std::array<int, 4>; ///< vol, kind, xhstatus, status
    using Rows = std::vector<std::pair<QString, Row>>;
    void changed(const QString& sn);
    void writeSlice();
    void writeRow(const QString& sn, Rows& written);

    Severinit* m_devices;
    sqlite* m_database;
    QSet<QString> m_changed;
    QStringList m_writing; ///< of write(), from m_next on
    int m_next = 0;
    QHash<QString, Row> m_written; ///< what the table holds, of speakers that it knows
    QTimer m_writeTimer;           ///< active while there are changes and no write
    QTimer m_sliceTimer;           ///< active between two slices of a write
};
