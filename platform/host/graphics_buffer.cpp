/*
 * Graphics buffers for a development machine: the allocator, the mapper and
 * the mapper's metadata query, backed by memory file descriptors. A buffer
 * handle carries one memfd (its share fd) and a description of the buffer;
 * allocated and imported handles are tracked until they are freed.
 */
#include <android/hardware/graphics/mapper/4.0/IMapper.h>
#include <cutils/native_handle.h>
#include <marlo_host/graphics.h>
#include <system/graphics.h>
#include <ui/GraphicBufferAllocator.h>
#include <ui/GraphicBufferMapper.h>

#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

namespace android {

namespace {

using hardware::hidl_vec;
using hardware::Return;
using hardware::Status;
using hardware::graphics::mapper::V4_0::Error;
using hardware::graphics::mapper::V4_0::IMapper;

constexpr int kMagic = 0x6d677262;  // "bgrm"
constexpr uint32_t kMaxDimension = 32768;
constexpr uint32_t kMaxLayers = 16;
constexpr uint64_t kPageSize = 4096;

/* The ints after the share fd of every emulated handle. */
enum HandleInt {
    kIntMagic,
    kIntWidth,
    kIntHeight,
    kIntFormat,
    kIntLayerCount,
    kIntUsageLow,
    kIntUsageHigh,
    kIntStride,
    kIntSizeLow,
    kIntSizeHigh,
    kIntCount,
};

struct Layout {
    uint32_t stride;
    uint64_t size;
};

uint64_t AlignUp(uint64_t value, uint64_t alignment) {
    return (value + alignment - 1) / alignment * alignment;
}

/*
 * Stride in pixels and allocation size in bytes of all layers; false for
 * unknown formats.
 */
bool ComputeLayout(uint32_t width, uint32_t height, uint32_t layers, PixelFormat format,
                   Layout* layout) {
    uint64_t stride = AlignUp(width, 16);
    uint64_t h = height;
    uint64_t bytes;
    switch (format) {
        case HAL_PIXEL_FORMAT_RGBA_8888:
        case HAL_PIXEL_FORMAT_RGBX_8888:
        case HAL_PIXEL_FORMAT_BGRA_8888:
            bytes = stride * h * 4;
            break;
        case HAL_PIXEL_FORMAT_RGB_888:
            bytes = stride * h * 3;
            break;
        case HAL_PIXEL_FORMAT_RGB_565:
        case HAL_PIXEL_FORMAT_YCBCR_422_I:
            bytes = stride * h * 2;
            break;
        case HAL_PIXEL_FORMAT_YCBCR_422_SP:
            bytes = stride * h * 2;
            break;
        case HAL_PIXEL_FORMAT_YCRCB_420_SP:
            bytes = stride * h + stride * ((h + 1) / 2);
            break;
        case HAL_PIXEL_FORMAT_YV12:
            bytes = stride * h + 2 * AlignUp(stride / 2, 16) * ((h + 1) / 2);
            break;
        default:
            return false;
    }
    layout->stride = static_cast<uint32_t>(stride);
    layout->size = AlignUp(bytes, kPageSize) * layers;
    return true;
}

struct Tracked {
    void* mapping = nullptr;
    size_t mappingSize = 0;
    int locks = 0;
};

struct State {
    std::mutex mutex;
    std::unordered_map<const native_handle_t*, Tracked> buffers;
    marlo_host_gralloc_hook hook = nullptr;
    void* hookContext = nullptr;
    bool haveLock = false;
    marlo_host_gralloc_lock_record lastLock = {};
    bool overrideCount = false;
    int64_t planeFdCount = 0;
};

std::atomic<uint32_t> g_failures{0};

State& GetState() {
    static State* state = new State();  // outlives static destructors
    return *state;
}

bool Failing(uint32_t bit) {
    return (g_failures.load() & bit) != 0;
}

void Report(const char* call, const void* handle) {
    State& state = GetState();
    marlo_host_gralloc_hook hook;
    void* context;
    {
        std::lock_guard<std::mutex> lock(state.mutex);
        hook = state.hook;
        context = state.hookContext;
    }
    if (hook != nullptr)
        hook(call, handle, context);
}

bool IsEmulatedHandle(const native_handle_t* h) {
    return h != nullptr && h->version == static_cast<int>(sizeof(native_handle_t)) &&
           h->numFds == 1 && h->numInts == kIntCount && h->data[1 + kIntMagic] == kMagic;
}

int IntOf(const native_handle_t* h, int index) {
    return h->data[1 + index];
}

uint64_t HandleSize(const native_handle_t* h) {
    return static_cast<uint32_t>(IntOf(h, kIntSizeLow)) |
           (static_cast<uint64_t>(static_cast<uint32_t>(IntOf(h, kIntSizeHigh))) << 32);
}

/* Unmaps, closes and deletes a tracked handle; the caller holds the lock. */
void DestroyLocked(State& state, const native_handle_t* h) {
    auto it = state.buffers.find(h);
    if (it != state.buffers.end()) {
        if (it->second.mapping != nullptr)
            munmap(it->second.mapping, it->second.mappingSize);
        state.buffers.erase(it);
    }
    native_handle_close(h);
    native_handle_delete(const_cast<native_handle_t*>(h));
}

status_t FreeHandle(buffer_handle_t handle, const char* call) {
    status_t status = NO_ERROR;
    if (Failing(MARLO_HOST_GRALLOC_FAIL_FREE) || !IsEmulatedHandle(handle)) {
        status = BAD_VALUE;
    } else {
        State& state = GetState();
        std::lock_guard<std::mutex> lock(state.mutex);
        // Raw (never imported) handles are accepted too: they are only closed.
        DestroyLocked(state, handle);
    }
    Report(call, handle);
    return status;
}

class HostMapper : public IMapper {
  public:
    static constexpr char kArmMetadataName[] = "arm.graphics.ArmMetadataType";
    static constexpr int64_t kArmPlaneFds = 1;

