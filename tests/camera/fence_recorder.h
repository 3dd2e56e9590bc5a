/*
 * A fence backend for the fan-out of one camera (FrameFanOut::UseFences)
 * that notes each merge and wait while recording. A recording started with
 * start() answers each merge with a fresh eventfd, which the platform's
 * wait sees as signalled or not as asked; one started with
 * startPassThrough() hands every merge to the platform and notes its real
 * answer. Waits always go to the platform, and so does everything outside
 * a recording.
 */
#pragma once

#include <mutex>
#include <string>
#include <vector>

#include "camera/fence_backend.h"

class FenceRecorder : public tessaro::marlo::detail::FenceBackend {
  public:
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
    void start(bool signalled);
    /* Starts recording the platform's own merges. */
    void startPassThrough();
    /* Stops recording and returns the merges seen since the start. */
    std::vector<Merge> stop();
    /* Merges recorded so far. */
    size_t count();
    /* Waits recorded since the last start. */
    std::vector<Wait> waits();

    int merge(const char* name, int fd1, int fd2) override;
    int wait(int fd, int timeoutMs) override;

  private:
    void begin(bool passThrough, bool signalled);

    std::mutex mutex_;
    bool recording_ = false;
    bool passThrough_ = false;
    bool signalled_ = true;
    std::vector<Merge> merges_;
    std::vector<Wait> waits_;
};
