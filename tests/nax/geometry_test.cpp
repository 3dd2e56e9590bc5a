/*
 * Crop, scale, rotation and mirroring, the single-step operations, and the
 * pixels a job must leave alone.
 */
#include <gtest/gtest.h>

#include <cstring>

#include "nax_test_util.h"

using namespace nax_test;

namespace {

const nax_buffer_t kNoPattern{};

int Process(const TestBuffer& src, const TestBuffer& dst, nax_rect sr, nax_rect dr, int usage) {
    int fence = 0;
    const int rc = nax_process(src.buffer(), dst.buffer(), kNoPattern, sr, dr, nax_rect{}, -1,
                               &fence, nullptr, usage);
    EXPECT_EQ(-1, fence);
    return rc;
}

Rgba Unique(int x, int y) {
    return Rgba{uint8_t(x * 10 + 1), uint8_t(y * 10 + 1), 77, 255};
}

std::vector<Rgba> UniqueImage(int w, int h) {
    std::vector<Rgba> img(static_cast<size_t>(w) * h);
    for (int y = 0; y < h; y++)
        for (int x = 0; x < w; x++)
            img[y * w + x] = Unique(x, y);
    return img;
}

/* Where output pixel (x, y) of a w x h source comes from: clockwise
 * rotation first, then mirroring of the rotated image. */
void SourceOf(int transform, int w, int h, int x, int y, int* sx, int* sy) {
    const bool swap = transform & (NAX_TRANSFORM_ROT_90 | NAX_TRANSFORM_ROT_270);
    const int ow = swap ? h : w;
    const int oh = swap ? w : h;
    if (transform & NAX_TRANSFORM_FLIP_H)
        x = ow - 1 - x;
    if (transform & NAX_TRANSFORM_FLIP_V)
        y = oh - 1 - y;
    if (transform & NAX_TRANSFORM_ROT_90) {
        *sx = y;
        *sy = h - 1 - x;
    } else if (transform & NAX_TRANSFORM_ROT_180) {
        *sx = w - 1 - x;
        *sy = h - 1 - y;
    } else if (transform & NAX_TRANSFORM_ROT_270) {
        *sx = w - 1 - y;
        *sy = x;
    } else {
        *sx = x;
        *sy = y;
    }
}

const int kRotations[] = {0, NAX_TRANSFORM_ROT_90, NAX_TRANSFORM_ROT_180, NAX_TRANSFORM_ROT_270};
const int kMirrors[] = {0, NAX_TRANSFORM_FLIP_H, NAX_TRANSFORM_FLIP_V,
                        NAX_TRANSFORM_FLIP_H | NAX_TRANSFORM_FLIP_V};

TEST(Geometry, EveryRotationAndMirrorRgba) {
    const int w = 5, h = 3;
    for (int rot : kRotations) {
        for (int mirror : kMirrors) {
            const int t = rot | mirror;
            SCOPED_TRACE("transform " + std::to_string(t));
            const bool swap = rot == NAX_TRANSFORM_ROT_90 || rot == NAX_TRANSFORM_ROT_270;
            TestBuffer src(Geometry{w, h, w + 2, h, NAX_FORMAT_RGBA_8888});
            TestBuffer dst(Geometry{swap ? h : w, swap ? w : h, 8, 8, NAX_FORMAT_RGBA_8888});
            src.Write(UniqueImage(w, h));
            ASSERT_EQ(0, Process(src, dst, nax_rect{}, nax_rect{}, NAX_USAGE_ASYNC | t));
            const std::vector<Rgba> out = dst.Read();
            const int ow = dst.geometry().width;
            for (int y = 0; y < dst.geometry().height; y++) {
                for (int x = 0; x < ow; x++) {
                    int sx, sy;
                    SourceOf(t, w, h, x, y, &sx, &sy);
                    ASSERT_EQ(0, MaxDiff(Unique(sx, sy), out[y * ow + x])) << x << "," << y;
                }
            }
        }
    }
}

/* Luma is carried exactly on the 4:2:0 and grey paths (direct rotation of
 * NV12 and Y8, the I420 working image for the others) and within rounding
 * through ARGB for 4:2:2. */
TEST(Geometry, EveryRotationAndMirrorKeepsLuma) {
    const int formats[] = {NAX_FORMAT_YCbCr_420_SP, NAX_FORMAT_Y8, NAX_FORMAT_YCbCr_422_SP,
                           NAX_FORMAT_YCrCb_420_P, NAX_FORMAT_Y4};
    const int w = 8, h = 6;
    for (int f : formats) {
        for (int rot : kRotations) {
            for (int mirror : kMirrors) {
                const int t = rot | mirror;
                SCOPED_TRACE(FormatName(f) + " transform " + std::to_string(t));
                const bool swap = rot == NAX_TRANSFORM_ROT_90 || rot == NAX_TRANSFORM_ROT_270;
                TestBuffer src(Geometry{w, h, w, h, f});
                TestBuffer dst(Geometry{swap ? h : w, swap ? w : h, 10, 10, f});
                const int tol = f == NAX_FORMAT_YCbCr_422_SP ? 2 : 0;
                for (int y = 0; y < h; y++)
                    for (int x = 0; x < w; x++)
                        src.data()[y * w + x] = uint8_t(16 + x * 20 + y * 3) & 0xF0;
                if (f == NAX_FORMAT_YCbCr_422_SP)
                    memset(src.data() + w * h, 128, w * h);
                ASSERT_EQ(0, Process(src, dst, nax_rect{}, nax_rect{}, NAX_USAGE_SYNC | t));
                for (int y = 0; y < dst.geometry().height; y++) {
                    for (int x = 0; x < dst.geometry().width; x++) {
                        int sx, sy;
                        SourceOf(t, w, h, x, y, &sx, &sy);
                        ASSERT_NEAR(src.data()[sy * w + sx], dst.data()[y * 10 + x], tol)
                            << x << "," << y;
                    }
                }
            }
        }
    }
}

/* NV12 rotation turns the chroma pairs as a whole. */
TEST(Geometry, Nv12Rotate90MovesChromaBlocks) {
    const int w = 8, h = 4;
    TestBuffer src(Geometry{w, h, w, h, NAX_FORMAT_YCbCr_420_SP});
    TestBuffer dst(Geometry{h, w, h, w, NAX_FORMAT_YCbCr_420_SP});
    uint8_t* uv = src.data() + w * h;
    for (int by = 0; by < h / 2; by++) {
        for (int bx = 0; bx < w / 2; bx++) {
            uv[by * w + 2 * bx] = uint8_t(100 + bx);
            uv[by * w + 2 * bx + 1] = uint8_t(200 + by);
        }
    }
    ASSERT_EQ(0, nax_rotate(src.buffer(), dst.buffer(), NAX_ROTATE_90, 1, nullptr));
    const uint8_t* out = dst.data() + w * h;
    for (int by = 0; by < w / 2; by++) {
        for (int bx = 0; bx < h / 2; bx++) {
            /* Rotated block (bx, by) comes from source block (by, h/2-1-bx). */
            EXPECT_EQ(100 + by, out[by * h + 2 * bx]);
            EXPECT_EQ(200 + (h / 2 - 1 - bx), out[by * h + 2 * bx + 1]);
        }
    }
}

TEST(Geometry, SingleStepRotateAndFlip) {
    TestBuffer src(Geometry{4, 2, 4, 2, NAX_FORMAT_BGRA_8888});
    TestBuffer rotated(Geometry{2, 4, 2, 4, NAX_FORMAT_BGRA_8888});
    TestBuffer flipped(Geometry{4, 2, 4, 2, NAX_FORMAT_BGRA_8888});
    src.Write(UniqueImage(4, 2));
    const int angles[] = {0, NAX_ROTATE_90, NAX_ROTATE_180, NAX_ROTATE_270};
    const int bits[] = {0, NAX_TRANSFORM_ROT_90, NAX_TRANSFORM_ROT_180, NAX_TRANSFORM_ROT_270};
    for (int i = 0; i < 4; i++) {
        TestBuffer& dst = (i % 2) ? rotated : flipped;
        int fence = 0;
        ASSERT_EQ(0, nax_rotate(src.buffer(), dst.buffer(), angles[i], 0, &fence));
        EXPECT_EQ(-1, fence);
        const std::vector<Rgba> out = dst.Read();
        const int ow = dst.geometry().width;
        for (int y = 0; y < dst.geometry().height; y++)
            for (int x = 0; x < ow; x++) {
                int sx, sy;
                SourceOf(bits[i], 4, 2, x, y, &sx, &sy);
                EXPECT_EQ(0, MaxDiff(Unique(sx, sy), out[y * ow + x]));
            }
    }
    /* The destination must have the rotated size. */
    EXPECT_EQ(-EINVAL, nax_rotate(src.buffer(), flipped.buffer(), NAX_ROTATE_90, 1, nullptr));
    EXPECT_EQ(-EINVAL, nax_rotate(src.buffer(), rotated.buffer(), 45, 1, nullptr));

    const int modes[] = {NAX_FLIP_H, NAX_FLIP_V};
    const int mbits[] = {NAX_TRANSFORM_FLIP_H, NAX_TRANSFORM_FLIP_V};
    for (int i = 0; i < 2; i++) {
        ASSERT_EQ(0, nax_flip(src.buffer(), flipped.buffer(), modes[i], 1, nullptr));
        const std::vector<Rgba> out = flipped.Read();
        for (int y = 0; y < 2; y++)
            for (int x = 0; x < 4; x++) {
                int sx, sy;
                SourceOf(mbits[i], 4, 2, x, y, &sx, &sy);
                EXPECT_EQ(0, MaxDiff(Unique(sx, sy), out[y * 4 + x]));
            }
    }
    EXPECT_EQ(-EINVAL, nax_flip(src.buffer(), flipped.buffer(), 2, 1, nullptr));
}

TEST(Geometry, CropReachingTheEdge) {
    TestBuffer src(Geometry{5, 3, 6, 4, NAX_FORMAT_RGB_888});
    src.Write(UniqueImage(5, 3));
    TestBuffer dst(Geometry{3, 2, 3, 2, NAX_FORMAT_RGB_888});
    ASSERT_EQ(0, Process(src, dst, nax_rect{2, 1, 3, 2}, nax_rect{}, NAX_USAGE_SYNC));
    std::vector<Rgba> out = dst.Read();
    for (int y = 0; y < 2; y++)
        for (int x = 0; x < 3; x++)
            EXPECT_EQ(0, MaxDiff(Unique(x + 2, y + 1), out[y * 3 + x]));

    /* nax_crop puts the rectangle at the top left and leaves the rest. */
    TestBuffer big(Geometry{4, 4, 4, 4, NAX_FORMAT_RGB_888});
    big.Write(Solid(4, 4, Rgba{9, 9, 9, 255}));
    ASSERT_EQ(0, nax_crop(src.buffer(), big.buffer(), nax_rect{2, 1, 3, 2}, 1, nullptr));
    out = big.Read();
    for (int y = 0; y < 4; y++)
        for (int x = 0; x < 4; x++) {
            const Rgba want = (x < 3 && y < 2) ? Unique(x + 2, y + 1) : Rgba{9, 9, 9, 255};
            EXPECT_EQ(0, MaxDiff(want, out[y * 4 + x])) << x << "," << y;
        }
    EXPECT_EQ(-EINVAL, nax_crop(src.buffer(), big.buffer(), nax_rect{3, 0, 3, 2}, 1, nullptr));
    EXPECT_EQ(-EINVAL, nax_crop(src.buffer(), dst.buffer(), nax_rect{0, 0, 4, 2}, 1, nullptr));
}

/* An odd crop of a 4:2:0 image keeps its luma exact. */
TEST(Geometry, OddCropOfNv12) {
    const int w = 8, h = 6;
    TestBuffer src(Geometry{w, h, w, h, NAX_FORMAT_YCbCr_420_SP});
    for (int i = 0; i < w * h; i++)
        src.data()[i] = uint8_t(16 + i * 3);
    memset(src.data() + w * h, 128, w * h / 2);
    TestBuffer dst(Geometry{5, 3, 6, 4, NAX_FORMAT_YCbCr_420_SP});
    ASSERT_EQ(0, Process(src, dst, nax_rect{3, 3, 5, 3}, nax_rect{}, NAX_USAGE_SYNC));
    for (int y = 0; y < 3; y++)
        for (int x = 0; x < 5; x++)
            EXPECT_EQ(src.data()[(y + 3) * w + x + 3], dst.data()[y * 6 + x]) << x << "," << y;
}

TEST(Geometry, ScaleDownAveragesAndUpInterpolates) {
    const int formats[] = {NAX_FORMAT_RGBA_8888, NAX_FORMAT_YCbCr_420_SP, NAX_FORMAT_RGB_888,
                           NAX_FORMAT_UYVY_422};
    for (int f : formats) {
        SCOPED_TRACE(FormatName(f));
        const int tol = IsYuv(f) ? 6 : 2;
        TestBuffer src(Geometry{16, 4, 16, 4, f});
        std::vector<Rgba> ramp(64);
        for (int y = 0; y < 4; y++)
            for (int x = 0; x < 16; x++)
                ramp[y * 16 + x] = Rgba{uint8_t(30 + 12 * x), uint8_t(30 + 12 * x),
                                        uint8_t(30 + 12 * x), 255}; /* grey: luma only */
        src.Write(ramp);
        TestBuffer half(Geometry{8, 2, 8, 2, f});
        ASSERT_EQ(0, Process(src, half, nax_rect{}, nax_rect{}, NAX_USAGE_SYNC));
        std::vector<Rgba> out = half.Read();
        for (int x = 0; x < 8; x++)
            EXPECT_NEAR(30 + 12 * (2 * x) + 6, out[x].r, tol) << x;

        TestBuffer twice(Geometry{32, 8, 32, 8, f});
        ASSERT_EQ(0, Process(src, twice, nax_rect{}, nax_rect{}, NAX_USAGE_SYNC));
        out = twice.Read();
        for (int x = 1; x < 32; x++)
            EXPECT_GE(out[x].r + tol, out[x - 1].r) << x;
        EXPECT_NEAR(30, out[0].r, tol);
        EXPECT_NEAR(30 + 12 * 15, out[31].r, tol);
    }
}

/* A destination rectangle is filled; every other pixel stays. */
TEST(Geometry, DestinationRectangleOnly) {
    TestBuffer src(Geometry{4, 4, 4, 4, NAX_FORMAT_RGBA_8888});
    src.Write(Solid(4, 4, Rgba{200, 10, 10, 255}));
    TestBuffer dst(Geometry{10, 8, 12, 8, NAX_FORMAT_XBGR_8888});
    dst.Write(Solid(10, 8, Rgba{1, 2, 3, 255}));
    ASSERT_EQ(0, Process(src, dst, nax_rect{}, nax_rect{2, 3, 7, 5}, NAX_USAGE_SYNC));
    const std::vector<Rgba> out = dst.Read();
    for (int y = 0; y < 8; y++)
        for (int x = 0; x < 10; x++) {
            const bool inside = x >= 2 && x < 9 && y >= 3;
            /* Bilinear scaling of a solid colour may round by 2. */
            if (inside)
                EXPECT_LE(MaxDiff(Rgba{200, 10, 10, 255}, out[y * 10 + x]), 2) << x << "," << y;
            else
                EXPECT_EQ(0, MaxDiff(Rgba{1, 2, 3, 255}, out[y * 10 + x])) << x << "," << y;
        }
}

/* Luma of pixel (x, y) of the formats below, stride 10 pixels. */
uint8_t LumaAt(int f, const uint8_t* base, int x, int y) {
    switch (f) {
        case NAX_FORMAT_YUYV_422:
            return base[y * 20 + (x / 2) * 4 + (x % 2 ? 2 : 0)];
        case NAX_FORMAT_VYUY_422:
            return base[y * 20 + (x / 2) * 4 + (x % 2 ? 3 : 1)];
        default:
            return base[y * 10 + x];
    }
}

/*
 * A rectangle off the chroma grid: pixels that share no chroma sample with
 * it keep every byte, those that do keep their luma (exactly on the 4:2:0
 * path, within rounding through ARGB for 4:2:2) and take the new chroma.
 */
TEST(Geometry, OddDestinationRectangleKeepsNeighbours) {
    const int formats[] = {NAX_FORMAT_YCbCr_420_SP, NAX_FORMAT_YUYV_422, NAX_FORMAT_VYUY_422,
                           NAX_FORMAT_YCrCb_420_P};
    for (int f : formats) {
        SCOPED_TRACE(FormatName(f));
        const bool is420 = f == NAX_FORMAT_YCbCr_420_SP || f == NAX_FORMAT_YCrCb_420_P;
        const Geometry g{9, 7, 10, 7, f};
        TestBuffer dst(g);
        dst.Write(Ramp(9, 7));
        const std::vector<uint8_t> before(dst.data(), dst.data() + dst.size());
        const std::vector<Rgba> ramp = dst.Read();
        TestBuffer src(Geometry{2, 2, 2, 2, NAX_FORMAT_BGR_888});
        src.Write(Solid(2, 2, Rgba{250, 250, 250, 255}));
        ASSERT_EQ(0, Process(src, dst, nax_rect{}, nax_rect{1, 1, 3, 5}, NAX_USAGE_SYNC));
        const std::vector<Rgba> out = dst.Read();
        /* The rectangle on the chroma grid: x 0..3, y 0..5 (4:2:0) or 1..5. */
        const int ay0 = is420 ? 0 : 1;
        for (int y = 0; y < 7; y++) {
            for (int x = 0; x < 9; x++) {
                const bool inside = x >= 1 && x < 4 && y >= 1 && y < 6;
                const bool shares = x < 4 && y >= ay0 && y < 6;
                if (inside) {
                    EXPECT_GE(out[y * 9 + x].g, 235) << x << "," << y;
                } else if (shares) {
                    EXPECT_NEAR(LumaAt(f, before.data(), x, y), LumaAt(f, dst.data(), x, y),
                                is420 ? 0 : 2)
                        << x << "," << y;
                } else {
                    EXPECT_EQ(0, MaxDiff(ramp[y * 9 + x], out[y * 9 + x])) << x << "," << y;
                }
            }
        }
    }
}

TEST(Geometry, ResizeByFactorsOrToTheDestination) {
    TestBuffer src(Geometry{16, 8, 16, 8, NAX_FORMAT_YCbCr_420_SP});
    src.Write(Solid(16, 8, Rgba{50, 150, 250, 255}));
    TestBuffer dst(Geometry{12, 6, 12, 6, NAX_FORMAT_YCbCr_420_SP});
    dst.Write(Solid(12, 6, Rgba{0, 0, 0, 255}));
    int fence = 0;
    ASSERT_EQ(0, nax_resize(src.buffer(), dst.buffer(), 0.5, 0.5, 1, 0, &fence));
    EXPECT_EQ(-1, fence);
    std::vector<Rgba> out = dst.Read();
    for (int y = 0; y < 6; y++)
        for (int x = 0; x < 12; x++) {
            const Rgba want = (x < 8 && y < 4) ? Rgba{50, 150, 250, 255} : Rgba{0, 0, 0, 255};
            EXPECT_LE(MaxDiff(want, out[y * 12 + x]), 10) << x << "," << y;
        }
    ASSERT_EQ(0, nax_resize(src.buffer(), dst.buffer(), 0, 0, 0, 1, nullptr));
    out = dst.Read();
    for (const Rgba& p : out)
        EXPECT_LE(MaxDiff(Rgba{50, 150, 250, 255}, p), 10);
    EXPECT_EQ(-EINVAL, nax_resize(src.buffer(), dst.buffer(), 2, 2, 1, 1, nullptr));
    EXPECT_EQ(-EINVAL, nax_resize(src.buffer(), dst.buffer(), 0.5, 0.5, 9, 1, nullptr));
}

TEST(Geometry, CopyAndCvtcolorSingleSteps) {
    const Geometry g{6, 4, 8, 5, NAX_FORMAT_YCbCr_420_SP};
    TestBuffer src(g);
    TestBuffer dst(g);
    for (size_t i = 0; i < src.size(); i++)
        src.data()[i] = uint8_t(i * 7);
    ASSERT_EQ(0, nax_copy(src.buffer(), dst.buffer(), 1, nullptr));
    for (const PlaneGeom& p : Planes(g)) {
        const size_t used = 6; /* 6 luma bytes or 3 chroma pairs */
        const size_t rows = p.offset == 0 ? 4 : 2;
        for (size_t r = 0; r < rows; r++)
            EXPECT_EQ(0, memcmp(src.data() + p.offset + r * p.pitch,
                                dst.data() + p.offset + r * p.pitch, used));
    }
    TestBuffer other(Geometry{6, 4, 6, 4, NAX_FORMAT_YCrCb_420_SP});
    TestBuffer small(Geometry{4, 4, 4, 4, NAX_FORMAT_YCbCr_420_SP});
    EXPECT_EQ(-EINVAL, nax_copy(src.buffer(), other.buffer(), 1, nullptr));
    EXPECT_EQ(-EINVAL, nax_copy(src.buffer(), small.buffer(), 1, nullptr));

    /* cvtcolor reads and writes the memory in the formats it is given. */
    TestBuffer rgba(Geometry{6, 4, 6, 4, NAX_FORMAT_RGBA_8888});
    src.Write(Solid(6, 4, Rgba{30, 200, 90, 255}));
    ASSERT_EQ(0, nax_cvtcolor(src.buffer(), rgba.buffer(), NAX_FORMAT_YCbCr_420_SP,
                              NAX_FORMAT_RGBA_8888, 0, 1, nullptr));
    for (const Rgba& p : rgba.Read())
        EXPECT_LE(MaxDiff(Rgba{30, 200, 90, 255}, p), 10);
    EXPECT_EQ(-EOPNOTSUPP, nax_cvtcolor(src.buffer(), rgba.buffer(), NAX_FORMAT_YCbCr_420_SP,
                                        NAX_FORMAT_RGBA_8888, 1, 1, nullptr));
    EXPECT_EQ(-EINVAL, nax_cvtcolor(src.buffer(), small.buffer(), NAX_FORMAT_YCbCr_420_SP,
                                    NAX_FORMAT_YCbCr_420_SP, 0, 1, nullptr));
}

}  // namespace

