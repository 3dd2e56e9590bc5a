/*
 * Test helpers for the software engine: an independent model of every
 * format's memory layout and BT.601 limited-range colour, and buffers that
 * import themselves.
 */
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <string>
#include <vector>

#include <nax/nax.h>

namespace nax_test {

struct Rgba {
    uint8_t r;
    uint8_t g;
    uint8_t b;
    uint8_t a;
};

/* Every format code of the engine's table. */
const std::vector<int>& AllFormatCodes();
std::string FormatName(int code);
bool IsGrey(int code);
bool IsYuv(int code);
bool HasAlpha(int code);

struct Geometry {
    int width;
    int height;
    int wstride;
    int hstride;
    int format;
};

/* Offset, row pitch and rows of each plane, from the documented layout. */
struct PlaneGeom {
    size_t offset;
    size_t pitch;
    size_t rows;
};
std::vector<PlaneGeom> Planes(const Geometry& g);
size_t BufferSize(const Geometry& g);

/* Writes an image (width x height, row-major) in g's format; chroma is the
 * mean of each subsampled block. */
void WriteImage(const Geometry& g, uint8_t* base, const std::vector<Rgba>& image);
/* Reads g's format back to RGBA (alpha 255 for formats without it). */
std::vector<Rgba> ReadImage(const Geometry& g, const uint8_t* base);

/* The grey a luma-only format shows for this colour. */
Rgba GreyOf(const Rgba& c);

/* Memory holding one image: memfd-backed or plain heap, imported into the
 * engine. */
class TestBuffer {
  public:
    /* GuardPage: CPU memory that ends where an inaccessible page begins,
     * so any access past the end faults, even from uninstrumented code.
     * OddAddress: CPU memory that starts at an odd address, so no plane or
     * row is aligned for any access wider than a byte. */
    enum class Backing { Memfd, Heap, GuardPage, OddAddress };
    TestBuffer(const Geometry& g, Backing backing = Backing::Memfd, size_t extra = 0);
    ~TestBuffer();
    TestBuffer(const TestBuffer&) = delete;
    TestBuffer& operator=(const TestBuffer&) = delete;

    uint8_t* data() { return data_; }
    const uint8_t* data() const { return data_; }
    size_t size() const { return size_; }
    int fd() const { return fd_; }
    uint32_t handle() const { return handle_; }
    const Geometry& geometry() const { return g_; }
    nax_buffer_t buffer() const;
    nax_buffer_t buffer(int format) const;

    void Write(const std::vector<Rgba>& image) { WriteImage(g_, data_, image); }
    std::vector<Rgba> Read() const { return ReadImage(g_, data_); }

  private:
    Geometry g_;
    Backing backing_;
    size_t size_;
    int fd_ = -1;
    uint8_t* data_ = nullptr;
    std::vector<uint8_t> heap_;
    uint32_t handle_ = 0;
    uint8_t* region_ = nullptr;
    size_t regionSize_ = 0;
};

/* Test pictures. */
std::vector<Rgba> Solid(int w, int h, Rgba c);
std::vector<Rgba> Ramp(int w, int h);
std::vector<Rgba> Checker(int w, int h, int cell);

/* Largest per-channel difference between two colours (alpha ignored). */
int MaxDiff(const Rgba& a, const Rgba& b);

/* Counts the bytes of a buffer outside its image (row and plane padding)
 * that differ from `fill`. */
int TouchedPadding(const TestBuffer& buf, uint8_t fill);

/* The number of lines of /proc/self/maps that map a memfd of this name. */
int MappingsOf(const std::string& memfdName);

}  // namespace nax_test
