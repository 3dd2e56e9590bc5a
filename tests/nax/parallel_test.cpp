/*
 * Large jobs are shared with the engine's worker threads in bands of rows,
 * strips and planes. Whatever the number of threads, every byte of the
 * destination (the padding around the image included) equals what one
 * thread writes.
 */
#include <gtest/gtest.h>

#include <dirent.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <libyuv.h>
#include <nax/nax_sw.h>

#include "nax_test_util.h"

using namespace nax_test;

namespace {

/* One job through nax_process, or nax_resize when `interpolation` >= 0. */
struct Job {
    const char* name;
    Geometry src;
    Geometry dst;
    int transform;
    nax_rect srect;
    nax_rect drect;
    int interpolation;
};

Geometry G(int w, int h, int format) {
    return Geometry{w, h, w, h, format};
}

Geometry Padded(int w, int h, int format) {
    return Geometry{w, h, w + 6, h + 4, format};
}

const nax_rect kWhole{0, 0, 0, 0};

const Job kJobs[] = {
    {"copy NV12", G(1280, 720, NAX_FORMAT_YCbCr_420_SP), Padded(1280, 720, NAX_FORMAT_YCbCr_420_SP),
     0, kWhole, kWhole, -1},
    {"copy odd RGB_888", G(1281, 719, NAX_FORMAT_RGB_888), G(1281, 719, NAX_FORMAT_RGB_888), 0,
     kWhole, kWhole, -1},
    {"NV12 to RGBA", G(1920, 1080, NAX_FORMAT_YCbCr_420_SP),
     Padded(1920, 1080, NAX_FORMAT_RGBA_8888), 0, kWhole, kWhole, -1},
    {"NV12 to RGBA, odd rows", G(1280, 719, NAX_FORMAT_YCbCr_420_SP),
     G(1280, 719, NAX_FORMAT_RGBA_8888), 0, kWhole, kWhole, -1},
    {"NV21 to XBGR", G(1280, 720, NAX_FORMAT_YCrCb_420_SP), G(1280, 720, NAX_FORMAT_XBGR_8888), 0,
     kWhole, kWhole, -1},
    {"UYVY to NV12", G(1280, 720, NAX_FORMAT_UYVY_422), G(1280, 720, NAX_FORMAT_YCbCr_420_SP), 0,
     kWhole, kWhole, -1},
    {"YUYV to ABGR", G(1280, 720, NAX_FORMAT_YUYV_422), G(1280, 720, NAX_FORMAT_ABGR_8888), 0,
     kWhole, kWhole, -1},
    {"NV12 to I420", G(1280, 720, NAX_FORMAT_YCbCr_420_SP), G(1280, 720, NAX_FORMAT_YCbCr_420_P), 0,
     kWhole, kWhole, -1},
    {"I420 to NV12", G(1280, 720, NAX_FORMAT_YCbCr_420_P), G(1280, 720, NAX_FORMAT_YCbCr_420_SP), 0,
     kWhole, kWhole, -1},
    {"NV12 crop to RGBA at an offset", G(1920, 1080, NAX_FORMAT_YCbCr_420_SP),
     G(1920, 1080, NAX_FORMAT_RGBA_8888), 0, nax_rect{320, 180, 1280, 720},
     nax_rect{2, 4, 1280, 720}, -1},
    {"NV12 scale", G(1920, 1080, NAX_FORMAT_YCbCr_420_SP), G(1280, 720, NAX_FORMAT_YCbCr_420_SP), 0,
     kWhole, kWhole, -1},
    {"I420 scale", G(1280, 720, NAX_FORMAT_YCbCr_420_P), G(1000, 602, NAX_FORMAT_YCbCr_420_P), 0,
     kWhole, kWhole, -1},
    {"RGBA shrink", G(1280, 720, NAX_FORMAT_RGBA_8888), G(1000, 500, NAX_FORMAT_RGBA_8888), 0,
     kWhole, kWhole, -1},
    {"RGBA enlarge", G(640, 480, NAX_FORMAT_RGBA_8888), G(1281, 961, NAX_FORMAT_RGBA_8888), 0,
     kWhole, kWhole, -1},
    {"RGBA nearest", G(1280, 720, NAX_FORMAT_RGBA_8888), G(1000, 700, NAX_FORMAT_RGBA_8888), 0,
     kWhole, kWhole, 0},
    {"Y8 scale", G(1280, 720, NAX_FORMAT_Y8), G(1000, 700, NAX_FORMAT_Y8), 0, kWhole, kWhole, -1},
    {"NV12 quarter turn", G(1280, 720, NAX_FORMAT_YCbCr_420_SP),
     G(720, 1280, NAX_FORMAT_YCbCr_420_SP), NAX_TRANSFORM_ROT_90, kWhole, kWhole, -1},
    {"NV12 half turn", G(1280, 720, NAX_FORMAT_YCbCr_420_SP),
     Padded(1280, 720, NAX_FORMAT_YCbCr_420_SP), NAX_TRANSFORM_ROT_180, kWhole, kWhole, -1},
    {"I420 three quarter turn", G(1280, 720, NAX_FORMAT_YCbCr_420_P),
     G(720, 1280, NAX_FORMAT_YCbCr_420_P), NAX_TRANSFORM_ROT_270, kWhole, kWhole, -1},
    {"RGBA quarter turn", G(1280, 720, NAX_FORMAT_RGBA_8888), G(720, 1280, NAX_FORMAT_RGBA_8888),
     NAX_TRANSFORM_ROT_90, kWhole, kWhole, -1},
    {"Y8 three quarter turn, odd", G(1281, 721, NAX_FORMAT_Y8), G(721, 1281, NAX_FORMAT_Y8),
     NAX_TRANSFORM_ROT_270, kWhole, kWhole, -1},
    {"NV12 shrink into RGBA", G(1920, 1080, NAX_FORMAT_YCbCr_420_SP),
     G(800, 600, NAX_FORMAT_RGBA_8888), 0, kWhole, kWhole, -1},
    {"NV12 enlarge into RGBA", G(640, 480, NAX_FORMAT_YCbCr_420_SP),
     G(1280, 720, NAX_FORMAT_RGBA_8888), 0, kWhole, kWhole, -1},
    {"YUYV scale and turn into RGBA", G(1280, 720, NAX_FORMAT_YUYV_422),
     G(540, 960, NAX_FORMAT_RGBA_8888), NAX_TRANSFORM_ROT_90, kWhole, kWhole, -1},
    {"RGBA scale into NV12", G(1280, 720, NAX_FORMAT_RGBA_8888),
     G(1000, 562, NAX_FORMAT_YCbCr_420_SP), 0, kWhole, kWhole, -1},
    {"NV16 into NV12", G(1280, 720, NAX_FORMAT_YCbCr_422_SP), G(1280, 720, NAX_FORMAT_YCbCr_420_SP),
     0, kWhole, kWhole, -1},
    {"NV12 shrink into NV16", G(1920, 1080, NAX_FORMAT_YCbCr_420_SP),
     G(1280, 719, NAX_FORMAT_YCbCr_422_SP), 0, kWhole, kWhole, -1},
    {"VYUY into NV12, odd rows", G(1280, 721, NAX_FORMAT_VYUY_422),
     G(1280, 721, NAX_FORMAT_YCbCr_420_SP), 0, kWhole, kWhole, -1},
    {"NV12 mirrored both ways into RGBA", G(1280, 720, NAX_FORMAT_YCbCr_420_SP),
     G(1280, 720, NAX_FORMAT_RGBA_8888), NAX_TRANSFORM_FLIP_H | NAX_TRANSFORM_FLIP_V, kWhole,
     kWhole, -1},
    {"NV12 odd crop turned into I420 at an odd offset", G(1920, 1080, NAX_FORMAT_YCbCr_420_SP),
     G(1280, 1280, NAX_FORMAT_YCbCr_420_P), NAX_TRANSFORM_ROT_90, nax_rect{101, 33, 1001, 701},
     nax_rect{3, 5, 700, 1000}, -1},
};

const Job& Named(const std::string& name) {
    for (const Job& job : kJobs) {
        if (name == job.name)
            return job;
    }
    throw std::invalid_argument(name);
}

/* Bytes that differ from run to run of the pattern would hide nothing:
 * every byte of source and destination is set before the job. */
void FillPseudoRandom(TestBuffer& b, uint32_t seed) {
    uint32_t x = seed;
    for (size_t i = 0; i < b.size(); i++) {
        x = x * 1664525u + 1013904223u;
        b.data()[i] = static_cast<uint8_t>(x >> 24);
    }
}

/* Runs the job on fresh buffers and returns the whole destination. */
std::vector<uint8_t> RunJob(const Job& job) {
    TestBuffer src(job.src);
    TestBuffer dst(job.dst);
    FillPseudoRandom(src, 1);
    FillPseudoRandom(dst, 2);
    int fence = 7;
    int rc;
    if (job.interpolation >= 0)
        rc = nax_resize(src.buffer(), dst.buffer(), 0, 0, job.interpolation, 1, &fence);
    else
        rc = nax_process(src.buffer(), dst.buffer(), nax_buffer_t{}, job.srect, job.drect,
                         nax_rect{}, -1, &fence, nullptr, NAX_USAGE_SYNC | job.transform);
    EXPECT_EQ(0, rc) << job.name;
    EXPECT_EQ(-1, fence);
    return std::vector<uint8_t>(dst.data(), dst.data() + dst.size());
}

/* Index of the first differing byte, or -1. */
long FirstDifference(const std::vector<uint8_t>& a, const std::vector<uint8_t>& b) {
    if (a.size() != b.size())
        return 0;
    for (size_t i = 0; i < a.size(); i++) {
        if (a[i] != b[i])
            return static_cast<long>(i);
    }
    return -1;
}

/* Threads of this process with the given name. */
int ThreadsNamed(const std::string& name) {
    int count = 0;
    DIR* dir = opendir("/proc/self/task");
    if (dir == nullptr)
        return -1;
    while (dirent* entry = readdir(dir)) {
        if (entry->d_name[0] == '.')
            continue;
        std::ifstream comm(std::string("/proc/self/task/") + entry->d_name + "/comm");
        std::string line;
        if (std::getline(comm, line) && line == name)
            count++;
    }
    closedir(dir);
    return count;
}

class Parallel : public ::testing::Test {
  protected:
    void TearDown() override { nax_sw_set_job_threads(0); }
};

}  // namespace

