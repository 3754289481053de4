#include "service/program.h"

#include <QDeadlineTimer>
#include <QDebug>
#include <QProcess>
#include <sys/resource.h>

namespace {

constexpr qint64 MaxOutput = 16 * 1024 * 1024; // a runaway program must not fill the service's memory
constexpr int LowPriority = 10;
constexpr int PollStep = 200;  // ms; how soon too much output is noticed
constexpr int ErrorTail = 400; // bytes of the error text worth a log line

/// A started program. What it says of its troubles is read on the way and all but its end dropped.
class Program : public QProcess {
public:
    explicit Program(const ProgramRun& run)
        : m_largestFile(run.largestFile) {
        setProgram(run.program);
        setArguments(run.arguments);
        setWorkingDirectory(run.directory);
        setProcessEnvironment(run.environment);
    }

    bool isStarted() {
        start();
        const bool started = waitForStarted();
        if (!started)
            qWarning().noquote() << "program not started:" << program() << errorString();
        return started;
    }

    /// Whether it has ended within the time.
    bool ends(int ms) {
        const bool ended = waitForFinished(ms) || state() == NotRunning;
        m_error = (m_error + readAllStandardError()).right(ErrorTail);
        return ended;
    }

    void stop(std::chrono::milliseconds limit) {
        kill();
        waitForFinished();
        qWarning().noquote() << "program stopped, over its limit:" << program() << limit.count() << "ms"
                             << errorText();
    }

    ProgramResult::End result() {
        if (exitStatus() == NormalExit && exitCode() == 0)
            return ProgramResult::End::Done;
        qWarning().noquote() << "program failed:" << program() << "status" << exitCode() << errorText();
        return ProgramResult::End::Failed;
    }

protected:
    void setupChildProcess() override {
        setpriority(PRIO_PROCESS, 0, LowPriority);
        const auto bytes = static_cast<rlim_t>(m_largestFile);
        const rlimit limit{bytes, bytes};
        if (m_largestFile > 0)
            setrlimit(RLIMIT_FSIZE, &limit);
    }

private:
    QString errorText() const { return QString::fromLocal8Bit(m_error).trimmed(); }
    qint64 m_largestFile;
    QByteArray m_error;
};

/// Collects the output until the program ends; false when it exceeded a limit. What `beside` says at the
/// same time is read too, so that it never has to wait for that.
bool collect(Program& process, const QDeadlineTimer& end, QByteArray& output, Program* beside = nullptr) {
    while (!process.ends(PollStep)) {
        if (beside)
            beside->ends(0);
        output += process.readAllStandardOutput();
        if (end.hasExpired() || output.size() > MaxOutput)
            return false;
    }
    output += process.readAllStandardOutput();
    return output.size() <= MaxOutput;
}

} // namespace

ProgramResult runProgram(const ProgramRun& run) {
    Program process(run);
    ProgramResult result;
    if (!process.isStarted())
        return result;
    process.write(run.input);
    process.closeWriteChannel();
    if (collect(process, QDeadlineTimer(run.limit), result.output))
        result.end = process.result();
    else
        process.stop(run.limit);
    return result;
}

ProgramResult runPiped(const ProgramRun& source, const ProgramRun& sink) {
    Program first(source);
    Program second(sink);
    first.setStandardOutputProcess(&second);
    ProgramResult result;
    if (!first.isStarted() || !second.isStarted()) {
        first.kill();
        first.waitForFinished();
        return result;
    }
    first.closeWriteChannel();
    const QDeadlineTimer end(sink.limit);
    if (!collect(first, end, result.output, &second) || !collect(second, end, result.output)) {
        first.stop(sink.limit);
        second.stop(sink.limit);
        return result;
    }
    result.end = first.result();
    if (result.ok())
        result.end = second.result();
    return result;
}
