/*
 * Where the library finds the fixed files it reads and writes (configuration,
 * board model, debug report). On the board these are the paths themselves;
 * on a development machine the platform layer can relocate them.
 */
#pragma once

#include <string>

namespace tessaro::marlo::platform {

/*
 * Returns the path at which the fixed file \a path is found on this
 * platform. Device nodes ("/dev/...") are never relocated.
 */
std::string SystemPath(const std::string& path);

}  // namespace tessaro::marlo::platform
