/*
 * Imports: by descriptor and by CPU address, the shared mappings behind
 * repeated imports, refused physical addresses, and requests the engine
 * must turn down without touching memory.
 */
#include <gtest/gtest.h>

#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "nax_test_util.h"
#include "support/log_capture.h"

using namespace nax_test;

namespace {

/* munmap calls of this size are counted by the thread that makes them. */
std::atomic<size_t> g_watchedUnmapSize{0};
std::atomic<int> g_unmapsByReaper{0};
std::atomic<int> g_unmapsElsewhere{0};

}  // namespace

/* Every munmap of this executable and of the engine passes here on its way
 * to the C library. */
extern "C" int munmap(void* addr, size_t length) {
    using Fn = int (*)(void*, size_t);
    static const Fn next = reinterpret_cast<Fn>(dlsym(RTLD_NEXT, "munmap"));
    if (length != 0 && length == g_watchedUnmapSize.load()) {
        char name[16] = {};
        pthread_getname_np(pthread_self(), name, sizeof(name));
        (strcmp(name, "nax_reaper") == 0 ? g_unmapsByReaper : g_unmapsElsewhere)++;
    }
    return next(addr, length);
}

namespace {

/* A memfd the test never maps itself, so /proc/self/maps shows only the
 * engine's mappings of it. */
class Memfd {
  public:
    Memfd(const std::string& name, size_t size, uint8_t fill) : name_(name) {
        fd_ = memfd_create(name.c_str(), MFD_CLOEXEC | MFD_ALLOW_SEALING);
        EXPECT_GE(fd_, 0);
        EXPECT_EQ(0, ftruncate(fd_, static_cast<off_t>(size)));
        std::vector<uint8_t> bytes(size, fill);
        EXPECT_EQ(static_cast<ssize_t>(size), pwrite(fd_, bytes.data(), size, 0));
    }
    ~Memfd() {
        if (fd_ >= 0)
            close(fd_);
    }
    int fd() const { return fd_; }
    void Close() {
        close(fd_);
        fd_ = -1;
    }
    uint8_t ByteAt(off_t offset) const {
        uint8_t b = 0;
        EXPECT_EQ(1, pread(fd_, &b, 1, offset));
        return b;
    }

