/*
 * The engine library's entry points as the operator resolves them. Only the
 * operator's source and its tests see the engine's types.
 */
#pragma once

#include <nax/nax.h>

namespace tessaro::marlo {

/*
 * The operation entry points are C++ functions in the engine library, so
 * they are found by the names their signatures mangle to.
 */
namespace detail {
inline constexpr char kNaxResizeSymbol[] = "_Z10nax_resize10nax_bufferS_ddiiPi";
inline constexpr char kNaxCropSymbol[] = "_Z8nax_crop10nax_bufferS_8nax_rectiPi";
inline constexpr char kNaxCvtcolorSymbol[] = "_Z12nax_cvtcolor10nax_bufferS_iiiiPi";
inline constexpr char kNaxRotateSymbol[] = "_Z10nax_rotate10nax_bufferS_iiPi";
inline constexpr char kNaxFlipSymbol[] = "_Z8nax_flip10nax_bufferS_iiPi";
inline constexpr char kNaxCopySymbol[] = "_Z8nax_copy10nax_bufferS_iPi";
inline constexpr char kNaxProcessSymbol[] =
    "_Z11nax_process10nax_bufferS_S_8nax_rectS0_S0_iPiP7nax_opti";
}  // namespace detail

/* Every entry is null until resolved, so a missing one reads as "absent". */
struct NaxOps {
    NaxOps() = default;
    /* Closes the engine library; the record lives until the process exits. */
    ~NaxOps();

    NaxOps(const NaxOps&) = delete;
    NaxOps& operator=(const NaxOps&) = delete;

    decltype(&::nax_resize) resize = nullptr;
    decltype(&::nax_crop) crop = nullptr;
    decltype(&::nax_cvtcolor) cvtcolor = nullptr;
    decltype(&::nax_rotate) rotate = nullptr;
    decltype(&::nax_flip) flip = nullptr;
    decltype(&::nax_copy) copy = nullptr;
    decltype(&::nax_process) process = nullptr;
    decltype(&::nax_wrap_handle) wrapHandle = nullptr;
    decltype(&::nax_wrap_fd) wrapFd = nullptr;
    decltype(&::nax_wrap_paddr) wrapPaddr = nullptr;
    decltype(&::nax_wrap_vaddr) wrapVaddr = nullptr;
    decltype(&::nax_import_fd) importFd = nullptr;
    decltype(&::nax_import_paddr) importPaddr = nullptr;
    decltype(&::nax_import_vaddr) importVaddr = nullptr;
    decltype(&::nax_release_handle) releaseHandle = nullptr;
    decltype(&::nax_sync) sync = nullptr;
    void* library = nullptr;
};

}  // namespace tessaro::marlo
