// Reads a guarded member after the locker let the lock go: must be rejected.
#include "common.h"

int AfterUnlock(Guarded& guarded) {
    MutexLocker locker(guarded.mutex);
    locker.unlock();
    return guarded.value;
}
