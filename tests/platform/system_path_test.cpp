#include <gtest/gtest.h>
#include <marlo_platform/system_path.h>
#include <stdlib.h>

#include <string>

using tessaro::marlo::platform::SystemPath;

namespace {

class ScopedSysroot {
  public:
    explicit ScopedSysroot(const char* root) {
        if (root != nullptr)
            setenv("MARLO_SYSROOT", root, 1);
        else
            unsetenv("MARLO_SYSROOT");
    }
    ~ScopedSysroot() { unsetenv("MARLO_SYSROOT"); }
};

}  // namespace

TEST(SystemPath, WithoutSysrootPathsStayAsTheyAre) {
    ScopedSysroot root(nullptr);
    EXPECT_EQ(SystemPath("/vendor/etc/marlo_config.xml"), "/vendor/etc/marlo_config.xml");
    ScopedSysroot empty("");
    EXPECT_EQ(SystemPath("/proc/device-tree/model"), "/proc/device-tree/model");
}

TEST(SystemPath, FixedFilesMoveUnderTheSysroot) {
    ScopedSysroot root("/tmp/board");
    EXPECT_EQ(SystemPath("/vendor/etc/marlo_config.xml"), "/tmp/board/vendor/etc/marlo_config.xml");
    EXPECT_EQ(SystemPath("/vendor/etc/marlo_config_override.xml"),
              "/tmp/board/vendor/etc/marlo_config_override.xml");
    EXPECT_EQ(SystemPath("/proc/device-tree/model"), "/tmp/board/proc/device-tree/model");
    EXPECT_EQ(SystemPath("/data/vendor/camera/marlo_debug.log"),
              "/tmp/board/data/vendor/camera/marlo_debug.log");
    EXPECT_EQ(SystemPath("/devices/x"), "/tmp/board/devices/x");
}

TEST(SystemPath, TrailingSlashesOfTheSysrootAreDropped) {
    ScopedSysroot root("/tmp/board//");
    EXPECT_EQ(SystemPath("/vendor/etc/marlo_config.xml"), "/tmp/board/vendor/etc/marlo_config.xml");
}

TEST(SystemPath, DeviceNodesAreNeverRelocated) {
    ScopedSysroot root("/tmp/board");
    EXPECT_EQ(SystemPath("/dev/video0"), "/dev/video0");
    EXPECT_EQ(SystemPath("/dev/dri/card0"), "/dev/dri/card0");
    EXPECT_EQ(SystemPath("/dev/media0"), "/dev/media0");
}

TEST(SystemPath, RelativeAndEmptyPathsStay) {
    ScopedSysroot root("/tmp/board");
    EXPECT_EQ(SystemPath("relative/file"), "relative/file");
    EXPECT_EQ(SystemPath(""), "");
}
