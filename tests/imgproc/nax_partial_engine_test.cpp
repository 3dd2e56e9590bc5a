/*
 * The operator against engines that lack some entry points: each missing
 * symbol is reported once at resolution, and the operations that need it
 * report "Not implemented" instead of calling through a null entry.
 * Engine A lacks every odd entry in resolution order, engine B every even
 * one, so the two runs together cover each message.
 */
#include <android/log.h>

#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "fake_engine_client.h"
#include "imgproc/nax_ops.h"
#include "marlo/base/error.h"
#include "marlo/imgproc/nax_image_operator.h"
#include "support/log_capture.h"

using namespace tessaro::marlo;
using marlo_test::FdImage;
using marlo_test::LogCapture;
using marlo_test::NoImage;

namespace {

constexpr char kTag[] = "marlo_imgproc";
constexpr char kHdlTag[] = "marlo_hdl";

// Each engine has its own suite name, so CTest tells the two runs apart.
#if defined(PARTIAL_ENGINE_A)
#define PARTIAL_SUITE NaxPartialEngineATest
#else
#define PARTIAL_SUITE NaxPartialEngineBTest
#endif

/* (message before the loader's text, symbol the loader names) */
using Expected = std::pair<std::string, std::string>;

std::vector<Expected> ExpectedResolutionErrors() {
#if defined(PARTIAL_ENGINE_A)
    return {
        {"Failed to resolve symble nax_wrap_vaddr: ", "nax_wrap_vaddr"},
        {"Failed to resolve symble nax_wrap_fd : ", "nax_wrap_fd"},
        {"Failed to resolve symble nax_crop_t: ", detail::kNaxCropSymbol},
        {"Failed to resolve symble nax_rotete_t : ", detail::kNaxRotateSymbol},
        {"Failed to resolve symble nax_copy_t : ", detail::kNaxCopySymbol},
        {"Failed to resolve symble nax_import_fd : ", "nax_import_fd"},
        {"Failed to resolve symble nax_import_vaddr : ", "nax_import_vaddr"},
        {"Failed to resolve symble nax_release_handle : ", "nax_release_handle"},
    };
#else
    return {
        {"Failed to resolve symble nax_wrap_paddr: ", "nax_wrap_paddr"},
        {"Failed to resolve symble nax_reize_t : ", detail::kNaxResizeSymbol},
        {"Failed to resolve symble nax_cvtcolor_t : ", detail::kNaxCvtcolorSymbol},
        {"Failed to resolve symble nax_flip_t : ", detail::kNaxFlipSymbol},
        {"Failed to resolve symble nax_process_t : ", detail::kNaxProcessSymbol},
        {"Failed to resolve symble nax_import_paddr : ", "nax_import_paddr"},
        {"Failed to resolve symble nax_wrap_handle : ", "nax_wrap_handle"},
        // The sync entry reports with the release message.
        {"Failed to resolve symble nax_release_handle : ", "nax_sync"},
    };
#endif
}

class PARTIAL_SUITE : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_TRUE(engine_.loaded()) << "the partial fake engine is not the one loaded";
        engine_.reset();
    }

    marlo_test::FakeEngine engine_;
    ImageBuffer src_ = FdImage(40, 64, 48, 0);
    ImageBuffer dst_ = FdImage(41, 64, 48, 0);
    ImageRect rect_{};
    int fence_ = -1;
};

TEST_F(PARTIAL_SUITE, EachMissingSymbolIsReportedInResolutionOrder) {
    const auto& records = marlo_test::ResolutionLog::records();
    const auto expected = ExpectedResolutionErrors();
    ASSERT_EQ(records.size(), expected.size());
    for (size_t i = 0; i < expected.size(); ++i) {
        const auto& [prefix, symbol] = expected[i];
        EXPECT_EQ(records[i].priority, ANDROID_LOG_ERROR);
        EXPECT_EQ(records[i].tag, kTag);
        EXPECT_EQ(records[i].message.compare(0, prefix.size(), prefix), 0)
            << "expected \"" << prefix << "\" got \"" << records[i].message << "\"";
        // The loader's own text names the symbol that was looked up.
        EXPECT_NE(records[i].message.find("undefined symbol: " + symbol, prefix.size()),
                  std::string::npos)
            << records[i].message;
    }
}

#if defined(PARTIAL_ENGINE_A)

