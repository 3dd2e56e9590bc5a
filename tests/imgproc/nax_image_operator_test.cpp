/*
 * The operator against a recording fake of the engine library: what it
 * imports, wraps, calls and releases, and what it reports.
 */
#include <android/log.h>
#include <linux/videodev2.h>
#include <string.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "fake_engine_client.h"
#include "marlo/base/error.h"
#include "marlo/imgproc/nax_image_operator.h"
#include "support/log_capture.h"

using namespace tessaro::marlo;
using marlo_test::FdImage;
using marlo_test::LogCapture;
using marlo_test::NoImage;

namespace {

constexpr int kNv12 = V4L2_PIX_FMT_NV12;
constexpr int kRgba = V4L2_PIX_FMT_RGBA32;
constexpr char kTag[] = "marlo_imgproc";
constexpr char kHdlTag[] = "marlo_hdl";

class NaxImageOperatorTest : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_TRUE(engine_.loaded()) << "the fake engine library is not the one loaded";
        engine_.reset();
    }

    bool setCache(NaxImageOperator& op, bool enabled) {
        return op.control("SetCacheHandle", &enabled) == ERR_NOT_IMPLEMENTED;
    }

    marlo_test::FakeEngine engine_;
    LogCapture log_;
    ImageBuffer src_ = FdImage(40, 64, 48, kNv12);
    ImageBuffer dst_ = FdImage(41, 32, 24, kRgba);
};

std::vector<std::string> Names(std::initializer_list<const char*> names) {
    return std::vector<std::string>(names.begin(), names.end());
}

TEST_F(NaxImageOperatorTest, CompleteEngineResolvesWithoutComplaint) {
    for (const auto& record : marlo_test::ResolutionLog::records())
        EXPECT_NE(record.priority, ANDROID_LOG_ERROR) << record.tag << ": " << record.message;
}

TEST_F(NaxImageOperatorTest, CopyImportsWrapsCallsAndReleases) {
    NaxImageOperator op;
    int fence = 7;
    dst_.wstride = 40;
    dst_.hstride = 30;
    EXPECT_EQ(op.copy(src_, dst_, 1, &fence), OK);

    EXPECT_EQ(engine_.callNames(),
              Names({"nax_import_fd", "nax_wrap_handle", "nax_import_fd", "nax_wrap_handle",
                     "nax_copy", "nax_release_handle", "nax_release_handle"}));
    auto calls = engine_.calls();
    ASSERT_EQ(calls.size(), 7u);

    // Import by fd with the parameter record {width, height, engine format}.
    EXPECT_EQ(calls[0].address, 40u);
    ASSERT_TRUE(calls[0].hasParam);
    EXPECT_EQ(calls[0].param.width, 64u);
    EXPECT_EQ(calls[0].param.height, 48u);
    EXPECT_EQ(calls[0].param.format, 0xA00u);
    EXPECT_EQ(calls[2].address, 41u);
    EXPECT_EQ(calls[2].param.format, 0x0u);

    // Wrap with the handle the import returned and the full geometry.
    EXPECT_EQ(calls[1].address, 1u);
    EXPECT_EQ(calls[1].width, 64);
    EXPECT_EQ(calls[1].height, 48);
    EXPECT_EQ(calls[1].wstride, 64);
    EXPECT_EQ(calls[1].hstride, 48);
    EXPECT_EQ(calls[1].format, 0xA00);
    EXPECT_EQ(calls[3].address, 2u);
    EXPECT_EQ(calls[3].wstride, 40);
    EXPECT_EQ(calls[3].hstride, 30);

    // The engine gets the wrapped descriptors and the caller's sync and fence.
    EXPECT_EQ(calls[4].src.handle, 1u);
    EXPECT_EQ(calls[4].src.reserved[0], 0xfa4eu);
    EXPECT_EQ(calls[4].dst.handle, 2u);
    EXPECT_EQ(calls[4].dst.format, 0x0);
    EXPECT_EQ(calls[4].sync, 1);
    EXPECT_EQ(calls[4].releaseFence, &fence);

    EXPECT_EQ(calls[5].address, 1u);
    EXPECT_EQ(calls[6].address, 2u);
    EXPECT_EQ(engine_.liveHandles(), 0u);
}

TEST_F(NaxImageOperatorTest, AsynchronousJobFillsTheReleaseFence) {
    NaxImageOperator op;
    engine_.setReleaseFence(23);
    int fence = -1;
    EXPECT_EQ(op.copy(src_, dst_, 0, &fence), OK);
    EXPECT_EQ(fence, 23);
    EXPECT_EQ(engine_.callsOf("nax_copy").at(0).sync, 0);
}

