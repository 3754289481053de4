#pragma once

#include <csignal>
#include <QProcess>
#include <sys/prctl.h>
#include <unistd.h>

/// A program that is killed with the process that started it, however that one ends: a test that crashes
/// leaves no server behind. Start it from the main thread: the kernel watches the thread.
class ChildProcess : public QProcess {
protected:
    void setupChildProcess() override {
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (::getppid() != m_parent) // it has ended already
            ::_exit(1);
    }

private:
    const pid_t m_parent = ::getpid();
};
