#pragma once

#include <chrono>
#include <optional>
#include <QHash>
#include <QString>
#include <vector>

/// What the health of a speaker is.
enum class SpeakerHealth : quint8 { Ok, Flaky, Silent, Offline };

QString nameOf(SpeakerHealth health);

/// Follows the health of speakers from what happens to them: flaky after some losses of the connection within
/// a time, silent after two orders without a report, ok again after an hour without either. Only speakers
/// that are not well take memory. Pure; times are a steady clock's.
class HealthBook {
public:
    using Time = std::chrono::milliseconds;
    static constexpr int Losses = 5;
    static constexpr std::chrono::minutes LossWindow{10};
    static constexpr int SilentOrders = 2;
    static constexpr std::chrono::hours Recovery{1};

    /// A speaker's health has changed to this.
    struct Change {
        QString sn;
        SpeakerHealth health;
    };

    // Each returns the new health when it is another than before.
    std::optional<SpeakerHealth> wentOffline(const QString& sn, Time now);
    std::optional<SpeakerHealth> cameOnline(const QString& sn, Time now);
    std::optional<SpeakerHealth> wasSilent(const QString& sn, Time now);
    std::optional<SpeakerHealth> reported(const QString& sn, Time now);
    /// Those that have been well for long enough.
    std::vector<Change> recovered(Time now);

    SpeakerHealth of(const QString& sn) const;

private:
    struct Record {
        std::vector<Time> losses; ///< the last few
        int silentOrders = 0;
        Time lastTrouble{0}; ///< a loss, or an order without a report
        bool isOffline = false;
        bool isFlaky = false;
        bool isSilent = false;
    };
    static SpeakerHealth told(const Record& record);
    std::optional<SpeakerHealth> changed(const QString& sn, SpeakerHealth before);

    QHash<QString, Record> m_records;
};