TEST_F(NaxImageOperatorTest, EngineFailuresAreNotReported) {
    NaxImageOperator op;
    engine_.setOpResult(-22);
    int fence = -1;
    ImageRect rect{0, 0, 8, 8};
    EXPECT_EQ(op.copy(src_, dst_, 1, &fence), OK);
    EXPECT_EQ(op.crop(src_, dst_, rect, 1, &fence), OK);
    EXPECT_EQ(op.rotate(src_, dst_, 90, 1, &fence), OK);
    EXPECT_EQ(op.flip(src_, dst_, 1, 1, &fence), OK);
    EXPECT_EQ(op.cvtcolor(src_, dst_, kNv12, kRgba, 0, 1, &fence), OK);
    ImageBuffer pat = NoImage();
    EXPECT_EQ(op.process(src_, dst_, pat, rect, rect, rect, 1, &fence, 0), OK);
    EXPECT_EQ(op.sync(5), OK);
    EXPECT_EQ(engine_.callsOf("nax_sync").size(), 1u);
}

TEST_F(NaxImageOperatorTest, ImportPrefersDescriptorThenPhysicalThenCpuAddress) {
    NaxImageOperator op;
    int fence = -1;

    ImageBuffer all = FdImage(50, 16, 16, kNv12);
    all.phyAddr = 0x80000000;
    all.virAddr = 0x7000;
    ImageBuffer physical = all;
    physical.fd = -1;
    ImageBuffer cpu = physical;
    cpu.phyAddr = 0;

    EXPECT_EQ(op.copy(all, physical, 1, &fence), OK);
    EXPECT_EQ(op.copy(cpu, cpu, 1, &fence), OK);

    auto fd = engine_.callsOf("nax_import_fd");
    auto paddr = engine_.callsOf("nax_import_paddr");
    auto vaddr = engine_.callsOf("nax_import_vaddr");
    ASSERT_EQ(fd.size(), 1u);
    ASSERT_EQ(paddr.size(), 1u);
    ASSERT_EQ(vaddr.size(), 2u);
    EXPECT_EQ(fd[0].address, 50u);
    EXPECT_EQ(paddr[0].address, 0x80000000u);
    EXPECT_EQ(vaddr[0].address, 0x7000u);
    EXPECT_EQ(paddr[0].param.width, 16u);
    EXPECT_EQ(vaddr[1].param.format, 0xA00u);
    EXPECT_TRUE(engine_.callsOf("nax_wrap_fd").empty());
    EXPECT_TRUE(engine_.callsOf("nax_wrap_paddr").empty());
    EXPECT_TRUE(engine_.callsOf("nax_wrap_vaddr").empty());
    EXPECT_EQ(engine_.liveHandles(), 0u);
}

TEST_F(NaxImageOperatorTest, BufferWithoutMemoryGivesZeroHandleAndStillRuns) {
    NaxImageOperator op;
    ImageBuffer none = NoImage();
    int fence = -1;
    EXPECT_EQ(op.copy(none, dst_, 1, &fence), OK);

    auto copies = engine_.callsOf("nax_copy");
    ASSERT_EQ(copies.size(), 1u);
    const nax_buffer_t zero{};
    EXPECT_EQ(memcmp(&copies[0].src, &zero, sizeof(zero)), 0);
    EXPECT_NE(copies[0].dst.handle, 0u);
    // Only the real buffer was imported and released.
    EXPECT_EQ(engine_.callsOf("nax_import_fd").size(), 1u);
    EXPECT_EQ(engine_.callsOf("nax_release_handle").size(), 1u);
    EXPECT_EQ(engine_.liveHandles(), 0u);
}

TEST_F(NaxImageOperatorTest, NaxImportBufferOfNoMemoryIsZeroed) {
    NaxImageOperator op;
    unsigned int handle = 99;
    nax_buffer_t desc = NaxImportBuffer(&op, NoImage(), &handle);
    const nax_buffer_t zero{};
    EXPECT_EQ(handle, 0u);
    EXPECT_EQ(memcmp(&desc, &zero, sizeof(zero)), 0);
    EXPECT_TRUE(engine_.calls().empty());
}

TEST_F(NaxImageOperatorTest, NaxImportBufferReturnsTheWrappedDescriptor) {
    NaxImageOperator op;
    unsigned int handle = 0;
    ImageBuffer b = FdImage(44, 20, 10, V4L2_PIX_FMT_UYVY);
    b.wstride = 24;
    b.hstride = 12;
    nax_buffer_t desc = NaxImportBuffer(&op, b, &handle);
    EXPECT_EQ(handle, 1u);
    EXPECT_EQ(desc.handle, 1u);
    EXPECT_EQ(desc.width, 20);
    EXPECT_EQ(desc.height, 10);
    EXPECT_EQ(desc.wstride, 24);
    EXPECT_EQ(desc.hstride, 12);
    EXPECT_EQ(desc.format, 0x1E00);
    // The caller owns the handle now.
    EXPECT_EQ(engine_.liveHandles(), 1u);
    EXPECT_TRUE(engine_.callsOf("nax_release_handle").empty());
}

