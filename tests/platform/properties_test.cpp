#include <cutils/properties.h>
#include <errno.h>
#include <gtest/gtest.h>
#include <marlo_host/hooks.h>
#include <stdlib.h>
#include <sys/system_properties.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

namespace {

std::string Get(const char* key, const char* fallback = "<default>") {
    char value[PROPERTY_VALUE_MAX];
    property_get(key, value, fallback);
    return value;
}

// Each test starts with an empty store and no seed file.
class Properties : public ::testing::Test {
  protected:
    void SetUp() override {
        unsetenv("MARLO_PROPERTIES");
        marlo_host_properties_reset();
    }
    void TearDown() override {
        unsetenv("MARLO_PROPERTIES");
        marlo_host_properties_reset();
    }
};

}  // namespace

TEST_F(Properties, UnsetGivesTheDefault) {
    char value[PROPERTY_VALUE_MAX];
    EXPECT_EQ(property_get("test.unset", value, "fallback"), 8);
    EXPECT_STREQ(value, "fallback");
    EXPECT_EQ(property_get("test.unset", value, nullptr), 0);
    EXPECT_STREQ(value, "");
}

TEST_F(Properties, SetIsSeenByLaterGets) {
    EXPECT_EQ(property_set("test.key", "value"), 0);
    char value[PROPERTY_VALUE_MAX];
    EXPECT_EQ(property_get("test.key", value, "fallback"), 5);
    EXPECT_STREQ(value, "value");
    EXPECT_EQ(property_set("test.key", "other"), 0);
    EXPECT_EQ(Get("test.key"), "other");
}

TEST_F(Properties, AnEmptyValueReadsAsUnset) {
    ASSERT_EQ(property_set("test.key", "value"), 0);
    EXPECT_EQ(property_set("test.key", ""), 0);
    EXPECT_EQ(Get("test.key"), "<default>");
}

TEST_F(Properties, ValuesUpToNinetyOneCharactersFit) {
    std::string longest(PROPERTY_VALUE_MAX - 1, 'v');
    EXPECT_EQ(PROPERTY_VALUE_MAX, 92);
    EXPECT_EQ(property_set("test.long", longest.c_str()), 0);
    char value[PROPERTY_VALUE_MAX];
    EXPECT_EQ(property_get("test.long", value, nullptr), 91);
    EXPECT_EQ(std::string(value), longest);
}

TEST_F(Properties, ALongerValueIsRefused) {
    ASSERT_EQ(property_set("test.long", "kept"), 0);
    std::string tooLong(PROPERTY_VALUE_MAX, 'v');
    EXPECT_EQ(property_set("test.long", tooLong.c_str()), -1);
    EXPECT_EQ(Get("test.long"), "kept");
}

TEST_F(Properties, AMissingKeyIsRefused) {
    EXPECT_EQ(property_set("", "value"), -1);
    EXPECT_EQ(property_set(nullptr, "value"), -1);
}

TEST_F(Properties, ALongDefaultIsTruncated) {
    std::string tooLong(200, 'd');
    char value[PROPERTY_VALUE_MAX];
    EXPECT_EQ(property_get("test.unset", value, tooLong.c_str()), 91);
    EXPECT_EQ(std::string(value), std::string(91, 'd'));
}

TEST_F(Properties, BoolParsing) {
    struct Case {
        const char* text;
        int expected;
    } cases[] = {
        {"1", 1}, {"y", 1},    {"yes", 1},   {"true", 1}, {"on", 1},  {"0", 0},
        {"n", 0}, {"no", 0},   {"false", 0}, {"off", 0},  {"YES", 7}, {"True", 7},
        {"2", 7}, {"junk", 7}, {" 1", 7},    {"yess", 7},
    };
    for (const auto& c : cases) {
        ASSERT_EQ(property_set("test.bool", c.text), 0);
        EXPECT_EQ(property_get_bool("test.bool", 7), c.expected) << '"' << c.text << '"';
    }
    EXPECT_EQ(property_get_bool("test.unset", 1), 1);
    EXPECT_EQ(property_get_bool("test.unset", 0), 0);
}

TEST_F(Properties, Int32Parsing) {
    struct Case {
        const char* text;
        int32_t expected;
    } cases[] = {
        {"42", 42},
        {"-17", -17},
        {"0x400", 1024},
        {"010", 8},
        {"2147483647", 2147483647},
        {"-2147483648", INT32_MIN},
        {"2147483648", -5},   // out of range
        {"-2147483649", -5},  // out of range
        {"99999999999999999999999", -5},
        {"abc", -5},
        {"12abc", 12},  // leading digits count, as in libcutils
        {" 7", 7},
    };
    for (const auto& c : cases) {
        ASSERT_EQ(property_set("test.int", c.text), 0);
        EXPECT_EQ(property_get_int32("test.int", -5), c.expected) << '"' << c.text << '"';
    }
    EXPECT_EQ(property_get_int32("test.unset", 33), 33);
}

TEST_F(Properties, Int64Parsing) {
    ASSERT_EQ(property_set("test.int", "9223372036854775807"), 0);
    EXPECT_EQ(property_get_int64("test.int", 1), INT64_MAX);
    ASSERT_EQ(property_set("test.int", "9223372036854775808"), 0);
    EXPECT_EQ(property_get_int64("test.int", 1), 1);
    ASSERT_EQ(property_set("test.int", "-0x10"), 0);
    EXPECT_EQ(property_get_int64("test.int", 1), -16);
}

TEST_F(Properties, ParsingLeavesErrnoAlone) {
    ASSERT_EQ(property_set("test.int", "99999999999999999999999"), 0);
    errno = EBADF;
    property_get_int32("test.int", 0);
    EXPECT_EQ(errno, EBADF);
}

