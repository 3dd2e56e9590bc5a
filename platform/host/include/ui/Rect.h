/* Android's integer rectangle (left, top, right, bottom). */
#pragma once

#include <stdint.h>

namespace android {

struct ARect {
    int32_t left;
    int32_t top;
    int32_t right;
    int32_t bottom;
};

class Rect : public ARect {
  public:
    Rect() : ARect{0, 0, 0, 0} {}
    Rect(int32_t w, int32_t h) : ARect{0, 0, w, h} {}
    Rect(int32_t l, int32_t t, int32_t r, int32_t b) : ARect{l, t, r, b} {}

    int32_t getWidth() const { return right - left; }
    int32_t getHeight() const { return bottom - top; }
    bool isEmpty() const { return left >= right || top >= bottom; }
    bool isValid() const { return left <= right && top <= bottom; }
};

}  // namespace android
