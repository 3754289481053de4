#pragma once

#include <sys/types.h>

/// What a server's process uses, read from outside.

/// CPU time of all its threads, ended ones too, from the scheduler's own account: exact to the nanosecond,
/// where /proc/PID/stat counts ticks of 10 ms. 0 when there is no such process.
double cpuMilliseconds(pid_t process);
/// Resident memory.
long residentKilobytes(pid_t process);