TEST_F(PARTIAL_SUITE, OperationsWithoutEntryAreNotImplemented) {
    NaxImageOperator op;
    LogCapture log;
    ImageBuffer pat = NoImage();
    EXPECT_EQ(op.crop(src_, dst_, rect_, 1, &fence_), ERR_NOT_IMPLEMENTED);
    EXPECT_EQ(op.rotate(src_, dst_, 90, 1, &fence_), ERR_NOT_IMPLEMENTED);
    EXPECT_EQ(op.copy(src_, dst_, 1, &fence_), ERR_NOT_IMPLEMENTED);
    // process is judged by the copy entry although its own is present.
    EXPECT_EQ(op.process(src_, dst_, pat, rect_, rect_, rect_, 1, &fence_, 0), ERR_NOT_IMPLEMENTED);
    EXPECT_TRUE(log.contains(ANDROID_LOG_ERROR, kTag, "crop : Not implemented"));
    EXPECT_TRUE(log.contains(ANDROID_LOG_ERROR, kTag, "rotate : Not implemented"));
    EXPECT_TRUE(log.contains(ANDROID_LOG_ERROR, kTag, "copy : Not implemented"));
    EXPECT_TRUE(log.contains(ANDROID_LOG_ERROR, kTag, "process : Not implemented"));
    EXPECT_TRUE(engine_.calls().empty());
}

TEST_F(PARTIAL_SUITE, MissingImportEntryLeavesTheBufferUnimported) {
    NaxImageOperator op;
    LogCapture log;
    EXPECT_EQ(op.flip(src_, dst_, 0, 1, &fence_), OK);
    EXPECT_EQ(log.count("nax_import_fd : Not implemented"), 2u);
    EXPECT_TRUE(log.contains(ANDROID_LOG_ERROR, kHdlTag, "nax_import_fd : Not implemented"));
    // No entry means no handle, reported as any failed import.
    EXPECT_EQ(log.count("import NAX handle failed 0"), 2u);
    EXPECT_TRUE(log.contains(ANDROID_LOG_ERROR, kHdlTag, "import NAX handle failed 0"));
    EXPECT_EQ(engine_.callNames(), std::vector<std::string>{"nax_flip"});
    EXPECT_EQ(engine_.callsOf("nax_flip").at(0).src.handle, 0u);
}

TEST_F(PARTIAL_SUITE, MissingReleaseEntryKeepsTheHandle) {
    NaxImageOperator op;
    LogCapture log;
    ImageBuffer physical = FdImage(-1, 16, 16, 0);
    physical.phyAddr = 0x9000;
    EXPECT_EQ(op.cvtcolor(physical, physical, 0, 0, 0, 1, &fence_), OK);
    EXPECT_EQ(engine_.callsOf("nax_import_paddr").size(), 2u);
    EXPECT_EQ(engine_.callsOf("nax_cvtcolor").at(0).src.handle, 1u);
    EXPECT_TRUE(log.contains(ANDROID_LOG_ERROR, kHdlTag,
                             "nax_release_handle : Not implemented, handle 1 kept"));
    EXPECT_TRUE(log.contains(ANDROID_LOG_ERROR, kHdlTag,
                             "nax_release_handle : Not implemented, handle 2 kept"));
}

TEST_F(PARTIAL_SUITE, WithoutTheReleaseEntryNothingIsHeld) {
    NaxImageOperator op;
    LogCapture log;
    ImageBuffer physical = FdImage(-1, 16, 16, 0);
    physical.phyAddr = 0x9000;
    NaxBufferHold hold = op.holdBuffer(physical);
    EXPECT_FALSE(hold.isValid());
    EXPECT_TRUE(engine_.calls().empty());
    EXPECT_TRUE(
        log.contains(ANDROID_LOG_ERROR, kHdlTag, "holdBuffer : Not implemented, fd -1 not held"));
}

TEST_F(PARTIAL_SUITE, MissingCpuImportIsReportedByName) {
    unsigned int handle = 9;
    LogCapture log;
    ImageBuffer cpu = FdImage(-1, 16, 16, 0);
    cpu.virAddr = 0x1000;
    NaxImportBuffer(nullptr, cpu, &handle);
    EXPECT_EQ(handle, 0u);
    EXPECT_TRUE(log.contains(ANDROID_LOG_ERROR, kHdlTag, "nax_import_vaddr : Not implemented"));
}