  private:
    std::string name_;
    int fd_ = -1;
};

nax_buffer_t Grey(uint32_t handle, int w, int h) {
    return nax_wrap_handle(handle, w, h, w, h, NAX_FORMAT_Y8);
}

TEST(Import, RepeatedImportReusesOneMapping) {
    Memfd mem("nax_reuse", 4096, 0x5A);
    ASSERT_EQ(0, MappingsOf("nax_reuse"));
    const uint32_t first = nax_import_fd(mem.fd(), nullptr);
    ASSERT_NE(0u, first);
    EXPECT_EQ(1, MappingsOf("nax_reuse"));
    ASSERT_EQ(0, nax_release_handle(first));
    /* Import, job and release per frame, as the camera does. */
    std::vector<uint8_t> out(64 * 64);
    for (int frame = 0; frame < 200; frame++) {
        const uint32_t h = nax_import_fd(mem.fd(), nullptr);
        ASSERT_NE(0u, h);
        const uint32_t o = nax_import_vaddr(reinterpret_cast<uintptr_t>(out.data()), nullptr);
        ASSERT_EQ(0, nax_copy(Grey(h, 64, 64), Grey(o, 64, 64), 0, nullptr));
        ASSERT_EQ(0, nax_release_handle(h));
        ASSERT_EQ(0, nax_release_handle(o));
        ASSERT_EQ(1, MappingsOf("nax_reuse")) << "frame " << frame;
    }
    EXPECT_EQ(0x5A, out[64 * 64 - 1]);
}

TEST(Import, SameFileThroughAnotherDescriptorSharesTheMapping) {
    Memfd mem("nax_dup", 8192, 1);
    const int copy = dup(mem.fd());
    const std::string path = "/proc/self/fd/" + std::to_string(mem.fd());
    const int reopened = open(path.c_str(), O_RDWR | O_CLOEXEC);
    ASSERT_GE(reopened, 0);
    const uint32_t a = nax_import_fd(mem.fd(), nullptr);
    const uint32_t b = nax_import_fd(copy, nullptr);
    const uint32_t c = nax_import_fd(reopened, nullptr);
    ASSERT_NE(0u, a);
    ASSERT_NE(0u, b);
    ASSERT_NE(0u, c);
    EXPECT_NE(a, b);
    EXPECT_NE(b, c);
    EXPECT_EQ(1, MappingsOf("nax_dup"));
    Memfd other("nax_dup_other", 8192, 2);
    const uint32_t d = nax_import_fd(other.fd(), nullptr);
    EXPECT_EQ(1, MappingsOf("nax_dup_other"));
    for (uint32_t h : {a, b, c, d})
        EXPECT_EQ(0, nax_release_handle(h));
    close(copy);
    close(reopened);
}

/* A descriptor number reused for other memory is other memory. */
TEST(Import, ReusedDescriptorNumberIsNewMemory) {
    auto memA = std::make_unique<Memfd>("nax_reuse_a", 4096, 0x11);
    const int number = memA->fd();
    uint32_t h = nax_import_fd(number, nullptr);
    ASSERT_NE(0u, h);
    ASSERT_EQ(0, nax_release_handle(h));
    memA.reset();
    Memfd memB("nax_reuse_b", 4096, 0x22);
    ASSERT_EQ(number, memB.fd());
    h = nax_import_fd(memB.fd(), nullptr);
    ASSERT_NE(0u, h);
    std::vector<uint8_t> out(16);
    const uint32_t o = nax_import_vaddr(reinterpret_cast<uintptr_t>(out.data()), nullptr);
    ASSERT_EQ(0, nax_copy(Grey(h, 4, 4), Grey(o, 4, 4), 1, nullptr));
    EXPECT_EQ(0x22, out[0]);
    EXPECT_EQ(0, nax_release_handle(h));
    EXPECT_EQ(0, nax_release_handle(o));
}

/* The caller may close its descriptor: the handle keeps the memory. */
TEST(Import, HandleOutlivesTheDescriptor) {
    Memfd mem("nax_closed", 4096, 0);
    const int keep = dup(mem.fd());
    const uint32_t h = nax_import_fd(mem.fd(), nullptr);
    ASSERT_NE(0u, h);
    mem.Close();
    std::vector<uint8_t> src(16, 0x77);
    const uint32_t s = nax_import_vaddr(reinterpret_cast<uintptr_t>(src.data()), nullptr);
    ASSERT_EQ(0, nax_copy(Grey(s, 4, 4), Grey(h, 4, 4), 1, nullptr));
    uint8_t b = 0;
    ASSERT_EQ(1, pread(keep, &b, 1, 15));
    EXPECT_EQ(0x77, b);
    EXPECT_EQ(0, nax_release_handle(h));
    EXPECT_EQ(0, nax_release_handle(s));
    close(keep);
}

/* Idle mappings are bounded: freed client buffers do not pile up. */
TEST(Import, IdleMappingsAreBounded) {
    std::vector<std::unique_ptr<Memfd>> mems;
    for (int i = 0; i < 140; i++) {
        mems.push_back(std::make_unique<Memfd>("nax_idle", 4096, 0));
        const uint32_t h = nax_import_fd(mems.back()->fd(), nullptr);
        ASSERT_NE(0u, h);
        ASSERT_EQ(0, nax_release_handle(h));
    }
    /* The engine's thread trims the excess at once. */
    for (int i = 0; i < 200 && MappingsOf("nax_idle") > 128; i++)
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    EXPECT_LE(MappingsOf("nax_idle"), 128);
    EXPECT_GE(MappingsOf("nax_idle"), 100);
}

/*
 * Past the bound, the idle mappings a release leaves go on the engine's own
 * thread: an import or a release (a frame's job) never unmaps a buffer
 * somebody forgot, which costs as much as converting into it.
 */
TEST(Import, MappingsPastTheBoundAreUnmappedOffTheCallersThread) {
    constexpr size_t kSize = 5 * 4096; /* a size no other mapping here has */
    constexpr int kBuffers = 160;
    g_unmapsByReaper = 0;
    g_unmapsElsewhere = 0;
    g_watchedUnmapSize = kSize;
    std::vector<std::unique_ptr<Memfd>> mems;
    const auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < kBuffers; i++) {
        mems.push_back(std::make_unique<Memfd>("nax_excess", kSize, 0));
        const uint32_t h = nax_import_fd(mems.back()->fd(), nullptr);
        ASSERT_NE(0u, h);
        ASSERT_EQ(0, nax_release_handle(h));
    }
    /* Trimmed at once, long before the idle lifetime. */
    while (MappingsOf("nax_excess") > 128 &&
           std::chrono::steady_clock::now() - start < std::chrono::seconds(1))
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    const int mapped = MappingsOf("nax_excess");
    g_watchedUnmapSize = 0;
    EXPECT_LE(mapped, 128);
    EXPECT_EQ(0, g_unmapsElsewhere.load());
    EXPECT_EQ(kBuffers - mapped, g_unmapsByReaper.load());
}

