/* Open-descriptor accounting, to prove that code under test leaks none. */
#pragma once

#include <cstddef>

namespace marlo_test {

/* Number of descriptors open in this process right now. */
size_t OpenFdCount();

/* Records the count at construction; unchanged() compares with the count now. */
class FdLeakCheck {
  public:
    FdLeakCheck();
    bool unchanged() const;
    size_t before() const { return before_; }

  private:
    size_t before_;
};

}  // namespace marlo_test