TEST_F(NaxImageOperatorTest, NaxImportBufferWithoutOperatorImportsUncached) {
    unsigned int handle = 0;
    nax_buffer_t desc = NaxImportBuffer(nullptr, src_, &handle);
    EXPECT_EQ(handle, 1u);
    EXPECT_EQ(desc.handle, 1u);
    EXPECT_FALSE(log_.containsText("Add new hdl"));
}

TEST_F(NaxImageOperatorTest, NaxImportBufferWithoutHandlePointerImportsNothing) {
    NaxImageOperator op;
    nax_buffer_t desc = NaxImportBuffer(&op, src_, nullptr);
    const nax_buffer_t zero{};
    EXPECT_EQ(memcmp(&desc, &zero, sizeof(zero)), 0);
    EXPECT_TRUE(engine_.calls().empty());
    EXPECT_TRUE(log_.contains(ANDROID_LOG_ERROR, kHdlTag, "NaxImportBuffer : no handle to return"));
}

TEST_F(NaxImageOperatorTest, FailedImportIsLoggedAndTheJobStillRuns) {
    NaxImageOperator op;
    engine_.setImportResult(0);
    int fence = -1;
    EXPECT_EQ(op.copy(src_, dst_, 1, &fence), OK);

    EXPECT_EQ(log_.count("import NAX handle failed 0"), 2u);
    EXPECT_TRUE(log_.contains(ANDROID_LOG_ERROR, kHdlTag, "import NAX handle failed 0"));
    EXPECT_EQ(engine_.callNames(), Names({"nax_import_fd", "nax_import_fd", "nax_copy"}));
    auto copy = engine_.callsOf("nax_copy").at(0);
    const nax_buffer_t zero{};
    EXPECT_EQ(memcmp(&copy.src, &zero, sizeof(zero)), 0);
    EXPECT_EQ(memcmp(&copy.dst, &zero, sizeof(zero)), 0);
}

TEST_F(NaxImageOperatorTest, FailedImportIsNotCached) {
    NaxImageOperator op;
    ASSERT_TRUE(setCache(op, true));
    engine_.setImportResult(0);
    int fence = -1;
    EXPECT_EQ(op.copy(src_, dst_, 1, &fence), OK);
    engine_.setImportResult(-1);
    EXPECT_EQ(op.copy(src_, dst_, 1, &fence), OK);
    EXPECT_EQ(engine_.callsOf("nax_import_fd").size(), 4u);
    EXPECT_FALSE(log_.containsText("get new hdl"));
}

TEST_F(NaxImageOperatorTest, AHoldImportsOnceAndReleasesWhenItGoes) {
    NaxImageOperator op;
    {
        NaxBufferHold hold = op.holdBuffer(dst_);
        ASSERT_TRUE(hold.isValid());
        EXPECT_EQ(hold.handle(), 1u);
        EXPECT_EQ(engine_.callNames(), Names({"nax_import_fd"}));
        auto import = engine_.callsOf("nax_import_fd").at(0);
        EXPECT_EQ(import.address, 41u);
        ASSERT_TRUE(import.hasParam);
        EXPECT_EQ(import.param.width, 32u);
        EXPECT_EQ(import.param.height, 24u);
        EXPECT_EQ(import.param.format, 0x0u);
        EXPECT_EQ(engine_.liveHandles(), 1u);
    }
    EXPECT_EQ(engine_.callNames(), Names({"nax_import_fd", "nax_release_handle"}));
    EXPECT_EQ(engine_.callsOf("nax_release_handle").at(0).address, 1u);
    EXPECT_EQ(engine_.liveHandles(), 0u);
}

TEST_F(NaxImageOperatorTest, AHoldImportsAsTheJobsDo) {
    NaxImageOperator op;
    NaxBufferHold byAddress = op.holdBuffer(ImageBuffer{0, 0x7000, 0, -1, 8, 8, 8, 8, kNv12});
    NaxBufferHold byPhysical = op.holdBuffer(ImageBuffer{0, 0x7000, 0x9000, -1, 8, 8, 8, 8, kNv12});
    NaxBufferHold byFd = op.holdBuffer(ImageBuffer{0, 0x7000, 0x9000, 12, 8, 8, 8, 8, kNv12});
    EXPECT_TRUE(byAddress.isValid() && byPhysical.isValid() && byFd.isValid());
    EXPECT_EQ(engine_.callNames(),
              Names({"nax_import_vaddr", "nax_import_paddr", "nax_import_fd"}));
}

TEST_F(NaxImageOperatorTest, JobsStillImportAndReleaseTheirBuffersBesideAHold) {
    NaxImageOperator op;
    NaxBufferHold hold = op.holdBuffer(dst_);
    ASSERT_EQ(hold.handle(), 1u);
    int fence = -1;
    ImageBuffer pattern = NoImage();
    ImageRect zero{0, 0, 0, 0};
    EXPECT_EQ(op.process(src_, dst_, pattern, zero, zero, zero, 0, &fence, 0), OK);
    EXPECT_EQ(engine_.callNames(), Names({"nax_import_fd", "nax_import_fd", "nax_wrap_handle",
                                          "nax_import_fd", "nax_wrap_handle", "nax_process",
                                          "nax_release_handle", "nax_release_handle"}));
    /* The job's own handles (2 and 3) went; the hold's stays. */
    auto releases = engine_.callsOf("nax_release_handle");
    EXPECT_EQ(releases.at(0).address, 2u);
    EXPECT_EQ(releases.at(1).address, 3u);
    EXPECT_EQ(engine_.liveHandles(), 1u);
}