TEST_F(Parallel, ThreadCountIsClampedAndRestored) {
    EXPECT_EQ(1, nax_sw_set_job_threads(1));
    EXPECT_EQ(2, nax_sw_set_job_threads(2));
    EXPECT_EQ(4, nax_sw_set_job_threads(64));
    const unsigned cores = std::thread::hardware_concurrency();
    const int byDefault = nax_sw_set_job_threads(0);
    EXPECT_GE(byDefault, 1);
    EXPECT_LE(byDefault, 4);
    if (cores >= 1 && cores <= 4) {
        EXPECT_EQ(static_cast<int>(cores), byDefault);
    }
}

/* A large job wakes the workers, and they stay for the next one. */
TEST_F(Parallel, LargeJobsStartWorkers) {
    nax_sw_set_job_threads(3);
    RunJob(Named("NV12 to RGBA"));
    EXPECT_GE(ThreadsNamed("nax_worker"), 2);
}

TEST_F(Parallel, EveryJobGivesTheSameBytesOnAnyNumberOfThreads) {
    for (const Job& job : kJobs) {
        SCOPED_TRACE(job.name);
        ASSERT_EQ(1, nax_sw_set_job_threads(1));
        const std::vector<uint8_t> single = RunJob(job);
        for (int threads : {2, 3, 4}) {
            ASSERT_EQ(threads, nax_sw_set_job_threads(threads));
            EXPECT_EQ(-1, FirstDifference(single, RunJob(job))) << threads << " threads";
        }
    }
}