    Return<void> get(void* buffer, const MetadataType& metadataType, get_cb hidlCb) override {
        const auto* handle = static_cast<const native_handle_t*>(buffer);
        if (Failing(MARLO_HOST_GRALLOC_FAIL_METADATA_TRANSPORT)) {
            Report("get", handle);
            return Status::fromExceptionCode(Status::EX_TRANSACTION_FAILED, "mapper service died");
        }

        Error error = Error::NONE;
        std::vector<uint8_t> blob;
        State& state = GetState();
        {
            std::lock_guard<std::mutex> lock(state.mutex);
            if (state.buffers.count(handle) == 0) {
                error = Error::BAD_BUFFER;
            } else if (Failing(MARLO_HOST_GRALLOC_FAIL_METADATA)) {
                error = Error::BAD_BUFFER;
            } else if (!(metadataType.name == kArmMetadataName) ||
                       metadataType.value != kArmPlaneFds) {
                error = Error::UNSUPPORTED;
            } else {
                int64_t count = state.overrideCount ? state.planeFdCount : 1;
                int64_t fd = handle->data[0];
                blob.resize(sizeof(count));
                memcpy(blob.data(), &count, sizeof(count));
                if (count > 0) {
                    blob.resize(2 * sizeof(int64_t));
                    memcpy(blob.data() + sizeof(count), &fd, sizeof(fd));
                }
            }
        }
        hidlCb(error, hidl_vec<uint8_t>(std::move(blob)));
        Report("get", handle);
        return hardware::Void();
    }
};

}  // namespace

GraphicBufferAllocator::GraphicBufferAllocator() : mMapper(GraphicBufferMapper::getInstance()) {}

GraphicBufferAllocator::~GraphicBufferAllocator() = default;

GraphicBufferAllocator& GraphicBufferAllocator::getInstance() {
    static GraphicBufferAllocator* instance = new GraphicBufferAllocator();
    return *instance;
}

status_t GraphicBufferAllocator::allocate(uint32_t w, uint32_t h, PixelFormat format,
                                          uint32_t layerCount, uint64_t usage,
                                          buffer_handle_t* handle, uint32_t* stride,
                                          uint64_t /*graphicBufferId*/, std::string requestorName) {
    Layout layout;
    native_handle_t* created = nullptr;
    status_t status = NO_ERROR;

    // Android's allocator turns an empty request into a 1x1 buffer and a
    // layer count below one into one layer instead of refusing them.
    if (w == 0 || h == 0)
        w = h = 1;
    if (layerCount < 1)
        layerCount = 1;

    if (Failing(MARLO_HOST_GRALLOC_FAIL_ALLOCATE)) {
        status = NO_MEMORY;
    } else if (handle == nullptr || stride == nullptr || w > kMaxDimension || h > kMaxDimension ||
               layerCount > kMaxLayers || !ComputeLayout(w, h, layerCount, format, &layout)) {
        status = BAD_VALUE;
    } else {
        std::string name = "gralloc:" + requestorName;
        int fd = memfd_create(name.c_str(), MFD_CLOEXEC);
        if (fd < 0 || ftruncate(fd, static_cast<off_t>(layout.size)) < 0) {
            status = NO_MEMORY;
        } else {
            created = native_handle_create(1, kIntCount);
        }
        if (created == nullptr) {
            if (fd >= 0)
                close(fd);
            status = NO_MEMORY;
        } else {
            created->data[0] = fd;
            int* ints = &created->data[1];
            ints[kIntMagic] = kMagic;
            ints[kIntWidth] = static_cast<int>(w);
            ints[kIntHeight] = static_cast<int>(h);
            ints[kIntFormat] = format;
            ints[kIntLayerCount] = static_cast<int>(layerCount);
            ints[kIntUsageLow] = static_cast<int>(usage & 0xFFFFFFFF);
            ints[kIntUsageHigh] = static_cast<int>(usage >> 32);
            ints[kIntStride] = static_cast<int>(layout.stride);
            ints[kIntSizeLow] = static_cast<int>(layout.size & 0xFFFFFFFF);
            ints[kIntSizeHigh] = static_cast<int>(layout.size >> 32);

            State& state = GetState();
            std::lock_guard<std::mutex> lock(state.mutex);
            state.buffers.emplace(created, Tracked{});
            *handle = created;
            *stride = layout.stride;
        }
    }
    Report("allocate", created);
    return status;
}

status_t GraphicBufferAllocator::free(buffer_handle_t handle) {
    return FreeHandle(handle, "free");
}

GraphicBufferMapper::GraphicBufferMapper() = default;

GraphicBufferMapper::~GraphicBufferMapper() = default;

GraphicBufferMapper& GraphicBufferMapper::getInstance() {
    static GraphicBufferMapper* instance = new GraphicBufferMapper();
    return *instance;
}

status_t GraphicBufferMapper::importBuffer(buffer_handle_t rawHandle, uint32_t width,
                                           uint32_t height, uint32_t layerCount, PixelFormat format,
                                           uint64_t /*usage*/, uint32_t stride,
                                           buffer_handle_t* outHandle) {
    status_t status = NO_ERROR;
    native_handle_t* imported = nullptr;
    if (Failing(MARLO_HOST_GRALLOC_FAIL_IMPORT) || outHandle == nullptr ||
        !IsEmulatedHandle(rawHandle)) {
        status = BAD_VALUE;
    } else if (width > static_cast<uint32_t>(IntOf(rawHandle, kIntWidth)) ||
               height > static_cast<uint32_t>(IntOf(rawHandle, kIntHeight)) ||
               layerCount != static_cast<uint32_t>(IntOf(rawHandle, kIntLayerCount)) ||
               format != IntOf(rawHandle, kIntFormat) ||
               stride != static_cast<uint32_t>(IntOf(rawHandle, kIntStride))) {
        // Size, format and stride must match the buffer behind the handle.
        status = BAD_VALUE;
    } else if ((imported = native_handle_clone(rawHandle)) == nullptr) {
        status = NO_MEMORY;
    } else {
        State& state = GetState();
        std::lock_guard<std::mutex> lock(state.mutex);
        state.buffers.emplace(imported, Tracked{});
        *outHandle = imported;
    }
    Report("import", imported);
    return status;
}

status_t GraphicBufferMapper::freeBuffer(buffer_handle_t handle) {
    return FreeHandle(handle, "freeBuffer");
}

status_t GraphicBufferMapper::getAllocationSize(buffer_handle_t bufferHandle,
                                                uint64_t* outAllocationSize) {
    status_t status = BAD_VALUE;
    if (!Failing(MARLO_HOST_GRALLOC_FAIL_ALLOCATION_SIZE) && outAllocationSize != nullptr) {
        State& state = GetState();
        std::lock_guard<std::mutex> lock(state.mutex);
        if (state.buffers.count(bufferHandle) != 0) {
            *outAllocationSize = HandleSize(bufferHandle);
            status = NO_ERROR;
        }
    }
    Report("getAllocationSize", bufferHandle);
    return status;
}

status_t GraphicBufferMapper::lock(buffer_handle_t handle, uint32_t usage, const Rect& bounds,
                                   void** vaddr, int32_t* outBytesPerPixel,
                                   int32_t* outBytesPerStride) {
    status_t status = BAD_VALUE;
    State& state = GetState();
    {
        std::lock_guard<std::mutex> lock(state.mutex);
        state.haveLock = true;
        state.lastLock = {usage, bounds.left, bounds.top, bounds.right, bounds.bottom};
        auto it = state.buffers.find(handle);
        if (!Failing(MARLO_HOST_GRALLOC_FAIL_LOCK) && it != state.buffers.end() &&
            vaddr != nullptr && bounds.left >= 0 && bounds.top >= 0 && bounds.isValid()) {
            Tracked& tracked = it->second;
            if (tracked.mapping == nullptr) {
                size_t size = HandleSize(handle);
                void* mapping =
                    mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, handle->data[0], 0);
                if (mapping != MAP_FAILED) {
                    tracked.mapping = mapping;
                    tracked.mappingSize = size;
                }
            }
            if (tracked.mapping != nullptr) {
                tracked.locks++;
                *vaddr = tracked.mapping;
                status = NO_ERROR;
            } else {
                status = NO_MEMORY;
            }
        }
    }
    if (outBytesPerPixel != nullptr)
        *outBytesPerPixel = -1;
    if (outBytesPerStride != nullptr)
        *outBytesPerStride = -1;
    Report("lock", handle);
    return status;
}

