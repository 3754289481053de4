// speaker-sim: one or many speakers in one process, for trying the service out and for load.
#include "core/loop/eventdispatcher.h"
#include "tools/simfleet.h"

#include <array>
#include <csignal>
#include <cstdio>
#include <QCommandLineParser>
#include <QCoreApplication>
#include <QSocketNotifier>
#include <sys/resource.h>
#include <sys/signalfd.h>
#include <unistd.h>

namespace {

/// Lets a fleet have as many connections as the system allows.
void raiseFileLimit() {
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) == 0) {
        limit.rlim_cur = limit.rlim_max;
        setrlimit(RLIMIT_NOFILE, &limit);
    }
}

void say(const QString& line) {
    std::fputs(qPrintable(line + QLatin1Char('\n')), stdout);
    std::fflush(stdout);
}

QString printable(const QByteArray& bytes) {
    QString text;
    for (const char c : bytes)
        text += c >= 0x20 && c < 0x7f
                    ? QString(QLatin1Char(c))
                    : QStringLiteral("\\x%1").arg(static_cast<quint8>(c), 2, 16, QLatin1Char('0'));
    return text;
}

void narrate(sim::Speaker& speaker, bool commands) {
    const QString sn = speaker.sn();
    QObject::connect(&speaker, &sim::Speaker::online, [sn] { say(sn + QStringLiteral(" online")); });
    QObject::connect(&speaker, &sim::Speaker::disconnected, [sn](bool wasOnline) {
        if (wasOnline)
            say(sn + QStringLiteral(" offline"));
    });
    if (commands)
        QObject::connect(&speaker, &sim::Speaker::commandReceived, [sn](const sim::Command& command) {
            say(sn + QStringLiteral(" command ") + printable(command.bytes));
        });
    QObject::connect(&speaker, &sim::Speaker::fetched, [sn](const sim::Fetch& fetch) {
        const QString what =
            fetch.ok()
                ? QStringLiteral("%1 bytes, %2")
                      .arg(fetch.size)
                      .arg(fetch.mp3.isMp3
                               ? QStringLiteral("MP3 of %1 s")
                                     .arg(static_cast<double>(fetch.mp3.length.count()) / 1000, 0, 'f', 1)
                               : QStringLiteral("not an MP3"))
                : QStringLiteral("failed: ") + fetch.error;
        say(sn + QStringLiteral(" fetched ") + fetch.address + QStringLiteral(" (") + what +
            QLatin1Char(')'));
    });
    QObject::connect(&speaker, &sim::Speaker::playing, [sn](const sim::Fetch& fetch) {
        say(sn + QStringLiteral(" playing ") + fetch.address);
    });
    QObject::connect(&speaker, &sim::Speaker::played,
                     [sn](const sim::Fetch& fetch) { say(sn + QStringLiteral(" played ") + fetch.address); });
    QObject::connect(&speaker, &sim::Speaker::fired, [sn](const QString& line, const sim::Fetch& fetch) {
        say(sn + QStringLiteral(" line ") + line + QStringLiteral(" fired: ") + fetch.address);
    });
}

/// "fire LINE [SN]": the alarm input of one speaker, or of all that have it bound.
void fire(sim::Fleet& fleet, const QString& line, const QString& sn = {}) {
    int bound = 0;
    for (int i = 0; i < fleet.size(); ++i)
        if (sn.isEmpty() || fleet.at(i).sn() == sn)
            bound += fleet.at(i).fire(line) ? 1 : 0;
    if (bound == 0)
        say(QStringLiteral("line ") + line + QStringLiteral(" is not bound"));
}

void readCommandLine(sim::Fleet& fleet, const QString& text) {
    const QStringList words = text.simplified().split(QLatin1Char(' '));
    if (words.first() == QStringLiteral("fire") && words.size() >= 2)
        fire(fleet, words.at(1), words.value(2));
    else if (words.first() == QStringLiteral("quit"))
        QCoreApplication::quit();
    else if (!text.trimmed().isEmpty())
        say(QStringLiteral("commands: fire LINE [SERIAL], quit"));
}