TEST_F(Properties, OnlyAPropertyWithAValueHasARecord) {
    EXPECT_EQ(__system_property_find("test.key"), nullptr);
    EXPECT_EQ(__system_property_find(nullptr), nullptr);
    ASSERT_EQ(property_set("test.key", "value"), 0);
    const prop_info* info = __system_property_find("test.key");
    ASSERT_NE(info, nullptr);
    // An emptied property still has its record, as on Android.
    ASSERT_EQ(property_set("test.key", ""), 0);
    EXPECT_EQ(__system_property_find("test.key"), info);
}

TEST_F(Properties, EveryChangeMovesThePropertysSerial) {
    ASSERT_EQ(property_set("test.key", "1"), 0);
    const prop_info* info = __system_property_find("test.key");
    ASSERT_NE(info, nullptr);
    const uint32_t first = __system_property_serial(info);
    ASSERT_EQ(property_set("test.key", "2"), 0);
    const uint32_t second = __system_property_serial(info);
    EXPECT_NE(second, first);
    // Setting the same value again is a change as well.
    ASSERT_EQ(property_set("test.key", "2"), 0);
    EXPECT_NE(__system_property_serial(info), second);
    // Reading changes nothing.
    const uint32_t third = __system_property_serial(info);
    EXPECT_EQ(Get("test.key"), "2");
    EXPECT_EQ(__system_property_serial(info), third);
}

TEST_F(Properties, TheAreaSerialMovesWhenAPropertyGetsAValue) {
    const uint32_t before = __system_property_area_serial();
    ASSERT_EQ(property_set("test.key", "1"), 0);
    const uint32_t added = __system_property_area_serial();
    EXPECT_NE(added, before);
    // A change of an existing property leaves it alone.
    ASSERT_EQ(property_set("test.key", "2"), 0);
    EXPECT_EQ(__system_property_area_serial(), added);
}

TEST_F(Properties, AResetKeepsRecordsValidAndMovesTheirSerials) {
    ASSERT_EQ(property_set("test.key", "1"), 0);
    const prop_info* info = __system_property_find("test.key");
    ASSERT_NE(info, nullptr);
    const uint32_t serial = __system_property_serial(info);
    marlo_host_properties_reset();
    EXPECT_EQ(__system_property_find("test.key"), nullptr);
    EXPECT_NE(__system_property_serial(info), serial);
    const uint32_t area = __system_property_area_serial();
    ASSERT_EQ(property_set("test.key", "3"), 0);
    EXPECT_EQ(__system_property_find("test.key"), info);
    EXPECT_NE(__system_property_area_serial(), area);
    EXPECT_EQ(Get("test.key"), "3");
}

TEST_F(Properties, TheStoreIsSeededFromTheFileAtFirstUse) {
    std::string path =
        ::testing::TempDir() + "marlo_properties_seed_" + std::to_string(getpid()) + ".prop";
    {
        std::ofstream file(path);
        file << "# a comment line\n"
             << "seed.plain=value\n"
             << "  seed.spaced  =  spaced value  \n"
             << "seed.comment=before # after\n"
             << "seed.equals=a=b\n"
             << "no equals sign here\n"
             << "=nameless\n"
             << "seed.long=" << std::string(PROPERTY_VALUE_MAX, 'x') << "\n"
             << "seed.bool=on\n"
             << "seed.int=0x20\n"
             << "#seed.hidden=1\n";
    }
    setenv("MARLO_PROPERTIES", path.c_str(), 1);
    marlo_host_properties_reset();

    EXPECT_EQ(Get("seed.plain"), "value");
    EXPECT_EQ(Get("seed.spaced"), "spaced value");
    EXPECT_EQ(Get("seed.comment"), "before");
    EXPECT_EQ(Get("seed.equals"), "a=b");
    EXPECT_EQ(Get("seed.long"), "<default>");
    EXPECT_EQ(Get("seed.hidden"), "<default>");
    EXPECT_EQ(Get(""), "<default>");
    EXPECT_EQ(property_get_bool("seed.bool", 0), 1);
    EXPECT_EQ(property_get_int32("seed.int", 0), 32);

    // A set wins over the seed; the file is read only once.
    EXPECT_EQ(property_set("seed.plain", "changed"), 0);
    EXPECT_EQ(Get("seed.plain"), "changed");
    unlink(path.c_str());
    EXPECT_EQ(Get("seed.spaced"), "spaced value");
}

TEST_F(Properties, AMissingSeedFileLeavesTheStoreEmpty) {
    setenv("MARLO_PROPERTIES", "/nonexistent/marlo.prop", 1);
    marlo_host_properties_reset();
    EXPECT_EQ(Get("seed.plain"), "<default>");
    EXPECT_EQ(property_set("test.key", "v"), 0);
    EXPECT_EQ(Get("test.key"), "v");
}

TEST_F(Properties, ConcurrentSetsAndGetsAreSafe) {
    constexpr int kThreads = 4;
    constexpr int kRounds = 2000;
    std::atomic<int> badReads{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([t, &badReads] {
            std::string own = "test.thread." + std::to_string(t);
            for (int i = 0; i < kRounds; ++i) {
                std::string value = std::to_string(i);
                property_set(own.c_str(), value.c_str());
                property_set("test.shared", (i % 2) ? "odd-value" : "even-value");
                if (Get(own.c_str()) != value)
                    ++badReads;
                std::string shared = Get("test.shared");
                if (shared != "odd-value" && shared != "even-value")
                    ++badReads;
            }
        });
    }
    for (auto& thread : threads)
        thread.join();
    EXPECT_EQ(badReads, 0);
    for (int t = 0; t < kThreads; ++t)
        EXPECT_EQ(property_get_int32(("test.thread." + std::to_string(t)).c_str(), -1),
                  kRounds - 1);
}
