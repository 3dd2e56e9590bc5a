#include <marlo/buffer/pixel_format.h>

#include <gtest/gtest.h>

#include <android/log.h>

#include <thread>
#include <vector>

#include "buffer/pixel_format_tables.h"

using namespace tessaro::marlo;

namespace {

struct Row {
    FourccFormat format;
    unsigned int code;
};

constexpr unsigned int kNone = 0xFFFFFFFF;

/* The lists exactly as the library documents them, duplicates included. */
const std::vector<Row> kHalRows = {
    {FOURCC_BGR3, kNone},      {FOURCC_RGB3, 3},    {FOURCC_RGBP, 4},    {FOURCC_RA24, 5},
    {FOURCC_RX24, kNone},      {FOURCC_AB24, 1},    {FOURCC_XB24, 2},    {FOURCC_NV16, 0x10},
    {FOURCC_NV61, 0x10},       {FOURCC_NV12, 0x11}, {FOURCC_NV21, 0x11}, {FOURCC_YU12, 0x32315659},
    {FOURCC_YV12, 0x32315659}, {FOURCC_YUYV, 0x14}, {FOURCC_YVYU, 0x14}, {FOURCC_UYVY, 0x14},
    {FOURCC_VYUY, 0x14},
};

const std::vector<Row> kNaxRows = {
    {FOURCC_RGB3, 0x200},  {FOURCC_BGR3, 0x700},  {FOURCC_RGBP, 0x400},  {FOURCC_BA24, 0x2800},
    {FOURCC_XR24, 0x2900}, {FOURCC_AB24, 0x0},    {FOURCC_XB24, 0x100},  {FOURCC_AR24, 0x2C00},
    {FOURCC_XR24, 0x2D00}, {FOURCC_RA24, 0x300},  {FOURCC_RX24, 0x1600}, {FOURCC_NV16, 0x800},
    {FOURCC_NV61, 0xC00},  {FOURCC_NV12, 0xA00},  {FOURCC_NV21, 0xE00},  {FOURCC_YU12, 0xB00},
    {FOURCC_YV12, 0xF00},  {FOURCC_YUYV, 0x1C00}, {FOURCC_YVYU, 0x1800}, {FOURCC_UYVY, 0x1E00},
    {FOURCC_VYUY, 0x1A00},
};

constexpr unsigned int Fourcc(char a, char b, char c, char d) {
    return static_cast<unsigned int>(a) | static_cast<unsigned int>(b) << 8 |
           static_cast<unsigned int>(c) << 16 | static_cast<unsigned int>(d) << 24;
}

const std::vector<Row> kDrmRows = {
    {FOURCC_RGB3, 0x34324752},
    {FOURCC_BGR3, 0x34324742},
    {FOURCC_RGBP, 0x36314752},
    {FOURCC_BA24, 0x34325241},
    {FOURCC_XR24, 0x34325258},
    {FOURCC_AB24, 0x34324152},
    {FOURCC_XB24, 0x34325852},
    {FOURCC_AR24, 0x34324241},
    {FOURCC_XR24, 0x34324258},
    {FOURCC_RA24, 0x34324142},
    {FOURCC_RX24, 0x34325842},
    {FOURCC_NV16, Fourcc('N', 'V', '1', '6')},
    {FOURCC_NV61, Fourcc('N', 'V', '6', '1')},
    {FOURCC_NV12, Fourcc('N', 'V', '1', '2')},
    {FOURCC_NV21, Fourcc('N', 'V', '2', '1')},
    {FOURCC_YU12, Fourcc('Y', 'U', '1', '2')},
    {FOURCC_YV12, Fourcc('Y', 'V', '1', '2')},
    {FOURCC_YUYV, Fourcc('Y', 'U', 'Y', 'V')},
    {FOURCC_YVYU, Fourcc('Y', 'V', 'Y', 'U')},
    {FOURCC_UYVY, Fourcc('U', 'Y', 'V', 'Y')},
    {FOURCC_VYUY, Fourcc('V', 'Y', 'U', 'Y')},
};

/* What a first-wins map built from \a rows holds. */
detail::FormatMap FirstWins(const std::vector<Row>& rows) {
    detail::FormatMap map;
    for (const Row& row : rows)
        if (map.count(row.format) == 0)
            map[row.format] = row.code;
    return map;
}

/* Expected reverse result: the smallest format whose kept code matches. */
FourccFormat SmallestWithCode(const detail::FormatMap& map, unsigned int code) {
    for (const auto& [format, value] : map)
        if (value == code)
            return format;
    return FOURCC_NONE;
}

}  // namespace

