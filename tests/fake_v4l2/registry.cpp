/* Which paths, descriptors and mappings belong to fake nodes. */
#include <atomic>
#include <map>
#include <mutex>
#include <string>

#include "fake_v4l2_internal.h"

namespace marlo_fake {

namespace {

struct Registry {
    std::mutex mutex;
    std::map<std::string, std::shared_ptr<FakeNode>> paths;
    std::map<int, std::shared_ptr<FakeNode>> fds;
    std::map<void*, std::weak_ptr<FakeVideoNode>> mappings;
    /* Lets the interposers skip the lock while nothing fake exists. */
    std::atomic<size_t> entries{0};
};

/*
 * Set once the first node is registered. Constant-initialised, so the
 * interposers can test it even while a sanitizer runtime starts up, before
 * any allocation is possible.
 */
std::atomic<bool> g_used{false};

/* Never destroyed: descriptors are closed and memory unmapped during exit too. */
Registry& Get() {
    static Registry* registry = new Registry;
    return *registry;
}

void Recount(Registry& r) {
    r.entries.store(r.paths.size() + r.fds.size() + r.mappings.size());
}

template <typename T>
std::shared_ptr<T> Add(const std::string& path, std::shared_ptr<T> node) {
    detail::InterposerAnchor();
    g_used.store(true);
    Registry& r = Get();
    std::lock_guard<std::mutex> lock(r.mutex);
    r.paths[path] = node;
    Recount(r);
    return node;
}

}  // namespace

std::shared_ptr<FakeVideoNode> AddVideoNode(const std::string& path, VideoNodeConfig config) {
    return Add(path, std::make_shared<FakeVideoNode>(path, std::move(config)));
}

std::shared_ptr<FakeSubdevNode> AddSubdevNode(const std::string& path, SubdevNodeConfig config) {
    return Add(path, std::make_shared<FakeSubdevNode>(path, std::move(config)));
}

std::shared_ptr<FakeMediaNode> AddMediaNode(const std::string& path, MediaNodeConfig config) {
    return Add(path, std::make_shared<FakeMediaNode>(path, std::move(config)));
}

void RemoveNode(const std::string& path) {
    std::shared_ptr<FakeNode> node;
    Registry& r = Get();
    std::lock_guard<std::mutex> lock(r.mutex);
    auto it = r.paths.find(path);
    if (it != r.paths.end()) {
        node = std::move(it->second);
        r.paths.erase(it);
    }
    Recount(r);
}

void Reset() {
    std::map<std::string, std::shared_ptr<FakeNode>> old;
    Registry& r = Get();
    {
        std::lock_guard<std::mutex> lock(r.mutex);
        old.swap(r.paths);
        Recount(r);
    }
}

std::shared_ptr<FakeNode> NodeForFd(int fd) {
    if (!g_used.load())
        return nullptr;
    Registry& r = Get();
    if (r.entries.load() == 0)
        return nullptr;
    std::lock_guard<std::mutex> lock(r.mutex);
    auto it = r.fds.find(fd);
    return it != r.fds.end() ? it->second : nullptr;
}

namespace detail {

std::shared_ptr<FakeNode> NodeForPath(const char* path) {
    if (!g_used.load())
        return nullptr;
    Registry& r = Get();
    if (r.entries.load() == 0)
        return nullptr;
    std::lock_guard<std::mutex> lock(r.mutex);
    auto it = r.paths.find(path);
    return it != r.paths.end() ? it->second : nullptr;
}

void BindFd(int fd, std::shared_ptr<FakeNode> node) {
    Registry& r = Get();
    std::lock_guard<std::mutex> lock(r.mutex);
    r.fds[fd] = std::move(node);
    Recount(r);
}

std::shared_ptr<FakeNode> UnbindFd(int fd) {
    if (!g_used.load())
        return nullptr;
    Registry& r = Get();
    if (r.entries.load() == 0)
        return nullptr;
    std::lock_guard<std::mutex> lock(r.mutex);
    auto it = r.fds.find(fd);
    if (it == r.fds.end())
        return nullptr;
    std::shared_ptr<FakeNode> node = std::move(it->second);
    r.fds.erase(it);
    Recount(r);
    return node;
}

void BindMapping(void* addr, std::weak_ptr<FakeVideoNode> node) {
    Registry& r = Get();
    std::lock_guard<std::mutex> lock(r.mutex);
    r.mappings[addr] = std::move(node);
    Recount(r);
}

std::shared_ptr<FakeVideoNode> UnbindMapping(void* addr) {
    if (!g_used.load())
        return nullptr;
    Registry& r = Get();
    if (r.entries.load() == 0)
        return nullptr;
    std::lock_guard<std::mutex> lock(r.mutex);
    auto it = r.mappings.find(addr);
    if (it == r.mappings.end())
        return nullptr;
    std::shared_ptr<FakeVideoNode> node = it->second.lock();
    r.mappings.erase(it);
    Recount(r);
    return node;
}

}  // namespace detail

}  // namespace marlo_fake
