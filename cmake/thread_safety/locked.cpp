// Every access with its lock held, in the order declared: compiles cleanly.
#include "common.h"

int Locked(Guarded& guarded) {
    MutexLocker locker(guarded.mutex);
    guarded.bump();
    guarded.cond.wait(locker,
                      [&guarded]() MARLO_REQUIRES(guarded.mutex) { return guarded.value > 0; });
    locker.unlock();
    locker.lock();
    MutexLocker later(guarded.later);
    return guarded.value;
}
