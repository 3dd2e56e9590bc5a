/*
 * Pieces every fuzzer of this folder shares: a private system root for the
 * library's fixed files, and a quiet log (each refused input would
 * otherwise print its error lines; MARLO_FUZZ_LOG=1 keeps them).
 */
#pragma once

#include <stdlib.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>

#include <marlo_host/hooks.h>

namespace marlo_fuzz {

/* Silences the log unless MARLO_FUZZ_LOG=1. */
inline void QuietLog() {
    const char* keep = getenv("MARLO_FUZZ_LOG");
    if (keep == nullptr || std::string(keep) != "1")
        marlo_host_set_log_to_stderr(0);
}

/*
 * A system root under the temporary directory for this process; the
 * library reads its configuration and board model from there. Removed at
 * exit.
 */
class Sysroot {
  public:
    Sysroot() {
        std::string pattern =
            (std::filesystem::temp_directory_path() / "marlo_fuzz_XXXXXX").string();
        if (mkdtemp(pattern.data()) == nullptr)
            abort();
        root_ = pattern;
        setenv("MARLO_SYSROOT", root_.c_str(), 1);
    }
    ~Sysroot() {
        std::error_code ec;
        std::filesystem::remove_all(root_, ec);
    }
    Sysroot(const Sysroot&) = delete;
    Sysroot& operator=(const Sysroot&) = delete;

    /* Writes \a size bytes to the fixed path \a path under the root. */
    void write(const std::string& path, const void* data, size_t size) const {
        std::filesystem::path file = root_ + path;
        std::filesystem::create_directories(file.parent_path());
        std::ofstream out(file, std::ios::binary | std::ios::trunc);
        out.write(static_cast<const char*>(data), static_cast<std::streamsize>(size));
        if (!out)
            abort();
    }

  private:
    std::string root_;
};

}  // namespace marlo_fuzz