namespace {

/* An odd crop out of every format lands on the right pixels: the source is
 * read from its chroma grid and the extra column and row are dropped. */
TEST(Geometry, OddCropOfEveryFormat) {
    const int w = 9, h = 6;
    std::vector<Rgba> greys(w * h);
    for (int y = 0; y < h; y++)
        for (int x = 0; x < w; x++) {
            const uint8_t v = uint8_t(20 + x * 24 + y * 4);
            greys[y * w + x] = Rgba{v, v, v, 255};
        }
    for (int f : AllFormatCodes()) {
        SCOPED_TRACE(FormatName(f));
        TestBuffer src(Geometry{w, h, w + 1, h, f});
        src.Write(greys);
        const std::vector<Rgba> stored = src.Read();
        TestBuffer dst(Geometry{4, 3, 4, 3, NAX_FORMAT_RGBA_8888});
        ASSERT_EQ(0, Process(src, dst, nax_rect{3, 1, 4, 3}, nax_rect{}, NAX_USAGE_SYNC));
        const std::vector<Rgba> out = dst.Read();
        for (int y = 0; y < 3; y++)
            for (int x = 0; x < 4; x++)
                EXPECT_LE(MaxDiff(stored[(y + 1) * w + x + 3], out[y * 4 + x]), 3) << x << "," << y;
    }
}

}  // namespace

