/*
 * Test helpers for the software engine.
 */
#include "nax_test_util.h"

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <fstream>
#include <stdexcept>

namespace nax_test {

namespace {

enum class Kind { Rgb, Rgb565, Grey8, Grey4, Semi420, Semi422, Planar420, Packed };

struct Traits {
    int code;
    const char* name;
    Kind kind;
    int bpp;
    int r, g, b, a;   /* byte positions in a pixel, -1 absent */
    bool swap;        /* Cr first */
    int y0, u, y1, v; /* packed 4:2:2 byte positions */
};

/* Byte positions as V4L2 lays out the format of the same name: "AR24"
 * (ABGR32) is bytes B,G,R,A and "RA24" (BGRA32) bytes A,B,G,R, its names
 * of those layouts reading the little-endian word. */
const Traits kTraits[] = {
    {NAX_FORMAT_RGBA_8888, "RGBA_8888", Kind::Rgb, 4, 0, 1, 2, 3, false, 0, 0, 0, 0},
    {NAX_FORMAT_RGBX_8888, "RGBX_8888", Kind::Rgb, 4, 0, 1, 2, -1, false, 0, 0, 0, 0},
    {NAX_FORMAT_RGB_888, "RGB_888", Kind::Rgb, 3, 0, 1, 2, -1, false, 0, 0, 0, 0},
    {NAX_FORMAT_BGRA_8888, "BGRA_8888", Kind::Rgb, 4, 3, 2, 1, 0, false, 0, 0, 0, 0},
    {NAX_FORMAT_RGB_565, "RGB_565", Kind::Rgb565, 2, -1, -1, -1, -1, false, 0, 0, 0, 0},
    {NAX_FORMAT_BGR_888, "BGR_888", Kind::Rgb, 3, 2, 1, 0, -1, false, 0, 0, 0, 0},
    {NAX_FORMAT_YCbCr_422_SP, "YCbCr_422_SP", Kind::Semi422, 1, 0, 0, 0, 0, false, 0, 0, 0, 0},
    {NAX_FORMAT_YCbCr_420_SP, "YCbCr_420_SP", Kind::Semi420, 1, 0, 0, 0, 0, false, 0, 0, 0, 0},
    {NAX_FORMAT_YCbCr_420_P, "YCbCr_420_P", Kind::Planar420, 1, 0, 0, 0, 0, false, 0, 0, 0, 0},
    {NAX_FORMAT_YCrCb_422_SP, "YCrCb_422_SP", Kind::Semi422, 1, 0, 0, 0, 0, true, 0, 0, 0, 0},
    {NAX_FORMAT_YCrCb_420_SP, "YCrCb_420_SP", Kind::Semi420, 1, 0, 0, 0, 0, true, 0, 0, 0, 0},
    {NAX_FORMAT_YCrCb_420_P, "YCrCb_420_P", Kind::Planar420, 1, 0, 0, 0, 0, true, 0, 0, 0, 0},
    {NAX_FORMAT_Y4, "Y4", Kind::Grey4, 1, 0, 0, 0, 0, false, 0, 0, 0, 0},
    {NAX_FORMAT_Y8, "Y8", Kind::Grey8, 1, 0, 0, 0, 0, false, 0, 0, 0, 0},
    {NAX_FORMAT_BGRX_8888, "BGRX_8888", Kind::Rgb, 4, 3, 2, 1, -1, false, 0, 0, 0, 0},
    {NAX_FORMAT_YVYU_422, "YVYU_422", Kind::Packed, 2, 0, 0, 0, 0, false, 0, 3, 2, 1},
    {NAX_FORMAT_VYUY_422, "VYUY_422", Kind::Packed, 2, 0, 0, 0, 0, false, 1, 2, 3, 0},
    {NAX_FORMAT_YUYV_422, "YUYV_422", Kind::Packed, 2, 0, 0, 0, 0, false, 0, 1, 2, 3},
    {NAX_FORMAT_UYVY_422, "UYVY_422", Kind::Packed, 2, 0, 0, 0, 0, false, 1, 0, 3, 2},
    {NAX_FORMAT_ARGB_8888, "ARGB_8888", Kind::Rgb, 4, 1, 2, 3, 0, false, 0, 0, 0, 0},
    {NAX_FORMAT_XRGB_8888, "XRGB_8888", Kind::Rgb, 4, 1, 2, 3, -1, false, 0, 0, 0, 0},
    {NAX_FORMAT_ABGR_8888, "ABGR_8888", Kind::Rgb, 4, 2, 1, 0, 3, false, 0, 0, 0, 0},
    {NAX_FORMAT_XBGR_8888, "XBGR_8888", Kind::Rgb, 4, 2, 1, 0, -1, false, 0, 0, 0, 0},
};

const Traits& TraitsOf(int code) {
    for (const Traits& t : kTraits) {
        if (t.code == code)
            return t;
    }
    throw std::invalid_argument("unknown format");
}

uint8_t Clamp(double v) {
    return static_cast<uint8_t>(std::clamp(std::lround(v), 0L, 255L));
}

double Y(const Rgba& c) {
    return 16 + 0.257 * c.r + 0.504 * c.g + 0.098 * c.b;
}
double U(const Rgba& c) {
    return 128 - 0.148 * c.r - 0.291 * c.g + 0.439 * c.b;
}
double V(const Rgba& c) {
    return 128 + 0.439 * c.r - 0.368 * c.g - 0.071 * c.b;
}

Rgba FromYuv(double y, double u, double v) {
    const double c = 1.164 * (y - 16);
    return Rgba{Clamp(c + 1.596 * (v - 128)), Clamp(c - 0.813 * (v - 128) - 0.391 * (u - 128)),
                Clamp(c + 2.018 * (u - 128)), 255};
}

/* Mean chroma of the block of subsampling factors (sx, sy) at (bx, by). */
void BlockChroma(const std::vector<Rgba>& img, int w, int h, int bx, int by, int sx, int sy,
                 uint8_t* u, uint8_t* v) {
    double su = 0;
    double sv = 0;
    int n = 0;
    for (int y = by * sy; y < std::min(h, by * sy + sy); y++) {
        for (int x = bx * sx; x < std::min(w, bx * sx + sx); x++) {
            su += U(img[y * w + x]);
            sv += V(img[y * w + x]);
            n++;
        }
    }
    *u = Clamp(su / n);
    *v = Clamp(sv / n);
}

}  // namespace

const std::vector<int>& AllFormatCodes() {
    static const std::vector<int> codes = [] {
        std::vector<int> c;
        for (const Traits& t : kTraits)
            c.push_back(t.code);
        return c;
    }();
    return codes;
}

std::string FormatName(int code) {
    return TraitsOf(code).name;
}

bool IsGrey(int code) {
    const Kind k = TraitsOf(code).kind;
    return k == Kind::Grey4 || k == Kind::Grey8;
}

bool IsYuv(int code) {
    const Kind k = TraitsOf(code).kind;
    return k != Kind::Rgb && k != Kind::Rgb565;
}

bool HasAlpha(int code) {
    return TraitsOf(code).kind == Kind::Rgb && TraitsOf(code).a >= 0;
}

std::vector<PlaneGeom> Planes(const Geometry& g) {
    const Traits& t = TraitsOf(g.format);
    const size_t ws = g.wstride;
    const size_t hs = g.hstride;
    const size_t even = (ws + 1) / 2 * 2;
    switch (t.kind) {
        case Kind::Rgb:
        case Kind::Rgb565:
            return {{0, ws * t.bpp, hs}};
        case Kind::Grey4:
        case Kind::Grey8:
            return {{0, ws, hs}};
        case Kind::Packed:
            return {{0, even * 2, hs}};
        case Kind::Semi420:
            return {{0, ws, hs}, {ws * hs, even, (hs + 1) / 2}};
        case Kind::Semi422:
            return {{0, ws, hs}, {ws * hs, even, hs}};
        case Kind::Planar420: {
            const size_t cp = (ws + 1) / 2;
            const size_t cr = (hs + 1) / 2;
            return {{0, ws, hs}, {ws * hs, cp, cr}, {ws * hs + cp * cr, cp, cr}};
        }
    }
    return {};
}

size_t BufferSize(const Geometry& g) {
    const std::vector<PlaneGeom> p = Planes(g);
    return p.back().offset + p.back().pitch * p.back().rows;
}

Rgba GreyOf(const Rgba& c) {
    const uint8_t y = Clamp(Y(c));
    return FromYuv(y, 128, 128);
}

void WriteImage(const Geometry& g, uint8_t* base, const std::vector<Rgba>& img) {
    const Traits& t = TraitsOf(g.format);
    const std::vector<PlaneGeom> p = Planes(g);
    const int w = g.width;
    const int h = g.height;
    auto px = [&](int x, int y) -> const Rgba& { return img[y * w + x]; };
    switch (t.kind) {
        case Kind::Rgb:
            for (int y = 0; y < h; y++) {
                for (int x = 0; x < w; x++) {
                    uint8_t* d = base + y * p[0].pitch + x * t.bpp;
                    if (t.bpp == 4)
                        d[t.a >= 0 ? t.a : (6 - t.r - t.g - t.b)] = t.a >= 0 ? px(x, y).a : 0xFF;
                    d[t.r] = px(x, y).r;
                    d[t.g] = px(x, y).g;
                    d[t.b] = px(x, y).b;
                }
            }
            break;
        case Kind::Rgb565:
            for (int y = 0; y < h; y++) {
                for (int x = 0; x < w; x++) {
                    const Rgba& c = px(x, y);
                    const uint16_t v =
                        static_cast<uint16_t>(((c.r >> 3) << 11) | ((c.g >> 2) << 5) | (c.b >> 3));
                    uint8_t* d = base + y * p[0].pitch + x * 2;
                    d[0] = v & 0xFF;
                    d[1] = v >> 8;
                }
            }
            break;
        case Kind::Grey8:
        case Kind::Grey4:
            for (int y = 0; y < h; y++) {
                for (int x = 0; x < w; x++) {
                    const uint8_t l = Clamp(Y(px(x, y)));
                    base[y * p[0].pitch + x] =
                        t.kind == Kind::Grey8 ? l
                                              : static_cast<uint8_t>(((l * 15 + 127) / 255) << 4);
                }
            }
            break;
        case Kind::Packed:
            for (int y = 0; y < h; y++) {
                for (int bx = 0; bx < (w + 1) / 2; bx++) {
                    uint8_t* d = base + y * p[0].pitch + bx * 4;
                    uint8_t u, v;
                    BlockChroma(img, w, h, bx, y, 2, 1, &u, &v);
                    d[t.y0] = Clamp(Y(px(2 * bx, y)));
                    d[t.y1] = Clamp(Y(px(std::min(2 * bx + 1, w - 1), y)));
                    d[t.u] = u;
                    d[t.v] = v;
                }
            }
            break;
        case Kind::Semi420:
        case Kind::Semi422:
        case Kind::Planar420: {
            for (int y = 0; y < h; y++)
                for (int x = 0; x < w; x++)
                    base[y * p[0].pitch + x] = Clamp(Y(px(x, y)));
            const int sy = t.kind == Kind::Semi422 ? 1 : 2;
            for (int by = 0; by < (h + sy - 1) / sy; by++) {
                for (int bx = 0; bx < (w + 1) / 2; bx++) {
                    uint8_t u, v;
                    BlockChroma(img, w, h, bx, by, 2, sy, &u, &v);
                    if (t.kind == Kind::Planar420) {
                        base[p[t.swap ? 2 : 1].offset + by * p[1].pitch + bx] = u;
                        base[p[t.swap ? 1 : 2].offset + by * p[1].pitch + bx] = v;
                    } else {
                        uint8_t* d = base + p[1].offset + by * p[1].pitch + bx * 2;
                        d[t.swap ? 1 : 0] = u;
                        d[t.swap ? 0 : 1] = v;
                    }
                }
            }
            break;
        }
    }
}

std::vector<Rgba> ReadImage(const Geometry& g, const uint8_t* base) {
    const Traits& t = TraitsOf(g.format);
    const std::vector<PlaneGeom> p = Planes(g);
    const int w = g.width;
    const int h = g.height;
    std::vector<Rgba> out(static_cast<size_t>(w) * h);
    for (int y = 0; y < h; y++) {
        for (int x = 0; x < w; x++) {
            Rgba& o = out[y * w + x];
            switch (t.kind) {
                case Kind::Rgb: {
                    const uint8_t* s = base + y * p[0].pitch + x * t.bpp;
                    o = Rgba{s[t.r], s[t.g], s[t.b], t.a >= 0 ? s[t.a] : uint8_t{255}};
                    break;
                }
                case Kind::Rgb565: {
                    const uint8_t* s = base + y * p[0].pitch + x * 2;
                    const int v = s[0] | (s[1] << 8);
                    const int r = v >> 11, gg = (v >> 5) & 0x3F, b = v & 0x1F;
                    o = Rgba{static_cast<uint8_t>((r << 3) | (r >> 2)),
                             static_cast<uint8_t>((gg << 2) | (gg >> 4)),
                             static_cast<uint8_t>((b << 3) | (b >> 2)), 255};
                    break;
                }
                case Kind::Grey8:
                    o = FromYuv(base[y * p[0].pitch + x], 128, 128);
                    break;
                case Kind::Grey4: {
                    const uint8_t b = base[y * p[0].pitch + x];
                    o = FromYuv((b & 0xF0) | (b >> 4), 128, 128);
                    break;
                }
                case Kind::Packed: {
                    const uint8_t* s = base + y * p[0].pitch + (x / 2) * 4;
                    o = FromYuv(s[x % 2 ? t.y1 : t.y0], s[t.u], s[t.v]);
                    break;
                }
                case Kind::Semi420:
                case Kind::Semi422:
                case Kind::Planar420: {
                    const int cy = t.kind == Kind::Semi422 ? y : y / 2;
                    uint8_t u, v;
                    if (t.kind == Kind::Planar420) {
                        u = base[p[t.swap ? 2 : 1].offset + cy * p[1].pitch + x / 2];
                        v = base[p[t.swap ? 1 : 2].offset + cy * p[1].pitch + x / 2];
                    } else {
                        const uint8_t* s = base + p[1].offset + cy * p[1].pitch + (x / 2) * 2;
                        u = s[t.swap ? 1 : 0];
                        v = s[t.swap ? 0 : 1];
                    }
                    o = FromYuv(base[y * p[0].pitch + x], u, v);
                    break;
                }
            }
        }
    }
    return out;
}

TestBuffer::TestBuffer(const Geometry& g, Backing backing, size_t extra)
    : g_(g), backing_(backing), size_(BufferSize(g) + extra) {
    if (backing_ == Backing::Memfd) {
        fd_ = memfd_create("nax_test_buffer", MFD_CLOEXEC);
        if (fd_ < 0 || ftruncate(fd_, static_cast<off_t>(size_)) != 0)
            throw std::runtime_error("memfd");
        void* p = mmap(nullptr, size_, PROT_READ | PROT_WRITE, MAP_SHARED, fd_, 0);
        if (p == MAP_FAILED)
            throw std::runtime_error("mmap");
        data_ = static_cast<uint8_t*>(p);
        memset(data_, 0, size_);
        handle_ = nax_import_fd(fd_, nullptr);
    } else if (backing_ == Backing::GuardPage) {
        const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
        const size_t rounded = (size_ + page - 1) / page * page;
        regionSize_ = rounded + page;
        void* p =
            mmap(nullptr, regionSize_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (p == MAP_FAILED)
            throw std::runtime_error("mmap");
        region_ = static_cast<uint8_t*>(p);
        if (mprotect(region_ + rounded, page, PROT_NONE) != 0)
            throw std::runtime_error("mprotect");
        data_ = region_ + rounded - size_;
        handle_ = nax_import_vaddr(reinterpret_cast<uintptr_t>(data_), nullptr);
    } else {
        const size_t offset = backing_ == Backing::OddAddress ? 1 : 0;
        heap_.assign(size_ + offset, 0);
        data_ = heap_.data() + offset;
        handle_ = nax_import_vaddr(reinterpret_cast<uintptr_t>(data_), nullptr);
    }
}

TestBuffer::~TestBuffer() {
    if (handle_ != 0)
        nax_release_handle(handle_);
    if (backing_ == Backing::Memfd) {
        munmap(data_, size_);
        close(fd_);
    } else if (backing_ == Backing::GuardPage) {
        munmap(region_, regionSize_);
    }
}

nax_buffer_t TestBuffer::buffer() const {
    return buffer(g_.format);
}

nax_buffer_t TestBuffer::buffer(int format) const {
    return nax_wrap_handle(handle_, g_.width, g_.height, g_.wstride, g_.hstride, format);
}

std::vector<Rgba> Solid(int w, int h, Rgba c) {
    return std::vector<Rgba>(static_cast<size_t>(w) * h, c);
}

std::vector<Rgba> Ramp(int w, int h) {
    std::vector<Rgba> img(static_cast<size_t>(w) * h);
    for (int y = 0; y < h; y++)
        for (int x = 0; x < w; x++)
            img[y * w + x] =
                Rgba{static_cast<uint8_t>(40 + 6 * x), static_cast<uint8_t>(40 + 6 * y),
                     static_cast<uint8_t>(200 - 3 * x), 255};
    return img;
}

std::vector<Rgba> Checker(int w, int h, int cell) {
    std::vector<Rgba> img(static_cast<size_t>(w) * h);
    for (int y = 0; y < h; y++)
        for (int x = 0; x < w; x++)
            img[y * w + x] =
                ((x / cell + y / cell) % 2) ? Rgba{230, 200, 40, 255} : Rgba{20, 40, 160, 255};
    return img;
}

int MaxDiff(const Rgba& a, const Rgba& b) {
    return std::max({std::abs(a.r - b.r), std::abs(a.g - b.g), std::abs(a.b - b.b)});
}

/* Counts the bytes of a buffer outside its image (row and plane padding)
 * that differ from `fill`. */
int TouchedPadding(const TestBuffer& buf, uint8_t fill) {
    const Geometry& g = buf.geometry();
    const std::vector<PlaneGeom> planes = Planes(g);
    /* The same image without padding gives each plane's bytes of a row
     * and rows of the image. */
    const std::vector<PlaneGeom> image =
        Planes(Geometry{g.width, g.height, g.width, g.height, g.format});
    const uint8_t* base = buf.data();
    int touched = 0;
    for (size_t i = 0; i < planes.size(); i++) {
        const PlaneGeom& p = planes[i];
        for (size_t r = 0; r < p.rows; r++)
            for (size_t b = 0; b < p.pitch; b++)
                if ((r >= image[i].rows || b >= image[i].pitch) &&
                    base[p.offset + r * p.pitch + b] != fill)
                    touched++;
    }
    return touched;
}

int MappingsOf(const std::string& memfdName) {
    std::ifstream maps("/proc/self/maps");
    std::string line;
    int n = 0;
    const std::string needle = "/memfd:" + memfdName + " ";
    while (std::getline(maps, line)) {
        if (line.find(needle) != std::string::npos)
            n++;
    }
    return n;
}

}  // namespace nax_test
