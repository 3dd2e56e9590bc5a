// Runs with MARLO_PROPERTIES naming seed.prop: the store is seeded at the
// process's first property read, without any reset.
#include <cutils/properties.h>
#include <gtest/gtest.h>

namespace {
std::string Get(const char* key) {
    char value[PROPERTY_VALUE_MAX];
    property_get(key, value, "<default>");
    return value;
}
}  // namespace

TEST(PropertySeed, TheEnvironmentFileSeedsTheStore) {
    EXPECT_EQ(Get("persist.vendor.tessaro.marlo.loglevel"), "2");
    EXPECT_EQ(Get("vendor.tessaro.marlo.start.count"), "5");
    EXPECT_EQ(Get("test.seed.text"), "hello world");
    EXPECT_EQ(Get("test.seed.commented"), "<default>");
    EXPECT_EQ(property_get_bool("test.seed.flag", 0), 1);
}
