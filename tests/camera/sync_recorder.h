/*
 * A stand-in for the platform's fence merge, defined in the test executable
 * so that it replaces the platform library's. While recording, each merge is
 * noted with its name bytes and arguments and answers a fresh eventfd, which
 * the platform's wait sees as signalled or not as asked; otherwise merges go
 * to the platform library.
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
};

/* Starts recording; the merge results are readable (signalled) when \a signalled. */
void Start(bool signalled);
/* Stops recording and returns the merges seen since Start(). */
std::vector<Merge> Stop();
/* Merges recorded so far. */
size_t Count();

}  // namespace sync_recorder