/*
 * A buffer ring larger than a few dozen buffers, visited in turn as the
 * frame fan-out does, is mapped once: a small cache would map every buffer
 * again at every visit.
 */
TEST(Import, BufferRingIsMappedOnce) {
    std::vector<std::unique_ptr<Memfd>> ring;
    for (int i = 0; i < 80; i++)
        ring.push_back(std::make_unique<Memfd>("nax_ring", 4096, 0));
    for (int turn = 0; turn < 3; turn++) {
        for (const auto& mem : ring) {
            const uint32_t h = nax_import_fd(mem->fd(), nullptr);
            ASSERT_NE(0u, h);
            ASSERT_EQ(0, nax_release_handle(h));
        }
    }
    EXPECT_EQ(80, MappingsOf("nax_ring"));
}

/*
 * An idle mapping is dropped once idle for two seconds, with no further
 * engine call (a stream that stopped and a client that freed its buffers),
 * while a mapping that still has a handle stays.
 */
TEST(Import, IdleMappingsAgeOutWithoutFurtherCalls) {
    Memfd old("nax_aging_old", 4096, 0);
    Memfd held("nax_aging_held", 4096, 0);
    const uint32_t keep = nax_import_fd(held.fd(), nullptr);
    ASSERT_NE(0u, keep);
    const uint32_t h = nax_import_fd(old.fd(), nullptr);
    ASSERT_NE(0u, h);
    const auto released = std::chrono::steady_clock::now();
    ASSERT_EQ(0, nax_release_handle(h));
    EXPECT_EQ(1, MappingsOf("nax_aging_old"));
    /* A freed buffer's memory stays pinned for the idle lifetime at most. */
    old.Close();
    while (MappingsOf("nax_aging_old") != 0 &&
           std::chrono::steady_clock::now() - released < std::chrono::seconds(6))
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    const auto pinned = std::chrono::steady_clock::now() - released;
    EXPECT_EQ(0, MappingsOf("nax_aging_old"));
    EXPECT_GE(pinned, std::chrono::milliseconds(1900));
    EXPECT_EQ(1, MappingsOf("nax_aging_held"));
    ASSERT_EQ(0, nax_release_handle(keep));
}

/* Threads of this process named \a name. */
int ThreadsNamed(const std::string& name) {
    DIR* tasks = opendir("/proc/self/task");
    if (tasks == nullptr)
        return -1;
    int count = 0;
    while (const dirent* task = readdir(tasks)) {
        if (task->d_name[0] == '.')
            continue;
        std::ifstream comm(std::string("/proc/self/task/") + task->d_name + "/comm");
        std::string thread;
        std::getline(comm, thread);
        count += thread == name;
    }
    closedir(tasks);
    return count;
}

/*
 * The thread that drops idle mappings is named for itself, not after the
 * thread that released the last handle (a camera's IO thread, whose CPU
 * time is measured by its name).
 */
TEST(Import, TheIdleMappingThreadHasANameOfItsOwn) {
    Memfd mem("nax_reaper_name", 4096, 0);
    int starter = -1;
    int reapers = -1;
    std::thread client([&] {
        pthread_setname_np(pthread_self(), "client_io");
        const uint32_t h = nax_import_fd(mem.fd(), nullptr);
        ASSERT_NE(0u, h);
        ASSERT_EQ(0, nax_release_handle(h)); /* now idle: the thread runs */
        /* The new thread names itself once it runs. */
        for (int i = 0; i < 200 && ThreadsNamed("nax_reaper") == 0; i++)
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        starter = ThreadsNamed("client_io");
        reapers = ThreadsNamed("nax_reaper");
    });
    client.join();
    EXPECT_EQ(1, starter);
    EXPECT_EQ(1, reapers);
}

