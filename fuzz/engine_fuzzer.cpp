/*
 * The 2D engine's geometry and format combinations: sizes, strides,
 * formats, rectangles, transforms, scale factors and memory that is too
 * small, too large or missing, through the engine's own entry points
 * (nax_process and the single steps, whose answers are checked) or through
 * NaxImageOperator as the camera calls it (whose answers are fixed).
 *
 * Memory reached by CPU address spans exactly the bytes its geometry needs
 * (a heap block AddressSanitizer watches, or a block that ends at an
 * inaccessible page for the uninstrumented libyuv); memory reached by
 * descriptor is a memory file whose size the input chooses, which the
 * engine must check before it touches a byte.
 */
#include <errno.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <memory>
#include <vector>

#include <fuzzer/FuzzedDataProvider.h>
#include <nax/nax.h>

#include "format.h"
#include "fuzz_support.h"
#include "marlo/buffer/pixel_format.h"
#include "marlo/imgproc/nax_image_operator.h"

using tessaro::marlo::ImageBuffer;
using tessaro::marlo::ImageRect;
using tessaro::marlo::NaxImageOperator;

namespace {

/* Larger images are slow to convert and add nothing the small ones lack. */
constexpr int kMaxSide = 160;
/* The most a CPU-address image may span; larger ones go by descriptor. */
constexpr uint64_t kMaxHeapBytes = 4u << 20;

constexpr int kEngineFormats[] = {
    NAX_FORMAT_RGBA_8888,
    NAX_FORMAT_RGBX_8888,
    NAX_FORMAT_RGB_888,
    NAX_FORMAT_BGRA_8888,
    NAX_FORMAT_RGB_565,
    NAX_FORMAT_BGR_888,
    NAX_FORMAT_YCbCr_422_SP,
    NAX_FORMAT_YCbCr_420_SP,
    NAX_FORMAT_YCbCr_420_P,
    NAX_FORMAT_YCrCb_422_SP,
    NAX_FORMAT_YCrCb_420_SP,
    NAX_FORMAT_YCrCb_420_P,
    NAX_FORMAT_Y4,
    NAX_FORMAT_Y8,
    NAX_FORMAT_BGRX_8888,
    NAX_FORMAT_YVYU_422,
    NAX_FORMAT_VYUY_422,
    NAX_FORMAT_YUYV_422,
    NAX_FORMAT_UYVY_422,
    NAX_FORMAT_ARGB_8888,
    NAX_FORMAT_XRGB_8888,
    NAX_FORMAT_ABGR_8888,
    NAX_FORMAT_XBGR_8888,
    /* codes the engine lacks */
    0x5 << 8,
    0x1 << 7,
    -1,
};

constexpr uint32_t kFourccs[] = {
    tessaro::marlo::FOURCC_RGB3, tessaro::marlo::FOURCC_BGR3, tessaro::marlo::FOURCC_RGBP,
    tessaro::marlo::FOURCC_AB24, tessaro::marlo::FOURCC_XB24, tessaro::marlo::FOURCC_RA24,
    tessaro::marlo::FOURCC_RX24, tessaro::marlo::FOURCC_BA24, tessaro::marlo::FOURCC_AR24,
    tessaro::marlo::FOURCC_XR24, tessaro::marlo::FOURCC_NV12, tessaro::marlo::FOURCC_NV21,
    tessaro::marlo::FOURCC_NV16, tessaro::marlo::FOURCC_NV61, tessaro::marlo::FOURCC_YU12,
    tessaro::marlo::FOURCC_YV12, tessaro::marlo::FOURCC_YUYV, tessaro::marlo::FOURCC_YVYU,
    tessaro::marlo::FOURCC_UYVY, tessaro::marlo::FOURCC_VYUY, tessaro::marlo::FOURCC_NONE,
    0x47524559 /* "GREY" */,     0x20343059 /* "Y04 " */,     0,
};

void Check(bool ok, const char* what) {
    if (!ok) {
        fprintf(stderr, "engine_fuzzer: %s\n", what);
        abort();
    }
}

/* A side: mostly small, sometimes one of the values that must be refused. */
int Side(FuzzedDataProvider& in) {
    if (in.ConsumeIntegralInRange<int>(0, 15) != 0)
        return in.ConsumeIntegralInRange<int>(1, kMaxSide);
    constexpr int kOdd[] = {
        0, -1, -64, 16384, 16385, std::numeric_limits<int>::max(), std::numeric_limits<int>::min()};
    return kOdd[in.ConsumeIntegralInRange<size_t>(0, std::size(kOdd) - 1)];
}

/* A stride: zero (the side itself), a little more than the side, or anything. */
int Stride(FuzzedDataProvider& in, int side) {
    switch (in.ConsumeIntegralInRange<int>(0, 3)) {
        case 0:
            return 0;
        case 1:
            return side;
        case 2:
            return side > kMaxSide ? side : side + in.ConsumeIntegralInRange<int>(0, 9);
        default:
            return Side(in);
    }
}

struct Geometry {
    int width;
    int height;
    int wstride;
    int hstride;
};

Geometry ConsumeGeometry(FuzzedDataProvider& in) {
    Geometry g;
    g.width = Side(in);
    g.height = Side(in);
    g.wstride = Stride(in, g.width);
    g.hstride = Stride(in, g.height);
    return g;
}

/* Bytes the engine reads or writes for this geometry; 0 when it refuses it. */
uint64_t Span(const Geometry& g, int engineFormat) {
    const nax::FormatInfo* fmt = nax::FindFormat(engineFormat);
    const int ws = g.wstride == 0 ? g.width : g.wstride;
    const int hs = g.hstride == 0 ? g.height : g.hstride;
    if (fmt == nullptr || g.width <= 0 || g.height <= 0 || ws < g.width || hs < g.height)
        return 0;
    return nax::SurfaceBytes(fmt, ws, hs);
}

/*
 * The memory behind one image, released at the end of the input. The
 * engine's own code is instrumented, libyuv is not: a heap block lets
 * AddressSanitizer see the first, a block that ends at an inaccessible page
 * (with a checked pattern before it) catches the second.
 */
class Memory {
  public:
    enum class Kind { Heap, Guarded, File, None };