/* Plane by plane, the engine scales NV12 as libyuv's NV12Scale does. */
TEST_F(Parallel, Nv12ScalingEqualsLibyuvOnAnyNumberOfThreads) {
    const Geometry gs = G(1920, 1080, NAX_FORMAT_YCbCr_420_SP);
    const Geometry gd = G(1280, 720, NAX_FORMAT_YCbCr_420_SP);
    TestBuffer src(gs);
    FillPseudoRandom(src, 3);
    std::vector<uint8_t> ref(BufferSize(gd));
    libyuv::NV12Scale(src.data(), 1920, src.data() + 1920 * 1080, 1920, 1920, 1080, ref.data(),
                      1280, ref.data() + 1280 * 720, 1280, 1280, 720, libyuv::kFilterBilinear);
    for (int threads : {1, 2, 4}) {
        nax_sw_set_job_threads(threads);
        TestBuffer dst(gd);
        ASSERT_EQ(0, nax_process(src.buffer(), dst.buffer(), nax_buffer_t{}, nax_rect{}, nax_rect{},
                                 nax_rect{}, -1, nullptr, nullptr, NAX_USAGE_SYNC));
        EXPECT_EQ(0, memcmp(ref.data(), dst.data(), ref.size())) << threads << " threads";
    }
}

/* Several callers (cameras) at once share the workers; each gets its own
 * job's bytes. */
TEST_F(Parallel, ConcurrentCallersEachGetTheirOwnResult) {
    const Job& convert = Named("NV12 to RGBA");
    const Job& turn = Named("NV12 quarter turn");
    const Job& scale = Named("NV12 shrink into RGBA");
    nax_sw_set_job_threads(1);
    const std::vector<uint8_t> want[] = {RunJob(convert), RunJob(turn), RunJob(scale)};
    nax_sw_set_job_threads(2);
    std::vector<std::thread> callers;
    std::vector<long> differences(3, -1);
    for (int c = 0; c < 3; c++) {
        callers.emplace_back([&, c] {
            const Job& job = c == 0 ? convert : c == 1 ? turn : scale;
            for (int round = 0; round < 5 && differences[c] == -1; round++)
                differences[c] = FirstDifference(want[c], RunJob(job));
        });
    }
    for (std::thread& t : callers)
        t.join();
    for (int c = 0; c < 3; c++)
        EXPECT_EQ(-1, differences[c]) << "caller " << c;
}

/* A child forked while the workers exist has none of them; its large jobs
 * still finish, on its own threads. */
TEST_F(Parallel, AForkedChildRunsLargeJobs) {
#if defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "the thread sanitizer cannot start threads in a fork child";
#endif
    nax_sw_set_job_threads(2);
    const Job& job = Named("NV12 to RGBA");
    const std::vector<uint8_t> want = RunJob(job);
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        alarm(20);
        const bool same = FirstDifference(want, RunJob(job)) == -1;
        _exit(same ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(child, waitpid(child, &status, 0));
    ASSERT_TRUE(WIFEXITED(status)) << status;
    EXPECT_EQ(0, WEXITSTATUS(status));
}