TEST_F(NaxImageOperatorTest, AMovedHoldReleasesOnceAndAResetOneNever) {
    NaxImageOperator op;
    NaxBufferHold first = op.holdBuffer(dst_);
    NaxBufferHold second = std::move(first);
    EXPECT_FALSE(first.isValid());
    ASSERT_TRUE(second.isValid());
    NaxBufferHold third;
    third = std::move(second);
    EXPECT_EQ(engine_.liveHandles(), 1u);
    third.reset();
    third.reset();
    first.reset();
    EXPECT_FALSE(third.isValid());
    EXPECT_EQ(engine_.callsOf("nax_release_handle").size(), 1u);
    EXPECT_EQ(engine_.liveHandles(), 0u);
    /* Assigning over a hold gives its import back first. */
    NaxBufferHold a = op.holdBuffer(dst_);
    a = op.holdBuffer(src_);
    EXPECT_EQ(engine_.callsOf("nax_release_handle").size(), 2u);
    EXPECT_EQ(engine_.liveHandles(), 1u);
}

TEST_F(NaxImageOperatorTest, AHoldOfNoMemoryHoldsNothing) {
    NaxImageOperator op;
    NaxBufferHold hold = op.holdBuffer(NoImage());
    EXPECT_FALSE(hold.isValid());
    EXPECT_TRUE(engine_.calls().empty());
    EXPECT_TRUE(
        log_.contains(ANDROID_LOG_ERROR, kHdlTag, "holdBuffer : the buffer names no memory"));
}

TEST_F(NaxImageOperatorTest, AFailedHoldIsLoggedAndHoldsNothing) {
    NaxImageOperator op;
    engine_.setImportResult(0);
    NaxBufferHold hold = op.holdBuffer(dst_);
    EXPECT_FALSE(hold.isValid());
    EXPECT_TRUE(
        log_.contains(ANDROID_LOG_ERROR, kHdlTag, "holdBuffer : import failed, fd 41 not held"));
    hold.reset();
    EXPECT_TRUE(engine_.callsOf("nax_release_handle").empty());
}

TEST_F(NaxImageOperatorTest, ResizeAnswersNotImplementedAfterASuccessfulJob) {
    NaxImageOperator op;
    int fence = -1;
    EXPECT_EQ(op.resize(src_, dst_, 0.5, 0.25, 3, 1, &fence), ERR_NOT_IMPLEMENTED);
    auto calls = engine_.callsOf("nax_resize");
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_DOUBLE_EQ(calls[0].fx, 0.5);
    EXPECT_DOUBLE_EQ(calls[0].fy, 0.25);
    EXPECT_EQ(calls[0].interpolation, 3);
    EXPECT_EQ(calls[0].sync, 1);
    EXPECT_EQ(calls[0].src.handle, 1u);
    EXPECT_EQ(calls[0].dst.handle, 2u);
    // Handles are released as for any other job, and nothing is logged.
    EXPECT_EQ(engine_.liveHandles(), 0u);
    EXPECT_FALSE(log_.containsText("Not implemented"));
}

TEST_F(NaxImageOperatorTest, CropPassesTheRectangle) {
    NaxImageOperator op;
    int fence = -1;
    EXPECT_EQ(op.crop(src_, dst_, ImageRect{2, 4, 30, 20}, 0, &fence), OK);
    auto call = engine_.callsOf("nax_crop").at(0);
    EXPECT_EQ(call.rect.x, 2);
    EXPECT_EQ(call.rect.y, 4);
    EXPECT_EQ(call.rect.width, 30);
    EXPECT_EQ(call.rect.height, 20);
    EXPECT_EQ(call.sync, 0);
    EXPECT_EQ(engine_.liveHandles(), 0u);
}

TEST_F(NaxImageOperatorTest, RotateAndFlipPassTheirArgumentsUnchanged) {
    NaxImageOperator op;
    int fence = -1;
    EXPECT_EQ(op.rotate(src_, dst_, 270, 1, &fence), OK);
    EXPECT_EQ(op.flip(src_, dst_, 1, 0, &fence), OK);
    auto rotate = engine_.callsOf("nax_rotate").at(0);
    auto flip = engine_.callsOf("nax_flip").at(0);
    EXPECT_EQ(rotate.rotation, 270);
    EXPECT_EQ(rotate.sync, 1);
    EXPECT_EQ(flip.mode, 1);
    EXPECT_EQ(flip.sync, 0);
    EXPECT_EQ(engine_.liveHandles(), 0u);
}

