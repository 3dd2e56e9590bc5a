/* On the board every fixed path is used as it stands. */
#include <marlo_platform/system_path.h>

namespace tessaro::marlo::platform {

std::string SystemPath(const std::string& path) {
    return path;
}

}  // namespace tessaro::marlo::platform
