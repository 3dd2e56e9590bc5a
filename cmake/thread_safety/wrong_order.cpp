// Takes two locks against their declared order: must be rejected.
#include "common.h"

void WrongOrder(Guarded& guarded) {
    MutexLocker later(guarded.later);
    MutexLocker first(guarded.mutex);
}
