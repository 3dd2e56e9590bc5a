// Calls a function that needs the lock, without it: the analysis must reject it.
#include "common.h"

void MissingLock(Guarded& guarded) {
    guarded.bump();
}