/*
 * The frame fan-out's call: one captured frame, the same source
 * description for every client, each client's own source crop (here
 * quadrants reaching the right and bottom edges), no destination
 * rectangle, an asynchronous job and the client's transform bits. Each
 * client gets its own region, converted, scaled and turned, and no byte of
 * its padding changes.
 */
TEST(Geometry, FanOutCallPatternPerClientCrops) {
    const int w = 16, h = 12;
    const Rgba tl{200, 60, 30, 255}, tr{20, 160, 60, 255}, bl{40, 40, 200, 255},
        br{230, 200, 40, 255};
    std::vector<Rgba> quadrants(static_cast<size_t>(w) * h);
    for (int y = 0; y < h; y++)
        for (int x = 0; x < w; x++)
            quadrants[y * w + x] = y < h / 2 ? (x < w / 2 ? tl : tr) : (x < w / 2 ? bl : br);
    TestBuffer src(Geometry{w, h, w, h, NAX_FORMAT_UYVY_422});
    src.Write(quadrants);

    /* Client A: the bottom right quadrant, rotated and scaled up to NV12. */
    TestBuffer a(Geometry{12, 16, 16, 18, NAX_FORMAT_YCbCr_420_SP}, TestBuffer::Backing::Heap);
    memset(a.data(), 0xEE, a.size());
    /* Client B: the top left quadrant, mirrored and scaled down to RGBA. */
    TestBuffer b(Geometry{4, 3, 6, 4, NAX_FORMAT_RGBA_8888}, TestBuffer::Backing::Heap);
    memset(b.data(), 0xEE, b.size());

    const nax_buffer_t source = src.buffer();
    int fence = 5;
    ASSERT_EQ(
        0, nax_process(source, a.buffer(), kNoPattern, nax_rect{8, 6, 8, 6}, nax_rect{}, nax_rect{},
                       -1, &fence, nullptr, NAX_USAGE_ASYNC | NAX_TRANSFORM_ROT_90));
    EXPECT_EQ(-1, fence);
    fence = 5;
    ASSERT_EQ(
        0, nax_process(source, b.buffer(), kNoPattern, nax_rect{0, 0, 8, 6}, nax_rect{}, nax_rect{},
                       -1, &fence, nullptr, NAX_USAGE_ASYNC | NAX_TRANSFORM_FLIP_H));
    EXPECT_EQ(-1, fence);

    for (const Rgba& p : a.Read())
        ASSERT_LE(MaxDiff(br, p), 10);
    for (const Rgba& p : b.Read())
        ASSERT_LE(MaxDiff(tl, p), 10);
    EXPECT_EQ(0, TouchedPadding(a, 0xEE));
    EXPECT_EQ(0, TouchedPadding(b, 0xEE));
}

