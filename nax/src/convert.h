/*
 * Conversions between the engine's formats and the two working layouts a
 * job passes through: ARGB (libyuv's, bytes B,G,R,A) and I420. YUV is
 * BT.601 limited range throughout.
 */
#pragma once

#include <stdint.h>

#include <memory>

#include "format.h"

namespace nax {

enum class Mid { Argb, I420 };

/* A working image: one ARGB plane or three I420 planes. */
struct View {
    Mid mid = Mid::Argb;
    uint8_t* p[3] = {nullptr, nullptr, nullptr};
    int stride[3] = {0, 0, 0};
    int w = 0;
    int h = 0;
};

/* Uninitialised working memory (zeroing a frame-sized block would cost as
 * much as a copy): every byte is written before it is read. */
class Scratch {
  public:
    explicit Scratch(size_t size) : data_(new uint8_t[size]) {}
    uint8_t* get() const { return data_.get(); }

  private:
    std::unique_ptr<uint8_t[]> data_;
};

/* Owns the memory of a working image. */
class WorkImage {
  public:
    WorkImage(Mid mid, int w, int h);
    const View& view() const { return view_; }

  private:
    std::unique_ptr<Scratch> data_;
    View view_;
};

/* The part of v from (dx, dy) of size w x h; I420 chroma starts at the
 * sample covering (dx, dy). */
View SubView(const View& v, int dx, int dy, int w, int h);

/*
 * Decode reads rectangle r of s into out (same size); Encode writes in into
 * rectangle r of s. r lies on the chroma grid of s's format (see
 * AlignToChroma). I420 working images serve 4:2:0 and grey formats only.
 * Both return 0 or a negative errno value.
 */
int Decode(const Surface& s, const Rect& r, const View& out);
int Encode(const View& in, const Surface& s, const Rect& r);

}  // namespace nax
