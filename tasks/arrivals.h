#pragma once

#include <chrono>
#include <QDeadlineTimer>
#include <QHash>
#include <QJsonObject>
#include <QList>
#include <QObject>
#include <QStringList>
#include <QTimer>

class Severinit;

/// Commands for speakers of this node that may not be there yet: each speaker gets them once, at once
/// when it is online and otherwise when it registers. Main loop only.
class Arrivals : public QObject {
    Q_OBJECT
public:
    static constexpr std::chrono::seconds Keep{60};

    explicit Arrivals(Severinit* devices, QObject* parent = nullptr);
    /// `commands`: requests of the dispatcher without "snlist", in the order in which a speaker gets
    /// them, after what was kept for it before. What no speaker has come for is dropped after `keep`.
    void deliver(const QList<QJsonObject>& commands, const QStringList& serials,
                 std::chrono::milliseconds keep = Keep);
    /// Drops what is kept for these speakers.
    void forget(const QStringList& serials);

private:
    struct Kept {
        QJsonObject command;
        QDeadlineTimer until;
    };
    void arrive(const QString& sn);
    void send(QJsonObject command, const QStringList& serials);
    void dropExpired();

    Severinit* m_devices;
    QHash<QString, QList<Kept>> m_kept; ///< by serial
    QTimer m_expiry;
};
