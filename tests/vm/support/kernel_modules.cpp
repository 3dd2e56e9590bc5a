#include "support/kernel_modules.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <sstream>
#include <thread>

#include <marlo/base/unique_fd.h>

namespace marlo_vm {

namespace {

constexpr char kModuleDir[] = "/lib/modules/";

}  // namespace

std::string BootOptions(const std::string& module) {
    std::ifstream order(std::string(kModuleDir) + "modules.order");
    for (std::string line; std::getline(order, line);) {
        std::istringstream words(line);
        std::string file;
        words >> file;
        if (file != module + ".ko")
            continue;
        std::string options;
        std::getline(words >> std::ws, options);
        return options;
    }
    return "";
}

bool LoadModule(const std::string& module, const std::string& options) {
    std::string path = kModuleDir + module + ".ko";
    tessaro::marlo::UniqueFd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!fd.isValid())
        return false;
    return syscall(SYS_finit_module, fd.get(), options.c_str(), 0) == 0;
}

bool UnloadModule(const std::string& module) {
    return syscall(SYS_delete_module, module.c_str(), O_NONBLOCK) == 0;
}

bool ReloadModule(const std::string& module) {
    return UnloadModule(module) && LoadModule(module, BootOptions(module));
}

bool WriteSysfs(const std::string& path, const std::string& value) {
    tessaro::marlo::UniqueFd fd(open(path.c_str(), O_WRONLY | O_CLOEXEC));
    if (!fd.isValid())
        return false;
    return write(fd.get(), value.data(), value.size()) == static_cast<ssize_t>(value.size());
}

bool WaitForPath(const std::string& path, int timeoutMs) {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    while (access(path.c_str(), F_OK) != 0) {
        if (std::chrono::steady_clock::now() > deadline)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return true;
}

}  // namespace marlo_vm
