// A counter and its lock, shared by the snippets that check the analysis.
#include <marlo/base/mutex.h>

using tessaro::marlo::ConditionVariable;
using tessaro::marlo::Mutex;
using tessaro::marlo::MutexLocker;

struct Guarded {
    Mutex mutex;
    Mutex later MARLO_ACQUIRED_AFTER(mutex);
    ConditionVariable cond;
    int value MARLO_GUARDED_BY(mutex) = 0;

    void bump() MARLO_REQUIRES(mutex) { ++value; }
};
