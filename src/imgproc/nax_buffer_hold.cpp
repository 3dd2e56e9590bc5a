/*
 * A hold on the 2D engine's import of one buffer.
 */
#include "marlo/imgproc/nax_buffer_hold.h"

#include <utility>

#include "marlo/imgproc/nax_image_operator.h"

namespace tessaro::marlo {

NaxBufferHold::~NaxBufferHold() {
    reset();
}

NaxBufferHold::NaxBufferHold(NaxBufferHold&& other) noexcept
    : handle_(std::exchange(other.handle_, 0)) {}

NaxBufferHold& NaxBufferHold::operator=(NaxBufferHold&& other) noexcept {
    if (this != &other) {
        reset();
        handle_ = std::exchange(other.handle_, 0);
    }
    return *this;
}

void NaxBufferHold::reset() {
    if (handle_ != 0)
        NaxImageOperator::releaseHeld(handle_);
    handle_ = 0;
}

}  // namespace tessaro::marlo
