#pragma once

#include <chrono>
#include <QByteArray>
#include <QProcessEnvironment>
#include <QString>
#include <QStringList>

/// One run of an outside program.
struct ProgramRun {
    QString program;
    QStringList arguments; ///< handed over as they are; no shell is involved
    QString directory;     ///< working directory
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    QByteArray input = {}; ///< written to standard input, which is then closed
    std::chrono::milliseconds limit{120000};
    qint64 largestFile = 0; ///< bytes that it may write into one file; 0: as many as the service itself
};

struct ProgramResult {
    enum class End {
        Done,   ///< ended by itself, exit status 0
        Failed, ///< ended by itself with another status, or crashed
        Stopped ///< could not be started, or was killed because it exceeded a limit
    };
    End end = End::Stopped;
    QByteArray output; ///< standard output, at most 16 MiB
    bool ok() const { return end == End::Done; }
};

/// Runs the program at a low priority, so that it never takes the processor from the service, and
/// blocks the calling thread until it ends; one that exceeds the limit is killed. Failures are
/// logged with the end of the error text. For HTTP workers, not for the main loop.
ProgramResult runProgram(const ProgramRun& run);

/// Runs two programs, the second reading what the first puts out. The first one's result, unless that is
/// Done; then the second one's. Both end within the second one's limit.
ProgramResult runPiped(const ProgramRun& source, const ProgramRun& sink);
