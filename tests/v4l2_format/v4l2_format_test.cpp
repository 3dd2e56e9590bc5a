#include <marlo/v4l2/v4l2_format.h>

#include <android/log.h>
#include <gtest/gtest.h>
#include <linux/videodev2.h>

#include <set>
#include <sstream>
#include <type_traits>

#include "support/log_capture.h"

using namespace tessaro::marlo;
using marlo_test::LogCapture;

namespace {

/* Independent of the library: the four characters, first one lowest. */
constexpr unsigned Fourcc(char a, char b, char c, char d) {
    return unsigned(uint8_t(a)) | unsigned(uint8_t(b)) << 8 | unsigned(uint8_t(c)) << 16 |
           unsigned(uint8_t(d)) << 24;
}

struct NameRow {
    const char* name;
    const char* chars;
    unsigned v4l2;
};

const NameRow kRows[] = {
    {"Y8", "GREY", V4L2_PIX_FMT_GREY},        {"NV12", "NV12", V4L2_PIX_FMT_NV12},
    {"NV21", "NV21", V4L2_PIX_FMT_NV21},      {"NV16", "NV16", V4L2_PIX_FMT_NV16},
    {"NV61", "NV61", V4L2_PIX_FMT_NV61},      {"BGGR8", "BA81", V4L2_PIX_FMT_SBGGR8},
    {"GBRG8", "GBRG", V4L2_PIX_FMT_SGBRG8},   {"GRBG8", "GRBG", V4L2_PIX_FMT_SGRBG8},
    {"RGGB8", "RGGB", V4L2_PIX_FMT_SRGGB8},   {"BGGR10", "BG10", V4L2_PIX_FMT_SBGGR10},
    {"GBRG10", "GB10", V4L2_PIX_FMT_SGBRG10}, {"GRBG10", "BA10", V4L2_PIX_FMT_SGRBG10},
    {"RGGB10", "RG10", V4L2_PIX_FMT_SRGGB10}, {"BGGR12", "BG12", V4L2_PIX_FMT_SBGGR12},
    {"GBRG12", "GB12", V4L2_PIX_FMT_SGBRG12}, {"GRBG12", "BA12", V4L2_PIX_FMT_SGRBG12},
    {"RGGB12", "RG12", V4L2_PIX_FMT_SRGGB12},
};

class NameTable : public ::testing::TestWithParam<NameRow> {};

}  // namespace

TEST_P(NameTable, NameGivesTheFourccOfItsRow) {
    const NameRow& row = GetParam();
    LogCapture capture;
    V4l2PixelFormat format = V4l2PixelFormat::FromString(row.name);
    EXPECT_TRUE(format.IsValid());
    EXPECT_EQ(format.Fourcc(), Fourcc(row.chars[0], row.chars[1], row.chars[2], row.chars[3]));
    EXPECT_EQ(format.Fourcc(), row.v4l2);
    EXPECT_TRUE(capture.records().empty()) << capture.dump();
}

/* Printing shows the code's own characters, not the name it was looked up by. */
TEST_P(NameTable, PrintsTheFourccCharactersNotTheName) {
    const NameRow& row = GetParam();
    EXPECT_EQ(V4l2PixelFormat::FromString(row.name).ToString(), row.chars);
}

INSTANTIATE_TEST_SUITE_P(AllRows, NameTable, ::testing::ValuesIn(kRows),
                         [](const ::testing::TestParamInfo<NameRow>& info) {
                             return std::string(info.param.name);
                         });

TEST(V4l2PixelFormat, TableHasSeventeenDistinctCodes) {
    std::set<unsigned> codes;
    for (const NameRow& row : kRows)
        codes.insert(V4l2PixelFormat::FromString(row.name).Fourcc());
    EXPECT_EQ(std::size(kRows), 17u);
    EXPECT_EQ(codes.size(), 17u);
    EXPECT_EQ(codes.count(0u), 0u);
}

TEST(V4l2PixelFormat, Nv12NameGivesTheNv12Code) {
    EXPECT_EQ(V4l2PixelFormat::FromString("NV12").Fourcc(), Fourcc('N', 'V', '1', '2'));
}

TEST(V4l2PixelFormat, DeliberateAsymmetryBetweenNameAndText) {
    EXPECT_EQ(V4l2PixelFormat::FromString("BGGR8").ToString(), "BA81");
    EXPECT_EQ(V4l2PixelFormat::FromString("Y8").ToString(), "GREY");
    EXPECT_EQ(V4l2PixelFormat::FromString("GRBG10").ToString(), "BA10");
}

TEST(V4l2PixelFormat, DefaultIsInvalid) {
    V4l2PixelFormat format;
    EXPECT_FALSE(format.IsValid());
    EXPECT_EQ(format.Fourcc(), 0u);
    EXPECT_EQ(format.ToString(), "<INVALID>");
    EXPECT_FALSE(V4l2PixelFormat(0).IsValid());
    EXPECT_EQ(V4l2PixelFormat(0).ToString(), "<INVALID>");
}

