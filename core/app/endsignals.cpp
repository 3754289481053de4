#include "core/app/endsignals.h"

#include <csignal>
#include <cstdint>
#include <QCoreApplication>
#include <QDebug>
#include <QSocketNotifier>
#include <sys/eventfd.h>
#include <unistd.h>

namespace {

// What the handler may touch. A blocked signal mask would be inherited by every program that the
// service starts; a handler is not.
volatile std::sig_atomic_t EventFd = -1;

void noteSignal(int /*signal*/) {
    const std::uint64_t one = 1;
    [[maybe_unused]] const ssize_t written = write(EventFd, &one, sizeof one);
}

void setHandler(int signal, void (*handler)(int)) {
    struct sigaction action {};
    action.sa_handler = handler;
    action.sa_flags = SA_RESTART;
    sigaction(signal, &action, nullptr);
}

} // namespace

EndSignals::EndSignals(QObject* parent)
    : QObject(parent)
    , m_event(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    EventFd = m_event;
    auto* notifier = new QSocketNotifier(m_event, QSocketNotifier::Read, this);
    connect(notifier, &QSocketNotifier::activated, this, [notifier] {
        notifier->setEnabled(false);
        qInfo() << "end asked for by a signal";
        QCoreApplication::quit();
    });
    setHandler(SIGTERM, noteSignal);
    setHandler(SIGINT, noteSignal);
    setHandler(SIGPIPE, SIG_IGN);
    setHandler(SIGXFSZ, SIG_IGN); // a file at its limit is a failed write, not the end of every speaker
}

EndSignals::~EndSignals() {
    setHandler(SIGTERM, SIG_DFL);
    setHandler(SIGINT, SIG_DFL);
    EventFd = -1;
    close(m_event);
}