TEST(FourccFormatTest, EnumeratorValuesAreLittleEndianFourcc) {
    EXPECT_EQ(FOURCC_RGB3, Fourcc('R', 'G', 'B', '3'));
    EXPECT_EQ(FOURCC_BGR3, Fourcc('B', 'G', 'R', '3'));
    EXPECT_EQ(FOURCC_RGBP, Fourcc('R', 'G', 'B', 'P'));
    EXPECT_EQ(FOURCC_AB24, Fourcc('A', 'B', '2', '4'));
    EXPECT_EQ(FOURCC_XB24, Fourcc('X', 'B', '2', '4'));
    EXPECT_EQ(FOURCC_RA24, Fourcc('R', 'A', '2', '4'));
    EXPECT_EQ(FOURCC_RX24, Fourcc('R', 'X', '2', '4'));
    EXPECT_EQ(FOURCC_BA24, Fourcc('B', 'A', '2', '4'));
    EXPECT_EQ(FOURCC_AR24, Fourcc('A', 'R', '2', '4'));
    EXPECT_EQ(FOURCC_XR24, Fourcc('X', 'R', '2', '4'));
    EXPECT_EQ(FOURCC_NV12, 0x3231564Eu);
    EXPECT_EQ(FOURCC_NV21, 0x3132564Eu);
    EXPECT_EQ(FOURCC_NV16, 0x3631564Eu);
    EXPECT_EQ(FOURCC_NV61, 0x3136564Eu);
    EXPECT_EQ(FOURCC_YU12, 0x32315559u);
    EXPECT_EQ(FOURCC_YV12, 0x32315659u);
    EXPECT_EQ(FOURCC_YUYV, 0x56595559u);
    EXPECT_EQ(FOURCC_YVYU, 0x55595659u);
    EXPECT_EQ(FOURCC_UYVY, 0x59565955u);
    EXPECT_EQ(FOURCC_VYUY, 0x59555956u);
    EXPECT_EQ(FOURCC_NONE, 0xFFFFFFFFu);
    EXPECT_EQ(sizeof(FourccFormat), 4u);
}

TEST(FourccFormatTest, HalMapHoldsEveryRow) {
    const detail::FormatMap& map = detail::HalFormatMap();
    EXPECT_EQ(map.size(), 17u);
    EXPECT_EQ(map, FirstWins(kHalRows));
    for (const Row& row : kHalRows)
        EXPECT_EQ(FourccFormatToHalFormat(row.format), row.code) << std::hex << row.format;
    EXPECT_EQ(map.count(FOURCC_BA24), 0u);
    EXPECT_EQ(map.count(FOURCC_AR24), 0u);
    EXPECT_EQ(map.count(FOURCC_XR24), 0u);
}

TEST(FourccFormatTest, NaxMapKeepsFirstXr24Row) {
    const detail::FormatMap& map = detail::NaxFormatMap();
    EXPECT_EQ(map.size(), 20u);
    EXPECT_EQ(map, FirstWins(kNaxRows));
    for (const Row& row : kNaxRows) {
        if (row.format == FOURCC_XR24)
            continue;
        EXPECT_EQ(FourccFormatToNaxFormat(row.format), row.code) << std::hex << row.format;
    }
    EXPECT_EQ(FourccFormatToNaxFormat(FOURCC_XR24), 0x2900u);
}

TEST(FourccFormatTest, DrmMapKeepsFirstXr24Row) {
    const detail::FormatMap& map = detail::DrmFormatMap();
    EXPECT_EQ(map.size(), 20u);
    EXPECT_EQ(map, FirstWins(kDrmRows));
    for (const Row& row : kDrmRows) {
        if (row.format == FOURCC_XR24)
            continue;
        EXPECT_EQ(FourccFormatToDrmFormat(row.format), row.code) << std::hex << row.format;
    }
    EXPECT_EQ(FourccFormatToDrmFormat(FOURCC_XR24), Fourcc('X', 'R', '2', '4'));
}

