/*
 * The engine's log lines, under its own tag.
 */
#pragma once

#include <android/log.h>

#define NAX_LOG_TAG "nax_sw"
#define NAX_LOGE(...) __android_log_print(ANDROID_LOG_ERROR, NAX_LOG_TAG, __VA_ARGS__)
#define NAX_LOGW(...) __android_log_print(ANDROID_LOG_WARN, NAX_LOG_TAG, __VA_ARGS__)
#define NAX_LOGV(...) __android_log_print(ANDROID_LOG_VERBOSE, NAX_LOG_TAG, __VA_ARGS__)
