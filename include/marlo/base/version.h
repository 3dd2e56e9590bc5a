/*
 * The start-up version record: the embedding process calls
 * initVersionInfo() once at start to publish the library's version and
 * build identifier as system properties and count starts since boot.
 */
#pragma once

namespace tessaro::marlo {

/*
 * Increments "vendor.tessaro.marlo.start.count", writes
 * "vendor.tessaro.marlo.version" and "vendor.tessaro.marlo.build_id", and
 * logs a banner with the three values.
 */
void initVersionInfo();

}  // namespace tessaro::marlo