/*
 * True once every thread but the caller sleeps. A fork taken while another
 * thread is inside the allocator would hand the child a lock nobody
 * releases (the address sanitizer's allocator has no fork handlers), so the
 * fork waits for the engine's new thread to reach its timed wait.
 */
bool OtherThreadsAsleep() {
    DIR* tasks = opendir("/proc/self/task");
    if (tasks == nullptr)
        return false;
    const std::string self = std::to_string(gettid());
    bool asleep = true;
    while (const dirent* task = readdir(tasks)) {
        const std::string tid = task->d_name;
        if (tid == "." || tid == ".." || tid == self)
            continue;
        std::ifstream stat("/proc/self/task/" + tid + "/stat");
        std::string line;
        std::getline(stat, line);
        /* The state follows the parenthesised command name. */
        const size_t close = line.rfind(')');
        if (close == std::string::npos || close + 2 >= line.size() || line[close + 2] != 'S')
            asleep = false;
    }
    closedir(tasks);
    return asleep;
}

void WaitUntilOtherThreadsSleep() {
    for (int i = 0; i < 200 && !OtherThreadsAsleep(); i++)
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    /* Stay asleep for a while: a thread just started may still be on its
     * way to the wait. */
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    ASSERT_TRUE(OtherThreadsAsleep());
}

/*
 * A child forked while the parent's thread for idle mappings runs uses the
 * engine, has its own idle mappings dropped on time by a thread of its own,
 * and exits normally without joining the parent's thread.
 */
TEST(Import, ForkedChildUsesTheEngineAndExits) {
#if defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "the thread sanitizer cannot start threads in a fork child";
#endif
    Memfd mem("nax_fork", 4096, 7);
    uint32_t h = nax_import_fd(mem.fd(), nullptr);
    ASSERT_NE(0u, h);
    ASSERT_EQ(0, nax_release_handle(h)); /* now idle: the thread runs */
    ASSERT_NO_FATAL_FAILURE(WaitUntilOtherThreadsSleep());
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        alarm(10);
        Memfd other("nax_fork_child", 4096, 9);
        const uint32_t c = nax_import_fd(other.fd(), nullptr);
        int rc = c != 0 && nax_release_handle(c) == 0 ? 0 : 1;
        /* The child's own thread drops the idle mapping. */
        for (int i = 0; i < 100 && MappingsOf("nax_fork_child") != 0; i++)
            usleep(50 * 1000);
        if (MappingsOf("nax_fork_child") != 0)
            rc = 2;
        exit(rc);
    }
    int status = 0;
    ASSERT_EQ(child, waitpid(child, &status, 0));
    ASSERT_TRUE(WIFEXITED(status)) << "child ended by signal " << WTERMSIG(status);
    EXPECT_EQ(0, WEXITSTATUS(status));
}

/* A file that grew is mapped again at its new size. */
TEST(Import, ResizedFileIsMappedAgain) {
    Memfd mem("nax_grow", 16, 3);
    uint32_t h = nax_import_fd(mem.fd(), nullptr);
    ASSERT_NE(0u, h);
    std::vector<uint8_t> out(64);
    const uint32_t o = nax_import_vaddr(reinterpret_cast<uintptr_t>(out.data()), nullptr);
    EXPECT_EQ(-EINVAL, nax_copy(Grey(h, 8, 8), Grey(o, 8, 8), 1, nullptr));
    ASSERT_EQ(0, nax_release_handle(h));
    ASSERT_EQ(0, ftruncate(mem.fd(), 64));
    h = nax_import_fd(mem.fd(), nullptr);
    ASSERT_NE(0u, h);
    EXPECT_EQ(0, nax_copy(Grey(h, 8, 8), Grey(o, 8, 8), 1, nullptr));
    EXPECT_EQ(3, out[0]);
    EXPECT_EQ(0, out[63]);
    EXPECT_EQ(1, MappingsOf("nax_grow"));
    EXPECT_EQ(0, nax_release_handle(h));
    EXPECT_EQ(0, nax_release_handle(o));
}

