#include "core/app/run.h"

#include "core/app/adduser.h"
#include "core/app/endsignals.h"
#include "core/app/startup.h"
#include "core/logging.h"
#include "core/loop/eventdispatcher.h"
#include "core/settings.h"

#include <cstdio>
#include <malloc.h>
#include <QCoreApplication>
#include <QDebug>
#include <QHostAddress>
#include <QNetworkInterface>
#include <QTextCodec>
#include <sys/resource.h>

namespace {

constexpr auto Usage =
    "Usage: speakerd [CONFIG]\n"
    "       speakerd --adduser NAME [--admin] [CONFIG]\n"
    "Service for a fleet of networked IP speakers.\n"
    "\n"
    "  CONFIG          INI file; \"config.ini\" in the working directory when not given\n"
    "  --adduser NAME  add an account to the configured database, then end; the service may run. The\n"
    "                  password is a line of standard input; from a terminal, or when the line is empty,\n"
    "                  one is made and told. In the service's working directory when that is SQLite\n"
    "  --admin         the account is an administrator's\n"
    "  --help          this text\n"
    "  --version       the version\n"
    "\n"
    "SIGTERM and SIGINT end it.\n";

// Answers the options that need no service; false when there is none.
bool answersOption(const char* argument) {
    const QByteArray option(argument);
    if (option == "--help")
        std::fputs(Usage, stdout);
    else if (option == "--version")
        std::puts("speakerd " SPEAKERD_VERSION);
    else
        return false;
    return true;
}

// Every speaker, request and stream is a descriptor: take all that the system grants.
void raiseOpenFileLimit() {
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0)
        return;
    limit.rlim_cur = limit.rlim_max;
    if (setrlimit(RLIMIT_NOFILE, &limit) != 0)
        qWarning("open-file limit stays as it is");
}

void logOwnIpv6Addresses() {
    const QList<QHostAddress> addresses = QNetworkInterface::allAddresses();
    for (const QHostAddress& address : addresses) {
        if (address.protocol() == QAbstractSocket::IPv6Protocol)
            qDebug().noquote() << "Local IPv6 Address:" << address.toString();
    }
}

// A hundred workers with a heap each would keep what each of them needed once.
void shareHeaps() {
    constexpr int heaps = 4;
    mallopt(M_ARENA_MAX, heaps);
}

} // namespace

int runService(int argc, char** argv) {
    if (argc > 1 && answersOption(argv[1]))
        return 0;
    installLogging();
    QTextCodec::setCodecForLocale(QTextCodec::codecForName("UTF-8"));
    if (argc > 1 && qstrcmp(argv[1], "--adduser") == 0) {
        const QCoreApplication application(argc, argv);
        return addUser(argc, argv);
    }
    shareHeaps();
    raiseOpenFileLimit();
    QCoreApplication::setEventDispatcher(new EpollEventDispatcher); // the application owns it
    QCoreApplication application(argc, argv);
    const EndSignals endSignals;

    qDebug() << "argv:" << QCoreApplication::arguments();
    logOwnIpv6Addresses();
    const QString path = argc > 1 ? QString::fromLocal8Bit(argv[1]) : QStringLiteral("config.ini");
    qDebug().noquote() << "Use config:" << path;
    Startup service(&application, Settings::load(path, detectLanAddress()));
    service.run();
    const int status = QCoreApplication::exec();
    service.end();
    return status;
}
