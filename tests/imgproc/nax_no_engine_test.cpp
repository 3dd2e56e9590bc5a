/*
 * The operator on a machine without the engine library: it still builds
 * and every operation reports "Not implemented".
 */
#include <android/log.h>
#include <dlfcn.h>

#include <gtest/gtest.h>

#include "fake_engine_client.h"
#include "imgproc/nax_ops.h"
#include "marlo/base/error.h"
#include "marlo/imgproc/nax_image_operator.h"
#include "support/log_capture.h"

using namespace tessaro::marlo;
using marlo_test::FdImage;
using marlo_test::LogCapture;

namespace {

constexpr char kTag[] = "marlo_imgproc";

TEST(NaxNoEngineTest, TheLibraryIsReallyAbsent) {
    void* lib = dlopen("libnax.so", RTLD_NOW);
    EXPECT_EQ(lib, nullptr);
    if (lib)
        dlclose(lib);
}

TEST(NaxNoEngineTest, FailedDlopenIsLoggedOnceWithTheLoaderText) {
    const auto& records = marlo_test::ResolutionLog::records();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].priority, ANDROID_LOG_ERROR);
    EXPECT_EQ(records[0].tag, kTag);
    const std::string prefix = "Failed to dlopen libnax.so : ";
    ASSERT_EQ(records[0].message.compare(0, prefix.size(), prefix), 0) << records[0].message;
    EXPECT_NE(records[0].message.find("libnax.so: cannot open shared object file"),
              std::string::npos)
        << records[0].message;
}

TEST(NaxNoEngineTest, LaterOperatorsDoNotTryAgain) {
    LogCapture log;
    NaxImageOperator op;
    NaxImageOperator other;
    EXPECT_TRUE(log.records().empty()) << log.dump();
}

TEST(NaxNoEngineTest, EveryOperationIsNotImplemented) {
    NaxImageOperator op;
    LogCapture log;
    ImageBuffer src = FdImage(40, 64, 48, 0);
    ImageBuffer dst = FdImage(41, 64, 48, 0);
    ImageBuffer pat = FdImage(-1, 0, 0, 0);
    ImageRect rect{};
    int fence = -1;

    EXPECT_EQ(op.crop(src, dst, rect, 1, &fence), ERR_NOT_IMPLEMENTED);
    EXPECT_EQ(op.resize(src, dst, 1.0, 1.0, 0, 1, &fence), ERR_NOT_IMPLEMENTED);
    EXPECT_EQ(op.cvtcolor(src, dst, 0, 0, 0, 1, &fence), ERR_NOT_IMPLEMENTED);
    EXPECT_EQ(op.rotate(src, dst, 90, 1, &fence), ERR_NOT_IMPLEMENTED);
    EXPECT_EQ(op.flip(src, dst, 0, 1, &fence), ERR_NOT_IMPLEMENTED);
    EXPECT_EQ(op.copy(src, dst, 1, &fence), ERR_NOT_IMPLEMENTED);
    EXPECT_EQ(op.process(src, dst, pat, rect, rect, rect, 0, &fence, 0), ERR_NOT_IMPLEMENTED);
    EXPECT_EQ(op.sync(3), ERR_NOT_IMPLEMENTED);
    EXPECT_EQ(fence, -1);

    const char* names[] = {"crop", "resize", "cvtcolor", "rotate",
                           "flip", "copy",   "process",  "sync"};
    auto records = log.records();
    ASSERT_EQ(records.size(), 8u) << log.dump();
    for (size_t i = 0; i < 8; ++i) {
        EXPECT_EQ(records[i].priority, ANDROID_LOG_ERROR);
        EXPECT_EQ(records[i].tag, kTag);
        EXPECT_EQ(records[i].message, std::string(names[i]) + " : Not implemented");
    }
}

TEST(NaxNoEngineTest, ImportWithoutEngineGivesZeroHandle) {
    NaxImageOperator op;
    unsigned int handle = 5;
    NaxImportBuffer(&op, FdImage(40, 64, 48, 0), &handle);
    EXPECT_EQ(handle, 0u);
}

TEST(NaxNoEngineTest, NothingIsHeldWithoutEngine) {
    NaxImageOperator op;
    LogCapture log;
    NaxBufferHold hold = op.holdBuffer(FdImage(40, 64, 48, 0));
    EXPECT_FALSE(hold.isValid());
    EXPECT_TRUE(log.contains(ANDROID_LOG_ERROR, "marlo_hdl",
                             "holdBuffer : Not implemented, fd 40 not held"));
}

TEST(NaxNoEngineTest, ControlStillWorks) {
    NaxImageOperator op;
    bool on = true;
    EXPECT_EQ(op.control("SetCacheHandle", &on), ERR_NOT_IMPLEMENTED);
    EXPECT_EQ(op.control("x", &on), ERR_FAILED);
}

TEST(NaxNoEngineTest, EntryPointRecordClosesTheLibraryItOwns) {
    // The record's owner closes the engine library when the process ends;
    // a library loaded by path shows the close without ending this process.
    {
        NaxOps ops;
        ops.library = dlopen(FAKE_ENGINE_PATH, RTLD_LAZY);
        ASSERT_NE(ops.library, nullptr) << dlerror();
        EXPECT_NE(dlopen(FAKE_ENGINE_PATH, RTLD_LAZY | RTLD_NOLOAD), nullptr);
        dlclose(ops.library);  // the probe's reference
    }
    EXPECT_EQ(dlopen(FAKE_ENGINE_PATH, RTLD_LAZY | RTLD_NOLOAD), nullptr);
}

TEST(NaxNoEngineTest, EntryPointRecordStartsEmpty) {
    NaxOps ops;
    EXPECT_EQ(ops.library, nullptr);
    EXPECT_EQ(ops.copy, nullptr);
    EXPECT_EQ(ops.process, nullptr);
    EXPECT_EQ(ops.importFd, nullptr);
    EXPECT_EQ(ops.releaseHandle, nullptr);
    EXPECT_EQ(ops.sync, nullptr);
}

}  // namespace
