#include "support/drm_cards.h"

#include <fcntl.h>
#include <string.h>

#include <xf86drm.h>

namespace marlo_vm {

using tessaro::marlo::UniqueFd;

std::string DrmCardByDriver(const std::string& driver) {
    for (int index = 0; index < 16; ++index) {
        std::string path = "/dev/dri/card" + std::to_string(index);
        UniqueFd fd(open(path.c_str(), O_RDWR | O_CLOEXEC));
        if (!fd.isValid())
            continue;
        drmVersionPtr version = drmGetVersion(fd.get());
        bool match = version != nullptr && version->name != nullptr && driver == version->name;
        drmFreeVersion(version);
        if (match)
            return path;
    }
    return "";
}

UniqueFd OpenDrmCard(const std::string& driver) {
    std::string path = DrmCardByDriver(driver);
    if (path.empty())
        return UniqueFd();
    return UniqueFd(open(path.c_str(), O_RDWR | O_CLOEXEC));
}

}  // namespace marlo_vm
