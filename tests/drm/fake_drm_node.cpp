/* The interposed open() must not meet the C library's fortified inline one. */
#undef _FORTIFY_SOURCE
#include "fake_drm_node.h"

#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <stdarg.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <xf86drm.h>
#include <xf86drmMode.h>

#include "support/ioctl_request.h"

#include <algorithm>
#include <mutex>

namespace drm_fake {

namespace {

FakeDrmNode* g_node = nullptr;

std::mutex g_closeMutex;
bool g_recordCloses = false;
std::vector<CloseRecord> g_closes;

using IoctlFn = int (*)(int, marlo_ioctl_request_t, ...);
using CloseFn = int (*)(int);
using OpenFn = int (*)(const char*, int, ...);

IoctlFn RealIoctl() {
    static IoctlFn real = reinterpret_cast<IoctlFn>(dlsym(RTLD_NEXT, "ioctl"));
    return real;
}

CloseFn RealClose() {
    static CloseFn real = reinterpret_cast<CloseFn>(dlsym(RTLD_NEXT, "close"));
    return real;
}

OpenFn RealOpen(const char* name) {
    return reinterpret_cast<OpenFn>(dlsym(RTLD_NEXT, name));
}

int Fail(int error) {
    errno = error;
    return -1;
}

bool Identity(int fd, dev_t* dev, ino_t* ino) {
    struct stat st;
    if (fstat(fd, &st) != 0)
        return false;
    *dev = st.st_dev;
    *ino = st.st_ino;
    return true;
}

/* Copies \a text into a version buffer the way the kernel does: length always, bytes if room. */
void CopyVersionText(const std::string& text, __kernel_size_t* length, char* buffer) {
    if (buffer && *length)
        memcpy(buffer, text.data(), std::min<size_t>(*length, text.size()));
    *length = text.size();
}

constexpr uint64_t kPage = 4096;

}  // namespace

FakeDrmNode::FakeDrmNode() : memory_(memfd_create("fake-drm-node", MFD_CLOEXEC)) {
    Identity(memory_.get(), &dev_, &ino_);
    caps[DRM_CAP_DUMB_BUFFER] = 1;
    g_node = this;
}

FakeDrmNode::~FakeDrmNode() {
    g_node = nullptr;
}

std::string FakeDrmNode::path() const {
    return "/proc/self/fd/" + std::to_string(memory_.get());
}

tessaro::marlo::UniqueFd FakeDrmNode::openNode() const {
    return tessaro::marlo::UniqueFd(open(path().c_str(), O_RDWR | O_CLOEXEC));
}

size_t FakeDrmNode::countCalls(unsigned long request) const {
    return std::count_if(calls_.begin(), calls_.end(),
                         [request](const Call& call) { return call.request == request; });
}

bool FakeDrmNode::owns(int fd) const {
    dev_t dev = 0;
    ino_t ino = 0;
    return Identity(fd, &dev, &ino) && dev == dev_ && ino == ino_;
}

int FakeDrmNode::handle(unsigned long request, void* arg) {
    Call call{request, {}};
    size_t size = _IOC_SIZE(request);
    if (arg && size) {
        const uint8_t* bytes = static_cast<const uint8_t*>(arg);
        call.arg.assign(bytes, bytes + size);
    }
    calls_.push_back(std::move(call));

    auto failure = failures_.find(request);
    if (failure != failures_.end() && failure->second != 0)
        return Fail(failure->second);
    return dispatch(request, arg);
}

int FakeDrmNode::dispatch(unsigned long request, void* arg) {
    switch (request) {
        case DRM_IOCTL_VERSION: {
            if (driver.empty())
                return Fail(ENODEV);
            auto* version = static_cast<drm_version*>(arg);
            version->version_major = major;
            version->version_minor = minor;
            version->version_patchlevel = patch;
            CopyVersionText(driver, &version->name_len, version->name);
            CopyVersionText("20261122", &version->date_len, version->date);
            CopyVersionText("fake DRM node", &version->desc_len, version->desc);
            return 0;
        }
        case DRM_IOCTL_GET_CAP: {
            auto* cap = static_cast<drm_get_cap*>(arg);
            auto it = caps.find(cap->capability);
            if (it == caps.end())
                return Fail(EINVAL);
            cap->value = it->second;
            return 0;
        }
        case DRM_IOCTL_SET_CLIENT_CAP: {
            auto* cap = static_cast<drm_set_client_cap*>(arg);
            auto it = clientCapErrors.find(cap->capability);
            if (it != clientCapErrors.end())
                return Fail(it->second);
            clientCaps.emplace_back(cap->capability, cap->value);
            return 0;
        }
        case DRM_IOCTL_MODE_CREATE_DUMB:
            return createDumb(arg);
        case DRM_IOCTL_MODE_DESTROY_DUMB: {
            auto* destroy = static_cast<drm_mode_destroy_dumb*>(arg);
            if (!dumbs.erase(destroy->handle))
                return Fail(ENOENT);
            return 0;
        }
        case DRM_IOCTL_GEM_CLOSE: {
            auto* close = static_cast<drm_gem_close*>(arg);
            if (!dumbs.erase(close->handle))
                return Fail(EINVAL);
            closedHandles.push_back(close->handle);
            return 0;
        }
        case DRM_IOCTL_MODE_MAP_DUMB:
            return mapDumb(arg);
        case DRM_IOCTL_PRIME_HANDLE_TO_FD:
            return exportDumb(arg);
        case DRM_IOCTL_PRIME_FD_TO_HANDLE:
            return importDumb(arg);
        case DRM_IOCTL_MODE_GETPROPERTY:
            return getProperty(arg);
        case DRM_IOCTL_MODE_GETPROPBLOB:
            return getBlob(arg);
        case DRM_IOCTL_MODE_CREATEPROPBLOB: {
            auto* create = static_cast<drm_mode_create_blob*>(arg);
            uint32_t id = zeroBlobIds ? 0 : nextBlobId++;
            blobs[id].assign(reinterpret_cast<const char*>(create->data), create->length);
            create->blob_id = id;
            return 0;
        }
        case DRM_IOCTL_MODE_DESTROYPROPBLOB: {
            auto* destroy = static_cast<drm_mode_destroy_blob*>(arg);
            if (!blobs.erase(destroy->blob_id))
                return Fail(ENOENT);
            destroyedBlobs.push_back(destroy->blob_id);
            return 0;
        }
        case DRM_IOCTL_MODE_SETCRTC: {
            auto* crtc = static_cast<drm_mode_crtc*>(arg);
            const uint32_t* ids = reinterpret_cast<const uint32_t*>(crtc->set_connectors_ptr);
            crtcConnectors.assign(ids, ids + (ids ? crtc->count_connectors : 0));
            return 0;
        }
        case DRM_IOCTL_MODE_ADDFB:
            static_cast<drm_mode_fb_cmd*>(arg)->fb_id = 42;
            return 0;
        case DRM_IOCTL_MODE_ADDFB2:
            static_cast<drm_mode_fb_cmd2*>(arg)->fb_id = 43;
            return 0;
        default:
            /* Other requests succeed and hand the caller's record back as it came. */
            return 0;
    }
}

int FakeDrmNode::createDumb(void* arg) {
    auto* create = static_cast<drm_mode_create_dumb*>(arg);
    if (create->width == 0 || create->height == 0 || create->bpp == 0)
        return Fail(EINVAL);
    create->handle = nextHandle_++;
    create->pitch = create->width * ((create->bpp + 7) / 8);
    create->size = (uint64_t{create->pitch} * create->height + kPage - 1) / kPage * kPage;
    dumbs[create->handle] = create->size;
    return 0;
}

int FakeDrmNode::mapDumb(void* arg) {
    auto* map = static_cast<drm_mode_map_dumb*>(arg);
    auto dumb = dumbs.find(map->handle);
    if (dumb == dumbs.end())
        return Fail(ENOENT);
    auto offset = offsets.find(map->handle);
    if (offset == offsets.end()) {
        offset = offsets.emplace(map->handle, nextOffset_).first;
        nextOffset_ += dumb->second;
        if (ftruncate(memory_.get(), static_cast<off_t>(nextOffset_)) != 0)
            return Fail(errno);
    }
    map->offset = offset->second + offsetBias;
    return 0;
}

int FakeDrmNode::exportDumb(void* arg) {
    auto* prime = static_cast<drm_prime_handle*>(arg);
    auto dumb = dumbs.find(prime->handle);
    if (dumb == dumbs.end())
        return Fail(ENOENT);
    int fd = memfd_create("fake-dma-buf", (prime->flags & O_CLOEXEC) ? MFD_CLOEXEC : 0);
    if (fd < 0)
        return -1;
    dev_t dev = 0;
    ino_t ino = 0;
    Identity(fd, &dev, &ino);
    exported[ino] = prime->handle;
    lastExportFlags = prime->flags;
    prime->fd = fd;
    return 0;
}

int FakeDrmNode::importDumb(void* arg) {
    auto* prime = static_cast<drm_prime_handle*>(arg);
    dev_t dev = 0;
    ino_t ino = 0;
    if (!Identity(prime->fd, &dev, &ino))
        return Fail(EBADF);
    auto it = exported.find(ino);
    if (it == exported.end())
        return Fail(EINVAL);
    prime->handle = it->second;
    return 0;
}

int FakeDrmNode::getProperty(void* arg) {
    auto* get = static_cast<drm_mode_get_property*>(arg);
    auto it = properties.find(get->prop_id);
    if (it == properties.end())
        return Fail(ENOENT);
    get->flags = it->second.flags;
    snprintf(get->name, sizeof(get->name), "%s", it->second.name.c_str());
    get->count_values = 0;
    get->count_enum_blobs = 0;
    return 0;
}

int FakeDrmNode::getBlob(void* arg) {
    auto* get = static_cast<drm_mode_get_blob*>(arg);
    auto it = blobs.find(get->blob_id);
    if (it == blobs.end())
        return Fail(ENOENT);
    if (get->data && get->length >= it->second.size())
        memcpy(reinterpret_cast<void*>(get->data), it->second.data(), it->second.size());
    get->length = static_cast<uint32_t>(it->second.size());
    return 0;
}

/* The path to open instead of \a path: the fake node's when it answers for card0. */
std::string RedirectPath(const char* path) {
    if (g_node && g_node->answerCard0 && path && strcmp(path, "/dev/dri/card0") == 0) {
        g_node->card0Opens.emplace_back(path);
        return g_node->path();
    }
    return path ? path : "";
}

int OpenThrough(const char* name, const char* path, int flags, mode_t mode) {
    static OpenFn open = RealOpen("open");
    static OpenFn open64 = RealOpen("open64");
    OpenFn real = strcmp(name, "open") == 0 ? open : open64;
    if (!path)
        return real(path, flags, mode);
    std::string target = RedirectPath(path);
    return real(target.c_str(), flags, mode);
}

void StartRecordingCloses() {
    std::lock_guard<std::mutex> lock(g_closeMutex);
    g_closes.clear();
    g_recordCloses = true;
}

std::vector<CloseRecord> StopRecordingCloses() {
    std::lock_guard<std::mutex> lock(g_closeMutex);
    g_recordCloses = false;
    return std::move(g_closes);
}

}  // namespace drm_fake