TEST_F(NaxImageOperatorTest, CvtcolorWrapsBothFormats) {
    NaxImageOperator op;
    int fence = -1;
    EXPECT_EQ(op.cvtcolor(src_, dst_, kNv12, V4L2_PIX_FMT_UYVY, 4, 1, &fence), OK);
    EXPECT_EQ(op.cvtcolor(src_, dst_, V4L2_PIX_FMT_GREY, V4L2_PIX_FMT_XRGB32, 0, 1, &fence), OK);
    auto calls = engine_.callsOf("nax_cvtcolor");
    ASSERT_EQ(calls.size(), 2u);
    EXPECT_EQ(calls[0].srcFormat, 0xA00);
    EXPECT_EQ(calls[0].dstFormat, 0x1E00);
    EXPECT_EQ(calls[0].mode, 4);
    EXPECT_EQ(calls[1].srcFormat, 0x1500);
    EXPECT_EQ(calls[1].dstFormat, ERR_FAILED);
}

TEST_F(NaxImageOperatorTest, ProcessCallsTheEngineWithItsFixedArguments) {
    NaxImageOperator op;
    int fence = -1;
    ImageBuffer pat = NoImage();
    ImageRect srect{1, 2, 3, 4};
    ImageRect drect{5, 6, 7, 8};
    ImageRect prect{9, 10, 11, 12};
    EXPECT_EQ(op.process(src_, dst_, pat, srect, drect, prect, 1, &fence, 0x1), OK);

    EXPECT_EQ(engine_.callNames(),
              Names({"nax_import_fd", "nax_wrap_handle", "nax_import_fd", "nax_wrap_handle",
                     "nax_process", "nax_release_handle", "nax_release_handle"}));
    auto call = engine_.callsOf("nax_process").at(0);
    EXPECT_EQ(call.src.handle, 1u);
    EXPECT_EQ(call.dst.handle, 2u);
    EXPECT_EQ(call.pat.handle, 0u);
    EXPECT_EQ(call.srect.x, 1);
    EXPECT_EQ(call.srect.height, 4);
    EXPECT_EQ(call.drect.x, 5);
    EXPECT_EQ(call.drect.height, 8);
    EXPECT_EQ(call.prect.x, 9);
    EXPECT_EQ(call.prect.height, 12);
    EXPECT_EQ(call.acquireFence, -1);
    EXPECT_EQ(call.releaseFence, &fence);
    EXPECT_EQ(call.opt, nullptr);
    EXPECT_EQ(call.usage, 0x80000 | 0x1);
}

TEST_F(NaxImageOperatorTest, ProcessAddsTheModeBitOfSync) {
    NaxImageOperator op;
    int fence = -1;
    ImageBuffer pat = NoImage();
    ImageRect rect{};
    EXPECT_EQ(op.process(src_, dst_, pat, rect, rect, rect, 1, &fence, 0), OK);
    EXPECT_EQ(op.process(src_, dst_, pat, rect, rect, rect, 0, &fence, 0x8), OK);
    EXPECT_EQ(op.process(src_, dst_, pat, rect, rect, rect, 2, &fence, 0x4), OK);
    EXPECT_EQ(op.process(src_, dst_, pat, rect, rect, rect, -1, &fence, 0), OK);
    auto calls = engine_.callsOf("nax_process");
    ASSERT_EQ(calls.size(), 4u);
    EXPECT_EQ(calls[0].usage, NAX_USAGE_SYNC);
    EXPECT_EQ(calls[1].usage, NAX_USAGE_ASYNC | 0x8);
    // Any other sync value adds no mode bit.
    EXPECT_EQ(calls[2].usage, 0x4);
    EXPECT_EQ(calls[3].usage, 0);
}

TEST_F(NaxImageOperatorTest, ProcessAddsTheModeBitArithmetically) {
    NaxImageOperator op;
    int fence = -1;
    ImageBuffer pat = NoImage();
    ImageRect rect{};
    // A usage that already carries the bit gets the carry, not the same bit.
    EXPECT_EQ(op.process(src_, dst_, pat, rect, rect, rect, 1, &fence, NAX_USAGE_SYNC | 0x2), OK);
    EXPECT_EQ(op.process(src_, dst_, pat, rect, rect, rect, 0, &fence, NAX_USAGE_ASYNC), OK);
    EXPECT_EQ(op.process(src_, dst_, pat, rect, rect, rect, 2, &fence, NAX_USAGE_SYNC), OK);
    // The sum wraps around the top of int.
    EXPECT_EQ(op.process(src_, dst_, pat, rect, rect, rect, 0, &fence, 0x7fffffff), OK);
    auto calls = engine_.callsOf("nax_process");
    ASSERT_EQ(calls.size(), 4u);
    EXPECT_EQ(calls[0].usage, 0x100002);
    EXPECT_EQ(calls[1].usage, 0x8000000);
    EXPECT_EQ(calls[2].usage, NAX_USAGE_SYNC);
    EXPECT_EQ(static_cast<uint32_t>(calls[3].usage), 0x83ffffffu);
}