    Memory(FuzzedDataProvider& in, uint64_t span) {
        const int choice = in.ConsumeIntegralInRange<int>(0, 7);
        const uint8_t fill = in.ConsumeIntegral<uint8_t>();
        if (choice == 0) {
            kind_ = Kind::None;
            return;
        }
        if (choice == 1 && span > 0 && span <= kMaxHeapBytes) {
            kind_ = Kind::Heap;
            heap_.assign(span, fill);
            return;
        }
        if (choice <= 3 && span > 0 && span <= kMaxHeapBytes) {
            kind_ = Kind::Guarded;
            MapGuarded(span, fill);
            return;
        }
        kind_ = Kind::File;
        /* Exactly the span, or any size up to a little more. */
        uint64_t size = span;
        if (choice >= 6 || span > kMaxHeapBytes)
            size = in.ConsumeIntegralInRange<uint64_t>(
                0, std::min<uint64_t>(span, kMaxHeapBytes) + 4096);
        fd_ = memfd_create("engine_fuzzer", MFD_CLOEXEC);
        Check(fd_ >= 0 && ftruncate(fd_, static_cast<off_t>(size)) == 0, "memory file");
    }
    ~Memory() {
        if (fd_ >= 0)
            close(fd_);
        if (mapping_ != nullptr) {
            for (uint8_t* p = mapping_ + page_; p < image_; ++p)
                Check(*p == kCanary, "a write before the start of an image");
            munmap(mapping_, mappingSize_);
        }
    }
    Memory(const Memory&) = delete;
    Memory& operator=(const Memory&) = delete;

    Kind kind() const { return kind_; }
    int fd() const { return fd_; }
    uintptr_t address() const {
        if (kind_ == Kind::Heap)
            return reinterpret_cast<uintptr_t>(heap_.data());
        return reinterpret_cast<uintptr_t>(image_);
    }

  private:
    static constexpr uint8_t kCanary = 0xC5;