TEST(Import, SealedMemoryIsReadOnly) {
    Memfd mem("nax_sealed", 64, 9);
    ASSERT_EQ(0, fcntl(mem.fd(), F_ADD_SEALS, F_SEAL_WRITE | F_SEAL_SHRINK | F_SEAL_GROW));
    const uint32_t h = nax_import_fd(mem.fd(), nullptr);
    ASSERT_NE(0u, h);
    std::vector<uint8_t> other(64, 1);
    const uint32_t o = nax_import_vaddr(reinterpret_cast<uintptr_t>(other.data()), nullptr);
    EXPECT_EQ(-EACCES, nax_copy(Grey(o, 8, 8), Grey(h, 8, 8), 1, nullptr));
    EXPECT_EQ(9, mem.ByteAt(0));
    EXPECT_EQ(0, nax_copy(Grey(h, 8, 8), Grey(o, 8, 8), 1, nullptr));
    EXPECT_EQ(9, other[0]);
    EXPECT_EQ(0, nax_release_handle(h));
    EXPECT_EQ(0, nax_release_handle(o));
}

TEST(Import, PhysicalAddressesAndBadDescriptorsAreRefused) {
    marlo_test::LogCapture logs;
    nax_import_param_t param{64, 64, NAX_FORMAT_Y8};
    EXPECT_EQ(0u, nax_import_paddr(0x80000000ull, &param));
    EXPECT_TRUE(logs.containsText("physical addresses are not reachable")) << logs.dump();
    EXPECT_EQ(0u, nax_wrap_paddr(0x80000000ull, 64, 64, 64, 64, NAX_FORMAT_Y8).handle);
    EXPECT_EQ(0u, nax_import_fd(-1, &param));
    EXPECT_EQ(0u, nax_import_vaddr(0, &param));
    int p[2];
    ASSERT_EQ(0, pipe(p));
    EXPECT_EQ(0u, nax_import_fd(p[0], &param)) << "a pipe has no memory to map";
    close(p[0]);
    close(p[1]);
    EXPECT_EQ(-EINVAL, nax_release_handle(0));
    EXPECT_EQ(-EINVAL, nax_release_handle(0xFFFFFFF0u));
}

TEST(Import, WrapEntryPointsImportToo) {
    Memfd mem("nax_wrap", 64, 4);
    const nax_buffer_t b = nax_wrap_fd(mem.fd(), 8, 8, 8, 8, NAX_FORMAT_Y8);
    ASSERT_NE(0u, b.handle);
    EXPECT_EQ(8, b.width);
    EXPECT_EQ(NAX_FORMAT_Y8, b.format);
    std::vector<uint8_t> out(64);
    const nax_buffer_t o =
        nax_wrap_vaddr(reinterpret_cast<uintptr_t>(out.data()), 8, 8, 8, 8, NAX_FORMAT_Y8);
    ASSERT_NE(0u, o.handle);
    EXPECT_EQ(0, nax_copy(b, o, 1, nullptr));
    EXPECT_EQ(4, out[10]);
    EXPECT_EQ(0, nax_release_handle(b.handle));
    EXPECT_EQ(0, nax_release_handle(o.handle));
    EXPECT_EQ(-EINVAL, nax_release_handle(b.handle)) << "released twice";
}

