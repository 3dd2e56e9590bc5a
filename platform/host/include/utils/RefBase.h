/* Android's reference-counted base class (strong references only). */
#pragma once

#include <stdint.h>

#include <atomic>

#include <utils/StrongPointer.h>

namespace android {

class RefBase {
  public:
    void incStrong(const void* id) const;
    void decStrong(const void* id) const;
    int32_t getStrongCount() const;

  protected:
    RefBase() = default;
    virtual ~RefBase() = default;

  private:
    RefBase(const RefBase&) = delete;
    RefBase& operator=(const RefBase&) = delete;

    mutable std::atomic<int32_t> mStrong{0};
};

inline void RefBase::incStrong(const void*) const {
    mStrong.fetch_add(1, std::memory_order_relaxed);
}

inline void RefBase::decStrong(const void*) const {
    if (mStrong.fetch_sub(1, std::memory_order_acq_rel) == 1)
        delete this;
}

inline int32_t RefBase::getStrongCount() const {
    return mStrong.load(std::memory_order_relaxed);
}

}  // namespace android
