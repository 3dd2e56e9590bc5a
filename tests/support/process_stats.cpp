#include <dirent.h>
#include <malloc.h>
#include <stdlib.h>
#include <sys/types.h>
#include <time.h>

#include <fstream>
#include <sstream>
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

size_t MappingsOf(const std::string& text) {
    std::ifstream maps("/proc/self/maps");
    size_t count = 0;
    for (std::string line; std::getline(maps, line);)
        count += line.find(text) != std::string::npos;
    return count;
}

size_t FileMappingCount() {
    std::ifstream maps("/proc/self/maps");
    size_t count = 0;
    for (std::string line; std::getline(maps, line);) {
        /* address perms offset dev inode [path]: the path starts after five fields. */
        std::istringstream fields(line);
        std::string field, path;
        for (int i = 0; i < 5; ++i)
            fields >> field;
        fields >> path;
        count += !path.empty() && path[0] != '[';
    }
    return count;
}

size_t ResidentKiB() {
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);)
        if (line.compare(0, 6, "VmRSS:") == 0)
            return static_cast<size_t>(strtoull(line.c_str() + 6, nullptr, 10));
    return 0;
}

size_t HeapInUseBytes() {
#ifdef __BIONIC__
    /* Bionic's mallinfo has size_t fields already. */
    struct mallinfo info = mallinfo();
#else
    struct mallinfo2 info = mallinfo2();
#endif
    return info.uordblks + info.hblkhd;
}

void TrimHeap() {
#ifdef __BIONIC__
    mallopt(M_PURGE, 0);
#else
    malloc_trim(0);
#endif
}

void UseOneHeap() {
#ifdef M_ARENA_MAX
    mallopt(M_ARENA_MAX, 1);
#endif
}

}  // namespace marlo_test
