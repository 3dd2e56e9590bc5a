#include <marlo/v4l2/v4l2_format.h>

#include <linux/videodev2.h>

#include <unordered_map>

#include <marlo/base/logger.h>

namespace tessaro::marlo {

namespace {

constexpr char kTag[] = "marlo_v4l2";

/* Big-endian variant flag of a V4L2 fourcc. */
constexpr unsigned kBigEndianFlag = 1u << 31;

std::unordered_map<std::string, unsigned> BuildNameTable() {
    std::unordered_map<std::string, unsigned> names{
        {"Y8", V4L2_PIX_FMT_GREY},        {"NV12", V4L2_PIX_FMT_NV12},
        {"NV21", V4L2_PIX_FMT_NV21},      {"NV16", V4L2_PIX_FMT_NV16},
        {"NV61", V4L2_PIX_FMT_NV61},      {"BGGR8", V4L2_PIX_FMT_SBGGR8},
        {"GBRG8", V4L2_PIX_FMT_SGBRG8},   {"GRBG8", V4L2_PIX_FMT_SGRBG8},
        {"RGGB8", V4L2_PIX_FMT_SRGGB8},   {"BGGR10", V4L2_PIX_FMT_SBGGR10},
        {"GBRG10", V4L2_PIX_FMT_SGBRG10}, {"GRBG10", V4L2_PIX_FMT_SGRBG10},
        {"RGGB10", V4L2_PIX_FMT_SRGGB10}, {"BGGR12", V4L2_PIX_FMT_SBGGR12},
        {"GBRG12", V4L2_PIX_FMT_SGBRG12}, {"GRBG12", V4L2_PIX_FMT_SGRBG12},
        {"RGGB12", V4L2_PIX_FMT_SRGGB12},
    };
    names.max_load_factor(1.0f);
    return names;
}

/* Built by the module's static initialiser, before any client can ask. */
const std::unordered_map<std::string, unsigned> kNameTable = BuildNameTable();

char Printable(unsigned byte) {
    unsigned c = byte & 0x7f;
    return (c < 32 || c > 126) ? '.' : static_cast<char>(c);
}

}  // namespace

V4l2PixelFormat V4l2PixelFormat::FromString(std::string name) {
    auto it = kNameTable.find(name);
    if (it == kNameTable.end()) {
        marlo_log(MARLO_LOG_ERROR, kTag, "%s: unknown V4L2 pixel format name \"%s\"", __func__,
                  name.c_str());
        return V4l2PixelFormat();
    }
    return V4l2PixelFormat(it->second);
}

std::string V4l2PixelFormat::ToString() const {
    if (!IsValid())
        return "<INVALID>";

    std::string text;
    for (unsigned shift = 0; shift < 32; shift += 8)
        text += Printable(fourcc >> shift);
    if (fourcc & kBigEndianFlag)
        text += "-BE";
    return text;
}

std::ostream& operator<<(std::ostream& out, const V4l2PixelFormat& format) {
    return out << format.ToString();
}

}  // namespace tessaro::marlo
