/*
 * The engine library exports exactly what the operator looks up: the
 * operations by their mangled names, the buffer and sync entry points by
 * plain names.
 */
#include <gtest/gtest.h>

#include <dlfcn.h>

#include "imgproc/nax_ops.h"

namespace {

TEST(Exports, EveryEntryPointTheOperatorResolves) {
    void* lib = dlopen(NAX_LIBRARY_PATH, RTLD_LAZY | RTLD_LOCAL);
    ASSERT_NE(nullptr, lib) << dlerror();
    const char* names[] = {
        tessaro::marlo::detail::kNaxResizeSymbol,
        tessaro::marlo::detail::kNaxCropSymbol,
        tessaro::marlo::detail::kNaxCvtcolorSymbol,
        tessaro::marlo::detail::kNaxRotateSymbol,
        tessaro::marlo::detail::kNaxFlipSymbol,
        tessaro::marlo::detail::kNaxCopySymbol,
        tessaro::marlo::detail::kNaxProcessSymbol,
        "nax_wrap_handle",
        "nax_wrap_fd",
        "nax_wrap_paddr",
        "nax_wrap_vaddr",
        "nax_import_fd",
        "nax_import_paddr",
        "nax_import_vaddr",
        "nax_release_handle",
        "nax_sync",
    };
    for (const char* name : names)
        EXPECT_NE(nullptr, dlsym(lib, name)) << name;
    /* The software engine's own extension (nax_sw.h). */
    EXPECT_NE(nullptr, dlsym(lib, "nax_sw_set_job_threads"));
    /* Internals stay inside: the engine's own namespace is not exported. */
    EXPECT_EQ(nullptr, dlsym(lib, "_ZN3nax6RunJobERKNS_7SurfaceERKNS_4RectES2_S5_iNS_6FilterE"));
    dlclose(lib);
}

}  // namespace