void watchStandardInput(sim::Fleet& fleet) {
    auto* notifier = new QSocketNotifier(STDIN_FILENO, QSocketNotifier::Read, &fleet);
    QObject::connect(notifier, &QSocketNotifier::activated, &fleet,
                     [&fleet, notifier, pending = QByteArray()]() mutable {
                         std::array<char, 4096> buffer{};
                         const ssize_t n = read(STDIN_FILENO, buffer.data(), buffer.size());
                         if (n <= 0) {
                             notifier->setEnabled(false); // the speakers stay when the input ends
                             return;
                         }
                         pending.append(buffer.data(), static_cast<int>(n));
                         for (auto end = pending.indexOf('\n'); end >= 0; end = pending.indexOf('\n')) {
                             const QString line = QString::fromUtf8(pending.left(end));
                             pending.remove(0, end + 1);
                             readCommandLine(fleet, line);
                         }
                     });
}

/// Blocks the signals that the program takes from a descriptor, which it returns. Called before
/// anything starts a thread: threads inherit the mask, and one without it would be killed.
int openSignals() {
    sigset_t set;
    sigemptyset(&set);
    for (const int number : {SIGUSR1, SIGUSR2, SIGINT, SIGTERM})
        sigaddset(&set, number);
    sigprocmask(SIG_BLOCK, &set, nullptr);
    return signalfd(-1, &set, SFD_NONBLOCK | SFD_CLOEXEC);
}

/// SIGUSR1 fires line B, SIGUSR2 line F; SIGINT and SIGTERM end the program.
void watchSignals(sim::Fleet& fleet, int fd) {
    auto* notifier = new QSocketNotifier(fd, QSocketNotifier::Read, &fleet);
    QObject::connect(notifier, &QSocketNotifier::activated, &fleet, [&fleet, fd] {
        signalfd_siginfo info{};
        while (read(fd, &info, sizeof info) == ssize_t(sizeof info)) {
            if (info.ssi_signo == SIGUSR1)
                fire(fleet, QStringLiteral("B"));
            else if (info.ssi_signo == SIGUSR2)
                fire(fleet, QStringLiteral("F"));
            else
                QCoreApplication::quit();
        }
    });
}

struct Arguments {
    sim::SpeakerOptions first;
    int count = 1;
    sim::Misfits misfits;
    bool quiet = false;
    bool commands = false;
    QString error;
};

