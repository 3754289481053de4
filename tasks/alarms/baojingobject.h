#pragma once

#include "tasks/alarms/mgreader.h"

#include <chrono>
#include <memory>
#include <QByteArray>
#include <QObject>
#include <QString>
#include <QStringList>

class QTimer;

/// Plays a list of alarm files: releases their packets one at each `MG_ms`, file after file; after a
/// halt of the loop, as many as have become due. What can't be opened is skipped. Main loop only.
class Baojingobject : public QObject {
    Q_OBJECT
public:
    /// Milliseconds between packets of a file whose own interval is not positive.
    static constexpr int DefaultStep = 100;
    /// Longest interval that is believed, 10 s: an alarm must not be silenced by a number in a file.
    static constexpr int MaxStep = 10'000;

    explicit Baojingobject(QStringList files, QObject* parent = nullptr);
    ~Baojingobject() override;

    /// Starts with the first file that plays; over() is emitted at once when there is none.
    void _start_init();
    /// Plays one file; false when it can't be opened.
    bool ply_file(const QString& path);
    bool isPlaying() const { return m_reader != nullptr; }
    QString currentFile() const { return m_files.value(m_index); }

public slots:
    void fuck_filepack(); ///< releases one packet
    void play_over();     ///< goes on with the next file
    void timerout();      ///< ends the playback
    void back_mp3(const QByteArray& packet);

signals:
    void present_mp3data_s(const QByteArray& packet);
    void over(); ///< once, at the end
    /// A file begins: its path, its place in the list (from 0), the length of the list.
    void back_(const QString& path, int index, int count);
    /// The file at this place in the list has released its last packet.
    void imending(int index);

private:
    using Clock = std::chrono::steady_clock;

    void playFrom(int index);
    void waitForNext();
    void stopTimer();

    QStringList m_files;
    int m_index = 0;
    std::unique_ptr<MgReader> m_reader; ///< while a file plays
    QTimer* m_timer = nullptr;          ///< likewise; a child
    std::chrono::milliseconds m_step{DefaultStep};
    Clock::time_point m_due; ///< of the next packet
};
