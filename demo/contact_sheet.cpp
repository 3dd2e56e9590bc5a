#include "contact_sheet.h"

#include <errno.h>
#include <png.h>
#include <string.h>

#include <libyuv.h>

#include <cstdio>
#include <memory>

#include <marlo/buffer/pixel_format.h>

namespace marlo_demo {

namespace {

using namespace tessaro::marlo;

constexpr uint32_t kGap = 16;
constexpr uint8_t kBackground = 0x20;

/* libyuv's ARGB: bytes B,G,R,A, a row of 4 * width bytes. */
std::vector<uint8_t> ToArgb(const SheetImage& image) {
    uint32_t w = image.width;
    uint32_t h = image.height;
    std::vector<uint8_t> argb(size_t{w} * h * 4);
    const uint8_t* p = image.pixels.data();
    int dst = static_cast<int>(w * 4);
    int width = static_cast<int>(w);
    int height = static_cast<int>(h);
    switch (image.fourcc) {
        case FOURCC_AR24:
            /* Already bytes B,G,R,A. */
            argb.assign(p, p + argb.size());
            break;
        case FOURCC_AB24:
            libyuv::ABGRToARGB(p, width * 4, argb.data(), dst, width, height);
            break;
        case FOURCC_NV12:
            libyuv::NV12ToARGB(p, width, p + size_t{w} * h, width, argb.data(), dst, width, height);
            break;
        case FOURCC_YUYV:
            libyuv::YUY2ToARGB(p, width * 2, argb.data(), dst, width, height);
            break;
        default:
            argb.clear();
    }
    return argb;
}

/*
 * Writes 8-bit RGB rows to a PNG file. Kept apart so that libpng's error
 * jump meets no local that changes after the jump point.
 */
bool WritePng(const std::string& path, const std::vector<uint8_t>& rgb, uint32_t width,
              uint32_t height, std::string* error) {
    std::unique_ptr<FILE, int (*)(FILE*)> file(fopen(path.c_str(), "wb"), fclose);
    if (!file) {
        *error = "cannot write " + path + ": " + strerror(errno);
        return false;
    }
    png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
    png_infop info = png ? png_create_info_struct(png) : nullptr;
    if (png == nullptr || info == nullptr || setjmp(png_jmpbuf(png))) {
        png_destroy_write_struct(&png, &info);
        *error = "libpng failed to write " + path;
        return false;
    }
    png_init_io(png, file.get());
    png_set_IHDR(png, info, width, height, 8, PNG_COLOR_TYPE_RGB, PNG_INTERLACE_NONE,
                 PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
    png_write_info(png, info);
    for (uint32_t y = 0; y < height; ++y)
        png_write_row(png, rgb.data() + size_t{y} * width * 3);
    png_write_end(png, nullptr);
    png_destroy_write_struct(&png, &info);
    return true;
}

}  // namespace

bool CopyForSheet(const uint8_t* data, uint32_t fourcc, uint32_t width, uint32_t height,
                  uint32_t stride, SheetImage* image) {
    size_t rowBytes;
    size_t rows = height;
    switch (fourcc) {
        case FOURCC_AR24:
        case FOURCC_AB24:
            rowBytes = size_t{width} * 4;
            break;
        case FOURCC_YUYV:
            rowBytes = size_t{width} * 2;
            stride *= 2;
            break;
        case FOURCC_NV12:
            rowBytes = width;
            rows = size_t{height} * 3 / 2;
            break;
        default:
            return false;
    }
    size_t strideBytes =
        fourcc == FOURCC_AR24 || fourcc == FOURCC_AB24 ? size_t{stride} * 4 : size_t{stride};
    image->pixels.resize(rowBytes * rows);
    for (size_t row = 0; row < rows; ++row)
        memcpy(image->pixels.data() + row * rowBytes, data + row * strideBytes, rowBytes);
    image->fourcc = fourcc;
    image->width = width;
    image->height = height;
    return true;
}

bool WriteContactSheet(const std::vector<SheetImage>& images, uint32_t height,
                       const std::string& path, std::string* error) {
    /* Each image scaled to the sheet's height, keeping its aspect. */
    std::vector<std::vector<uint8_t>> scaled;
    std::vector<uint32_t> widths;
    uint32_t sheetWidth = kGap;
    for (const SheetImage& image : images) {
        std::vector<uint8_t> argb = ToArgb(image);
        if (argb.empty() || image.height == 0) {
            *error = "no image of a format the sheet takes";
            return false;
        }
        uint32_t w = std::max<uint32_t>(2, image.width * height / image.height);
        std::vector<uint8_t> out(size_t{w} * height * 4);
        libyuv::ARGBScale(argb.data(), static_cast<int>(image.width * 4),
                          static_cast<int>(image.width), static_cast<int>(image.height), out.data(),
                          static_cast<int>(w * 4), static_cast<int>(w), static_cast<int>(height),
                          libyuv::kFilterBox);
        scaled.push_back(std::move(out));
        widths.push_back(w);
        sheetWidth += w + kGap;
    }
    uint32_t sheetHeight = height + 2 * kGap;
    std::vector<uint8_t> rgb(size_t{sheetWidth} * sheetHeight * 3, kBackground);
    uint32_t left = kGap;
    for (size_t i = 0; i < scaled.size(); ++i) {
        for (uint32_t y = 0; y < height; ++y) {
            const uint8_t* src = scaled[i].data() + size_t{y} * widths[i] * 4;
            uint8_t* dst = rgb.data() + (size_t{y + kGap} * sheetWidth + left) * 3;
            for (uint32_t x = 0; x < widths[i]; ++x) {
                dst[3 * x + 0] = src[4 * x + 2];
                dst[3 * x + 1] = src[4 * x + 1];
                dst[3 * x + 2] = src[4 * x + 0];
            }
        }
        left += widths[i] + kGap;
    }

    return WritePng(path, rgb, sheetWidth, sheetHeight, error);
}

}  // namespace marlo_demo
