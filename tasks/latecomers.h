#pragma once

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <QDeadlineTimer>
#include <QHash>
#include <QObject>
#include <QSet>
#include <QStringList>
#include <QTimer>

class Severinit;
class Tasxkobj;

/// Bells that ring while the speakers of this node are still coming back after a start of the service:
/// those that are not there yet have the whole play to themselves when they register. Main loop only.
class Latecomers : public QObject {
    Q_OBJECT
public:
    /// After the start of the service: who comes later was away for reasons of its own, but for a bell
    /// that says how long it waits.
    static constexpr std::chrono::seconds Window{60};
    /// Gets a play of its own, filled, for speakers that have registered; its id is the task's.
    using StartPlay = std::function<void(std::unique_ptr<Tasxkobj> play)>;

    Latecomers(Severinit* devices, StartPlay start, QObject* parent = nullptr);
    ~Latecomers() override;

    /// Leaves the player those of its speakers that are online and keeps the others, while the window is
    /// open: until it closes, or for `wait`.
    void keepAbsent(Tasxkobj& player, std::optional<std::chrono::milliseconds> wait = {});
    /// The task was stopped: nobody gets it any more.
    void forget(quint64 taskid) { m_bells.erase(taskid); }

private:
    struct Bell {
        std::unique_ptr<Tasxkobj> play; ///< what each gets
        QSet<QString> absent;
        QStringList here; ///< have registered since
        QDeadlineTimer until;
    };
    void arrive(const QString& sn);
    void startPlays();
    void closeOver();

    Severinit* m_devices;
    const StartPlay m_start;
    std::map<quint64, Bell> m_bells; ///< by task
    const QDeadlineTimer m_window{Window};
    QTimer m_close;  ///< at the first end of a bell
    QTimer m_gather; ///< speakers that register together play together
};
