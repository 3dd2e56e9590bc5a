/* Bionic's file-descriptor ownership sanitizer interface. */
#pragma once

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

enum android_fdsan_owner_type {
    ANDROID_FDSAN_OWNER_TYPE_GENERIC_00 = 0,
    ANDROID_FDSAN_OWNER_TYPE_GENERIC_FF = 255,
    ANDROID_FDSAN_OWNER_TYPE_FILE = 1,
    ANDROID_FDSAN_OWNER_TYPE_DIR = 2,
    ANDROID_FDSAN_OWNER_TYPE_UNIQUE_FD = 3,
    ANDROID_FDSAN_OWNER_TYPE_SQLITE = 4,
    ANDROID_FDSAN_OWNER_TYPE_FILEINPUTSTREAM = 5,
    ANDROID_FDSAN_OWNER_TYPE_FILEOUTPUTSTREAM = 6,
    ANDROID_FDSAN_OWNER_TYPE_RANDOMACCESSFILE = 7,
    ANDROID_FDSAN_OWNER_TYPE_PARCELFILEDESCRIPTOR = 8,
    ANDROID_FDSAN_OWNER_TYPE_ART_FDFILE = 9,
    ANDROID_FDSAN_OWNER_TYPE_DATAGRAMSOCKETIMPL = 10,
    ANDROID_FDSAN_OWNER_TYPE_SOCKETIMPL = 11,
    ANDROID_FDSAN_OWNER_TYPE_ZIPARCHIVE = 12,
};

enum android_fdsan_error_level {
    ANDROID_FDSAN_ERROR_LEVEL_DISABLED,
    ANDROID_FDSAN_ERROR_LEVEL_WARN_ONCE,
    ANDROID_FDSAN_ERROR_LEVEL_WARN_ALWAYS,
    ANDROID_FDSAN_ERROR_LEVEL_FATAL,
};

/* The type goes in the top byte, the tag in the low 56 bits. */
uint64_t android_fdsan_create_owner_tag(enum android_fdsan_owner_type type, uint64_t tag);

/* Moves \a fd from \a expected_tag to \a new_tag; a wrong expectation is an error. */
void android_fdsan_exchange_owner_tag(int fd, uint64_t expected_tag, uint64_t new_tag);

/* Closes \a fd, which must be owned by \a tag. */
int android_fdsan_close_with_tag(int fd, uint64_t tag);

uint64_t android_fdsan_get_owner_tag(int fd);

enum android_fdsan_error_level android_fdsan_get_error_level(void);
enum android_fdsan_error_level android_fdsan_set_error_level(enum android_fdsan_error_level level);

#ifdef __cplusplus
}
#endif
