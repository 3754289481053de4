#pragma once

#include <QByteArray>
#include <QObject>
#include <QString>

/// One speaker's session. The device room's own file; what other rooms may call stands here.
/// Main loop only.
class SAobj : public QObject {
    Q_OBJECT
public:
    /// Forwards one chunk of a stream under the preemption rule. Returns 0; -3 refused (lower
    /// priority than the active stream), -6 stale sequence of another stream, -1 not allowed or not
    /// bound.
    int send_mp3data_mut(const QString& sourceName, int streamId, const QString& taskName, int priority,
                         int sequence, bool allowed, const QByteArray& chunk);
    /// Clears the MP3 queue when `id` is the current stream's.
    void clear_que(int id);
};
