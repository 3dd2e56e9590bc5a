/*
 * Every source format to every destination format on small pictures with
 * known content, read back through an independent model of the layouts and
 * of BT.601 limited-range colour.
 *
 * Tolerance, per colour channel after reading back as RGB:
 *  - 2 between RGB formats of 8 bits a channel (byte shuffles);
 *  - 10 when either side is YUV (rounding of the fixed-point matrices on
 *    both sides and chroma averaged over 2x1 or 2x2 blocks of a ramp);
 *  - plus 8 with RGB_565 (5/6-bit channels) and 12 with Y4 (16 levels).
 * The same tolerances hold for libyuv's portable C rows, its x86 SIMD rows
 * and its arm64 NEON rows; which ones run is pinned below.
 *
 * Scaled into RGB, the same pictures are compared with the model's own
 * bilinear resample of the picture, at the positions the engine samples
 * (output pixel centres on the source when shrinking; first and last
 * pixels on the source's first and last when enlarging), with the
 * tolerance above plus 2: the engine's filter rounds its column weights to
 * 1/128 and its row weights to 1/256. A solid picture scaled between RGB
 * formats of 8 bits a channel comes out exactly, and alpha stays opaque
 * (0xFF) whatever the source: the filter's weights add up to a whole.
 */
#include <gtest/gtest.h>
#include <libyuv/cpu_id.h>

#include <cmath>
#include <cstring>

#include "nax_test_util.h"

using namespace nax_test;

