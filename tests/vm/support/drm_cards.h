/* The bench's DRM cards: virtio-gpu (card0, real mode setting) and vgem (card1, buffers only). */
#pragma once

#include <string>

#include <marlo/base/unique_fd.h>

namespace marlo_vm {

/* The /dev/dri/cardN node whose driver is \a driver ("virtio_gpu", "vgem"), or "". */
std::string DrmCardByDriver(const std::string& driver);

/* That node opened read-write, or an invalid descriptor. */
tessaro::marlo::UniqueFd OpenDrmCard(const std::string& driver);

}  // namespace marlo_vm
