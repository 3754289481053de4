#pragma once

#include "tools/simspeaker.h"

#include <memory>
#include <vector>

namespace sim {

/// Speakers of a fleet that do not do as they should; the first ones of it.
struct Misfits {
    int silent = 0;                            ///< so many never report what they play
    int dropping = 0;                          ///< of the others so many lose their connection
    std::chrono::milliseconds dropAfter{1000}; ///< into a play
};

/// `count` speakers with consecutive serials on one thread.
class Fleet : public QObject {
    Q_OBJECT
public:
    /// `first` holds the first serial and what all speakers share; with a save directory each speaker
    /// stores below its own serial.
    Fleet(const SpeakerOptions& first, int count, const Misfits& misfits = {}, QObject* parent = nullptr);
    ~Fleet() override;

    /// Starts the speakers one burst after the other; a lost speaker is started again only when the
    /// options say so.
    void start();
    void stop();

    int size() const { return static_cast<int>(m_speakers.size()); }
    Speaker& at(int i) { return *m_speakers.at(static_cast<std::size_t>(i)); }
    /// Null when no speaker has this serial.
    Speaker* find(const QString& sn);
    int online() const { return m_online; }
    QStringList serials() const;

signals:
    void allOnline(); ///< each time the last missing speaker is known to the server

private:
    void startSome();

    std::vector<std::unique_ptr<QNetworkAccessManager>> m_networks;
    std::vector<std::unique_ptr<Speaker>> m_speakers;
    std::size_t m_started = 0;
    int m_online = 0;
    QTimer m_starter;
};

} // namespace sim
