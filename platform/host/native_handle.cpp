/* Android's native handle calls for a development machine. */
#include <cutils/native_handle.h>

#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

namespace {

constexpr int kMaxFds = 1024;
constexpr int kMaxInts = 1024;

}  // namespace

extern "C" {

native_handle_t* native_handle_create(int numFds, int numInts) {
    if (numFds < 0 || numInts < 0 || numFds > kMaxFds || numInts > kMaxInts) {
        errno = EINVAL;
        return nullptr;
    }
    size_t size = sizeof(native_handle_t) + sizeof(int) * (numFds + numInts);
    auto* h = static_cast<native_handle_t*>(calloc(1, size));
    if (h == nullptr)
        return nullptr;
    h->version = sizeof(native_handle_t);
    h->numFds = numFds;
    h->numInts = numInts;
    return h;
}

int native_handle_close(const native_handle_t* h) {
    if (h == nullptr)
        return 0;
    if (h->version != sizeof(native_handle_t))
        return -EINVAL;
    for (int i = 0; i < h->numFds; i++)
        close(h->data[i]);
    return 0;
}

int native_handle_delete(native_handle_t* h) {
    if (h == nullptr)
        return 0;
    if (h->version != sizeof(native_handle_t))
        return -EINVAL;
    free(h);
    return 0;
}

native_handle_t* native_handle_clone(const native_handle_t* handle) {
    if (handle == nullptr || handle->version != sizeof(native_handle_t))
        return nullptr;
    native_handle_t* clone = native_handle_create(handle->numFds, handle->numInts);
    if (clone == nullptr)
        return nullptr;
    for (int i = 0; i < handle->numFds; i++) {
        clone->data[i] = dup(handle->data[i]);
        if (clone->data[i] < 0) {
            clone->numFds = i;
            native_handle_close(clone);
            native_handle_delete(clone);
            return nullptr;
        }
    }
    memcpy(&clone->data[handle->numFds], &handle->data[handle->numFds],
           sizeof(int) * handle->numInts);
    return clone;
}

}  // extern "C"
