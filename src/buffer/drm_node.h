/* The open sequence of a DRM node, shared by DrmDevice::Open() and its tests. */
#pragma once

namespace tessaro::marlo::detail {

/*
 * Opens the DRM node at \a path and checks that it reports its version,
 * supports dumb buffers and accepts the universal-planes and atomic client
 * caps. Returns the descriptor, now the caller's, or -1 with the failure
 * logged.
 */
int OpenDrmNode(const char* path);

}  // namespace tessaro::marlo::detail