    /* [no access][canary ... image][no access], the image ending at the page. */
    void MapGuarded(uint64_t span, uint8_t fill) {
        page_ = static_cast<size_t>(sysconf(_SC_PAGESIZE));
        const size_t body = (span + page_ - 1) / page_ * page_;
        mappingSize_ = body + 2 * page_;
        void* p = mmap(nullptr, mappingSize_, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        Check(p != MAP_FAILED, "guarded mapping");
        mapping_ = static_cast<uint8_t*>(p);
        Check(mprotect(mapping_ + page_, body, PROT_READ | PROT_WRITE) == 0, "guarded body");
        image_ = mapping_ + page_ + body - span;
        memset(mapping_ + page_, kCanary, body - span);
        memset(image_, fill, span);
    }

    Kind kind_ = Kind::None;
    std::vector<uint8_t> heap_;
    uint8_t* mapping_ = nullptr;
    size_t mappingSize_ = 0;
    size_t page_ = 0;
    uint8_t* image_ = nullptr;
    int fd_ = -1;
};

nax_rect ConsumeRect(FuzzedDataProvider& in) {
    if (in.ConsumeBool())
        return nax_rect{0, 0, 0, 0};
    nax_rect r;
    r.x = in.ConsumeIntegralInRange<int>(-2, kMaxSide);
    r.y = in.ConsumeIntegralInRange<int>(-2, kMaxSide);
    r.width = in.ConsumeIntegralInRange<int>(-1, kMaxSide + 2);
    r.height = in.ConsumeIntegralInRange<int>(-1, kMaxSide + 2);
    if (in.ConsumeIntegralInRange<int>(0, 31) == 0)
        r.width = std::numeric_limits<int>::max();
    return r;
}

double ConsumeFactor(FuzzedDataProvider& in) {
    constexpr double kOdd[] = {0.0, -1.0, 1e300, std::numeric_limits<double>::quiet_NaN(),
                               std::numeric_limits<double>::infinity()};
    if (in.ConsumeIntegralInRange<int>(0, 7) == 0)
        return kOdd[in.ConsumeIntegralInRange<size_t>(0, std::size(kOdd) - 1)];
    return in.ConsumeFloatingPointInRange<double>(0.01, 4.0);
}

/* An imported engine image: the handle is released at the end of the input. */
struct EngineImage {
    nax_buffer_t buffer;
    std::unique_ptr<Memory> memory;
    bool released = false;

    EngineImage(FuzzedDataProvider& in, bool dropHandle) {
        Geometry g = ConsumeGeometry(in);
        int format =
            kEngineFormats[in.ConsumeIntegralInRange<size_t>(0, std::size(kEngineFormats) - 1)];
        memory = std::make_unique<Memory>(in, Span(g, format));
        uint32_t handle = 0;
        if (memory->kind() == Memory::Kind::Heap || memory->kind() == Memory::Kind::Guarded)
            handle = nax_import_vaddr(memory->address(), nullptr);
        else if (memory->kind() == Memory::Kind::File)
            handle = nax_import_fd(memory->fd(), nullptr);
        buffer = nax_wrap_handle(handle, g.width, g.height, g.wstride, g.hstride, format);
        if (dropHandle && handle != 0) {
            /* A released handle must be refused, not followed. */
            nax_release_handle(handle);
            released = true;
        }
    }
    ~EngineImage() {
        if (buffer.handle != 0 && !released)
            Check(nax_release_handle(buffer.handle) == 0, "release of an imported handle");
    }
    EngineImage(const EngineImage&) = delete;
    EngineImage& operator=(const EngineImage&) = delete;
};

void CheckAnswer(int result, int fence) {
    Check(result <= 0 && result > -4096, "an answer that is neither 0 nor -errno");
    Check(fence == -1, "a release fence from a job finished on return");
}

void RunEngine(FuzzedDataProvider& in) {
    const int op = in.ConsumeIntegralInRange<int>(0, 6);
    EngineImage src(in, in.ConsumeIntegralInRange<int>(0, 31) == 0);
    EngineImage dst(in, in.ConsumeIntegralInRange<int>(0, 31) == 0);
    int fence = 7;
    int result = 0;
    switch (op) {
        case 0: {
            nax_rect srect = ConsumeRect(in);
            nax_rect drect = ConsumeRect(in);
            nax_buffer_t pat = {};
            if (in.ConsumeIntegralInRange<int>(0, 15) == 0)
                pat = src.buffer;
            int usage = in.ConsumeIntegral<int>();
            result = nax_process(src.buffer, dst.buffer, pat, srect, drect, nax_rect{}, -1, &fence,
                                 nullptr, usage);
            break;
        }
        case 1:
            result = nax_crop(src.buffer, dst.buffer, ConsumeRect(in), in.ConsumeBool(), &fence);
            break;
        case 2: {
            double fx = ConsumeFactor(in);
            double fy = ConsumeFactor(in);
            result = nax_resize(src.buffer, dst.buffer, fx, fy,
                                in.ConsumeIntegralInRange<int>(-1, 4), 1, &fence);
            break;
        }
        case 3: {
            int srcFormat =
                kEngineFormats[in.ConsumeIntegralInRange<size_t>(0, std::size(kEngineFormats) - 1)];
            int dstFormat =
                kEngineFormats[in.ConsumeIntegralInRange<size_t>(0, std::size(kEngineFormats) - 1)];
            if (in.ConsumeBool()) {
                srcFormat = src.buffer.format;
                dstFormat = dst.buffer.format;
            }
            result = nax_cvtcolor(src.buffer, dst.buffer, srcFormat, dstFormat,
                                  in.ConsumeIntegralInRange<int>(0, 1) * in.ConsumeIntegral<int>(),
                                  1, &fence);
            break;
        }
        case 4: {
            constexpr int kRotations[] = {0, 90, 180, 270, 45, -90, 360};
            result = nax_rotate(
                src.buffer, dst.buffer,
                kRotations[in.ConsumeIntegralInRange<size_t>(0, std::size(kRotations) - 1)], 1,
                &fence);
            break;
        }
        case 5:
            result =
                nax_flip(src.buffer, dst.buffer, in.ConsumeIntegralInRange<int>(-1, 2), 1, &fence);
            break;
        default:
            result = nax_copy(src.buffer, dst.buffer, 0, &fence);
            break;
    }
    CheckAnswer(result, fence);
}

/* An image as the camera describes it to the operator. */
struct OperatorImage {
    ImageBuffer image = {};
    std::unique_ptr<Memory> memory;

