/*
 * The fd ownership sanitizer for a development machine: a real owner table.
 * A descriptor closed or handed over under the wrong owner is reported and,
 * at the default (fatal) level, aborts the process, as bionic does.
 */
#include <android/fdsan.h>
#include <android/log.h>

#include <errno.h>
#include <inttypes.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <atomic>
#include <mutex>
#include <unordered_map>

namespace {

struct OwnerTable {
    std::mutex mutex;
    std::unordered_map<int, uint64_t> owners;
};

OwnerTable& Table() {
    static OwnerTable* table = new OwnerTable();  // outlives static destructors
    return *table;
}

std::atomic<android_fdsan_error_level> g_level{ANDROID_FDSAN_ERROR_LEVEL_FATAL};

void ReportError(const char* what) {
    android_fdsan_error_level level = g_level.load();
    if (level == ANDROID_FDSAN_ERROR_LEVEL_DISABLED)
        return;
    __android_log_write(ANDROID_LOG_FATAL, "fdsan", what);
    if (level == ANDROID_FDSAN_ERROR_LEVEL_WARN_ONCE)
        g_level.store(ANDROID_FDSAN_ERROR_LEVEL_DISABLED);
    if (level == ANDROID_FDSAN_ERROR_LEVEL_FATAL)
        abort();
}

uint64_t OwnerLocked(OwnerTable& table, int fd) {
    auto it = table.owners.find(fd);
    return it == table.owners.end() ? 0 : it->second;
}

}  // namespace

extern "C" {

uint64_t android_fdsan_create_owner_tag(enum android_fdsan_owner_type type, uint64_t tag) {
    if (tag == 0)
        return 0;
    const uint64_t kTagMask = (uint64_t{1} << 56) - 1;
    return (static_cast<uint64_t>(type) << 56) | (tag & kTagMask);
}

void android_fdsan_exchange_owner_tag(int fd, uint64_t expected_tag, uint64_t new_tag) {
    if (fd < 0)
        return;
    OwnerTable& table = Table();
    uint64_t actual;
    {
        std::lock_guard<std::mutex> lock(table.mutex);
        actual = OwnerLocked(table, fd);
        if (actual == expected_tag) {
            if (new_tag == 0)
                table.owners.erase(fd);
            else
                table.owners[fd] = new_tag;
            return;
        }
    }
    char message[192];
    snprintf(message, sizeof(message),
             "failed to exchange ownership of file descriptor: fd %d is owned by 0x%" PRIx64
             ", was expected to be owned by 0x%" PRIx64,
             fd, actual, expected_tag);
    ReportError(message);
}

int android_fdsan_close_with_tag(int fd, uint64_t tag) {
    if (fd < 0) {
        errno = EBADF;
        return -1;
    }
    OwnerTable& table = Table();
    uint64_t actual;
    {
        std::lock_guard<std::mutex> lock(table.mutex);
        actual = OwnerLocked(table, fd);
        if (actual == tag)
            table.owners.erase(fd);
    }
    if (actual != tag) {
        char message[192];
        snprintf(message, sizeof(message),
                 "attempted to close file descriptor %d, expected to be owned by 0x%" PRIx64
                 ", actually owned by 0x%" PRIx64,
                 fd, tag, actual);
        ReportError(message);
    }
    return close(fd);
}

uint64_t android_fdsan_get_owner_tag(int fd) {
    OwnerTable& table = Table();
    std::lock_guard<std::mutex> lock(table.mutex);
    return OwnerLocked(table, fd);
}

enum android_fdsan_error_level android_fdsan_get_error_level(void) {
    return g_level.load();
}

enum android_fdsan_error_level android_fdsan_set_error_level(enum android_fdsan_error_level level) {
    return g_level.exchange(level);
}

}  // extern "C"
