/*
 * The operator's free helpers: engine format codes, key hashing, buffer
 * validity and ordering, and the engine symbols it looks up.
 */
#include <android/log.h>
#include <dlfcn.h>
#include <linux/videodev2.h>

#include <map>

#include <gtest/gtest.h>

#include "fake_engine_client.h"
#include "imgproc/nax_ops.h"
#include "marlo/base/error.h"
#include "marlo/imgproc/nax_image_operator.h"
#include "support/log_capture.h"

using namespace tessaro::marlo;

namespace {

TEST(WrapFormatTest, MapsEveryFormatOfTheEngineTable) {
    const std::map<uint32_t, int> expected = {
        {V4L2_PIX_FMT_Y4, 0x1400},    {V4L2_PIX_FMT_GREY, 0x1500},   {V4L2_PIX_FMT_NV12, 0xA00},
        {V4L2_PIX_FMT_NV21, 0xE00},   {V4L2_PIX_FMT_NV16, 0x800},    {V4L2_PIX_FMT_NV61, 0xC00},
        {V4L2_PIX_FMT_YVYU, 0x1800},  {V4L2_PIX_FMT_YVU420, 0xF00},  {V4L2_PIX_FMT_YUV420, 0xB00},
        {V4L2_PIX_FMT_YUYV, 0x1C00},  {V4L2_PIX_FMT_UYVY, 0x1E00},   {V4L2_PIX_FMT_RGBA32, 0x0},
        {V4L2_PIX_FMT_BGRA32, 0x300}, {V4L2_PIX_FMT_ARGB32, 0x2800}, {V4L2_PIX_FMT_ABGR32, 0x2C00},
        {V4L2_PIX_FMT_RGB24, 0x200},  {V4L2_PIX_FMT_BGR24, 0x700},
    };
    EXPECT_EQ(expected.size(), 17u);
    for (const auto& [fourcc, code] : expected)
        EXPECT_EQ(WrapFormat(static_cast<int>(fourcc)), code) << std::hex << fourcc;
}

TEST(WrapFormatTest, NamesTheFourccsItTakes) {
    using marlo_test::Fourcc;
    EXPECT_EQ(WrapFormat(Fourcc('Y', '0', '4', ' ')), 0x1400);
    EXPECT_EQ(WrapFormat(Fourcc('G', 'R', 'E', 'Y')), 0x1500);
    EXPECT_EQ(WrapFormat(Fourcc('A', 'B', '2', '4')), 0x0);
    EXPECT_EQ(WrapFormat(Fourcc('R', 'A', '2', '4')), 0x300);
    EXPECT_EQ(WrapFormat(Fourcc('B', 'A', '2', '4')), 0x2800);
    EXPECT_EQ(WrapFormat(Fourcc('A', 'R', '2', '4')), 0x2C00);
    EXPECT_EQ(WrapFormat(Fourcc('Y', 'V', '1', '2')), 0xF00);
    EXPECT_EQ(WrapFormat(Fourcc('Y', 'U', '1', '2')), 0xB00);
}

TEST(WrapFormatTest, FormatsOutsideTheEngineTableAreFailed) {
    EXPECT_EQ(WrapFormat(V4L2_PIX_FMT_XRGB32), ERR_FAILED);  // "XR24"
    EXPECT_EQ(WrapFormat(V4L2_PIX_FMT_VYUY), ERR_FAILED);
    EXPECT_EQ(WrapFormat(V4L2_PIX_FMT_RGB565), ERR_FAILED);  // "RGBP"
    EXPECT_EQ(WrapFormat(V4L2_PIX_FMT_XBGR32), ERR_FAILED);  // "XB24"
    EXPECT_EQ(WrapFormat(V4L2_PIX_FMT_BGRX32), ERR_FAILED);  // "RX24"
    EXPECT_EQ(WrapFormat(0), ERR_FAILED);
    EXPECT_EQ(WrapFormat(-1), ERR_FAILED);
    EXPECT_EQ(ERR_FAILED, -2);
}

TEST(WrapFormatTest, GreyIsItsOwnCode) {
    EXPECT_EQ(WrapFormat(V4L2_PIX_FMT_GREY), 0x1500);
}

TEST(HashTest, IsSixtyFourBitFnv1a) {
    EXPECT_EQ(hash_(""), 0xcbf29ce484222325ULL);
    EXPECT_EQ(hash_("a"), 0xaf63dc4c8601ec8cULL);
    EXPECT_EQ(hash_("foobar"), 0x85944171f73967e8ULL);
    EXPECT_NE(hash_("SetCacheHandle"), hash_("SetCacheHandlf"));
}

/* Bytes of 0x80 and up hash as unsigned bytes whatever the signedness of
 * char (signed on x86, unsigned on arm64): keys hash alike on both. */
TEST(HashTest, HighBytesHashAsUnsignedBytes) {
    EXPECT_EQ(hash_("\xff\x80"), 0x0a9a2607b6f6e56aULL);
    EXPECT_EQ(hash_("\xc3\xa9"), 0x0ac21707b7181e01ULL);
}

TEST(HashTest, StopsAtTheTerminatingZero) {
    const char text[] = {'a', '\0', 'b', '\0'};
    EXPECT_EQ(hash_(text), hash_("a"));
}

TEST(HashTest, NullHashesLikeTheEmptyStringAndIsReported) {
    marlo_test::LogCapture log;
    EXPECT_EQ(hash_(nullptr), hash_(""));
    EXPECT_TRUE(
        log.contains(ANDROID_LOG_ERROR, "marlo_imgproc", "hash_ : no string, hashed as empty"))
        << log.dump();
    EXPECT_EQ(log.records().size(), 1u);
}

TEST(ImageBufferTest, ValidWithAnyAddressOrDescriptor) {
    ImageBuffer b = marlo_test::NoImage();
    EXPECT_FALSE(nax_is_buffer_valid(b));
    b.fd = 0;
    EXPECT_TRUE(nax_is_buffer_valid(b));
    b.fd = -5;
    b.virAddr = 0x1000;
    EXPECT_TRUE(nax_is_buffer_valid(b));
    b.virAddr = 0;
    b.phyAddr = 0x2000;
    EXPECT_TRUE(nax_is_buffer_valid(b));
}

TEST(ImageBufferTest, FieldTypes) {
    ImageBuffer b{};
    static_assert(std::is_same_v<decltype(b.cookie), uint64_t>);
    static_assert(std::is_same_v<decltype(b.virAddr), uintptr_t>);
    static_assert(std::is_same_v<decltype(b.phyAddr), uint64_t>);
    static_assert(std::is_same_v<decltype(b.fd), int32_t>);
    static_assert(std::is_same_v<decltype(b.format), int32_t>);
    static_assert(sizeof(ImageRect) == 4 * sizeof(int32_t));
    EXPECT_EQ(offsetof(ImageBuffer, cookie), 0u);
    EXPECT_LT(offsetof(ImageBuffer, virAddr), offsetof(ImageBuffer, phyAddr));
    EXPECT_LT(offsetof(ImageBuffer, phyAddr), offsetof(ImageBuffer, fd));
    EXPECT_LT(offsetof(ImageBuffer, fd), offsetof(ImageBuffer, width));
    EXPECT_LT(offsetof(ImageBuffer, width), offsetof(ImageBuffer, height));
    EXPECT_LT(offsetof(ImageBuffer, height), offsetof(ImageBuffer, wstride));
    EXPECT_LT(offsetof(ImageBuffer, wstride), offsetof(ImageBuffer, hstride));
    EXPECT_LT(offsetof(ImageBuffer, hstride), offsetof(ImageBuffer, format));
}

TEST(ImageBufferTest, OrderedByTheSumOfAddressesAndDescriptor) {
    ImageBuffer a = marlo_test::FdImage(10, 64, 48, V4L2_PIX_FMT_NV12);
    ImageBuffer b = marlo_test::FdImage(11, 64, 48, V4L2_PIX_FMT_NV12);
    EXPECT_TRUE(a < b);
    EXPECT_FALSE(b < a);

    // Memory at 0x1000 with fd 1 sums like fd 0x1001 alone.
    ImageBuffer c = marlo_test::FdImage(1, 64, 48, V4L2_PIX_FMT_NV12);
    c.virAddr = 0x800;
    c.phyAddr = 0x800;
    ImageBuffer d = marlo_test::FdImage(0x1001, 64, 48, V4L2_PIX_FMT_NV12);
    EXPECT_FALSE(c < d);
    EXPECT_FALSE(d < c);
}

TEST(ImageBufferTest, GeometryTakesNoPartInTheOrder) {
    ImageBuffer a = marlo_test::FdImage(10, 64, 48, V4L2_PIX_FMT_NV12);
    ImageBuffer b = marlo_test::FdImage(10, 1920, 1080, V4L2_PIX_FMT_UYVY);
    b.wstride = 2048;
    b.cookie = 99;
    EXPECT_FALSE(a < b);
    EXPECT_FALSE(b < a);
}

TEST(ImageBufferTest, DescriptorIsSignExtendedIntoAnUnsignedSum) {
    // fd -1 with address 1 sums to 0, the same key as fd 0.
    ImageBuffer a = marlo_test::FdImage(-1, 64, 48, 0);
    a.virAddr = 1;
    ImageBuffer b = marlo_test::FdImage(0, 64, 48, 0);
    EXPECT_FALSE(a < b);
    EXPECT_FALSE(b < a);
    // Alone, fd -1 sums to the largest 64-bit value.
    ImageBuffer none = marlo_test::NoImage();
    EXPECT_TRUE(b < none);
    EXPECT_FALSE(none < b);
}

TEST(ImageBufferTest, SumsCompareUnsigned) {
    // A CPU address with the top bit set (a tagged heap pointer) is large, not negative.
    ImageBuffer high = marlo_test::FdImage(0, 64, 48, 0);
    high.virAddr = static_cast<uintptr_t>(0x8000000000000000ULL);
    ImageBuffer low = marlo_test::FdImage(3, 64, 48, 0);
    EXPECT_TRUE(low < high);
    EXPECT_FALSE(high < low);
    // fd -1 alone still sorts after that address: 2^63 against 2^64 - 1.
    EXPECT_TRUE(high < marlo_test::NoImage());
    // The sum wraps: 2^64 - 1 plus fd 2 is 1.
    ImageBuffer wrapped = marlo_test::FdImage(2, 64, 48, 0);
    wrapped.virAddr = static_cast<uintptr_t>(~0ULL);
    ImageBuffer one = marlo_test::FdImage(1, 64, 48, 0);
    EXPECT_FALSE(wrapped < one);
    EXPECT_FALSE(one < wrapped);
}

TEST(EngineSymbolTest, OperationNamesMatchTheEngineHeaderSignatures) {
    // The fake engine defines the operations with the header's signatures,
    // so each mangled name the operator looks up must be found there.
    marlo_test::FakeEngine engine;
    ASSERT_NE(engine.library(), nullptr) << dlerror();
    for (const char* symbol :
         {detail::kNaxResizeSymbol, detail::kNaxCropSymbol, detail::kNaxCvtcolorSymbol,
          detail::kNaxRotateSymbol, detail::kNaxFlipSymbol, detail::kNaxCopySymbol,
          detail::kNaxProcessSymbol})
        EXPECT_NE(dlsym(engine.library(), symbol), nullptr) << symbol;
}

TEST(EngineSymbolTest, BufferEntriesArePlainCNames) {
    marlo_test::FakeEngine engine;
    ASSERT_NE(engine.library(), nullptr) << dlerror();
    for (const char* symbol :
         {"nax_wrap_handle", "nax_wrap_fd", "nax_wrap_paddr", "nax_wrap_vaddr", "nax_import_fd",
          "nax_import_paddr", "nax_import_vaddr", "nax_release_handle", "nax_sync"})
        EXPECT_NE(dlsym(engine.library(), symbol), nullptr) << symbol;
}

}  // namespace