/* Requests the engine cannot serve fail before anything is written. */
TEST(Validation, RefusedRequestsWriteNothing) {
    TestBuffer src(Geometry{8, 8, 8, 8, NAX_FORMAT_RGBA_8888});
    TestBuffer dst(Geometry{8, 8, 8, 8, NAX_FORMAT_RGBA_8888});
    memset(dst.data(), 0xAB, dst.size());
    const nax_buffer_t s = src.buffer();
    const nax_buffer_t d = dst.buffer();
    const nax_rect all{};
    auto process = [&](nax_buffer_t a, nax_buffer_t b, nax_rect sr, nax_rect dr, int usage,
                       nax_buffer_t pat = nax_buffer_t{}) {
        int fence = 5;
        const int rc = nax_process(a, b, pat, sr, dr, all, -1, &fence, nullptr, usage);
        EXPECT_EQ(-1, fence);
        return rc;
    };
    EXPECT_EQ(-EINVAL, process(s, d, nax_rect{4, 4, 5, 4}, all, NAX_USAGE_SYNC));
    EXPECT_EQ(-EINVAL, process(s, d, nax_rect{-1, 0, 4, 4}, all, NAX_USAGE_SYNC));
    EXPECT_EQ(-EINVAL, process(s, d, nax_rect{0, 0, 0, 4}, all, NAX_USAGE_SYNC));
    EXPECT_EQ(-EINVAL, process(s, d, all, nax_rect{0, 7, 8, 2}, NAX_USAGE_SYNC));
    EXPECT_EQ(-EINVAL, process(s, d, all, nax_rect{0x7FFFFFFF, 0, 8, 2}, NAX_USAGE_SYNC));
    EXPECT_EQ(-EINVAL, process(s, d, all, all,
                               NAX_USAGE_SYNC | NAX_TRANSFORM_ROT_90 | NAX_TRANSFORM_ROT_180));
    EXPECT_EQ(-EOPNOTSUPP, process(s, d, all, all, NAX_USAGE_SYNC, s));
    /* Geometry against the imported memory. */
    nax_buffer_t tooBig = d;
    tooBig.height = 9;
    tooBig.hstride = 9;
    EXPECT_EQ(-EINVAL, process(s, tooBig, all, all, NAX_USAGE_SYNC));
    nax_buffer_t narrow = d;
    narrow.wstride = 7;
    EXPECT_EQ(-EINVAL, process(s, narrow, all, all, NAX_USAGE_SYNC));
    nax_buffer_t bigger = d;
    bigger.format = NAX_FORMAT_RGB_888;
    bigger.width = bigger.wstride = 11; /* 11*3*8 = 264 > 256 */
    EXPECT_EQ(-EINVAL, process(s, bigger, all, all, NAX_USAGE_SYNC));
    nax_buffer_t unknown = d;
    unknown.format = 0x500;
    EXPECT_EQ(-EINVAL, process(s, unknown, all, all, NAX_USAGE_SYNC));
    unknown.format = -2; /* what a caller's format lookup answers for a miss */
    EXPECT_EQ(-EINVAL, process(s, unknown, all, all, NAX_USAGE_SYNC));
    nax_buffer_t none = d;
    none.handle = 0;
    EXPECT_EQ(-EINVAL, process(s, none, all, all, NAX_USAGE_SYNC));
    none.handle = 0xFFFFFFF0u;
    EXPECT_EQ(-EINVAL, process(s, none, all, all, NAX_USAGE_SYNC));
    nax_buffer_t empty = d;
    empty.width = 0;
    EXPECT_EQ(-EINVAL, process(s, empty, all, all, NAX_USAGE_SYNC));
    for (size_t i = 0; i < dst.size(); i++)
        ASSERT_EQ(0xAB, dst.data()[i]) << i;
    /* Zero strides mean tightly packed. */
    nax_buffer_t packed = d;
    packed.wstride = 0;
    packed.hstride = 0;
    EXPECT_EQ(0, process(s, packed, all, all, NAX_USAGE_SYNC));
}

/*
 * A CPU address carries no size: the image it was wrapped as is all the
 * engine knows of its extent, so cvtcolor may read or write it in another
 * format only within that extent.
 */
