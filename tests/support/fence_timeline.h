/*
 * Real sync_file fences for tests, from whichever kernel timeline the
 * machine offers: the software sync timeline (debugfs, CONFIG_SW_SYNC), or
 * else fences that vgem attaches to its buffers, exported from the buffer's
 * dma-buf as a sync_file (the test bench's kernel has vgem, not sw_sync).
 * Machines with neither cannot make fences; tests then skip with the reason.
 */
#pragma once

#include <memory>
#include <string>

namespace marlo_test {

class FenceTimeline {
  public:
    virtual ~FenceTimeline() = default;

    /* A timeline, or null with \a reason telling why none is available. */
    static std::unique_ptr<FenceTimeline> Open(std::string* reason);

    /* Where the fences come from, for messages. */
    virtual const char* Kind() const = 0;
    /*
     * A new sync_file fence, owned by the caller, that signals once the
     * timeline reaches \a value; -1 on failure.
     */
    virtual int CreateFence(unsigned value) = 0;
    /* Moves the timeline on by \a step, signalling the fences it reaches. */
    virtual bool Advance(unsigned step) = 0;
};

}  // namespace marlo_test
