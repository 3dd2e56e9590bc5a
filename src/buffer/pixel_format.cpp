#include <marlo/buffer/pixel_format.h>

#include <marlo/base/logger.h>
#include <nax/nax.h>
#include <system/graphics.h>

#include <drm_fourcc.h>
#include <stdlib.h>

#include <iterator>
#include <utility>

#include "buffer/pixel_format_tables.h"

namespace tessaro::marlo {

namespace {

constexpr char kTag[] = "marlo_buf";

using FormatPair = std::pair<FourccFormat, unsigned int>;

/* The HAL does not tell chroma orders apart; HalFormatToFourccFormat does. */
constexpr unsigned int kHalNone = 0xFFFFFFFF;
constexpr FormatPair kHalList[] = {
    {FOURCC_BGR3, kHalNone},
    {FOURCC_RGB3, HAL_PIXEL_FORMAT_RGB_888},
    {FOURCC_RGBP, HAL_PIXEL_FORMAT_RGB_565},
    {FOURCC_RA24, HAL_PIXEL_FORMAT_BGRA_8888},
    {FOURCC_RX24, kHalNone},
    {FOURCC_AB24, HAL_PIXEL_FORMAT_RGBA_8888},
    {FOURCC_XB24, HAL_PIXEL_FORMAT_RGBX_8888},
    {FOURCC_NV16, HAL_PIXEL_FORMAT_YCBCR_422_SP},
    {FOURCC_NV61, HAL_PIXEL_FORMAT_YCBCR_422_SP},
    {FOURCC_NV12, HAL_PIXEL_FORMAT_YCRCB_420_SP},
    {FOURCC_NV21, HAL_PIXEL_FORMAT_YCRCB_420_SP},
    {FOURCC_YU12, HAL_PIXEL_FORMAT_YV12},
    {FOURCC_YV12, HAL_PIXEL_FORMAT_YV12},
    {FOURCC_YUYV, HAL_PIXEL_FORMAT_YCBCR_422_I},
    {FOURCC_YVYU, HAL_PIXEL_FORMAT_YCBCR_422_I},
    {FOURCC_UYVY, HAL_PIXEL_FORMAT_YCBCR_422_I},
    {FOURCC_VYUY, HAL_PIXEL_FORMAT_YCBCR_422_I},
};

/* XR24 appears twice; the map keeps the first row (XRGB). */
constexpr FormatPair kNaxList[] = {
    {FOURCC_RGB3, NAX_FORMAT_RGB_888},      {FOURCC_BGR3, NAX_FORMAT_BGR_888},
    {FOURCC_RGBP, NAX_FORMAT_RGB_565},      {FOURCC_BA24, NAX_FORMAT_ARGB_8888},
    {FOURCC_XR24, NAX_FORMAT_XRGB_8888},    {FOURCC_AB24, NAX_FORMAT_RGBA_8888},
    {FOURCC_XB24, NAX_FORMAT_RGBX_8888},    {FOURCC_AR24, NAX_FORMAT_ABGR_8888},
    {FOURCC_XR24, NAX_FORMAT_XBGR_8888},    {FOURCC_RA24, NAX_FORMAT_BGRA_8888},
    {FOURCC_RX24, NAX_FORMAT_BGRX_8888},    {FOURCC_NV16, NAX_FORMAT_YCbCr_422_SP},
    {FOURCC_NV61, NAX_FORMAT_YCrCb_422_SP}, {FOURCC_NV12, NAX_FORMAT_YCbCr_420_SP},
    {FOURCC_NV21, NAX_FORMAT_YCrCb_420_SP}, {FOURCC_YU12, NAX_FORMAT_YCbCr_420_P},
    {FOURCC_YV12, NAX_FORMAT_YCrCb_420_P},  {FOURCC_YUYV, NAX_FORMAT_YUYV_422},
    {FOURCC_YVYU, NAX_FORMAT_YVYU_422},     {FOURCC_UYVY, NAX_FORMAT_UYVY_422},
    {FOURCC_VYUY, NAX_FORMAT_VYUY_422},
};

/* XR24 appears twice here too; DRM XBGR8888 is left without a format. */
constexpr FormatPair kDrmList[] = {
    {FOURCC_RGB3, DRM_FORMAT_RGB888},   {FOURCC_BGR3, DRM_FORMAT_BGR888},
    {FOURCC_RGBP, DRM_FORMAT_RGB565},   {FOURCC_BA24, DRM_FORMAT_ARGB8888},
    {FOURCC_XR24, DRM_FORMAT_XRGB8888}, {FOURCC_AB24, DRM_FORMAT_RGBA8888},
    {FOURCC_XB24, DRM_FORMAT_RGBX8888}, {FOURCC_AR24, DRM_FORMAT_ABGR8888},
    {FOURCC_XR24, DRM_FORMAT_XBGR8888}, {FOURCC_RA24, DRM_FORMAT_BGRA8888},
    {FOURCC_RX24, DRM_FORMAT_BGRX8888}, {FOURCC_NV16, DRM_FORMAT_NV16},
    {FOURCC_NV61, DRM_FORMAT_NV61},     {FOURCC_NV12, DRM_FORMAT_NV12},
    {FOURCC_NV21, DRM_FORMAT_NV21},     {FOURCC_YU12, DRM_FORMAT_YUV420},
    {FOURCC_YV12, DRM_FORMAT_YVU420},   {FOURCC_YUYV, DRM_FORMAT_YUYV},
    {FOURCC_YVYU, DRM_FORMAT_YVYU},     {FOURCC_UYVY, DRM_FORMAT_UYVY},
    {FOURCC_VYUY, DRM_FORMAT_VYUY},
};

template <size_t N>
detail::FormatMap BuildMap(const FormatPair (&list)[N]) {
    detail::FormatMap map;
    for (const FormatPair& pair : list)
        map.insert(pair);  // insert-if-absent: the first row of a format wins
    return map;
}

unsigned int ForwardLookup(const detail::FormatMap& map, FourccFormat format, const char* table,
                           const char* function) {
    auto it = map.find(format);
    if (it == map.end()) {
        marlo_log(MARLO_LOG_FATAL, kTag, "%s: format 0x%08x has no %s format", function,
                  static_cast<unsigned int>(format), table);
        abort();
    }
    return it->second;
}

FourccFormat ReverseLookup(const detail::FormatMap& map, unsigned int code) {
    for (const auto& [format, value] : map)
        if (value == code)
            return format;
    return FOURCC_NONE;
}

/* Picks between the plain and the alternative chroma order of one HAL code. */
FourccFormat ChromaOrder(unsigned char first, unsigned char second, unsigned char expectedSecond,
                         FourccFormat plain, FourccFormat alternative) {
    if (second != expectedSecond)
        return FOURCC_NONE;
    if (first == 0)
        return plain;
    return first == 1 ? alternative : FOURCC_NONE;
}

/* Built while the library loads, before any conversion can run. */
[[maybe_unused]] const detail::FormatMap& kHalMapAtLoad = detail::HalFormatMap();
[[maybe_unused]] const detail::FormatMap& kNaxMapAtLoad = detail::NaxFormatMap();
[[maybe_unused]] const detail::FormatMap& kDrmMapAtLoad = detail::DrmFormatMap();

}  // namespace

namespace detail {

const FormatMap& HalFormatMap() {
    static const FormatMap map = BuildMap(kHalList);
    return map;
}

const FormatMap& NaxFormatMap() {
    static const FormatMap map = BuildMap(kNaxList);
    return map;
}

const FormatMap& DrmFormatMap() {
    static const FormatMap map = BuildMap(kDrmList);
    return map;
}

bool HasHalFormat(FourccFormat format) {
    return HalFormatMap().count(format) != 0;
}

}  // namespace detail

const ColorSpace ColorSpace::Raw = {PRIMARIES_RAW, TRANSFER_LINEAR, ENCODING_NONE, RANGE_FULL};
const ColorSpace ColorSpace::Srgb = {PRIMARIES_REC709, TRANSFER_SRGB, ENCODING_NONE, RANGE_FULL};
const ColorSpace ColorSpace::Sycc = {PRIMARIES_REC709, TRANSFER_SRGB, ENCODING_REC601, RANGE_FULL};
const ColorSpace ColorSpace::Smpte170m = {PRIMARIES_SMPTE170M, TRANSFER_REC709, ENCODING_REC601,
                                          RANGE_LIMITED};
const ColorSpace ColorSpace::Rec709 = {PRIMARIES_REC709, TRANSFER_REC709, ENCODING_REC709,
                                       RANGE_LIMITED};
const ColorSpace ColorSpace::Rec2020 = {PRIMARIES_REC2020, TRANSFER_REC709, ENCODING_REC2020,
                                        RANGE_LIMITED};

unsigned int FourccFormatToHalFormat(FourccFormat format) {
    return ForwardLookup(detail::HalFormatMap(), format, "HAL", __func__);
}

unsigned int FourccFormatToNaxFormat(FourccFormat format) {
    return ForwardLookup(detail::NaxFormatMap(), format, "2D engine", __func__);
}

unsigned int FourccFormatToDrmFormat(FourccFormat format) {
    return ForwardLookup(detail::DrmFormatMap(), format, "DRM", __func__);
}

FourccFormat HalFormatToFourccFormat(unsigned int hal, unsigned char first, unsigned char second) {
    switch (hal) {
        case HAL_PIXEL_FORMAT_YV12:
            return ChromaOrder(first, second, 1, FOURCC_YV12, FOURCC_YU12);
        case HAL_PIXEL_FORMAT_YCRCB_420_SP:
            return ChromaOrder(first, second, 2, FOURCC_NV12, FOURCC_NV21);
        case HAL_PIXEL_FORMAT_YCBCR_422_SP:
            return ChromaOrder(first, second, 2, FOURCC_NV16, FOURCC_NV61);
        default:
            return ReverseLookup(detail::HalFormatMap(), hal);
    }
}

FourccFormat NaxFormatToFourccFormat(unsigned int nax) {
    return ReverseLookup(detail::NaxFormatMap(), nax);
}

FourccFormat DrmFormatToFourccFormat(unsigned int drm) {
    return ReverseLookup(detail::DrmFormatMap(), drm);
}

}  // namespace tessaro::marlo