/* A 4:2:0 frame shrunk into RGB clients (scaled and turned in I420, then
 * converted at the small size) keeps its colours where they belong. */
TEST(Geometry, ShrinkFrom420IntoRgb) {
    const int w = 16, h = 12;
    const Rgba tl{200, 60, 30, 255}, tr{20, 160, 60, 255}, bl{40, 40, 200, 255},
        br{230, 200, 40, 255};
    std::vector<Rgba> quadrants(static_cast<size_t>(w) * h);
    for (int y = 0; y < h; y++)
        for (int x = 0; x < w; x++)
            quadrants[y * w + x] = y < h / 2 ? (x < w / 2 ? tl : tr) : (x < w / 2 ? bl : br);
    const int sources[] = {NAX_FORMAT_YCbCr_420_SP, NAX_FORMAT_YCrCb_420_P};
    const int targets[] = {NAX_FORMAT_RGBA_8888, NAX_FORMAT_BGR_888, NAX_FORMAT_RGB_565};
    for (int sf : sources) {
        TestBuffer src(Geometry{w, h, w + 2, h, sf});
        src.Write(quadrants);
        for (int df : targets) {
            SCOPED_TRACE(FormatName(sf) + " -> " + FormatName(df));
            const int tol = df == NAX_FORMAT_RGB_565 ? 18 : 10;
            /* Turned by 180: the corners swap diagonally. */
            TestBuffer half(Geometry{8, 6, 9, 6, df}, TestBuffer::Backing::Heap);
            ASSERT_EQ(0, Process(src, half, nax_rect{}, nax_rect{},
                                 NAX_USAGE_ASYNC | NAX_TRANSFORM_ROT_180));
            std::vector<Rgba> out = half.Read();
            EXPECT_LE(MaxDiff(br, out[0]), tol);
            EXPECT_LE(MaxDiff(bl, out[7]), tol);
            EXPECT_LE(MaxDiff(tr, out[5 * 8]), tol);
            EXPECT_LE(MaxDiff(tl, out[5 * 8 + 7]), tol);
            /* Turned by 90 clockwise: the bottom left comes to the top left. */
            TestBuffer turned(Geometry{6, 8, 6, 8, df}, TestBuffer::Backing::Heap);
            ASSERT_EQ(0, Process(src, turned, nax_rect{}, nax_rect{},
                                 NAX_USAGE_ASYNC | NAX_TRANSFORM_ROT_90));
            out = turned.Read();
            EXPECT_LE(MaxDiff(bl, out[0]), tol);
            EXPECT_LE(MaxDiff(tl, out[5]), tol);
            EXPECT_LE(MaxDiff(br, out[7 * 6]), tol);
            EXPECT_LE(MaxDiff(tr, out[7 * 6 + 5]), tol);
        }
    }
}