TEST_F(PARTIAL_SUITE, PresentEntriesStillWork) {
    NaxImageOperator op;
    EXPECT_EQ(op.resize(src_, dst_, 1.0, 1.0, 0, 1, &fence_), ERR_NOT_IMPLEMENTED);
    EXPECT_EQ(engine_.callsOf("nax_resize").size(), 1u);
    EXPECT_EQ(op.sync(4), OK);
    EXPECT_EQ(engine_.callsOf("nax_sync").size(), 1u);
}

#else  // PARTIAL_ENGINE_B

TEST_F(PARTIAL_SUITE, OperationsWithoutEntryAreNotImplemented) {
    NaxImageOperator op;
    LogCapture log;
    EXPECT_EQ(op.resize(src_, dst_, 1.0, 1.0, 0, 1, &fence_), ERR_NOT_IMPLEMENTED);
    EXPECT_EQ(op.cvtcolor(src_, dst_, 0, 0, 0, 1, &fence_), ERR_NOT_IMPLEMENTED);
    EXPECT_EQ(op.flip(src_, dst_, 0, 1, &fence_), ERR_NOT_IMPLEMENTED);
    EXPECT_EQ(op.sync(3), ERR_NOT_IMPLEMENTED);
    EXPECT_TRUE(log.contains(ANDROID_LOG_ERROR, kTag, "resize : Not implemented"));
    EXPECT_TRUE(log.contains(ANDROID_LOG_ERROR, kTag, "cvtcolor : Not implemented"));
    EXPECT_TRUE(log.contains(ANDROID_LOG_ERROR, kTag, "flip : Not implemented"));
    EXPECT_TRUE(log.contains(ANDROID_LOG_ERROR, kTag, "sync : Not implemented"));
    EXPECT_TRUE(engine_.calls().empty());
}

TEST_F(PARTIAL_SUITE, ProcessWithCopyButWithoutItsOwnEntryIsRefused) {
    NaxImageOperator op;
    LogCapture log;
    ImageBuffer pat = NoImage();
    EXPECT_EQ(op.process(src_, dst_, pat, rect_, rect_, rect_, 1, &fence_, 0), ERR_NOT_IMPLEMENTED);
    EXPECT_TRUE(log.contains(ANDROID_LOG_ERROR, kTag, "nax_process : Not implemented"));
    EXPECT_TRUE(engine_.calls().empty());
}

TEST_F(PARTIAL_SUITE, MissingWrapEntryGivesZeroedDescriptorsAndReleases) {
    NaxImageOperator op;
    LogCapture log;
    EXPECT_EQ(op.copy(src_, dst_, 1, &fence_), OK);
    EXPECT_EQ(log.count("nax_wrap_handle : Not implemented"), 2u);
    EXPECT_TRUE(log.contains(ANDROID_LOG_ERROR, kHdlTag, "nax_wrap_handle : Not implemented"));
    auto copy = engine_.callsOf("nax_copy").at(0);
    const nax_buffer_t zero{};
    EXPECT_EQ(memcmp(&copy.src, &zero, sizeof(zero)), 0);
    EXPECT_EQ(memcmp(&copy.dst, &zero, sizeof(zero)), 0);
    // The imported handles go back all the same.
    EXPECT_EQ(engine_.callsOf("nax_release_handle").size(), 2u);
    EXPECT_EQ(engine_.liveHandles(), 0u);
}

TEST_F(PARTIAL_SUITE, MissingPhysicalImportIsReportedByName) {
    unsigned int handle = 9;
    LogCapture log;
    ImageBuffer physical = FdImage(-1, 16, 16, 0);
    physical.phyAddr = 0x9000;
    NaxImportBuffer(nullptr, physical, &handle);
    EXPECT_EQ(handle, 0u);
    EXPECT_TRUE(log.contains(ANDROID_LOG_ERROR, kHdlTag, "nax_import_paddr : Not implemented"));
}

TEST_F(PARTIAL_SUITE, PresentEntriesStillWork) {
    NaxImageOperator op;
    EXPECT_EQ(op.crop(src_, dst_, rect_, 1, &fence_), OK);
    EXPECT_EQ(op.rotate(src_, dst_, 90, 1, &fence_), OK);
    EXPECT_EQ(engine_.callsOf("nax_crop").size(), 1u);
    EXPECT_EQ(engine_.callsOf("nax_rotate").size(), 1u);
}

#endif

}  // namespace
