#pragma once

#include "tools/simdatapath.h"
#include "tools/simplayer.h"
#include "tools/speakerprotocol.h"

#include <chrono>
#include <memory>
#include <QDateTime>
#include <QMap>
#include <QObject>
#include <QQueue>
#include <QTcpSocket>
#include <QTimer>

namespace sim {

struct SpeakerOptions {
    QByteArray serial; ///< 16 raw bytes
    QString host = QStringLiteral("127.0.0.1");
    quint16 port = 3333;
    QHostAddress localAddress; ///< address to connect from; null: the system's choice
    int volume = 20;
    std::chrono::milliseconds beatInterval{5000}; ///< of the 4-byte beats
    /// Reports have no framing and the server takes each read for one, so the speaker leaves this
    /// pause between two of its own writes.
    std::chrono::milliseconds reportGap{100};
    std::chrono::milliseconds reconnectPause{0}; ///< after a lost connection; 0: stays away
    bool isSilent = false;                       ///< obeys, and never reports what it plays
    /// So long after a play begins the connection is reset; 0: it is not.
    std::chrono::milliseconds dropAfter{0};
    bool clockSet = true; ///< false: its date says 1970 until it is told the time
    Player::Options player;
    DataPath::Options data;
    QNetworkAccessManager* network = nullptr; ///< shared between speakers; null: one of its own
};

/// One speaker in code. Registers, beats, answers and obeys as a real one would, and keeps a record
/// of everything it was told. Lives on the thread that made it and needs its event loop.
class Speaker : public QObject {
    Q_OBJECT
public:
    explicit Speaker(SpeakerOptions options, QObject* parent = nullptr);
    ~Speaker() override;

    void start();
    /// Closes the connections in an orderly way; the speaker does not come back by itself.
    void stop();
    /// Drops the connection (reset, not FIN) as a power cut would; the record is kept.
    void drop();

    QString sn() const { return QString::fromLatin1(m_options.serial.toHex()); }
    bool isConnected() const { return m_socket.state() == QAbstractSocket::ConnectedState; }
    /// The server has asked for the device information on this connection: it knows the speaker.
    bool isOnline() const { return m_online; }

    /// Every command so far, keep-alives left out.
    const std::vector<Command>& commands() const { return m_commands; }
    /// How many of them are of this kind.
    int count(Op op) const;
    /// The newest of this kind; null when there is none.
    const Command* last(Op op) const;
    int keepAlives() const { return m_keepAlives; }
    void forget(); ///< empties the record of commands and fetches

    const std::vector<Fetch>& fetches() const { return m_fetches; }
    Player& player() { return *m_player; }
    DataPath& data() { return *m_data; }
    QJsonObject deviceInfo() const;
    int volume() const { return m_volume; }
    QMap<QString, QString> alarmLines() const { return m_lines; } ///< line to bound address
    QStringList storedTasks() const { return m_tasks; }           ///< records of "AT"

    /// The alarm input `line` closes: fetches the bound address, and plays it when it is an MP3.
    /// False when the line is not bound.
    bool fire(const QString& line);
    /// Writes bytes of the caller's choice on the control connection, in turn with the reports.
    void report(const QByteArray& bytes);

signals:
    void connected();
    void online();                     ///< the server knows the speaker
    void disconnected(bool wasOnline); ///< also after a connection that was refused
    void commandReceived(const sim::Command& command);
    void fired(const QString& line, const sim::Fetch& fetch);
    void fetched(const sim::Fetch& fetch);
    void playing(const sim::Fetch& fetch);
    void played(const sim::Fetch& fetch);

private:
    void connectToServer();
    void onConnected();
    void onDisconnected();
    void readCommands();
    void obey(const Command& command);
    void obeyPlay(const Command& command);
    void obeyStream(const Command& command);
    void obeyTask(const Command& command);
    void reportPlay(const QByteArray& report);
    bool bind(const QByteArray& entry);
    void writeNext();

    SpeakerOptions m_options;
    std::unique_ptr<QNetworkAccessManager> m_ownNetwork;
    QTcpSocket m_socket;
    QTimer m_beat;
    QTimer m_gap;
    QTimer m_reconnect;
    QTimer m_drop;
    QQueue<QByteArray> m_reports;
    Player* m_player = nullptr;
    DataPath* m_data = nullptr;
    std::vector<Command> m_commands;
    std::vector<Fetch> m_fetches;
    int m_keepAlives = 0;
    bool m_online = false;
    bool m_stopped = true;
    int m_volume;
    int m_micE = 0;
    int m_micD = 0;
    int m_debug = 0;
    int m_gpio = 0;
    qint64 m_clockOffset = 0; ///< seconds between the speaker's clock and this machine's
    QMap<QString, QString> m_lines;
    QStringList m_tasks;
};

} // namespace sim

Q_DECLARE_METATYPE(sim::Command)
