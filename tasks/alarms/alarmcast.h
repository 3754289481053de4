#pragma once

#include "device/mp3path.h"

#include <list>
#include <memory>
#include <QByteArray>
#include <QJsonObject>
#include <QObject>
#include <QSet>
#include <QString>
#include <QStringList>
#include <vector>

class Baojingobject;
class Journal;
class Orders;
class SAobj;
class Severinit;

/// Feeds alarm files to speakers as a stream: the commands "PLAYMG" and "STOPMG". Each start is a cast
/// of its own with a higher sequence than the one before; where casts meet on a speaker, the higher
/// level plays, and of equal levels the newer. Main loop only. Owner: start-up.
class Alarmcast : public QObject, private Mp3Feeder {
    Q_OBJECT
public:
    /// Casts at once: each is a timer and an open file. An installation has a handful of zones.
    static constexpr int MaxCasts = 64;
    static constexpr int MaxFiles = 1000; ///< of one cast
    static constexpr int DefaultLevel = 1;
    static constexpr int MaxLevel = 1000;

    /// Registers the commands with `devices`, which outlives this object. Files are taken from below
    /// `runingdir` only.
    Alarmcast(Severinit* devices, QString runingdir, QObject* parent = nullptr);
    ~Alarmcast() override;

    /// Where casts are recorded; null: nowhere. Not owned.
    void setJournal(Journal* journal) { m_journal = journal; }
    /// Who gets the speakers; null: whoever feeds them. Not owned; before the first cast.
    void setOrders(Orders* orders) { m_orders = orders; }

    QJsonObject play(const QJsonObject& request, const QStringList& targets);
    QJsonObject stop(const QStringList& targets);
    int castCount() const { return static_cast<int>(m_casts.size()); }

    /// The real path of `entry` below `directory`, links resolved; empty when it leads out of it, does
    /// not exist or is no regular file.
    static QString fileBelow(const QString& directory, const QString& entry);

private:
    struct Cast {
        int sequence = 0;
        int level = 0;
        int gained = 0;               ///< times that a speaker began to hear it
        int lost = 0;                 ///< times that another stream or its connection took one away
        std::vector<SAobj*> speakers; ///< sessions, which live as long as the registry
        quint64 order = 0;            ///< its broadcast; 0: none
        std::vector<quint8> told;     ///< of each speaker the ReceiptState that is recorded
        QSet<QString> unheard;        ///< speakers that something else holds meanwhile
        std::unique_ptr<Baojingobject> player;
    };
    QStringList filesOf(const QJsonObject& request) const;
    bool start(const QStringList& files, const QStringList& targets, int level, quint64 order);
    void feed(Cast& cast, const QByteArray& packet);
    quint64 record(const QJsonObject& request, const QStringList& targets) const;
    void recordFed(Cast& cast, const std::vector<int>& results) const;
    void claim(const Cast& cast);
    void heard(int sequence, const QString& sn, bool hears);
    void endSoon(int sequence);
    void end(int sequence);
    Cast* castOf(int sequence);
    void gainedSpeaker(const QString& sn, const Mp3Stream& stream) override;
    void lostSpeaker(const QString& sn, const Mp3Stream& stream) override;
    QJsonObject outcome(const QStringList& targets) const;

    Severinit* m_devices;
    Journal* m_journal = nullptr;
    Orders* m_orders = nullptr;
    QString m_directory;
    std::list<Cast> m_casts; ///< addresses stay while casts come and go
    int m_sequence = 0;
};
