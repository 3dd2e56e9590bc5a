/*
 * Scaling of 32-bit pixels that keeps full values.
 */
#include "argb_scale.h"

#include <string.h>

#include <algorithm>
#include <vector>

#include <libyuv.h>

namespace nax {

namespace {

/* Where a filter reads an output pixel: two neighbours and the weight of
 * the second. */
struct Tap {
    int index;  /* first neighbour; the second is index + 1 */
    int weight; /* of the second: 0..128 across columns, 0..255 across rows */
};

/*
 * libyuv's bilinear sampling positions in 16.16 fixed point: centred on the
 * output pixel when shrinking, first and last pixels on the source's first
 * and last when enlarging.
 */
struct Slope {
    int64_t start;
    int64_t step;
};

/* The positions of dst output pixels over src source ones. */
Slope SlopeOf(int src, int dst) {
    if (dst <= src) {
        const int64_t step = (static_cast<int64_t>(src) << 16) / dst;
        return Slope{(step >> 1) - 32768, step};
    }
    if (src > 1 && dst > 1)
        return Slope{0, ((static_cast<int64_t>(src) << 16) - 0x10001) / (dst - 1)};
    return Slope{0, 0};
}

/* The two neighbours of position i and the second's weight in units of
 * 1 / (1 << bits), rounded; the last source pixel is reached as a full
 * weight on the second of the last pair. */
Tap TapAt(const Slope& slope, int i, int size, int bits) {
    if (size < 2)
        return Tap{0, 0};
    int64_t pos = slope.start + slope.step * i;
    pos = std::clamp<int64_t>(pos, 0, static_cast<int64_t>(size - 1) << 16);
    int index = static_cast<int>(pos >> 16);
    const int one = 1 << bits;
    int weight = static_cast<int>(((pos & 0xffff) + (int64_t{1} << (15 - bits))) >> (16 - bits));
    if (weight == one) {
        index++;
        weight = 0;
    }
    if (index >= size - 1) {
        index = size - 2;
        weight = one;
    }
    return Tap{index, weight};
}

/* The taps of every output column. */
std::vector<Tap> ColumnTaps(int sw, int dw) {
    const Slope slope = SlopeOf(sw, dw);
    std::vector<Tap> taps(static_cast<size_t>(dw));
    for (int i = 0; i < dw; i++)
        taps[static_cast<size_t>(i)] = TapAt(slope, i, sw, 7);
    return taps;
}

/* One output pixel: each channel (a * (128 - w) + b * w + 64) / 128. */
inline void BlendPixel(const uint8_t* pair, int w, uint8_t* out) {
    for (int c = 0; c < 4; c++)
        out[c] = static_cast<uint8_t>((pair[c] * (128 - w) + pair[4 + c] * w + 64) >> 7);
}

#if defined(__has_builtin)
#if __has_builtin(__builtin_shufflevector) && __has_builtin(__builtin_convertvector)
#define NAX_VECTOR_COLUMNS 1
#endif
#endif

#ifdef NAX_VECTOR_COLUMNS
/* Generic vectors: SSE2 on x86-64, NEON on arm64, from one source. */
typedef uint8_t U8x8 __attribute__((vector_size(8)));
typedef uint16_t U16x8 __attribute__((vector_size(16)));

struct ColumnWeights {
    std::vector<int> index;
    std::vector<U16x8> weights; /* (128 - w) four times, w four times */
};

ColumnWeights MakeColumns(int sw, int dw) {
    ColumnWeights cols;
    for (const Tap& t : ColumnTaps(sw, dw)) {
        const uint16_t b = static_cast<uint16_t>(t.weight);
        const uint16_t a = static_cast<uint16_t>(128 - t.weight);
        cols.index.push_back(t.index);
        cols.weights.push_back(U16x8{a, a, a, a, b, b, b, b});
    }
    return cols;
}

/* Two output pixels per step: both pairs widened to 16 bits, weighed, and
 * each pair's halves added. */
void FilterColumns(const uint8_t* row, const ColumnWeights& cols, uint8_t* out, int dw) {
    int i = 0;
    for (; i + 1 < dw; i += 2) {
        U8x8 p;
        U8x8 q;
        memcpy(&p, row + 4 * static_cast<size_t>(cols.index[static_cast<size_t>(i)]), 8);
        memcpy(&q, row + 4 * static_cast<size_t>(cols.index[static_cast<size_t>(i) + 1]), 8);
        const U16x8 a = __builtin_convertvector(p, U16x8) * cols.weights[static_cast<size_t>(i)];
        const U16x8 b =
            __builtin_convertvector(q, U16x8) * cols.weights[static_cast<size_t>(i) + 1];
        U16x8 sum = __builtin_shufflevector(a, b, 0, 1, 2, 3, 8, 9, 10, 11) +
                    __builtin_shufflevector(a, b, 4, 5, 6, 7, 12, 13, 14, 15);
        sum = (sum + 64) >> 7;
        const U8x8 o = __builtin_convertvector(sum, U8x8);
        memcpy(out + 4 * static_cast<size_t>(i), &o, 8);
    }
    for (; i < dw; i++) {
        const size_t k = static_cast<size_t>(i);
        BlendPixel(row + 4 * static_cast<size_t>(cols.index[k]), cols.weights[k][4], out + 4 * k);
    }
}
#else
struct ColumnWeights {
    std::vector<Tap> taps;
};

ColumnWeights MakeColumns(int sw, int dw) {
    return ColumnWeights{ColumnTaps(sw, dw)};
}

void FilterColumns(const uint8_t* row, const ColumnWeights& cols, uint8_t* out, int dw) {
    for (int i = 0; i < dw; i++) {
        const Tap& t = cols.taps[static_cast<size_t>(i)];
        BlendPixel(row + 4 * static_cast<size_t>(t.index), t.weight, out + 4 * i);
    }
}
#endif

/* A source of one pixel's width: every output pixel of a row is that one. */
void FillRow(const uint8_t* pixel, uint8_t* out, int dw) {
    for (int i = 0; i < dw; i++)
        memcpy(out + 4 * static_cast<size_t>(i), pixel, 4);
}

/* Blends two rows by weight/256 of the second (libyuv's row blend, exact
 * for equal rows). */
void BlendRows(const uint8_t* a, const uint8_t* b, int weight, uint8_t* out, int bytes) {
    libyuv::InterpolatePlane(a, 0, b, 0, out, 0, bytes, 1, weight);
}

/*
 * Shrinking (or keeping) the height: each output row blends two source
 * rows at full width, then filters the columns.
 */
void ScaleRowsFirst(const uint8_t* src, int srcStride, int sw, int sh, uint8_t* dst, int dstStride,
                    int dw, int dh, int row0, int row1) {
    const Slope slope = SlopeOf(sh, dh);
    const ColumnWeights cols = MakeColumns(sw, dw);
    std::vector<uint8_t> row(4 * static_cast<size_t>(sw));
    for (int j = row0; j < row1; j++) {
        const Tap t = TapAt(slope, j, sh, 8);
        const uint8_t* a = src + static_cast<size_t>(t.index) * srcStride;
        const uint8_t* b = sh > 1 ? a + srcStride : a;
        if (t.weight == 256)
            memcpy(row.data(), b, row.size());
        else
            BlendRows(a, b, t.weight, row.data(), 4 * sw);
        uint8_t* out = dst + static_cast<size_t>(j) * dstStride;
        if (sw < 2)
            FillRow(row.data(), out, dw);
        else
            FilterColumns(row.data(), cols, out, dw);
    }
}

/*
 * Enlarging the height: source rows are filtered to the output width once
 * each, and every output row blends two of them.
 */
void ScaleColumnsFirst(const uint8_t* src, int srcStride, int sw, int sh, uint8_t* dst,
                       int dstStride, int dw, int dh, int row0, int row1) {
    const Slope slope = SlopeOf(sh, dh);
    const ColumnWeights cols = MakeColumns(sw, dw);
    const size_t bytes = 4 * static_cast<size_t>(dw);
    std::vector<uint8_t> cache(2 * bytes);
    uint8_t* rows[2] = {cache.data(), cache.data() + bytes};
    int cached[2] = {-1, -1};
    auto filtered = [&](int y, int slot) {
        if (cached[slot] != y) {
            const uint8_t* in = src + static_cast<size_t>(y) * srcStride;
            if (sw < 2)
                FillRow(in, rows[slot], dw);
            else
                FilterColumns(in, cols, rows[slot], dw);
            cached[slot] = y;
        }
        return rows[slot];
    };
    for (int j = row0; j < row1; j++) {
        const Tap t = TapAt(slope, j, sh, 8);
        const int second = sh > 1 ? t.index + 1 : t.index;
        /* Row y always lands in slot y % 2, so a step down keeps one. */
        const uint8_t* a = filtered(t.index, t.index & 1);
        const uint8_t* b = filtered(second, second & 1);
        uint8_t* out = dst + static_cast<size_t>(j) * dstStride;
        if (t.weight == 256)
            memcpy(out, b, bytes);
        else
            BlendRows(a, b, t.weight, out, static_cast<int>(bytes));
    }
}

}  // namespace

void ScaleArgbRows(const uint8_t* src, int srcStride, int sw, int sh, uint8_t* dst, int dstStride,
                   int dw, int dh, Filter filter, int row0, int row1) {
    if (row0 >= row1)
        return;
    if (filter == Filter::Nearest) {
        libyuv::ARGBScaleClip(src, srcStride, sw, sh, dst, dstStride, dw, dh, 0, row0, dw,
                              row1 - row0, libyuv::kFilterNone);
        return;
    }
    if (dh > sh)
        ScaleColumnsFirst(src, srcStride, sw, sh, dst, dstStride, dw, dh, row0, row1);
    else
        ScaleRowsFirst(src, srcStride, sw, sh, dst, dstStride, dw, dh, row0, row1);
}

}  // namespace nax
