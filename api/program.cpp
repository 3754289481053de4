#include "api/program.h"

#include <QDebug>
#include <QElapsedTimer>
#include <QProcess>
#include <sys/resource.h>

namespace {

constexpr qint64 MaxOutput = 16 * 1024 * 1024; // a runaway program must not fill the service's memory
constexpr int LowPriority = 10;
constexpr int PollStep = 200;  // ms; how soon too much output is noticed
constexpr int ErrorTail = 400; // characters of the error text worth a log line

class NiceProcess : public QProcess {
protected:
    void setupChildProcess() override { setpriority(PRIO_PROCESS, 0, LowPriority); }
};

QString errorText(QProcess& process) {
    return QString::fromLocal8Bit(process.readAllStandardError()).right(ErrorTail).trimmed();
}

/// Collects the output until the program ends; false when it exceeded a limit.
bool collect(QProcess& process, std::chrono::milliseconds limit, QByteArray& output) {
    QElapsedTimer clock;
    clock.start();
    while (!process.waitForFinished(PollStep)) {
        output += process.readAllStandardOutput();
        if (process.state() == QProcess::NotRunning)
            break;
        if (clock.elapsed() > limit.count() || output.size() > MaxOutput)
            return false;
    }
    output += process.readAllStandardOutput();
    return output.size() <= MaxOutput;
}

} // namespace

ProgramResult runProgram(const ProgramRun& run) {
    NiceProcess process;
    process.setProgram(run.program);
    process.setArguments(run.arguments);
    process.setWorkingDirectory(run.directory);
    process.setProcessEnvironment(run.environment);
    process.start();
    ProgramResult result;
    if (!process.waitForStarted()) {
        qWarning().noquote() << "program not started:" << run.program << process.errorString();
        return result;
    }
    process.write(run.input);
    process.closeWriteChannel();
    if (!collect(process, run.limit, result.output)) {
        process.kill();
        process.waitForFinished();
        qWarning().noquote() << "program stopped, over its limit:" << run.program << run.limit.count() << "ms"
                             << errorText(process);
        return result;
    }
    const bool fine = process.exitStatus() == QProcess::NormalExit && process.exitCode() == 0;
    result.end = fine ? ProgramResult::End::Done : ProgramResult::End::Failed;
    if (!fine)
        qWarning().noquote() << "program failed:" << run.program << "status" << process.exitCode()
                             << errorText(process);
    return result;
}