status_t GraphicBufferMapper::unlock(buffer_handle_t handle) {
    status_t status = BAD_VALUE;
    State& state = GetState();
    {
        std::lock_guard<std::mutex> lock(state.mutex);
        auto it = state.buffers.find(handle);
        if (!Failing(MARLO_HOST_GRALLOC_FAIL_UNLOCK) && it != state.buffers.end() &&
            it->second.locks > 0) {
            Tracked& tracked = it->second;
            if (--tracked.locks == 0) {
                munmap(tracked.mapping, tracked.mappingSize);
                tracked.mapping = nullptr;
                tracked.mappingSize = 0;
            }
            status = NO_ERROR;
        }
    }
    Report("unlock", handle);
    return status;
}

namespace hardware::graphics::mapper::V4_0 {

sp<IMapper> IMapper::getService(const std::string& serviceName, bool /*getStub*/) {
    if (serviceName != "default")
        return nullptr;
    static sp<IMapper>* service = new sp<IMapper>(new HostMapper());  // lives for the process
    return *service;
}

}  // namespace hardware::graphics::mapper::V4_0

}  // namespace android

extern "C" {

void marlo_host_gralloc_set_failures(uint32_t mask) {
    android::g_failures.store(mask);
}

void marlo_host_gralloc_set_plane_fd_count(int enabled, int64_t count) {
    android::State& state = android::GetState();
    std::lock_guard<std::mutex> lock(state.mutex);
    state.overrideCount = enabled != 0;
    state.planeFdCount = count;
}

void marlo_host_gralloc_set_hook(marlo_host_gralloc_hook hook, void* ctx) {
    android::State& state = android::GetState();
    std::lock_guard<std::mutex> lock(state.mutex);
    state.hook = hook;
    state.hookContext = ctx;
}

int marlo_host_gralloc_last_lock(struct marlo_host_gralloc_lock_record* record) {
    android::State& state = android::GetState();
    std::lock_guard<std::mutex> lock(state.mutex);
    if (!state.haveLock || record == nullptr)
        return -1;
    *record = state.lastLock;
    return 0;
}

size_t marlo_host_gralloc_live_buffers(void) {
    android::State& state = android::GetState();
    std::lock_guard<std::mutex> lock(state.mutex);
    return state.buffers.size();
}

void marlo_host_gralloc_reset(void) {
    android::g_failures.store(0);
    android::State& state = android::GetState();
    std::lock_guard<std::mutex> lock(state.mutex);
    state.hook = nullptr;
    state.hookContext = nullptr;
    state.haveLock = false;
    state.lastLock = {};
    state.overrideCount = false;
    state.planeFdCount = 0;
}

}  // extern "C"
