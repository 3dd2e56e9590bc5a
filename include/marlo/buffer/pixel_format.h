/*
 * The library's pixel-format enumeration (V4L2 fourcc codes) and its
 * conversions to and from the graphics HAL, 2D-engine and DRM format spaces,
 * plus the exported colour-space constants.
 */
#pragma once

#include <stdint.h>

namespace tessaro::marlo {

/* Each value is the four characters read as a little-endian 32-bit number. */
enum FourccFormat : uint32_t {
    FOURCC_RGB3 = 0x33424752, /* 24-bit, bytes R,G,B */
    FOURCC_BGR3 = 0x33524742, /* 24-bit, bytes B,G,R */
    FOURCC_RGBP = 0x50424752, /* 16-bit R5 G6 B5 */
    FOURCC_AB24 = 0x34324241, /* 32-bit, bytes R,G,B,A */
    FOURCC_XB24 = 0x34324258, /* 32-bit, bytes R,G,B,X */
    FOURCC_RA24 = 0x34324152, /* 32-bit, bytes A,B,G,R */
    FOURCC_RX24 = 0x34325852, /* 32-bit, bytes X,B,G,R */
    FOURCC_BA24 = 0x34324142, /* 32-bit, bytes A,R,G,B */
    FOURCC_AR24 = 0x34325241, /* 32-bit, bytes B,G,R,A */
    FOURCC_XR24 = 0x34325258, /* 32-bit, bytes B,G,R,X */
    FOURCC_NV12 = 0x3231564E, /* 4:2:0, Y plane + interleaved CbCr */
    FOURCC_NV21 = 0x3132564E, /* 4:2:0, Y plane + interleaved CrCb */
    FOURCC_NV16 = 0x3631564E, /* 4:2:2, Y plane + interleaved CbCr */
    FOURCC_NV61 = 0x3136564E, /* 4:2:2, Y plane + interleaved CrCb */
    FOURCC_YU12 = 0x32315559, /* 4:2:0, three planes Y,Cb,Cr */
    FOURCC_YV12 = 0x32315659, /* 4:2:0, three planes Y,Cr,Cb */
    FOURCC_YUYV = 0x56595559, /* packed 4:2:2 Y0 Cb Y1 Cr */
    FOURCC_YVYU = 0x55595659, /* packed 4:2:2 Y0 Cr Y1 Cb */
    FOURCC_UYVY = 0x59565955, /* packed 4:2:2 Cb Y0 Cr Y1 */
    FOURCC_VYUY = 0x59555956, /* packed 4:2:2 Cr Y0 Cb Y1 */
    FOURCC_NONE = 0xFFFFFFFF, /* no format: the failure result of reverse conversions */
};

/* How pixel values relate to light; the four fields use the codes below. */
struct ColorSpace {
    enum Primaries : uint32_t {
        PRIMARIES_RAW = 0,
        PRIMARIES_SMPTE170M = 1,
        PRIMARIES_REC709 = 2,
        PRIMARIES_REC2020 = 3,
    };
    enum TransferFunction : uint32_t {
        TRANSFER_LINEAR = 0,
        TRANSFER_SRGB = 1,
        TRANSFER_REC709 = 2,
    };
    enum YcbcrEncoding : uint32_t {
        ENCODING_NONE = 0,
        ENCODING_REC601 = 1,
        ENCODING_REC709 = 2,
        ENCODING_REC2020 = 3,
    };
    /* Limited range is 0 and full range 1. */
    enum Range : uint32_t {
        RANGE_LIMITED = 0,
        RANGE_FULL = 1,
    };

    uint32_t primaries;
    uint32_t transfer;
    uint32_t encoding;
    uint32_t range;

    static const ColorSpace Raw;
    static const ColorSpace Srgb;
    static const ColorSpace Sycc;
    static const ColorSpace Smpte170m;
    static const ColorSpace Rec709;
    static const ColorSpace Rec2020;
};

/*
 * Forward conversions. The format must have an entry in the table: a format
 * without one is a programming error and terminates the process, so callers
 * validate formats first.
 */
unsigned int FourccFormatToHalFormat(FourccFormat format);
unsigned int FourccFormatToNaxFormat(FourccFormat format);
unsigned int FourccFormatToDrmFormat(FourccFormat format);

/*
 * Reverse conversions; FOURCC_NONE when nothing matches. A code shared by
 * several formats gives the one with the smallest numeric value, except for
 * the HAL codes whose chroma order is chosen by \a first and \a second.
 */
FourccFormat HalFormatToFourccFormat(unsigned int hal, unsigned char first, unsigned char second);
FourccFormat NaxFormatToFourccFormat(unsigned int nax);
FourccFormat DrmFormatToFourccFormat(unsigned int drm);

}  // namespace tessaro::marlo