TEST(Validation, CvtcolorStaysWithinTheImageACpuAddressWasWrappedAs) {
    const Geometry grey{16, 8, 16, 8, NAX_FORMAT_Y8};
    TestBuffer src(grey, TestBuffer::Backing::GuardPage);
    TestBuffer dst(grey, TestBuffer::Backing::GuardPage);
    memset(dst.data(), 0xAB, dst.size());
    const nax_buffer_t s = src.buffer();
    const nax_buffer_t d = dst.buffer();
    int fence = 5;
    /* Read and written as RGBA, each would span four times its bytes. */
    EXPECT_EQ(-EINVAL,
              nax_cvtcolor(s, d, NAX_FORMAT_RGBA_8888, NAX_FORMAT_RGBA_8888, 0, 1, &fence));
    EXPECT_EQ(-1, fence);
    EXPECT_EQ(-EINVAL, nax_cvtcolor(s, d, NAX_FORMAT_Y8, NAX_FORMAT_YCbCr_420_SP, 0, 1, nullptr));
    EXPECT_EQ(-EINVAL, nax_cvtcolor(s, d, NAX_FORMAT_YUYV_422, NAX_FORMAT_Y8, 0, 1, nullptr));
    for (size_t i = 0; i < dst.size(); i++)
        ASSERT_EQ(0xAB, dst.data()[i]) << i;
    /* A format that spans no more than the wrapped one is served. */
    EXPECT_EQ(0, nax_cvtcolor(s, d, NAX_FORMAT_Y8, NAX_FORMAT_Y4, 0, 1, nullptr));
    nax_buffer_t unknown = s;
    unknown.format = 0x500;
    EXPECT_EQ(-EINVAL, nax_cvtcolor(unknown, d, NAX_FORMAT_Y8, NAX_FORMAT_Y8, 0, 1, nullptr));

    /* Memory by descriptor has its own size, which is what counts there. */
    TestBuffer big(Geometry{16, 8, 16, 8, NAX_FORMAT_RGBA_8888});
    nax_buffer_t asGrey = big.buffer(NAX_FORMAT_Y8);
    EXPECT_EQ(0, nax_cvtcolor(s, asGrey, NAX_FORMAT_Y8, NAX_FORMAT_RGBA_8888, 0, 1, nullptr));
}

TEST(Fences, JobsFinishBeforeReturnAndFencesAreWaited) {
    TestBuffer src(Geometry{4, 4, 4, 4, NAX_FORMAT_Y8});
    TestBuffer dst(Geometry{4, 4, 4, 4, NAX_FORMAT_Y8});
    memset(src.data(), 0x42, src.size());
    const int acquire = eventfd(1, EFD_CLOEXEC);
    ASSERT_GE(acquire, 0);
    int fence = 99;
    ASSERT_EQ(0, nax_process(src.buffer(), dst.buffer(), nax_buffer_t{}, nax_rect{}, nax_rect{},
                             nax_rect{}, acquire, &fence, nullptr, NAX_USAGE_ASYNC));
    EXPECT_EQ(-1, fence);
    EXPECT_EQ(0x42, dst.data()[15]) << "an asynchronous job is done on return";
    EXPECT_GE(fcntl(acquire, F_GETFD), 0) << "the acquire fence stays the caller's";
    EXPECT_EQ(0, nax_sync(-1));
    /* nax_sync waits for a signalled fence and closes it. */
    EXPECT_EQ(0, nax_sync(acquire));
    EXPECT_EQ(-1, fcntl(acquire, F_GETFD));
    /* Usage without a mode bit is still a finished job. */
    ASSERT_EQ(0, nax_process(src.buffer(), dst.buffer(), nax_buffer_t{}, nax_rect{}, nax_rect{},
                             nax_rect{}, -1, nullptr, nullptr, 0));
}

TEST(Concurrency, ThreadsImportProcessAndReleaseTogether) {
    Memfd shared("nax_threads", 64 * 48, 0x33);
    std::atomic<int> failures{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; t++) {
        threads.emplace_back([&, t] {
            std::vector<uint8_t> out(32 * 24 * 4);
            for (int i = 0; i < 200; i++) {
                const uint32_t s = nax_import_fd(shared.fd(), nullptr);
                const uint32_t d =
                    nax_import_vaddr(reinterpret_cast<uintptr_t>(out.data()), nullptr);
                const nax_buffer_t sb = nax_wrap_handle(s, 64, 48, 64, 48, NAX_FORMAT_Y8);
                const nax_buffer_t db = nax_wrap_handle(d, 32, 24, 32, 24, NAX_FORMAT_RGBA_8888);
                const int rc =
                    nax_process(sb, db, nax_buffer_t{}, nax_rect{}, nax_rect{}, nax_rect{}, -1,
                                nullptr, nullptr, (t % 2) ? NAX_TRANSFORM_FLIP_H : 0);
                if (rc != 0 || s == 0 || d == 0 || nax_release_handle(s) != 0 ||
                    nax_release_handle(d) != 0)
                    failures++;
            }
        });
    }
    for (std::thread& t : threads)
        t.join();
    EXPECT_EQ(0, failures.load());
    EXPECT_EQ(1, MappingsOf("nax_threads"));
}

}  // namespace
