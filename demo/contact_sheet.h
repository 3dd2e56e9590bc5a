/*
 * The contact sheet of the rear-view tool: the last frame of every client,
 * side by side at one height, written as a PNG with libpng. Frames are
 * converted and scaled with libyuv.
 */
#pragma once

#include <stdint.h>

#include <string>
#include <vector>

namespace marlo_demo {

/* One client's last frame: tightly packed pixels of a library fourcc. */
struct SheetImage {
    std::vector<uint8_t> pixels;
    uint32_t fourcc = 0;
    uint32_t width = 0;
    uint32_t height = 0;
};

/*
 * Copies a frame of \a fourcc (AR24, AB24, NV12 or YUYV) with a row stride
 * of \a stride pixels into \a image. False for other formats.
 */
bool CopyForSheet(const uint8_t* data, uint32_t fourcc, uint32_t width, uint32_t height,
                  uint32_t stride, SheetImage* image);

/*
 * Writes \a images side by side, each scaled to \a height rows, on a dark
 * background to the PNG file \a path. False with \a error set on failure.
 */
bool WriteContactSheet(const std::vector<SheetImage>& images, uint32_t height,
                       const std::string& path, std::string* error);

}  // namespace marlo_demo
