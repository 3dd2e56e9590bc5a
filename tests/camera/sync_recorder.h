/*
 * Stand-ins for the platform's fence merge and wait, defined in the test
 * executable so that they replace the platform library's. While recording,
 * each merge and wait is noted. A recording started with Start() answers
 * each merge with a fresh eventfd, which the platform's wait sees as
 * signalled or not as asked; one started with StartPassThrough() hands every
 * merge to the platform library and notes its real answer. Waits always go
 * to the platform library. Outside a recording everything goes there.
 */
#pragma once

#include <string>
#include <vector>

namespace sync_recorder {

struct Merge {
    std::string name;
    int fd1;
    int fd2;
    int result;
    /* The other descriptors open on fd2's file at the merge: what fd2 may be a copy of. */
    std::vector<int> fd2Twins;
};

struct Wait {
    int fd;
    int timeoutMs;
    int result;
};

/* Starts recording; the merge results are readable (signalled) when \a signalled. */
void Start(bool signalled);
/* Starts recording the platform library's own merges. */
void StartPassThrough();
/* Stops recording and returns the merges seen since Start(). */
std::vector<Merge> Stop();
/* Merges recorded so far. */
size_t Count();
/* Waits recorded since the last start. */
std::vector<Wait> Waits();

}  // namespace sync_recorder
