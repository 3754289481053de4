#pragma once

#include "tools/mp3check.h"
#include "tools/speakerprotocol.h"

#include <chrono>
#include <functional>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QObject>
#include <QPointer>
#include <QSet>
#include <QTimer>

namespace sim {

/// One address that the speaker has really fetched.
struct Fetch {
    QString address;
    int httpStatus = 0;
    qint64 size = 0;
    QByteArray md5;  ///< hex, of the body
    QByteArray body; ///< only when bodies are kept
    Mp3Facts mp3;
    QString savedAs; ///< file it was stored in; empty without a save directory
    QString error;   ///< why it is not complete; empty when it is

    bool ok() const { return error.isEmpty() && httpStatus == 200; }
};

/// Fetches addresses over HTTP, stores and checks what comes, and "plays" it: waits for the file's
/// length. One list at a time: a new list takes the place of the one that plays.
class Player : public QObject {
    Q_OBJECT
public:
    struct Options {
        QString saveDir;         ///< where bodies are stored; empty: nowhere
        double speed = 1.0;      ///< how many times faster than the file's length it plays
        bool keepBodies = false; ///< leaves the body in the Fetch
        /// Not 0: takes every address for one of this length and fetches none.
        std::chrono::milliseconds pretended{0};
    };
    /// `network` is not owned and may be shared.
    Player(Options options, QNetworkAccessManager* network, QObject* parent);
    ~Player() override;

    void play(std::vector<ListEntry> list);
    void stop();
    bool isPlaying() const { return m_busy; }

    /// Fetches every entry without playing it, then calls `done`.
    void preload(std::vector<ListEntry> list, std::function<void()> done);
    /// Removes the stored files of the entries.
    void purge(const std::vector<ListEntry>& list);
    /// Fetches one address; `done` gets the outcome.
    void fetch(const QString& address, std::function<void(const Fetch&)> done);

signals:
    void fetching(const QString& path); ///< the path part of the address, as the speaker reports it
    void fetched(const sim::Fetch& fetch);
    void playing(const sim::Fetch& fetch);
    void played(const sim::Fetch& fetch); ///< the whole length has passed
    void idle();                          ///< nothing plays any more: end of the list, or stopped

private:
    void next();
    void begin(const Fetch& fetch);
    Fetch outcome(QNetworkReply* reply) const;
    QString fileFor(const QString& address) const;

    Options m_options;
    QNetworkAccessManager* m_network;
    std::vector<ListEntry> m_list;
    std::size_t m_next = 0;
    quint64 m_generation = 0; ///< of the list; an answer to an older one is not played
    bool m_busy = false;
    Fetch m_current;
    QTimer m_end;
    QSet<QNetworkReply*> m_open;
};

} // namespace sim

Q_DECLARE_METATYPE(sim::Fetch)
