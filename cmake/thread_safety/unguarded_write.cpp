// Writes a guarded member without its lock: the analysis must reject it.
#include "common.h"

void UnguardedWrite(Guarded& guarded) {
    guarded.value = 1;
}
