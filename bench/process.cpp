#include "process.h"

#include <ctime>
#include <fstream>
#include <string>
#include <unistd.h>

double cpuMilliseconds(pid_t process) {
    clockid_t clock{};
    timespec used{};
    if (clock_getcpuclockid(process, &clock) != 0 || clock_gettime(clock, &used) != 0)
        return 0;
    return static_cast<double>(used.tv_sec) * 1e3 + static_cast<double>(used.tv_nsec) / 1e6;
}

long residentKilobytes(pid_t process) {
    std::ifstream file("/proc/" + std::to_string(process) + "/statm");
    long total = 0;
    long resident = 0;
    file >> total >> resident;
    return resident * (sysconf(_SC_PAGESIZE) / 1024);
}
