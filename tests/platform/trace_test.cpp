#include <cutils/properties.h>
#include <cutils/trace.h>
#include <gtest/gtest.h>
#include <marlo_host/hooks.h>

#include <string>
#include <vector>

#include "support/scoped_property.h"

namespace {

constexpr char kTagsProperty[] = "debug.atrace.tags.enableflags";

void Record(const char* name, void* ctx) {
    static_cast<std::vector<std::string>*>(ctx)->push_back(name != nullptr ? name : "<end>");
}

}  // namespace

TEST(Trace, NoTagIsEnabledByDefault) {
    marlo_test::ScopedProperty tags(kTagsProperty, "");
    EXPECT_EQ(atrace_get_enabled_tags(), 0u);
}

TEST(Trace, EnabledTagsComeFromTheProperty) {
    {
        marlo_test::ScopedProperty tags(kTagsProperty, "0x400");
        EXPECT_EQ(atrace_get_enabled_tags(), uint64_t{ATRACE_TAG_CAMERA});
        EXPECT_NE(atrace_get_enabled_tags() & ATRACE_TAG_CAMERA, 0u);
    }
    {
        marlo_test::ScopedProperty tags(kTagsProperty, "1025");
        EXPECT_EQ(atrace_get_enabled_tags(), uint64_t{ATRACE_TAG_CAMERA | ATRACE_TAG_ALWAYS});
    }
    {
        marlo_test::ScopedProperty tags(kTagsProperty, "none");
        EXPECT_EQ(atrace_get_enabled_tags(), 0u);
    }
    {
        // The top bit fits too.
        marlo_test::ScopedProperty tags(kTagsProperty, "0x8000000000000400");
        EXPECT_EQ(atrace_get_enabled_tags(), (uint64_t{1} << 63) | ATRACE_TAG_CAMERA);
    }
}

TEST(Trace, TagsFollowEveryChangeOfTheProperty) {
    marlo_test::ScopedProperty tags(kTagsProperty, "0x400");
    EXPECT_EQ(atrace_get_enabled_tags(), uint64_t{ATRACE_TAG_CAMERA});
    EXPECT_EQ(atrace_get_enabled_tags(), uint64_t{ATRACE_TAG_CAMERA});
    ASSERT_EQ(property_set(kTagsProperty, "0"), 0);
    EXPECT_EQ(atrace_get_enabled_tags(), 0u);
    ASSERT_EQ(property_set(kTagsProperty, "0x400"), 0);
    EXPECT_EQ(atrace_get_enabled_tags(), uint64_t{ATRACE_TAG_CAMERA});
    // Gone altogether, then back.
    marlo_host_properties_reset();
    EXPECT_EQ(atrace_get_enabled_tags(), 0u);
    ASSERT_EQ(property_set(kTagsProperty, "1"), 0);
    EXPECT_EQ(atrace_get_enabled_tags(), uint64_t{ATRACE_TAG_ALWAYS});
}

TEST(Trace, SectionsReachTheHook) {
    std::vector<std::string> sections;
    marlo_host_set_trace_hook(Record, &sections);
    atrace_begin_body("dequeue");
    atrace_begin_body(nullptr);
    atrace_end_body();
    atrace_end_body();
    marlo_host_set_trace_hook(nullptr, nullptr);
    atrace_begin_body("unseen");
    atrace_end_body();
    EXPECT_EQ(sections, (std::vector<std::string>{"dequeue", "", "<end>", "<end>"}));
}
