// A wait predicate reading guarded state without saying it needs the lock.
#include "common.h"

void UnannotatedPredicate(Guarded& guarded) {
    MutexLocker locker(guarded.mutex);
    guarded.cond.wait(locker, [&guarded] { return guarded.value > 0; });
}