Arguments parse(const QCoreApplication& app) {
    QCommandLineParser parser;
    parser.setApplicationDescription(
        QStringLiteral("Simulated speakers. Standard input takes \"fire LINE [SERIAL]\" and \"quit\";\n"
                       "SIGUSR1 fires line B of every speaker, SIGUSR2 line F."));
    parser.addHelpOption();
    parser.addVersionOption();
    const auto option = [&parser](const char* name, const char* doc, const char* value, const char* def) {
        parser.addOption({QString::fromLatin1(name), QString::fromLatin1(doc), QString::fromLatin1(value),
                          QString::fromLatin1(def)});
    };
    option("count", "How many speakers.", "N", "1");
    option("first-sn", "Serial of the first, 32 hexadecimal digits.", "HEX",
           "5eed0000000000000000000000000001");
    option("server", "Address of the service's device port.", "HOST:PORT", "127.0.0.1:3333");
    option("save", "Directory that fetched files are stored in, one folder a serial.", "DIR", "");
    option("vol", "Volume at registration.", "LEVEL", "20");
    option("beat", "Seconds between two status beats.", "SECONDS", "5");
    option("reconnect", "Seconds to wait after a lost connection, 0: don't come back.", "SECONDS", "2");
    option("play-for", "Plays every address so long without fetching it, 0: fetches.", "SECONDS", "0");
    option("silent", "So many, the first, never report what they play.", "N", "0");
    option("drop", "So many of the others lose their connection while they play.", "N", "0");
    option("drop-after", "How long into a play.", "SECONDS", "1");
    option("play-fast", "Plays so many times faster than the file's length.", "FACTOR", "1");
    parser.addOption({QStringLiteral("commands"), QStringLiteral("Print every command received.")});
    parser.addOption({QStringLiteral("quiet"), QStringLiteral("Print nothing but the summary at the end.")});
    parser.process(app);

    Arguments result;
    result.count = parser.value(QStringLiteral("count")).toInt();
    result.quiet = parser.isSet(QStringLiteral("quiet"));
    result.commands = parser.isSet(QStringLiteral("commands"));
    sim::SpeakerOptions& first = result.first;
    first.serial = QByteArray::fromHex(parser.value(QStringLiteral("first-sn")).toLatin1());
    const QString server = parser.value(QStringLiteral("server"));
    first.host = server.section(QLatin1Char(':'), 0, -2);
    first.port = server.section(QLatin1Char(':'), -1).toUShort();
    first.volume = parser.value(QStringLiteral("vol")).toInt();
    first.beatInterval = std::chrono::seconds(parser.value(QStringLiteral("beat")).toInt());
    first.reconnectPause = std::chrono::seconds(parser.value(QStringLiteral("reconnect")).toInt());
    first.player.saveDir = parser.value(QStringLiteral("save"));
    first.player.speed = parser.value(QStringLiteral("play-fast")).toDouble();
    first.data.keepBytes = false;
    const auto span = [&parser](const char* name) {
        const double seconds = parser.value(QString::fromLatin1(name)).toDouble();
        return std::chrono::milliseconds(static_cast<qint64>(seconds * 1000));
    };
    first.player.pretended = span("play-for");
    result.misfits = {parser.value(QStringLiteral("silent")).toInt(),
                      parser.value(QStringLiteral("drop")).toInt(), span("drop-after")};
    if (first.serial.size() != 16)
        result.error = QStringLiteral("--first-sn needs 32 hexadecimal digits");
    else if (first.host.isEmpty() || first.port == 0)
        result.error = QStringLiteral("--server needs HOST:PORT");
    else if (result.count < 1 || first.player.speed <= 0 || first.beatInterval.count() < 1 ||
             first.volume < 0 || first.volume > 255)
        result.error = QStringLiteral("--count, --beat and --play-fast must be positive, --vol 0 to 255");
    return result;
}

} // namespace

int main(int argc, char** argv) {
    raiseFileLimit();
    const int signalDescriptor = openSignals();
    QCoreApplication::setEventDispatcher(new EpollEventDispatcher); // the default one scans every connection
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("speaker-sim"));
    QCoreApplication::setApplicationVersion(QStringLiteral(SPEAKERD_VERSION));
    const Arguments arguments = parse(app);
    if (!arguments.error.isEmpty()) {
        std::fprintf(stderr, "speaker-sim: %s\n", qPrintable(arguments.error));
        return 2;
    }
    sim::Fleet fleet(arguments.first, arguments.count, arguments.misfits);
    qint64 fetches = 0;
    qint64 failures = 0;
    for (int i = 0; i < fleet.size(); ++i) {
        if (!arguments.quiet)
            narrate(fleet.at(i), arguments.commands);
        QObject::connect(&fleet.at(i), &sim::Speaker::fetched, [&](const sim::Fetch& fetch) {
            ++fetches;
            failures += fetch.ok() ? 0 : 1;
        });
    }
    QObject::connect(&fleet, &sim::Fleet::allOnline,
                     [&] { say(QStringLiteral("all %1 speakers online").arg(fleet.size())); });
    watchSignals(fleet, signalDescriptor);
    watchStandardInput(fleet);
    fleet.start();
    const int status = QCoreApplication::exec();
    say(QStringLiteral("%1 speakers online at the end, %2 fetches, %3 failed")
            .arg(fleet.online())
            .arg(fetches)
            .arg(failures));
    return status;
}