TEST_F(NaxImageOperatorTest, ProcessKeepsThePatternHandle) {
    NaxImageOperator op;
    int fence = -1;
    ImageBuffer pat = FdImage(42, 8, 8, kRgba);
    ImageRect rect{};
    EXPECT_EQ(op.process(src_, dst_, pat, rect, rect, rect, 1, &fence, 0), OK);

    EXPECT_EQ(engine_.callsOf("nax_import_fd").size(), 3u);
    auto releases = engine_.callsOf("nax_release_handle");
    ASSERT_EQ(releases.size(), 2u);
    EXPECT_EQ(releases[0].address, 1u);
    EXPECT_EQ(releases[1].address, 2u);
    EXPECT_EQ(engine_.callsOf("nax_process").at(0).pat.handle, 3u);
    // The pattern's handle stays with the engine.
    EXPECT_EQ(engine_.liveHandles(), 1u);
}

TEST_F(NaxImageOperatorTest, SetCacheHandleAnswersNotImplementedAndSetsTheFlag) {
    NaxImageOperator op;
    int fence = -1;
    bool on = true;
    EXPECT_EQ(op.control("SetCacheHandle", &on), ERR_NOT_IMPLEMENTED);
    EXPECT_EQ(op.copy(src_, dst_, 1, &fence), OK);
    // Cached: nothing is released after the job.
    EXPECT_TRUE(engine_.callsOf("nax_release_handle").empty());
    EXPECT_EQ(engine_.liveHandles(), 2u);

    // Turning it off changes only the flag: the cached handles stay.
    bool off = false;
    EXPECT_EQ(op.control("SetCacheHandle", &off), ERR_NOT_IMPLEMENTED);
    EXPECT_TRUE(engine_.callsOf("nax_release_handle").empty());
    EXPECT_EQ(engine_.liveHandles(), 2u);

    // Off: the job imports afresh and releases what it imported.
    EXPECT_EQ(op.copy(src_, dst_, 1, &fence), OK);
    EXPECT_EQ(engine_.callsOf("nax_import_fd").size(), 4u);
    auto releases = engine_.callsOf("nax_release_handle");
    ASSERT_EQ(releases.size(), 2u);
    EXPECT_EQ(releases[0].address, 3u);
    EXPECT_EQ(releases[1].address, 4u);
    EXPECT_EQ(engine_.liveHandles(), 2u);

    // On again: the handles cached before are used again.
    EXPECT_EQ(op.control("SetCacheHandle", &on), ERR_NOT_IMPLEMENTED);
    EXPECT_EQ(op.copy(src_, dst_, 1, &fence), OK);
    EXPECT_EQ(engine_.callsOf("nax_import_fd").size(), 4u);
    auto copy = engine_.callsOf("nax_copy").back();
    EXPECT_EQ(copy.src.handle, 1u);
    EXPECT_EQ(copy.dst.handle, 2u);
    EXPECT_TRUE(log_.contains(ANDROID_LOG_VERBOSE, kHdlTag, "get new hdl 1"));
    EXPECT_TRUE(log_.contains(ANDROID_LOG_VERBOSE, kHdlTag, "get new hdl 2"));
}

TEST_F(NaxImageOperatorTest, HandlesCachedBeforeTurningTheCacheOffAreReleasedAtTheEnd) {
    {
        NaxImageOperator op;
        ASSERT_TRUE(setCache(op, true));
        int fence = -1;
        EXPECT_EQ(op.copy(src_, dst_, 1, &fence), OK);
        ASSERT_TRUE(setCache(op, false));
        EXPECT_EQ(engine_.liveHandles(), 2u);
    }
    auto releases = engine_.callsOf("nax_release_handle");
    ASSERT_EQ(releases.size(), 2u);
    EXPECT_EQ(releases[0].address, 1u);  // fd 40 sorts before fd 41
    EXPECT_EQ(releases[1].address, 2u);
    EXPECT_EQ(engine_.liveHandles(), 0u);
}

TEST_F(NaxImageOperatorTest, KeyOrderIsUnsignedForHighAddresses) {
    {
        NaxImageOperator op;
        ASSERT_TRUE(setCache(op, true));
        unsigned int handle = 0;
        // A tagged heap address has its top bit set; it sorts after fd 5.
        ImageBuffer tagged = FdImage(-1, 8, 8, kNv12);
        tagged.virAddr = static_cast<uintptr_t>(0xb400007000001000ULL);
        NaxImportBuffer(&op, tagged, &handle);
        EXPECT_EQ(handle, 1u);
        NaxImportBuffer(&op, FdImage(5, 8, 8, kNv12), &handle);
        EXPECT_EQ(handle, 2u);
    }
    auto releases = engine_.callsOf("nax_release_handle");
    ASSERT_EQ(releases.size(), 2u);
    EXPECT_EQ(releases[0].address, 2u);
    EXPECT_EQ(releases[1].address, 1u);
}