TEST(FourccFormatTest, NaxReverseEveryRow) {
    detail::FormatMap kept = FirstWins(kNaxRows);
    for (const Row& row : kNaxRows)
        EXPECT_EQ(NaxFormatToFourccFormat(row.code), SmallestWithCode(kept, row.code))
            << std::hex << row.code;
    // Every kept code is unique, so each kept row maps straight back.
    for (const auto& [format, code] : kept)
        EXPECT_EQ(NaxFormatToFourccFormat(code), format);
    EXPECT_EQ(NaxFormatToFourccFormat(0x2D00), FOURCC_NONE);
    EXPECT_EQ(NaxFormatToFourccFormat(0x1400), FOURCC_NONE);
    EXPECT_EQ(NaxFormatToFourccFormat(0xFFFFFFFF), FOURCC_NONE);
}

TEST(FourccFormatTest, DrmReverseEveryRow) {
    detail::FormatMap kept = FirstWins(kDrmRows);
    for (const auto& [format, code] : kept)
        EXPECT_EQ(DrmFormatToFourccFormat(code), format);
    EXPECT_EQ(DrmFormatToFourccFormat(Fourcc('X', 'B', '2', '4')), FOURCC_NONE);
    EXPECT_EQ(DrmFormatToFourccFormat(Fourcc('R', 'G', 'B', '3')), FOURCC_NONE);
    EXPECT_EQ(DrmFormatToFourccFormat(0), FOURCC_NONE);
}

TEST(FourccFormatTest, HalReverseSemiPlanar420) {
    EXPECT_EQ(HalFormatToFourccFormat(0x11, 0, 2), FOURCC_NV12);
    EXPECT_EQ(HalFormatToFourccFormat(0x11, 1, 2), FOURCC_NV21);
    EXPECT_EQ(HalFormatToFourccFormat(0x11, 2, 2), FOURCC_NONE);
    EXPECT_EQ(HalFormatToFourccFormat(0x11, 0, 1), FOURCC_NONE);
    EXPECT_EQ(HalFormatToFourccFormat(0x11, 1, 1), FOURCC_NONE);
    EXPECT_EQ(HalFormatToFourccFormat(0x11, 0, 0), FOURCC_NONE);
}

TEST(FourccFormatTest, HalReverseSemiPlanar422) {
    EXPECT_EQ(HalFormatToFourccFormat(0x10, 0, 2), FOURCC_NV16);
    EXPECT_EQ(HalFormatToFourccFormat(0x10, 1, 2), FOURCC_NV61);
    EXPECT_EQ(HalFormatToFourccFormat(0x10, 2, 2), FOURCC_NONE);
    EXPECT_EQ(HalFormatToFourccFormat(0x10, 0, 1), FOURCC_NONE);
    EXPECT_EQ(HalFormatToFourccFormat(0x10, 1, 0), FOURCC_NONE);
}

TEST(FourccFormatTest, HalReverseYv12) {
    EXPECT_EQ(HalFormatToFourccFormat(0x32315659, 0, 1), FOURCC_YV12);
    EXPECT_EQ(HalFormatToFourccFormat(0x32315659, 1, 1), FOURCC_YU12);
    EXPECT_EQ(HalFormatToFourccFormat(0x32315659, 0, 2), FOURCC_NONE);
    EXPECT_EQ(HalFormatToFourccFormat(0x32315659, 1, 2), FOURCC_NONE);
    EXPECT_EQ(HalFormatToFourccFormat(0x32315659, 2, 1), FOURCC_NONE);
    EXPECT_EQ(HalFormatToFourccFormat(0x32315659, 0, 0), FOURCC_NONE);
}

