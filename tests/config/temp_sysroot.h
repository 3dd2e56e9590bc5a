/*
 * A temporary system root for one test: MARLO_SYSROOT points at it while the
 * object lives, so the library's fixed files (configuration, board model,
 * debug report) are the test's own.
 */
#pragma once

#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <string>

namespace marlo_test {

class TempSysroot {
  public:
    TempSysroot() {
        std::string pattern =
            (std::filesystem::temp_directory_path() / "marlo_sysroot_XXXXXX").string();
        char* made = mkdtemp(pattern.data());
        root_ = made != nullptr ? made : "";
        const char* previous = getenv("MARLO_SYSROOT");
        hadPrevious_ = previous != nullptr;
        if (hadPrevious_)
            previous_ = previous;
        setenv("MARLO_SYSROOT", root_.c_str(), 1);
    }

    ~TempSysroot() {
        if (hadPrevious_)
            setenv("MARLO_SYSROOT", previous_.c_str(), 1);
        else
            unsetenv("MARLO_SYSROOT");
        std::error_code ec;
        if (!root_.empty())
            std::filesystem::remove_all(root_, ec);
    }

    TempSysroot(const TempSysroot&) = delete;
    TempSysroot& operator=(const TempSysroot&) = delete;

    const std::string& root() const { return root_; }

    /* The relocated name of the fixed path \a path. */
    std::string path(const std::string& path) const { return root_ + path; }

    /* Writes \a content (bytes as given) to the fixed path \a path. */
    void write(const std::string& path, const std::string& content) const {
        std::filesystem::path full(root_ + path);
        std::filesystem::create_directories(full.parent_path());
        std::ofstream out(full, std::ios::binary | std::ios::trunc);
        out.write(content.data(), static_cast<std::streamsize>(content.size()));
    }

    void writeDefaultConfig(const std::string& xml) const {
        write("/vendor/etc/marlo_config.xml", xml);
    }
    void writeOverrideConfig(const std::string& xml) const {
        write("/vendor/etc/marlo_config_override.xml", xml);
    }
    void writeModel(const std::string& bytes) const { write("/proc/device-tree/model", bytes); }

    /* Content of the fixed path \a path; empty when it cannot be read. */
    std::string read(const std::string& path) const {
        std::ifstream in(root_ + path, std::ios::binary);
        return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    }

    bool exists(const std::string& path) const { return std::filesystem::exists(root_ + path); }

  private:
    std::string root_;
    std::string previous_;
    bool hadPrevious_ = false;
};

}  // namespace marlo_test
