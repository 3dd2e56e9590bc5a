/* Android libsync interface over the Linux sync_file requests. */
#pragma once

#ifdef __cplusplus
extern "C" {
#endif

/*
 * Merges the fences \a fd1 and \a fd2 into a new fence named \a name.
 * Returns the new descriptor, or -1 with errno set.
 */
int sync_merge(const char* name, int fd1, int fd2);

/*
 * Waits until \a fd signals, at most \a timeout milliseconds (-1: no limit).
 * Returns 0, or -1 with errno set (ETIME when the time ran out).
 */
int sync_wait(int fd, int timeout);

#ifdef __cplusplus
}
#endif
