#include <marlo/base/version.h>

#include <android/log.h>
#include <cutils/properties.h>
#include <gtest/gtest.h>
#include <marlo_host/hooks.h>

#include <string>

#include "support/log_capture.h"
#include "support/scoped_property.h"

using namespace tessaro::marlo;
using marlo_test::LogCapture;

namespace {

constexpr char kCount[] = "vendor.tessaro.marlo.start.count";

std::string Property(const char* key) {
    char value[PROPERTY_VALUE_MAX];
    property_get(key, value, "<unset>");
    return value;
}

// Every test starts as right after boot: no property set.
class VersionInfo : public ::testing::Test {
  protected:
    void SetUp() override { marlo_host_properties_reset(); }
    void TearDown() override { marlo_host_properties_reset(); }
};

}  // namespace

TEST_F(VersionInfo, TheFirstCallAfterBootCountsOne) {
    LogCapture capture;
    initVersionInfo();
    EXPECT_EQ(Property(kCount), "1");
    EXPECT_EQ(Property("vendor.tessaro.marlo.version"), "2147480003");
    EXPECT_EQ(Property("vendor.tessaro.marlo.build_id"), "eng.qorin.20240709.195241");
    EXPECT_TRUE(capture.contains(
        ANDROID_LOG_INFO, "marlo_base",
        "******** STARTING MARLO VERSION: 2147480003-eng.qorin.20240709.195241 COUNT 1 ********"))
        << capture.dump();
}

TEST_F(VersionInfo, TheThirdCallCountsThree) {
    LogCapture capture;
    initVersionInfo();
    initVersionInfo();
    initVersionInfo();
    EXPECT_EQ(Property(kCount), "3");
    EXPECT_TRUE(capture.contains(
        ANDROID_LOG_INFO, "marlo_base",
        "******** STARTING MARLO VERSION: 2147480003-eng.qorin.20240709.195241 COUNT 3 ********"));
}

TEST_F(VersionInfo, CountingGoesOnFromAnEarlierStart) {
    property_set(kCount, "41");
    initVersionInfo();
    EXPECT_EQ(Property(kCount), "42");
}

TEST_F(VersionInfo, AnUnreadableCountStartsAgainAtOne) {
    property_set(kCount, "many");
    initVersionInfo();
    EXPECT_EQ(Property(kCount), "1");
}

TEST_F(VersionInfo, TheBannerIsHiddenAtTheDefaultLevel) {
    LogCapture capture(false);
    initVersionInfo();
    EXPECT_FALSE(capture.containsText("STARTING MARLO VERSION"));
    EXPECT_EQ(Property(kCount), "1");
}

TEST_F(VersionInfo, TheLargestCountStartsAgainAtOne) {
    property_set(kCount, "2147483647");
    LogCapture capture;
    initVersionInfo();
    EXPECT_EQ(Property(kCount), "1");
    EXPECT_TRUE(capture.contains(ANDROID_LOG_WARN, "marlo_base",
                                 "start count 2147483647 cannot grow, counting again from 1"));
    EXPECT_TRUE(capture.containsText("COUNT 1 ********"));
}
