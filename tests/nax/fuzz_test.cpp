/*
 * Random geometries, formats, strides, rectangles and transforms with a
 * fixed seed. Every buffer is a heap block of exactly the size its geometry
 * needs, followed by guard bytes: AddressSanitizer catches a stray read or
 * write, and the guard catches a stray write in any build.
 */
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <random>

#include "nax_test_util.h"

using namespace nax_test;

namespace {

constexpr int kIterations = 1500;
constexpr size_t kGuard = 64;

int Pick(std::mt19937& rng, int lo, int hi) {
    return std::uniform_int_distribution<int>(lo, hi)(rng);
}

/* A rectangle inside w x h, the whole image (all zero), or an invalid one. */
nax_rect RandomRect(std::mt19937& rng, int w, int h, bool* valid) {
    const int kind = Pick(rng, 0, 9);
    *valid = true;
    if (kind == 0)
        return nax_rect{};
    if (kind == 1) {
        *valid = false;
        return nax_rect{Pick(rng, -2, w), Pick(rng, -2, h), Pick(rng, -1, w + 2),
                        h + Pick(rng, 1, 3)};
    }
    const int x = Pick(rng, 0, w - 1);
    const int y = Pick(rng, 0, h - 1);
    return nax_rect{x, y, Pick(rng, 1, w - x), Pick(rng, 1, h - y)};
}

TEST(Fuzz, RandomGeometriesStayInsideTheirBuffers) {
    std::mt19937 rng(20261122);
    const std::vector<int>& formats = AllFormatCodes();
    int served = 0;
    for (int i = 0; i < kIterations; i++) {
        SCOPED_TRACE("iteration " + std::to_string(i));
        const int op = Pick(rng, 0, 3);
        const int sf = formats[Pick(rng, 0, static_cast<int>(formats.size()) - 1)];
        int df = formats[Pick(rng, 0, static_cast<int>(formats.size()) - 1)];
        const int sw = Pick(rng, 1, 33), sh = Pick(rng, 1, 25);
        int dw = Pick(rng, 1, 33), dh = Pick(rng, 1, 25);
        /* Mostly requests the single steps can serve. */
        if (op == 2 && Pick(rng, 0, 3) != 0) {
            df = sf;
            dw = std::max(dw, sw);
            dh = std::max(dh, sh);
        }
        if (op == 3 && Pick(rng, 0, 3) != 0) {
            dw = sw;
            dh = sh;
        }
        const Geometry gs{sw, sh, sw + Pick(rng, 0, 5), sh + Pick(rng, 0, 3), sf};
        const Geometry gd{dw, dh, dw + Pick(rng, 0, 5), dh + Pick(rng, 0, 3), df};
        /* Every other iteration ends the buffers at an inaccessible page,
         * which libyuv's uninstrumented code cannot cross unnoticed. */
        const bool pages = i % 2 == 1;
        const TestBuffer::Backing backing =
            pages ? TestBuffer::Backing::GuardPage : TestBuffer::Backing::Heap;
        const size_t guard = pages ? 0 : kGuard;
        TestBuffer src(gs, backing, guard);
        TestBuffer dst(gd, backing, guard);
        const size_t srcBytes = BufferSize(gs);
        const size_t dstBytes = BufferSize(gd);
        for (size_t b = 0; b < srcBytes; b++)
            src.data()[b] = static_cast<uint8_t>(rng());
        memset(src.data() + srcBytes, 0xA5, guard);
        memset(dst.data() + dstBytes, 0x5A, guard);

        bool srValid, drValid;
        const nax_rect sr = RandomRect(rng, sw, sh, &srValid);
        const nax_rect dr = RandomRect(rng, dw, dh, &drValid);
        const int transform = Pick(rng, 0, 3) != 0
                                  ? Pick(rng, 0, 3) << 3 | (1 << Pick(rng, 0, 3)) >> 1
                                  : Pick(rng, 0, 31);
        const int rotations = !!(transform & 1) + !!(transform & 2) + !!(transform & 4);
        const bool transformValid = rotations <= 1;

        int rc;
        bool expectServed;
        if (op == 0) {
            rc = nax_process(src.buffer(), dst.buffer(), nax_buffer_t{}, sr, dr, nax_rect{}, -1,
                             nullptr, nullptr, NAX_USAGE_ASYNC | transform);
            expectServed = srValid && drValid && transformValid;
        } else if (op == 1) {
            /* A source larger than its memory must be refused; only an fd
             * import tells the engine the size. */
            TestBuffer mapped(gs, TestBuffer::Backing::Memfd);
            nax_buffer_t lying = mapped.buffer();
            lying.hstride += 40;
            lying.height += 40;
            rc = nax_process(lying, dst.buffer(), nax_buffer_t{}, nax_rect{}, nax_rect{},
                             nax_rect{}, -1, nullptr, nullptr, NAX_USAGE_SYNC);
            expectServed = false;
        } else if (op == 2) {
            rc = nax_crop(src.buffer(), dst.buffer(), sr, 1, nullptr);
            const int cw = sr.width ? sr.width : sw, ch = sr.height ? sr.height : sh;
            expectServed = srValid && sf == df && cw <= dw && ch <= dh;
        } else {
            rc = nax_cvtcolor(src.buffer(), dst.buffer(), sf, df, 0, 1, nullptr);
            expectServed = sw == dw && sh == dh;
        }
        EXPECT_LE(rc, 0);
        if (expectServed) {
            EXPECT_EQ(0, rc) << FormatName(sf) << " " << sw << "x" << sh << " -> " << FormatName(df)
                             << " " << dw << "x" << dh << " op " << op;
        } else {
            EXPECT_NE(0, rc) << "op " << op;
        }
        served += rc == 0;
        /* Row and plane padding is the client's; a refused job writes
         * nothing at all. */
        EXPECT_EQ(0, TouchedPadding(dst, 0)) << "op " << op;
        if (rc != 0) {
            for (size_t b = 0; b < dstBytes; b++)
                ASSERT_EQ(0, dst.data()[b]) << "refused op " << op << " wrote byte " << b;
        }
        for (size_t b = 0; b < guard; b++) {
            ASSERT_EQ(0xA5, src.data()[srcBytes + b]);
            ASSERT_EQ(0x5A, dst.data()[dstBytes + b]) << FormatName(df);
        }
    }
    /* The mix above must mostly be served, or it tests only refusals. */
    EXPECT_GT(served, kIterations / 3);
}

}  // namespace
