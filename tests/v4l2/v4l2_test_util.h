/*
 * Log lines of the V4L2 device classes as the device suites check them: all
 * go out under one tag, and the request wrapper names the failing request
 * and the driver's error in a line of its own.
 */
#pragma once

#include <string.h>

#include <string>

namespace v4l2_test {

constexpr char kTag[] = "marlo_v4l2";

/* "<path>: ioctl request <name> failed <error>", the request wrapper's error line. */
inline std::string WrapperLine(const std::string& path, const std::string& name, int err) {
    return path + ": ioctl request " + name + " failed " + strerror(err) + "\n";
}

}  // namespace v4l2_test