TEST(V4l2PixelFormat, AnyNonZeroCodeIsValid) {
    EXPECT_TRUE(V4l2PixelFormat(1).IsValid());
    EXPECT_TRUE(V4l2PixelFormat(0x80000000u).IsValid());
}

TEST(V4l2PixelFormat, ToStringDoesNotConsultTheTable) {
    EXPECT_EQ(V4l2PixelFormat(Fourcc('Y', 'U', 'Y', 'V')).ToString(), "YUYV");
    EXPECT_EQ(V4l2PixelFormat(Fourcc('A', 'B', '2', '4')).ToString(), "AB24");
}

TEST(V4l2PixelFormat, ControlByteIsShownAsDot) {
    V4l2PixelFormat format(0x0A313256u);
    EXPECT_EQ(format.ToString(), "V21.");
}

TEST(V4l2PixelFormat, UnprintableBytesBecomeDots) {
    /* 0x1f is below the printable range, 0x7f above it, 0x20 and 0x7e are its ends. */
    EXPECT_EQ(V4l2PixelFormat(0x007e201fu).ToString(), ". ~.");
    EXPECT_EQ(V4l2PixelFormat(0x0000007fu).ToString(), "....");
    EXPECT_EQ(V4l2PixelFormat(0x00000020u).ToString(), " ...");
}

TEST(V4l2PixelFormat, BytesAreMaskedToSevenBits) {
    /* 0xC1 masks to 'A', 0xA0 to ' ', 0x9F to 0x1f (a dot); bit 31 stays clear. */
    EXPECT_EQ(V4l2PixelFormat(0x009FA0C1u).ToString(), "A ..");
    /* 0xFF masks to 0x7f, which is not printable. */
    EXPECT_EQ(V4l2PixelFormat(0x000000FFu).ToString(), "....");
}

TEST(V4l2PixelFormat, BigEndianFlagAddsSuffix) {
    unsigned be = Fourcc('R', 'G', 'B', 'R') | 0x80000000u;
    V4l2PixelFormat format(be);
    EXPECT_EQ(format.ToString(), "RGBR-BE");
    EXPECT_EQ(format.Fourcc(), be);
}

TEST(V4l2PixelFormat, BigEndianFlagOnAnUnprintableTopByte) {
    /* Top byte 0x80 masks to 0, shown as a dot, and the flag still adds "-BE". */
    EXPECT_EQ(V4l2PixelFormat(0x80000000u).ToString(), "....-BE");
    EXPECT_EQ(V4l2PixelFormat(Fourcc('X', 'R', '1', '5') | 0x80000000u).ToString(), "XR15-BE");
}

TEST(V4l2PixelFormat, StreamOperatorWritesToString) {
    std::ostringstream out;
    out << V4l2PixelFormat::FromString("RGGB12") << '|' << V4l2PixelFormat() << '|'
        << V4l2PixelFormat(0x0A313256u);
    EXPECT_EQ(out.str(), "RG12|<INVALID>|V21.");
}

TEST(V4l2PixelFormat, UnknownNameGivesInvalidAndLogs) {
    LogCapture capture;
    V4l2PixelFormat format = V4l2PixelFormat::FromString("YUYV");
    EXPECT_FALSE(format.IsValid());
    EXPECT_EQ(format.Fourcc(), 0u);
    EXPECT_TRUE(capture.contains(ANDROID_LOG_ERROR, "marlo_v4l2",
                                 "FromString: unknown V4L2 pixel format name \"YUYV\""))
        << capture.dump();
}

TEST(V4l2PixelFormat, NamesAreCaseSensitiveAndExact) {
    LogCapture capture;
    EXPECT_FALSE(V4l2PixelFormat::FromString("nv12").IsValid());
    EXPECT_FALSE(V4l2PixelFormat::FromString("NV12 ").IsValid());
    EXPECT_FALSE(V4l2PixelFormat::FromString("GREY").IsValid());
    EXPECT_FALSE(V4l2PixelFormat::FromString("").IsValid());
    EXPECT_FALSE(V4l2PixelFormat::FromString(std::string("NV12\0", 5)).IsValid());
    EXPECT_EQ(capture.records().size(), 5u) << capture.dump();
}

TEST(V4l2PixelFormat, CopiesByValueAndCompares) {
    V4l2PixelFormat a = V4l2PixelFormat::FromString("NV21");
    V4l2PixelFormat b = a;
    EXPECT_EQ(a, b);
    EXPECT_NE(a, V4l2PixelFormat::FromString("NV12"));
    static_assert(sizeof(V4l2PixelFormat) == sizeof(uint32_t));
    static_assert(std::is_trivially_copyable_v<V4l2PixelFormat>);
}
