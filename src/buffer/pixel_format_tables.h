/* The built conversion maps, for the allocators and for tests. */
#pragma once

#include <marlo/buffer/pixel_format.h>

#include <map>

namespace tessaro::marlo::detail {

using FormatMap = std::map<FourccFormat, unsigned int>;

const FormatMap& HalFormatMap();
const FormatMap& NaxFormatMap();
const FormatMap& DrmFormatMap();

/* Whether the format can be converted forward without terminating. */
bool HasHalFormat(FourccFormat format);

}  // namespace tessaro::marlo::detail