TEST(FourccFormatTest, HalReverseOtherCodesIgnoreChromaArguments) {
    for (unsigned char first : {0, 1, 2, 255}) {
        for (unsigned char second : {0, 1, 2, 255}) {
            EXPECT_EQ(HalFormatToFourccFormat(1, first, second), FOURCC_AB24);
            EXPECT_EQ(HalFormatToFourccFormat(2, first, second), FOURCC_XB24);
            EXPECT_EQ(HalFormatToFourccFormat(3, first, second), FOURCC_RGB3);
            EXPECT_EQ(HalFormatToFourccFormat(4, first, second), FOURCC_RGBP);
            EXPECT_EQ(HalFormatToFourccFormat(5, first, second), FOURCC_RA24);
            // Packed 4:2:2 shares one code; the smallest format value wins.
            EXPECT_EQ(HalFormatToFourccFormat(0x14, first, second), FOURCC_YVYU);
            // BGR3 is the smallest format mapped to "none".
            EXPECT_EQ(HalFormatToFourccFormat(0xFFFFFFFF, first, second), FOURCC_BGR3);
            EXPECT_EQ(HalFormatToFourccFormat(0x23, first, second), FOURCC_NONE);
        }
    }
}

TEST(FourccFormatTest, HalForwardOfBgr3IsNone) {
    EXPECT_EQ(detail::HalFormatMap().count(FOURCC_BGR3), 1u);
    EXPECT_EQ(FourccFormatToHalFormat(FOURCC_BGR3), 0xFFFFFFFFu);
    EXPECT_EQ(FourccFormatToHalFormat(FOURCC_RX24), 0xFFFFFFFFu);
    EXPECT_TRUE(detail::HasHalFormat(FOURCC_BGR3));
    EXPECT_FALSE(detail::HasHalFormat(FOURCC_BA24));
}

using FourccFormatDeathTest = ::testing::Test;

TEST_F(FourccFormatDeathTest, ForwardLookupOfAbsentFormatTerminates) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(FourccFormatToHalFormat(FOURCC_BA24),
                 "FourccFormatToHalFormat: format 0x34324142 has no HAL format");
    EXPECT_DEATH(FourccFormatToNaxFormat(FOURCC_NONE),
                 "FourccFormatToNaxFormat: format 0xffffffff has no 2D engine format");
    EXPECT_DEATH(FourccFormatToDrmFormat(static_cast<FourccFormat>(0)),
                 "FourccFormatToDrmFormat: format 0x00000000 has no DRM format");
}

TEST(ColorSpaceTest, ConstantsHoldTheirFields) {
    auto expect = [](const ColorSpace& cs, uint32_t p, uint32_t t, uint32_t e, uint32_t r) {
        EXPECT_EQ(cs.primaries, p);
        EXPECT_EQ(cs.transfer, t);
        EXPECT_EQ(cs.encoding, e);
        EXPECT_EQ(cs.range, r);
    };
    expect(ColorSpace::Raw, 0, 0, 0, 1);
    expect(ColorSpace::Srgb, 2, 1, 0, 1);
    expect(ColorSpace::Sycc, 2, 1, 1, 1);
    expect(ColorSpace::Smpte170m, 1, 2, 1, 0);
    expect(ColorSpace::Rec709, 2, 2, 2, 0);
    expect(ColorSpace::Rec2020, 3, 2, 3, 0);
    EXPECT_EQ(sizeof(ColorSpace), 16u);
    EXPECT_EQ(ColorSpace::RANGE_LIMITED, 0u);
    EXPECT_EQ(ColorSpace::RANGE_FULL, 1u);
}

TEST(FourccFormatTest, ConversionsFromManyThreads) {
    // The maps are read-only after load, so readers need no lock.
    std::vector<std::thread> threads;
    std::vector<int> mismatches(4, 0);
    for (size_t t = 0; t < mismatches.size(); t++) {
        threads.emplace_back([t, &mismatches] {
            for (int i = 0; i < 500; i++) {
                for (const Row& row : kNaxRows)
                    if (row.format != FOURCC_XR24 &&
                        NaxFormatToFourccFormat(FourccFormatToNaxFormat(row.format)) != row.format)
                        mismatches[t]++;
                if (HalFormatToFourccFormat(0x11, 1, 2) != FOURCC_NV21)
                    mismatches[t]++;
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(mismatches, std::vector<int>(4, 0));
}
