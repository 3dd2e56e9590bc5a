/*
 * Test-side access to the fake engine library that the operator loaded, and
 * the log lines of the one-time entry-point resolution.
 */
#pragma once

#include <dlfcn.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "fake_nax.h"
#include "marlo/imgproc/nax_image_operator.h"
#include "support/log_capture.h"

namespace marlo_test {

/* Opens the same libnax.so the operator found and reaches its controls. */
class FakeEngine {
  public:
    FakeEngine() {
        lib_ = dlopen("libnax.so", RTLD_NOW);
        if (!lib_)
            return;
        reset_ = Find<fake_nax_reset_t>("fake_nax_reset");
        count_ = Find<fake_nax_call_count_t>("fake_nax_call_count");
        get_ = Find<fake_nax_get_call_t>("fake_nax_get_call");
        importResult_ = Find<fake_nax_set_import_result_t>("fake_nax_set_import_result");
        opResult_ = Find<fake_nax_set_op_result_t>("fake_nax_set_op_result");
        fence_ = Find<fake_nax_set_release_fence_t>("fake_nax_set_release_fence");
        live_ = Find<fake_nax_live_handles_t>("fake_nax_live_handles");
        if (reset_)
            reset_();
    }
    ~FakeEngine() {
        if (lib_)
            dlclose(lib_);
    }
    FakeEngine(const FakeEngine&) = delete;
    FakeEngine& operator=(const FakeEngine&) = delete;

    bool loaded() const {
        return lib_ && reset_ && count_ && get_ && importResult_ && opResult_ && fence_ && live_;
    }
    void* library() const { return lib_; }

    void reset() { reset_(); }
    void setImportResult(int64_t result) { importResult_(result); }
    void setOpResult(int result) { opResult_(result); }
    void setReleaseFence(int fence) { fence_(fence); }
    size_t liveHandles() const { return live_(); }

    std::vector<fake_nax_call> calls() const {
        std::vector<fake_nax_call> out(count_());
        for (size_t i = 0; i < out.size(); ++i)
            get_(i, &out[i]);
        return out;
    }
    std::vector<std::string> callNames() const {
        std::vector<std::string> names;
        for (const auto& call : calls())
            names.emplace_back(call.name);
        return names;
    }
    /* The calls of one entry, in order. */
    std::vector<fake_nax_call> callsOf(const std::string& name) const {
        std::vector<fake_nax_call> out;
        for (const auto& call : calls())
            if (name == call.name)
                out.push_back(call);
        return out;
    }

  private:
    template <typename T>
    T Find(const char* symbol) {
        return reinterpret_cast<T>(dlsym(lib_, symbol));
    }

    void* lib_ = nullptr;
    fake_nax_reset_t reset_ = nullptr;
    fake_nax_call_count_t count_ = nullptr;
    fake_nax_get_call_t get_ = nullptr;
    fake_nax_set_import_result_t importResult_ = nullptr;
    fake_nax_set_op_result_t opResult_ = nullptr;
    fake_nax_set_release_fence_t fence_ = nullptr;
    fake_nax_live_handles_t live_ = nullptr;
};

/*
 * The engine library is resolved once per process, by the first operator.
 * This environment makes that first operator before any test runs and keeps
 * what it logged, so the checks hold however the tests are selected.
 */
class ResolutionLog : public ::testing::Environment {
  public:
    void SetUp() override {
        LogCapture capture;
        tessaro::marlo::NaxImageOperator first;
        records_ = capture.records();
    }
    static const std::vector<LogRecord>& records() { return records_; }

  private:
    static inline std::vector<LogRecord> records_;
};

inline ::testing::Environment* const kResolutionLog =
    ::testing::AddGlobalTestEnvironment(new ResolutionLog);

/* An image in a dma-buf-like descriptor, with no CPU or physical address. */
inline tessaro::marlo::ImageBuffer FdImage(int fd, int width, int height, int format) {
    tessaro::marlo::ImageBuffer b{};
    b.cookie = 0;
    b.virAddr = 0;
    b.phyAddr = 0;
    b.fd = fd;
    b.width = width;
    b.height = height;
    b.wstride = width;
    b.hstride = height;
    b.format = format;
    return b;
}

/* A description that names no memory at all. */
inline tessaro::marlo::ImageBuffer NoImage() {
    tessaro::marlo::ImageBuffer b = FdImage(-1, 64, 48, 0);
    return b;
}

constexpr int Fourcc(char a, char b, char c, char d) {
    return static_cast<int>(static_cast<uint32_t>(static_cast<uint8_t>(a)) |
                            static_cast<uint32_t>(static_cast<uint8_t>(b)) << 8 |
                            static_cast<uint32_t>(static_cast<uint8_t>(c)) << 16 |
                            static_cast<uint32_t>(static_cast<uint8_t>(d)) << 24);
}

}  // namespace marlo_test
