/* Fixed paths on a development machine: relocated under MARLO_SYSROOT. */
#include <marlo_platform/system_path.h>

#include <stdlib.h>

namespace tessaro::marlo::platform {

std::string SystemPath(const std::string& path) {
    if (path.empty() || path[0] != '/' || path.rfind("/dev/", 0) == 0)
        return path;
    const char* sysroot = getenv("MARLO_SYSROOT");
    if (sysroot == nullptr || *sysroot == '\0')
        return path;
    std::string root(sysroot);
    while (!root.empty() && root.back() == '/')
        root.pop_back();
    return root + path;
}

}  // namespace tessaro::marlo::platform