TEST_F(NaxImageOperatorTest, CacheIsOffAtFirst) {
    NaxImageOperator op;
    int fence = -1;
    EXPECT_EQ(op.copy(src_, dst_, 1, &fence), OK);
    EXPECT_EQ(op.copy(src_, dst_, 1, &fence), OK);
    EXPECT_EQ(engine_.callsOf("nax_import_fd").size(), 4u);
    EXPECT_EQ(engine_.callsOf("nax_release_handle").size(), 4u);
}

TEST_F(NaxImageOperatorTest, UnknownControlKeysAreRefused) {
    NaxImageOperator op;
    bool on = true;
    EXPECT_EQ(op.control("x", &on), ERR_FAILED);
    EXPECT_EQ(op.control("", &on), ERR_FAILED);
    EXPECT_EQ(op.control("setcachehandle", &on), ERR_FAILED);
    EXPECT_EQ(log_.count("Not supported control value"), 3u);
    EXPECT_TRUE(log_.contains(ANDROID_LOG_WARN, kTag, "Not supported control value"));
    // The flag did not change.
    int fence = -1;
    EXPECT_EQ(op.copy(src_, dst_, 1, &fence), OK);
    EXPECT_EQ(engine_.liveHandles(), 0u);
}

TEST_F(NaxImageOperatorTest, SetCacheHandleWithoutValueIsAnInvalidArgument) {
    NaxImageOperator op;
    EXPECT_EQ(op.control("SetCacheHandle", nullptr), ERR_INVALID_ARGUMENT);
    EXPECT_TRUE(log_.contains(ANDROID_LOG_ERROR, kTag, "control : SetCacheHandle without a value"));
}

TEST_F(NaxImageOperatorTest, CachedHandleIsReusedForTheSameAddressSum) {
    NaxImageOperator op;
    ASSERT_TRUE(setCache(op, true));
    unsigned int first = 0;
    unsigned int second = 0;
    NaxImportBuffer(&op, src_, &first);
    EXPECT_TRUE(log_.contains(ANDROID_LOG_VERBOSE, kHdlTag, "Add new hdl 1"));

    // Same fd, other size and format: the key is the memory, not the geometry.
    ImageBuffer other = FdImage(40, 1280, 720, V4L2_PIX_FMT_UYVY);
    nax_buffer_t desc = NaxImportBuffer(&op, other, &second);
    EXPECT_EQ(second, first);
    EXPECT_TRUE(log_.contains(ANDROID_LOG_VERBOSE, kHdlTag, "get new hdl 1"));
    EXPECT_EQ(engine_.callsOf("nax_import_fd").size(), 1u);
    // The descriptor still carries the new geometry.
    EXPECT_EQ(desc.handle, 1u);
    EXPECT_EQ(desc.width, 1280);
    EXPECT_EQ(desc.format, 0x1E00);

    // A different memory with the same sum shares the handle too.
    ImageBuffer alias = FdImage(0, 64, 48, kNv12);
    alias.virAddr = 40;
    unsigned int third = 0;
    NaxImportBuffer(&op, alias, &third);
    EXPECT_EQ(third, first);
    EXPECT_EQ(log_.count("Add new hdl 1"), 1u);
}

TEST_F(NaxImageOperatorTest, CachedOperationsReuseHandlesAcrossJobs) {
    NaxImageOperator op;
    ASSERT_TRUE(setCache(op, true));
    int fence = -1;
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(op.copy(src_, dst_, 1, &fence), OK);
    EXPECT_EQ(engine_.callsOf("nax_import_fd").size(), 2u);
    EXPECT_TRUE(engine_.callsOf("nax_release_handle").empty());
    for (const auto& copy : engine_.callsOf("nax_copy")) {
        EXPECT_EQ(copy.src.handle, 1u);
        EXPECT_EQ(copy.dst.handle, 2u);
    }
}

TEST_F(NaxImageOperatorTest, DestructionReleasesCachedHandlesInKeyOrder) {
    {
        NaxImageOperator op;
        ASSERT_TRUE(setCache(op, true));
        unsigned int handle = 0;
        // Imported in the order 30, 10, 20: handles 1, 2, 3.
        NaxImportBuffer(&op, FdImage(30, 8, 8, kNv12), &handle);
        NaxImportBuffer(&op, FdImage(10, 8, 8, kNv12), &handle);
        NaxImportBuffer(&op, FdImage(20, 8, 8, kNv12), &handle);
        EXPECT_TRUE(engine_.callsOf("nax_release_handle").empty());
    }
    auto releases = engine_.callsOf("nax_release_handle");
    ASSERT_EQ(releases.size(), 3u);
    EXPECT_EQ(releases[0].address, 2u);
    EXPECT_EQ(releases[1].address, 3u);
    EXPECT_EQ(releases[2].address, 1u);
    EXPECT_EQ(engine_.liveHandles(), 0u);
}

