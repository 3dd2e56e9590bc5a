#include "support/fd_count.h"

#include <dirent.h>

namespace marlo_test {

size_t OpenFdCount() {
    DIR* dir = opendir("/proc/self/fd");
    if (dir == nullptr)
        return 0;
    size_t count = 0;
    while (struct dirent* entry = readdir(dir))
        if (entry->d_name[0] != '.')
            ++count;
    closedir(dir);
    return count - 1;  // the directory stream's own descriptor
}

FdLeakCheck::FdLeakCheck() : before_(OpenFdCount()) {}

bool FdLeakCheck::unchanged() const {
    return OpenFdCount() == before_;
}

}  // namespace marlo_test
