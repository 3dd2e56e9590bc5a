/*
 * Trace sections of the camera-sharing classes: the name is formatted only
 * while the camera trace tag is enabled, and the section is opened and
 * closed under that same test.
 */
#pragma once

#include <cutils/trace.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>

namespace tessaro::marlo::detail {

inline bool CameraTraceEnabled() {
    return (atrace_get_enabled_tags() & ATRACE_TAG_CAMERA) != 0;
}

/* Opens a section named by \a fmt; false when tracing is off (nothing opened). */
inline bool BeginCameraTrace(const char* fmt, ...) __attribute__((__format__(printf, 1, 2)));
inline bool BeginCameraTrace(const char* fmt, ...) {
    if (!CameraTraceEnabled())
        return false;
    char* name = nullptr;
    va_list args;
    va_start(args, fmt);
    int len = vasprintf(&name, fmt, args);
    va_end(args);
    atrace_begin_body(len >= 0 ? name : fmt);
    if (len >= 0)
        free(name);
    return true;
}

inline void EndCameraTrace() {
    if (CameraTraceEnabled())
        atrace_end_body();
}

}  // namespace tessaro::marlo::detail
