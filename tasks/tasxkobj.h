#pragma once

#include "device/playwatch.h"

#include <chrono>
#include <QByteArray>
#include <QJsonObject>
#include <QMap>
#include <QObject>
#include <QString>
#include <QStringList>
#include <QTimer>

class sqlite;

/// The player of one task: walks its files and emits a play command for each, as compact JSON for the
/// node that holds its speakers. Filled by the task queue, started and dropped by the node poller.
/// Plays once. Main loop only.
class Tasxkobj : public QObject {
    Q_OBJECT
public:
    static constexpr int MaxRepeat = 1000; ///< times a list is played at most

    /// A player needs nothing from the database once it is filled; the argument names its source.
    explicit Tasxkobj(sqlite* database, QObject* parent = nullptr);

    // Assigned before Start().
    QString name;                   ///< the task's name, for the log
    quint64 id = 0;                 ///< task id, or a temporary play's key; the argument of Over()
    qint64 requestRow = 0;          ///< the `taskpop` row that asked for the start, 0 for a scheduled one
    int userid = 0;                 ///< owner
    int nodeid = 0;                 ///< `sbox_node`.`id`
    int jiange = 0;                 ///< interval of the task row
    int len = 0;                    ///< longest duration of the whole play, seconds
    int repeat = 0;                 ///< times the list is played; 0 plays at random until `len` is over
    QStringList seeds;              ///< serials of the speakers
    QStringList files;              ///< file addresses, in order
    QMap<QString, int> fileLengths; ///< seconds of each address; one without a length is not played
    bool forcePlayAs = false;       ///< ordered by an alarm: play with "PLAYAS"
    bool isTemporary = false;       ///< no stored task stands behind it
    int priority = 100;             ///< 0 to 255; of a bell, its schedule's
    int volume = 0;                 ///< 1 to 25; 0: as the speakers have it
    quint64 order = 0;              ///< number of its broadcast, which its commands carry; 0: none

    QStringList playlist; ///< what is still to be played, in order
    bool finished = false;
    bool wasStopped = false; ///< it ended before its time

    bool isPlaying() const { return m_taskTimer.isActive(); }
    /// Whether the play ends by itself within `time`.
    bool endsWithin(std::chrono::milliseconds time) const;
    /// How long from now the play command that was emitted last is worth obeying.
    std::chrono::milliseconds playLeft() const;

    void Start();
    void play_file(const QString& url);
    /// The length does not travel in the command: a speaker plays the file to its end.
    void play_JSON(const QString& url, int length);
    void play_JSON(const QString& url);
    void playAS_JSON(const QString& url);
    /// The stop command: two documents in a row.
    void playA5_JSON();
    void randplay();
    void ruderplay();

public slots:
    void TimerNext();
    /// Ends the play, by its time or by request. The second call does nothing.
    void TimerOut();

signals:
    void Ocmd(const QByteArray& json); ///< no line feed in it
    void Over(quint64 id);             ///< once; the player may be dropped

private:
    void playAny();
    void stopPlaying();
    QJsonObject command(const char* word) const;
    PlayTerms terms() const;
    QJsonObject playCommand(const char* word, const QString& url) const;
    QTimer m_taskTimer; ///< ends the task
    QTimer m_fileTimer; ///< moves to the next file
    std::chrono::milliseconds m_fileSpan{0};
};
