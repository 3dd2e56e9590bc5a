/*
 * Trace sections under the camera tag, shared by the capture node and the
 * camera-sharing classes: the name is formatted only while the tag is
 * enabled.
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

/* Opens a section named by \a fmt and \a args; the caller checked the tag. */
inline void BeginFormattedTrace(const char* fmt, va_list args)
    __attribute__((__format__(printf, 1, 0)));
inline void BeginFormattedTrace(const char* fmt, va_list args) {
    char* name = nullptr;
    int len = vasprintf(&name, fmt, args);
    atrace_begin_body(len >= 0 ? name : fmt);
    if (len >= 0)
        free(name);
}

/* Opens a section named by \a fmt; false when tracing is off (nothing opened). */
inline bool BeginCameraTrace(const char* fmt, ...) __attribute__((__format__(printf, 1, 2)));
inline bool BeginCameraTrace(const char* fmt, ...) {
    if (!CameraTraceEnabled())
        return false;
    va_list args;
    va_start(args, fmt);
    BeginFormattedTrace(fmt, args);
    va_end(args);
    return true;
}

inline void EndCameraTrace() {
    if (CameraTraceEnabled())
        atrace_end_body();
}

}  // namespace tessaro::marlo::detail
