#include <dirent.h>
#include <stdlib.h>
#include <sys/types.h>
#include <time.h>

#include <fstream>
#include <string>

#include "support/process_stats.h"

namespace marlo_test {

namespace {

double Milliseconds(const timespec& time) {
    return static_cast<double>(time.tv_sec) * 1e3 + static_cast<double>(time.tv_nsec) / 1e6;
}

}  // namespace

double ThreadCpuMs(const std::string& name) {
    double total = 0;
    DIR* dir = opendir("/proc/self/task");
    if (!dir)
        return total;
    while (dirent* entry = readdir(dir)) {
        if (entry->d_name[0] == '.')
            continue;
        std::ifstream comm(std::string("/proc/self/task/") + entry->d_name + "/comm");
        std::string thread;
        std::getline(comm, thread);
        if (thread != name)
            continue;
        /* The kernel's per-thread CPU clock, as pthread_getcpuclockid builds it. */
        const pid_t tid = static_cast<pid_t>(atoi(entry->d_name));
        const clockid_t clock = static_cast<clockid_t>((~static_cast<unsigned>(tid) << 3) | 6);
        timespec used = {};
        if (clock_gettime(clock, &used) == 0)
            total += Milliseconds(used);
    }
    closedir(dir);
    return total;
}

double ProcessCpuMs() {
    timespec now = {};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
    return Milliseconds(now);
}

size_t MappingCount() {
    std::ifstream maps("/proc/self/maps");
    size_t count = 0;
    for (std::string line; std::getline(maps, line);)
        ++count;
    return count;
}

}  // namespace marlo_test

namespace marlo_test {

size_t MappingsOf(const std::string& text) {
    std::ifstream maps("/proc/self/maps");
    size_t count = 0;
    for (std::string line; std::getline(maps, line);)
        count += line.find(text) != std::string::npos;
    return count;
}

}  // namespace marlo_test
