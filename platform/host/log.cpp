/*
 * liblog for a development machine: one line per message on standard error,
 * in logcat's "threadtime" shape, plus a hook through which tests read the log.
 */
#include <android/log.h>
#include <marlo_host/hooks.h>

#include "hook_slot.h"

#include <errno.h>
#include <stdio.h>
#include <string.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include <atomic>

namespace {

using LogHookSlot = marlo_host::HookSlot<marlo_host_log_hook>;

LogHookSlot& Hook() {
    static LogHookSlot* slot = new LogHookSlot();  // outlives static destructors
    return *slot;
}

std::atomic<bool> g_to_stderr{true};

char PriorityLetter(int prio) {
    static const char kLetters[] = "??VDIWEFS";
    return prio >= 0 && prio <= ANDROID_LOG_SILENT ? kLetters[prio] : '?';
}

void WriteToStderr(int prio, const char* tag, const char* message) {
    struct timeval now;
    gettimeofday(&now, nullptr);
    struct tm local;
    localtime_r(&now.tv_sec, &local);
    char stamp[32];
    strftime(stamp, sizeof(stamp), "%m-%d %H:%M:%S", &local);

    // logcat shows a message without its trailing line breaks.
    size_t length = strlen(message);
    while (length > 0 && message[length - 1] == '\n')
        --length;

    fprintf(stderr, "%s.%03ld %5d %5ld %c %s: %.*s\n", stamp, now.tv_usec / 1000, getpid(),
            static_cast<long>(syscall(SYS_gettid)), PriorityLetter(prio), tag ? tag : "",
            static_cast<int>(length), message);
}

}  // namespace

extern "C" {

int __android_log_write(int prio, const char* tag, const char* text) {
    // Callers log a failure and then read errno, as liblog allows.
    int saved_errno = errno;
    if (text == nullptr)
        text = "";
    Hook().Call(prio, tag, text);
    if (g_to_stderr.load())
        WriteToStderr(prio, tag, text);
    errno = saved_errno;
    return 1;
}

int __android_log_vprint(int prio, const char* tag, const char* fmt, va_list ap) {
    char buffer[4096];
    if (fmt == nullptr)
        fmt = "";
    vsnprintf(buffer, sizeof(buffer), fmt, ap);
    return __android_log_write(prio, tag, buffer);
}

int __android_log_print(int prio, const char* tag, const char* fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    int result = __android_log_vprint(prio, tag, fmt, ap);
    va_end(ap);
    return result;
}

void marlo_host_set_log_hook(marlo_host_log_hook hook, void* ctx) {
    Hook().Set(hook, ctx);
}

void marlo_host_set_log_to_stderr(int enabled) {
    g_to_stderr.store(enabled != 0);
}

}  // extern "C"