    explicit OperatorImage(FuzzedDataProvider& in) {
        Geometry g = ConsumeGeometry(in);
        uint32_t fourcc = kFourccs[in.ConsumeIntegralInRange<size_t>(0, std::size(kFourccs) - 1)];
        memory = std::make_unique<Memory>(
            in, Span(g, tessaro::marlo::WrapFormat(static_cast<int>(fourcc))));
        image.cookie = in.ConsumeIntegral<uint64_t>();
        image.virAddr = memory->address();
        image.fd = memory->fd();
        /* A physical address the software engine cannot reach. */
        if (memory->kind() == Memory::Kind::None && in.ConsumeBool())
            image.phyAddr = 0x80000000u;
        image.width = g.width;
        image.height = g.height;
        image.wstride = g.wstride;
        image.hstride = g.hstride;
        image.format = static_cast<int32_t>(fourcc);
    }
};

ImageRect ToImageRect(const nax_rect& r) {
    return ImageRect{r.x, r.y, r.width, r.height};
}

void RunOperator(FuzzedDataProvider& in) {
    NaxImageOperator op;
    bool cache = in.ConsumeBool();
    op.control("SetCacheHandle", &cache);
    const int calls = in.ConsumeIntegralInRange<int>(1, 3);
    for (int call = 0; call < calls; ++call) {
        const int kind = in.ConsumeIntegralInRange<int>(0, 6);
        OperatorImage src(in);
        OperatorImage dst(in);
        const int sync = in.ConsumeIntegralInRange<int>(0, 2);
        int fence = -1;
        int result = 0;
        switch (kind) {
            case 0: {
                ImageBuffer pat = {};
                pat.fd = -1;
                ImageRect srect = ToImageRect(ConsumeRect(in));
                ImageRect drect = ToImageRect(ConsumeRect(in));
                result = op.process(src.image, dst.image, pat, srect, drect, ImageRect{}, sync,
                                    &fence, in.ConsumeIntegral<int>() & NAX_TRANSFORM_MASK);
                break;
            }
            case 1:
                result = op.crop(src.image, dst.image, ToImageRect(ConsumeRect(in)), sync, &fence);
                break;
            case 2:
                result = op.resize(src.image, dst.image, ConsumeFactor(in), ConsumeFactor(in),
                                   in.ConsumeIntegralInRange<int>(0, 3), sync, &fence);
                break;
            case 3:
                result = op.cvtcolor(src.image, dst.image, src.image.format, dst.image.format, 0,
                                     sync, &fence);
                break;
            case 4:
                result = op.rotate(src.image, dst.image, 90 * in.ConsumeIntegralInRange<int>(0, 3),
                                   sync, &fence);
                break;
            case 5:
                result = op.flip(src.image, dst.image, in.ConsumeIntegralInRange<int>(0, 1), sync,
                                 &fence);
                break;
            default:
                result = op.copy(src.image, dst.image, sync, &fence);
                break;
        }
        /* The operator answers 0 whatever the engine did; resize always -11. */
        Check(result == (kind == 2 ? -11 : 0), "an operator answer other than the fixed one");
        if (fence >= 0)
            op.sync(fence);
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
    marlo_fuzz::QuietLog();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzedDataProvider in(data, size);
    if (in.ConsumeBool())
        RunOperator(in);
    else
        RunEngine(in);
    return 0;
}
