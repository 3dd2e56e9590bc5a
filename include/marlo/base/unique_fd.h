/*
 * UniqueFd: the one owner of a file descriptor. Taking a descriptor registers
 * this holder with the platform's fd sanitizer; the descriptor is closed
 * through it, so a close by anyone else is caught.
 */
#pragma once

#include <stdint.h>

namespace tessaro::marlo {

class UniqueFd {
  public:
    UniqueFd() = default;
    /* Takes ownership of \a fd (-1 holds nothing). */
    explicit UniqueFd(int fd);
    ~UniqueFd();

    UniqueFd(UniqueFd&& other) noexcept;
    UniqueFd& operator=(UniqueFd&& other) noexcept;
    UniqueFd(const UniqueFd&) = delete;
    UniqueFd& operator=(const UniqueFd&) = delete;

    /*
     * Takes ownership of \a fd, closing the descriptor held before. Resetting
     * to the descriptor already held does nothing.
     */
    void reset(int fd = -1);

    /* Gives up ownership without closing; returns the descriptor. */
    int release();

    int get() const { return fd_; }
    bool isValid() const { return fd_ >= 0; }
    explicit operator bool() const { return isValid(); }

    /* The fd sanitizer tag of this holder (owner type unique-fd, its address). */
    uint64_t ownerTag() const;

  private:
    void adopt(int fd);
    void close();

    int fd_ = -1;
};

}  // namespace tessaro::marlo
