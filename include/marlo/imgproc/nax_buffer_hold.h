/*
 * A hold on the 2D engine's import of one buffer.
 *
 * The operator imports each buffer of a job into the engine and releases it
 * after the job, at every frame. While a hold on the same memory exists,
 * the engine keeps its import: the software engine keeps the buffer mapped
 * with its pages present, so each per-job import is a lookup instead of a
 * mapping and page faults, at any number of buffers. A camera takes a hold
 * on every buffer a client lends and drops it when the buffer is returned
 * for good, so that no frame maps memory and the first frame costs what any
 * later one does.
 */
#pragma once

#include <stdint.h>

namespace tessaro::marlo {

class NaxBufferHold {
  public:
    /* Holds nothing. */
    NaxBufferHold() = default;
    /* Gives the engine's import back. */
    ~NaxBufferHold();

    NaxBufferHold(NaxBufferHold&& other) noexcept;
    NaxBufferHold& operator=(NaxBufferHold&& other) noexcept;
    NaxBufferHold(const NaxBufferHold&) = delete;
    NaxBufferHold& operator=(const NaxBufferHold&) = delete;

    /* Whether the engine imported the buffer. */
    bool isValid() const { return handle_ != 0; }
    /* The engine's handle of the import; 0 when nothing is held. */
    uint32_t handle() const { return handle_; }
    /* Gives the import back now; the hold then holds nothing. */
    void reset();

  private:
    friend class NaxImageOperator;

    explicit NaxBufferHold(uint32_t handle) : handle_(handle) {}

    uint32_t handle_ = 0;
};

}  // namespace tessaro::marlo
