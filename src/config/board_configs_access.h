/*
 * Internal access to the process-wide board list. The library only ever
 * appends to it; tests and tools that want to start from an empty list use
 * this.
 */
#pragma once

#include <marlo/config/config.h>

namespace tessaro::marlo::detail {

struct BoardConfigsAccess {
    /* Forgets every board read so far. */
    static void Clear();
};

}  // namespace tessaro::marlo::detail
