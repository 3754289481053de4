#pragma once

#include "device/commandrow.h"
#include "device/commandrun.h"
#include "device/severinit.h"

#include <deque>
#include <QThreadPool>
#include <QTimer>

/// Runs requests against the registry; main loop only. A command to many speakers goes on over turns of
/// the loop, so that nothing else waits for it. Such commands run one after the other; what comes
/// meanwhile for a few speakers does not wait, but each of these is first served by the commands under
/// way that it still stands in: the commands for one speaker keep their order.
class Dispatcher {
public:
    using Reply = std::function<void(QByteArray)>;
    /// A request larger than this is read on another thread: here it would take more than a few
    /// milliseconds. What names 20,000 speakers is smaller.
    static constexpr int ReadHereBytes = 1024 * 1024;
    /// Of the requests of commands under way: no further large one is read beyond it.
    static constexpr qint64 MaxBytesUnderWay = 32 * 1024 * 1024;
    /// Most values, and most lists and objects, in a large request: what they cost in memory, and what a
    /// whole fleet needs many times over.
    static constexpr int MaxValues = 1'000'000;
    static constexpr int MaxContainers = 1000;

    explicit Dispatcher(Severinit& devices);
    ~Dispatcher();
    Q_DISABLE_COPY(Dispatcher)

    void add(const QString& word, const Severinit::Command& command) { m_added.insert(word, command); }
    /// To its end at once, whatever its size. May wait in a nested loop for a group.
    QByteArray run(const QByteArray& request);
    /// In as many turns of the loop as it takes; `reply` is called once, at once or later.
    void run(const QByteArray& request, const Reply& reply, const QString& peer = {});

    // --- for commands that answer by themselves ---
    Severinit& devices() { return m_devices; }
    /// Serials of the group; empty when there is none or nobody to ask. Waits in a nested loop.
    QStringList expandGroup(const QJsonObject& request) const;
    /// Does it to every session, as a command whose reply nobody needs.
    void callEach(const CommandRow& row, SessionCall call);
    static QByteArray reply(const char* word, const QString& info);

private:
    struct Request {
        QJsonObject json;
        QByteArray refusal; ///< the reply, when there is no object
        TargetList listed;  ///< "snlist"
        QString peer;       ///< who sent it
    };
    /// What a request has come to: its reply, targets to serve, or one piece of work.
    struct Command {
        QByteArray reply;
        std::unique_ptr<CommandRun> run;
        std::function<QByteArray()> work;
        TargetList workTargets;
    };
    struct UnderWay {
        std::shared_ptr<Command> command;
        Reply reply;
        qint64 bytes;
    };
    struct Unread {
        QByteArray request;
        Reply reply;
        QString peer;
    };

    static Request read(const QByteArray& bytes);
    static bool isTooMuch(const QByteArray& bytes);
    Command commandOf(const Request& request);
    Command rowCommand(const CommandRow& row, const Request& request);
    void watch(CommandRun& run, const CommandRow& row, const Request& request) const;
    Command addedCommand(const QString& word, const Request& request);
    TargetList resolve(Targets targets, const QString& word, const Request& request) const;
    TargetList each(const QString& word, const Request& request) const;

    void begin(const Request& request, qint64 bytes, const Reply& reply);
    bool mayGoFirst(const Command& command) const;
    void serveEarly(const Command& command);
    static bool proceed(Command& command, const QDeadlineTimer& until);
    void enqueue(UnderWay underWay);
    void proceedUntil(const QDeadlineTimer& until);
    void takeTurn();
    void readNext();
    void letGo(std::shared_ptr<void> large);

    Severinit& m_devices;
    QHash<QString, Severinit::Command> m_added;
    std::deque<UnderWay> m_underWay; ///< the first one is being served
    qint64 m_bytesUnderWay = 0;
    std::deque<Unread> m_unread;
    bool m_reading = false;
    QTimer m_turn;
    QThreadPool m_reader; ///< one thread: large requests keep their order
};