/*
 * The interposers. libdrm and the fd sanitizer reach the C library's ioctl()
 * and close() through the dynamic linker, which finds these first because
 * the executable exports them.
 */
extern "C" int ioctl(int fd, marlo_ioctl_request_t request, ...) {
    va_list args;
    va_start(args, request);
    void* arg = va_arg(args, void*);
    va_end(args);
    if (drm_fake::g_node && drm_fake::g_node->owns(fd))
        return drm_fake::g_node->handle(marlo_ioctl_command(request), arg);
    return drm_fake::RealIoctl()(fd, request, arg);
}

extern "C" int close(int fd) {
    int result = drm_fake::RealClose()(fd);
    int error = errno;
    {
        std::lock_guard<std::mutex> lock(drm_fake::g_closeMutex);
        if (drm_fake::g_recordCloses)
            drm_fake::g_closes.push_back({fd, result, result == 0 ? 0 : error});
    }
    errno = error;
    return result;
}

namespace {

mode_t ModeOf(int flags, va_list args) {
    return (flags & (O_CREAT | O_TMPFILE)) ? static_cast<mode_t>(va_arg(args, int)) : 0;
}

}  // namespace

extern "C" int open(const char* path, int flags, ...) {
    va_list args;
    va_start(args, flags);
    mode_t mode = ModeOf(flags, args);
    va_end(args);
    return drm_fake::OpenThrough("open", path, flags, mode);
}

extern "C" int open64(const char* path, int flags, ...) {
    va_list args;
    va_start(args, flags);
    mode_t mode = ModeOf(flags, args);
    va_end(args);
    return drm_fake::OpenThrough("open64", path, flags, mode);
}