namespace {

int Tolerance(int s, int d) {
    int tol = IsYuv(s) || IsYuv(d) ? 10 : 2;
    if (s == NAX_FORMAT_RGB_565 || d == NAX_FORMAT_RGB_565)
        tol += 8;
    if (s == NAX_FORMAT_Y4 || d == NAX_FORMAT_Y4)
        tol += 12;
    return tol;
}

struct Picture {
    const char* name;
    std::vector<Rgba> (*make)(int w, int h);
};

const Picture kPictures[] = {
    {"solid",
     [](int w, int h) {
         return Solid(w, h, Rgba{200, 60, 30, 255});
     }},
    {"ramp", [](int w, int h) { return Ramp(w, h); }},
    {"checker", [](int w, int h) { return Checker(w, h, 2); }},
};

struct Size {
    int w, h, ws, hs;
};

void CheckPair(int s, int d, const Size& size, TestBuffer::Backing backing,
               TestBuffer::Backing destination = TestBuffer::Backing::Heap) {
    const Geometry gs{size.w, size.h, size.ws, size.hs, s};
    const Geometry gd{size.w, size.h, size.ws + 1, size.hs + 2, d};
    for (const Picture& pic : kPictures) {
        SCOPED_TRACE(FormatName(s) + " -> " + FormatName(d) + " " + pic.name + " " +
                     std::to_string(size.w) + "x" + std::to_string(size.h));
        TestBuffer src(gs, backing);
        TestBuffer dst(gd, destination);
        const std::vector<Rgba> content = pic.make(size.w, size.h);
        src.Write(content);
        int fence = 7;
        ASSERT_EQ(0, nax_process(src.buffer(), dst.buffer(), nax_buffer_t{}, nax_rect{}, nax_rect{},
                                 nax_rect{}, -1, &fence, nullptr, NAX_USAGE_SYNC));
        EXPECT_EQ(-1, fence);
        const std::vector<Rgba> out = dst.Read();
        const bool grey = IsGrey(s) || IsGrey(d);
        const int tol = Tolerance(s, d);
        int worst = 0;
        int wx = 0, wy = 0;
        for (int y = 0; y < size.h; y++) {
            for (int x = 0; x < size.w; x++) {
                const Rgba want = grey ? GreyOf(content[y * size.w + x]) : content[y * size.w + x];
                const Rgba& got = out[y * size.w + x];
                const int diff = MaxDiff(want, got);
                if (diff > worst) {
                    worst = diff;
                    wx = x;
                    wy = y;
                }
                if (HasAlpha(d)) {
                    ASSERT_EQ(255, got.a) << "at " << x << "," << y;
                }
            }
        }
        EXPECT_LE(worst, tol) << "worst at " << wx << "," << wy;
    }
}

/* The golden pairs check the SIMD rows libyuv picks on this machine: NEON
 * on arm64 (always present there), SSE2 at least on x86-64. */
TEST(Golden, LibyuvRunsItsSimdRowsHere) {
#if defined(__aarch64__)
    EXPECT_NE(0, libyuv::TestCpuFlag(libyuv::kCpuHasNEON));
#elif defined(__x86_64__)
    EXPECT_NE(0, libyuv::TestCpuFlag(libyuv::kCpuHasSSE2));
#else
    GTEST_SKIP() << "no SIMD expectation for this architecture";
#endif
}

class GoldenPair : public ::testing::TestWithParam<int> {};

TEST_P(GoldenPair, EvenSizeFromMemfd) {
    for (int d : AllFormatCodes())
        CheckPair(GetParam(), d, Size{16, 12, 19, 13}, TestBuffer::Backing::Memfd);
}

TEST_P(GoldenPair, OddSizeFromCpuAddress) {
    for (int d : AllFormatCodes())
        CheckPair(GetParam(), d, Size{7, 5, 10, 6}, TestBuffer::Backing::Heap);
}

/* Rows and planes at odd addresses on both sides: nothing in the engine or
 * in the SIMD rows it calls may load or store wider than a byte at an
 * alignment it assumes (x86 forgives that silently, the sanitizer build and
 * some arm64 memory types do not). */
TEST_P(GoldenPair, OddSizeBetweenOddAddresses) {
    for (int d : AllFormatCodes())
        CheckPair(GetParam(), d, Size{7, 5, 10, 6}, TestBuffer::Backing::OddAddress,
                  TestBuffer::Backing::OddAddress);
}

INSTANTIATE_TEST_SUITE_P(AllSources, GoldenPair, ::testing::ValuesIn(AllFormatCodes()),
                         [](const ::testing::TestParamInfo<int>& info) {
                             return FormatName(info.param);
                         });

/* The model's bilinear sample positions along one axis (see the top). */
double SourcePosition(int i, int src, int dst) {
    if (dst <= src)
        return (i + 0.5) * src / dst - 0.5;
    return dst > 1 ? static_cast<double>(i) * (src - 1) / (dst - 1) : 0.0;
}

Rgba Bilinear(const std::vector<Rgba>& img, int w, int h, double x, double y) {
    x = std::clamp(x, 0.0, w - 1.0);
    y = std::clamp(y, 0.0, h - 1.0);
    const int x0 = std::min(static_cast<int>(x), w - 1);
    const int y0 = std::min(static_cast<int>(y), h - 1);
    const int x1 = std::min(x0 + 1, w - 1);
    const int y1 = std::min(y0 + 1, h - 1);
    const double fx = x - x0;
    const double fy = y - y0;
    auto at = [&](int xx, int yy) { return img[static_cast<size_t>(yy) * w + xx]; };
    auto mix = [&](uint8_t Rgba::*c) {
        const double top = at(x0, y0).*c * (1 - fx) + at(x1, y0).*c * fx;
        const double bottom = at(x0, y1).*c * (1 - fx) + at(x1, y1).*c * fx;
        return static_cast<uint8_t>(std::lround(top * (1 - fy) + bottom * fy));
    };
    return Rgba{mix(&Rgba::r), mix(&Rgba::g), mix(&Rgba::b), mix(&Rgba::a)};
}

std::vector<Rgba> ModelScale(const std::vector<Rgba>& img, int w, int h, int dw, int dh) {
    std::vector<Rgba> out(static_cast<size_t>(dw) * dh);
    for (int y = 0; y < dh; y++)
        for (int x = 0; x < dw; x++)
            out[static_cast<size_t>(y) * dw + x] =
                Bilinear(img, w, h, SourcePosition(x, w, dw), SourcePosition(y, h, dh));
    return out;
}

bool IsRgb8(int code) {
    return !IsYuv(code) && code != NAX_FORMAT_RGB_565;
}

const int kRgbDestinations[] = {
    NAX_FORMAT_RGBA_8888, NAX_FORMAT_RGBX_8888, NAX_FORMAT_ABGR_8888, NAX_FORMAT_XBGR_8888,
    NAX_FORMAT_ARGB_8888, NAX_FORMAT_BGRA_8888, NAX_FORMAT_RGB_888,   NAX_FORMAT_BGR_888,
};

struct Scaling {
    const char* name;
    int sw, sh; /* source */
    int dw, dh; /* destination */
    int transform;
};

/* Horizontal and vertical ratios differ in each; the turned one scales
 * 16x12 to 10x7 and then turns it. */
const Scaling kScalings[] = {
    {"shrink", 16, 12, 10, 7, 0},
    {"enlarge", 16, 12, 33, 20, 0},
    {"shrink and turn", 16, 12, 7, 10, NAX_TRANSFORM_ROT_90},
    {"enlarge and turn", 16, 12, 20, 33, NAX_TRANSFORM_ROT_270},
};

std::vector<Rgba> ScaleInto(int s, int d, const Scaling& c, const std::vector<Rgba>& content) {
    TestBuffer src(Geometry{c.sw, c.sh, c.sw, c.sh, s});
    TestBuffer dst(Geometry{c.dw, c.dh, c.dw + 3, c.dh, d});
    src.Write(content);
    int fence = 7;
    EXPECT_EQ(0, nax_process(src.buffer(), dst.buffer(), nax_buffer_t{}, nax_rect{}, nax_rect{},
                             nax_rect{}, -1, &fence, nullptr, NAX_USAGE_SYNC | c.transform));
    return dst.Read();
}

class GoldenScale : public ::testing::TestWithParam<int> {};

/* A solid picture stays solid: exactly between 8-bit RGB formats, within
 * the conversion tolerance otherwise; alpha is 0xFF everywhere. */
TEST_P(GoldenScale, SolidStaysSolidAndOpaque) {
    const int s = GetParam();
    const Rgba colour{200, 60, 30, 255};
    for (int d : kRgbDestinations) {
        for (const Scaling& c : kScalings) {
            SCOPED_TRACE(FormatName(s) + " -> " + FormatName(d) + " " + c.name);
            const Rgba want = IsGrey(s) ? GreyOf(colour) : colour;
            const int tol = IsRgb8(s) ? 0 : Tolerance(s, d);
            const std::vector<Rgba> out = ScaleInto(s, d, c, Solid(c.sw, c.sh, colour));
            int worst = 0;
            for (const Rgba& p : out) {
                worst = std::max(worst, MaxDiff(want, p));
                ASSERT_EQ(255, p.a);
            }
            EXPECT_LE(worst, tol);
        }
    }
}

/* A ramp follows the model's bilinear resample. */
TEST_P(GoldenScale, RampFollowsTheModel) {
    const int s = GetParam();
    for (int d : kRgbDestinations) {
        for (const Scaling& c : kScalings) {
            if (c.transform != 0)
                continue;
            SCOPED_TRACE(FormatName(s) + " -> " + FormatName(d) + " " + c.name);
            std::vector<Rgba> content = Ramp(c.sw, c.sh);
            std::vector<Rgba> want = ModelScale(content, c.sw, c.sh, c.dw, c.dh);
            if (IsGrey(s)) {
                for (Rgba& p : want)
                    p = GreyOf(p);
            }
            const std::vector<Rgba> out = ScaleInto(s, d, c, content);
            const int tol = Tolerance(s, d) + 2;
            int worst = 0;
            for (size_t i = 0; i < out.size(); i++) {
                worst = std::max(worst, MaxDiff(want[i], out[i]));
                ASSERT_EQ(255, out[i].a) << "pixel " << i;
            }
            EXPECT_LE(worst, tol);
        }
    }
}

INSTANTIATE_TEST_SUITE_P(AllSources, GoldenScale, ::testing::ValuesIn(AllFormatCodes()),
                         [](const ::testing::TestParamInfo<int>& info) {
                             return FormatName(info.param);
                         });

/* Scaling between formats with alpha keeps a translucent alpha's value. */
TEST(Golden, TranslucentAlphaKeepsItsValueWhenScaled) {
    for (const Scaling& c : kScalings) {
        SCOPED_TRACE(c.name);
        const std::vector<Rgba> out = ScaleInto(NAX_FORMAT_RGBA_8888, NAX_FORMAT_BGRA_8888, c,
                                                Solid(c.sw, c.sh, Rgba{10, 128, 255, 77}));
        for (const Rgba& p : out) {
            ASSERT_EQ(77, p.a);
            ASSERT_EQ(10, p.r);
            ASSERT_EQ(128, p.g);
            ASSERT_EQ(255, p.b);
        }
    }
}

/* A translucent alpha travels between the formats that carry one. */
TEST(Golden, AlphaIsKeptBetweenAlphaFormats) {
    const int alphaFormats[] = {NAX_FORMAT_RGBA_8888, NAX_FORMAT_BGRA_8888, NAX_FORMAT_ARGB_8888,
                                NAX_FORMAT_ABGR_8888};
    for (int s : alphaFormats) {
        for (int d : alphaFormats) {
            TestBuffer src(Geometry{4, 2, 4, 2, s});
            TestBuffer dst(Geometry{4, 2, 4, 2, d});
            src.Write(Solid(4, 2, Rgba{10, 20, 30, 77}));
            ASSERT_EQ(0, nax_cvtcolor(src.buffer(), dst.buffer(), s, d, 0, 1, nullptr));
            for (const Rgba& p : dst.Read()) {
                EXPECT_EQ(77, p.a) << FormatName(s) << " -> " << FormatName(d);
                EXPECT_EQ(10, p.r);
                EXPECT_EQ(30, p.b);
            }
        }
    }
}

/* The packed RGB formats' bytes in memory, written out by hand: the codes
 * carry V4L2's names, which for ABGR, XBGR, BGRA and BGRX read the
 * little-endian word ("AR24" is B,G,R,A; "RA24" is A,B,G,R). 'X' is a byte
 * whose value is not checked. */
struct ByteLayout {
    int code;
    const char* bytes;
};

const ByteLayout kByteLayouts[] = {
    {NAX_FORMAT_RGBA_8888, "RGBA"}, {NAX_FORMAT_RGBX_8888, "RGBX"}, {NAX_FORMAT_ARGB_8888, "ARGB"},
    {NAX_FORMAT_XRGB_8888, "XRGB"}, {NAX_FORMAT_ABGR_8888, "BGRA"}, {NAX_FORMAT_XBGR_8888, "BGRX"},
    {NAX_FORMAT_BGRA_8888, "ABGR"}, {NAX_FORMAT_BGRX_8888, "XBGR"}, {NAX_FORMAT_RGB_888, "RGB"},
    {NAX_FORMAT_BGR_888, "BGR"},
};

uint8_t ChannelValue(char c) {
    switch (c) {
        case 'R':
            return 0x11;
        case 'G':
            return 0x22;
        case 'B':
            return 0x33;
        case 'A':
            return 0x44;
        default:
            return 0x99;
    }
}

TEST(Golden, PackedRgbBytesInMemory) {
    for (const ByteLayout& l : kByteLayouts) {
        SCOPED_TRACE(FormatName(l.code));
        const size_t bpp = strlen(l.bytes);
        /* Encoding: from R,G,B,A bytes into the format. */
        TestBuffer rgba(Geometry{2, 1, 2, 1, NAX_FORMAT_RGBA_8888});
        const uint8_t px[4] = {0x11, 0x22, 0x33, 0x44};
        memcpy(rgba.data(), px, 4);
        memcpy(rgba.data() + 4, px, 4);
        TestBuffer out(Geometry{2, 1, 2, 1, l.code});
        ASSERT_EQ(0, nax_cvtcolor(rgba.buffer(), out.buffer(), NAX_FORMAT_RGBA_8888, l.code, 0, 1,
                                  nullptr));
        for (size_t i = 0; i < 2 * bpp; i++) {
            const char c = l.bytes[i % bpp];
            if (c != 'X') {
                EXPECT_EQ(ChannelValue(c), out.data()[i]) << "byte " << i;
            }
        }
        /* Decoding: from the format's bytes back to R,G,B,A. */
        for (size_t i = 0; i < 2 * bpp; i++)
            out.data()[i] = ChannelValue(l.bytes[i % bpp]);
        memset(rgba.data(), 0, 8);
        ASSERT_EQ(0, nax_cvtcolor(out.buffer(), rgba.buffer(), l.code, NAX_FORMAT_RGBA_8888, 0, 1,
                                  nullptr));
        const bool alpha = strchr(l.bytes, 'A') != nullptr;
        for (int i = 0; i < 2; i++) {
            EXPECT_EQ(0x11, rgba.data()[4 * i + 0]);
            EXPECT_EQ(0x22, rgba.data()[4 * i + 1]);
            EXPECT_EQ(0x33, rgba.data()[4 * i + 2]);
            EXPECT_EQ(alpha ? 0x44 : 0xFF, rgba.data()[4 * i + 3]);
        }
    }
}

/* The direct paths from camera formats into B,G,R,A memory ("AR24",
 * "XR24") and the general path into A,B,G,R ("RA24", "RX24") agree with
 * the R,G,B,A output byte for byte. */
TEST(Golden, CameraFormatsIntoV4l2Orders) {
    const int sources[] = {NAX_FORMAT_YCbCr_420_SP, NAX_FORMAT_YCrCb_420_SP, NAX_FORMAT_YUYV_422,
                           NAX_FORMAT_UYVY_422};
    for (int s : sources) {
        TestBuffer src(Geometry{8, 4, 8, 4, s});
        src.Write(Ramp(8, 4));
        TestBuffer ref(Geometry{8, 4, 8, 4, NAX_FORMAT_RGBA_8888});
        ASSERT_EQ(0,
                  nax_cvtcolor(src.buffer(), ref.buffer(), s, NAX_FORMAT_RGBA_8888, 0, 1, nullptr));
        for (const ByteLayout& l : kByteLayouts) {
            if (strlen(l.bytes) != 4)
                continue;
            SCOPED_TRACE(FormatName(s) + " -> " + FormatName(l.code));
            TestBuffer dst(Geometry{8, 4, 8, 4, l.code});
            ASSERT_EQ(0, nax_cvtcolor(src.buffer(), dst.buffer(), s, l.code, 0, 1, nullptr));
            for (int p = 0; p < 8 * 4; p++) {
                for (int i = 0; i < 4; i++) {
                    const char c = l.bytes[i];
                    if (c == 'X')
                        continue;
                    const int from = c == 'R' ? 0 : c == 'G' ? 1 : c == 'B' ? 2 : 3;
                    ASSERT_NEAR(ref.data()[4 * p + from], dst.data()[4 * p + i], 1)
                        << "pixel " << p << " byte " << i;
                }
            }
        }
    }
}

/* Known values of BT.601 limited range: white, black and a pure red. */
TEST(Golden, LimitedRangeLevels) {
    TestBuffer src(Geometry{2, 2, 2, 2, NAX_FORMAT_RGBA_8888});
    TestBuffer dst(Geometry{2, 2, 2, 2, NAX_FORMAT_YCbCr_420_P});
    src.Write(Solid(2, 2, Rgba{255, 255, 255, 255}));
    ASSERT_EQ(0, nax_cvtcolor(src.buffer(), dst.buffer(), NAX_FORMAT_RGBA_8888,
                              NAX_FORMAT_YCbCr_420_P, 0, 1, nullptr));
    EXPECT_NEAR(235, dst.data()[0], 1);
    EXPECT_NEAR(128, dst.data()[4], 1);
    src.Write(Solid(2, 2, Rgba{0, 0, 0, 255}));
    ASSERT_EQ(0, nax_cvtcolor(src.buffer(), dst.buffer(), NAX_FORMAT_RGBA_8888,
                              NAX_FORMAT_YCbCr_420_P, 0, 1, nullptr));
    EXPECT_NEAR(16, dst.data()[0], 1);
    src.Write(Solid(2, 2, Rgba{255, 0, 0, 255}));
    ASSERT_EQ(0, nax_cvtcolor(src.buffer(), dst.buffer(), NAX_FORMAT_RGBA_8888,
                              NAX_FORMAT_YCbCr_420_P, 0, 1, nullptr));
    EXPECT_NEAR(82, dst.data()[0], 1);  /* Y */
    EXPECT_NEAR(90, dst.data()[4], 1);  /* Cb */
    EXPECT_NEAR(240, dst.data()[5], 1); /* Cr */
}

/* Y4 keeps 16 levels in the high nibble. */
TEST(Golden, Y4Nibbles) {
    TestBuffer src(Geometry{4, 1, 4, 1, NAX_FORMAT_Y8});
    TestBuffer dst(Geometry{4, 1, 4, 1, NAX_FORMAT_Y4});
    const uint8_t levels[4] = {0, 16, 128, 255};
    memcpy(src.data(), levels, 4);
    ASSERT_EQ(
        0, nax_cvtcolor(src.buffer(), dst.buffer(), NAX_FORMAT_Y8, NAX_FORMAT_Y4, 0, 1, nullptr));
    EXPECT_EQ(0x00, dst.data()[0]);
    EXPECT_EQ(0x10, dst.data()[1]);
    EXPECT_EQ(0x80, dst.data()[2]);
    EXPECT_EQ(0xF0, dst.data()[3]);
    TestBuffer back(Geometry{4, 1, 4, 1, NAX_FORMAT_Y8});
    ASSERT_EQ(
        0, nax_cvtcolor(dst.buffer(), back.buffer(), NAX_FORMAT_Y4, NAX_FORMAT_Y8, 0, 1, nullptr));
    EXPECT_EQ(0x00, back.data()[0]);
    EXPECT_EQ(0x11, back.data()[1]);
    EXPECT_EQ(0x88, back.data()[2]);
    EXPECT_EQ(0xFF, back.data()[3]);
}

}  // namespace