TEST_F(NaxImageOperatorTest, DestructionWithCacheOffReleasesNothing) {
    {
        NaxImageOperator op;
        int fence = -1;
        EXPECT_EQ(op.copy(src_, dst_, 1, &fence), OK);
        engine_.reset();
    }
    EXPECT_TRUE(engine_.calls().empty());
}

TEST_F(NaxImageOperatorTest, EachOperatorHasItsOwnCache) {
    NaxImageOperator cached;
    NaxImageOperator plain;
    ASSERT_TRUE(setCache(cached, true));
    unsigned int a = 0;
    unsigned int b = 0;
    NaxImportBuffer(&cached, src_, &a);
    NaxImportBuffer(&plain, src_, &b);
    EXPECT_NE(a, b);
    EXPECT_EQ(engine_.callsOf("nax_import_fd").size(), 2u);
}

TEST_F(NaxImageOperatorTest, OperatorsOnSeparateThreadsKeepSeparateCaches) {
    constexpr int kThreads = 4;
    constexpr int kJobs = 20;
    std::atomic<int> failures{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i) {
        threads.emplace_back([i, &failures] {
            NaxImageOperator op;
            bool cached = i % 2 == 0;
            if (op.control("SetCacheHandle", &cached) != ERR_NOT_IMPLEMENTED)
                ++failures;
            ImageBuffer src = FdImage(100 + 2 * i, 64, 48, kNv12);
            ImageBuffer dst = FdImage(101 + 2 * i, 32, 24, kRgba);
            int fence = -1;
            for (int job = 0; job < kJobs; ++job) {
                if (op.copy(src, dst, 1, &fence) != OK)
                    ++failures;
            }
        });
    }
    for (auto& thread : threads)
        thread.join();
    EXPECT_EQ(failures.load(), 0);
    // Cached operators import each buffer once, the others at every job.
    EXPECT_EQ(engine_.callsOf("nax_import_fd").size(), size_t{2 * 2 + 2 * 2 * kJobs});
    EXPECT_EQ(engine_.callsOf("nax_copy").size(), size_t{kThreads * kJobs});
    EXPECT_EQ(engine_.liveHandles(), 0u);
}

TEST_F(NaxImageOperatorTest, SyncHandsTheFenceToTheEngine) {
    NaxImageOperator op;
    engine_.setOpResult(-62);
    EXPECT_EQ(op.sync(17), OK);
    auto calls = engine_.callsOf("nax_sync");
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_EQ(calls[0].address, 17u);
}

/*
 * The vtable slot a pointer to a virtual member names. The Itanium C++ ABI
 * stores 1 + the slot's byte offset; its Arm variant stores the offset and
 * marks the pointer virtual in the low bit of the adjustment.
 */
template <typename Member>
size_t VirtualSlot(Member member) {
    struct {
        uintptr_t ptr;
        ptrdiff_t adj;
    } raw;
    static_assert(sizeof(member) == sizeof(raw));
    memcpy(&raw, &member, sizeof(raw));
#if defined(__arm__) || defined(__aarch64__)
    EXPECT_EQ(raw.adj & 1, 1);
    return raw.ptr / sizeof(void*);
#else
    EXPECT_EQ(raw.ptr & 1, 1u);
    return (raw.ptr - 1) / sizeof(void*);
#endif
}

TEST(NaxImageOperatorLayout, VirtualSlotsAreInTheirFixedOrder) {
    EXPECT_EQ(VirtualSlot(&NaxImageOperator::crop), 0u);
    EXPECT_EQ(VirtualSlot(&NaxImageOperator::resize), 1u);
    EXPECT_EQ(VirtualSlot(&NaxImageOperator::cvtcolor), 2u);
    EXPECT_EQ(VirtualSlot(&NaxImageOperator::rotate), 3u);
    EXPECT_EQ(VirtualSlot(&NaxImageOperator::flip), 4u);
    EXPECT_EQ(VirtualSlot(&NaxImageOperator::copy), 5u);
    EXPECT_EQ(VirtualSlot(&NaxImageOperator::process), 6u);
    EXPECT_EQ(VirtualSlot(&NaxImageOperator::control), 7u);
    EXPECT_EQ(VirtualSlot(&NaxImageOperator::sync), 8u);
    // The two destructor slots follow: a subclass's first new virtual lands at 11.
    struct Extended : NaxImageOperator {
        virtual int extra() { return 0; }
    };
    EXPECT_EQ(VirtualSlot(&Extended::extra), 11u);
}

TEST_F(NaxImageOperatorTest, OperationsAreVirtualInTheirOrder) {
    // A subclass sees every operation through the base class.
    struct Counting : NaxImageOperator {
        int calls = 0;
        int copy(const ImageBuffer&, ImageBuffer&, int, int*) override { return ++calls; }
        int sync(int) override { return ++calls; }
    };
    Counting counting;
    NaxImageOperator& base = counting;
    int fence = -1;
    EXPECT_EQ(base.copy(src_, dst_, 1, &fence), 1);
    EXPECT_EQ(base.sync(3), 2);
    EXPECT_TRUE(engine_.calls().empty());
}

}  // namespace
