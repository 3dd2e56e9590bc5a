#include <gtest/gtest.h>
#include <png.h>
#include <unistd.h>

#include <cstdio>
#include <string>
#include <vector>

#include <marlo/buffer/pixel_format.h>

#include "contact_sheet.h"

using namespace tessaro::marlo;

namespace {

struct Png {
    uint32_t width = 0;
    uint32_t height = 0;
    std::vector<uint8_t> rgb;
};

bool ReadPng(const std::string& path, Png* png) {
    png_image image = {};
    image.version = PNG_IMAGE_VERSION;
    if (!png_image_begin_read_from_file(&image, path.c_str()))
        return false;
    image.format = PNG_FORMAT_RGB;
    png->width = image.width;
    png->height = image.height;
    png->rgb.resize(PNG_IMAGE_SIZE(image));
    return png_image_finish_read(&image, nullptr, png->rgb.data(), 0, nullptr) != 0;
}

const uint8_t* PixelOf(const Png& png, uint32_t x, uint32_t y) {
    return png.rgb.data() + (size_t{y} * png.width + x) * 3;
}

TEST(ContactSheet, CopiesRowsWithoutTheirPadding) {
    /* 4x2 AR24 with a stride of 6 pixels. */
    std::vector<uint8_t> data(6 * 4 * 2, 0xEE);
    for (int i = 0; i < 16; ++i)
        data[i] = static_cast<uint8_t>(i);
    marlo_demo::SheetImage image;
    ASSERT_TRUE(marlo_demo::CopyForSheet(data.data(), FOURCC_AR24, 4, 2, 6, &image));
    ASSERT_EQ(image.pixels.size(), 32u);
    EXPECT_EQ(image.pixels[15], 15);
    EXPECT_EQ(image.pixels[16], 0xEE);
    EXPECT_FALSE(marlo_demo::CopyForSheet(data.data(), FOURCC_RGBP, 4, 2, 6, &image));
}

TEST(ContactSheet, FramesSideBySideAtOneHeight) {
    /* A red AR24 frame (bytes B,G,R,A) and a grey NV12 frame of half its height. */
    marlo_demo::SheetImage red;
    std::vector<uint8_t> bgra(64 * 32 * 4);
    for (size_t i = 0; i < bgra.size(); i += 4) {
        bgra[i + 2] = 0xFF;
        bgra[i + 3] = 0xFF;
    }
    ASSERT_TRUE(marlo_demo::CopyForSheet(bgra.data(), FOURCC_AR24, 64, 32, 64, &red));
    marlo_demo::SheetImage grey;
    std::vector<uint8_t> nv12(32 * 16 * 3 / 2, 128);
    ASSERT_TRUE(marlo_demo::CopyForSheet(nv12.data(), FOURCC_NV12, 32, 16, 32, &grey));

    std::string path = testing::TempDir() + "sheet_test.png";
    std::string error;
    ASSERT_TRUE(marlo_demo::WriteContactSheet({red, grey}, 32, path, &error)) << error;
    Png png;
    ASSERT_TRUE(ReadPng(path, &png));
    /* Gaps of 16 around: 16 + 64 + 16 + 64 + 16 wide, 16 + 32 + 16 high. */
    EXPECT_EQ(png.width, 176u);
    EXPECT_EQ(png.height, 64u);
    const uint8_t* first = PixelOf(png, 40, 30);
    EXPECT_EQ(first[0], 0xFF);
    EXPECT_EQ(first[1], 0);
    EXPECT_EQ(first[2], 0);
    const uint8_t* second = PixelOf(png, 120, 30);
    EXPECT_NEAR(second[0], 130, 4);
    EXPECT_EQ(second[0], second[1]);
    EXPECT_EQ(second[1], second[2]);
    const uint8_t* gap = PixelOf(png, 88, 30);
    EXPECT_EQ(gap[0], 0x20);
    unlink(path.c_str());

    EXPECT_FALSE(marlo_demo::WriteContactSheet({red}, 32, "/nonexistent/dir/x.png", &error));
    EXPECT_NE(error.find("cannot write /nonexistent/dir/x.png"), std::string::npos) << error;
}

}  // namespace
