#pragma once

#include <memory>
#include <QByteArray>
#include <QJsonObject>
#include <QObject>
#include <QSet>
#include <QString>
#include <QStringList>
#include <QTimer>

class Xindaosev;

/// Watches one alarm source: names the channels that it wants to hear of, and turns their reports into
/// commands. Connects again when the connection fails. Main loop only.
///
/// A report is {"Chanel": index into the channel list, "Status": integer, "Text": text}. Status 49
/// with "CANCEL" in the text ends the channel's alarm, without it begins it; any other status says
/// nothing of alarms. A channel is the name of a group of speakers.
class Warning : public QObject {
    Q_OBJECT
public:
    static constexpr int AlarmStatus = 49;
    /// Failures in a row after which a source is given up.
    static constexpr int MaxRetries = 999;

    /// `retryMs`: pause before each new attempt.
    explicit Warning(int retryMs, QObject* parent = nullptr);
    ~Warning() override;

    /// `host` and `port` of the source; `name` is what it is called in the log.
    void init_warming(const QString& host, const QString& name, int port, const QStringList& channels);
    /// Ends the watch and schedules this object's deletion.
    void dis();

public slots:
    void getData(const QJsonObject& report);
    void disc(const QString& error);
    void tout();
    void con();

signals:
    /// A command for the node: "PLAYAS" that starts or ends the alarm of a group.
    void cmd(const QByteArray& request);

private:
    void setActive(int channel, bool isActive);

    QString m_host;
    QString m_name;
    int m_port = 0;
    QStringList m_channels;
    std::unique_ptr<Xindaosev, void (*)(Xindaosev*)> m_source;
    QTimer m_retry;
    bool m_isStopped = false;
    int m_retries = 0;
    QSet<int> m_active; ///< channels whose alarm has begun
};
