/*
 * Clang thread-safety annotations. They let the compiler check, with
 * -Wthread-safety, that every member marked MARLO_GUARDED_BY(m) is touched
 * only with m held and that functions marked MARLO_REQUIRES(m) are called
 * with it held. Other compilers see nothing.
 */
#ifndef MARLO_BASE_THREAD_ANNOTATIONS_H
#define MARLO_BASE_THREAD_ANNOTATIONS_H

#if defined(__clang__)
#define MARLO_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define MARLO_THREAD_ANNOTATION(x)
#endif

/* A type whose objects are capabilities (locks). */
#define MARLO_CAPABILITY(name) MARLO_THREAD_ANNOTATION(capability(name))
/* An RAII type that holds a capability for its lifetime. */
#define MARLO_SCOPED_CAPABILITY MARLO_THREAD_ANNOTATION(scoped_lockable)

/* The member is read or written only with the lock held. */
#define MARLO_GUARDED_BY(lock) MARLO_THREAD_ANNOTATION(guarded_by(lock))
/* What the pointer points at is read or written only with the lock held. */
#define MARLO_PT_GUARDED_BY(lock) MARLO_THREAD_ANNOTATION(pt_guarded_by(lock))

/* Lock order: this lock is taken after (before) the ones named. */
#define MARLO_ACQUIRED_AFTER(...) MARLO_THREAD_ANNOTATION(acquired_after(__VA_ARGS__))
#define MARLO_ACQUIRED_BEFORE(...) MARLO_THREAD_ANNOTATION(acquired_before(__VA_ARGS__))

/* The caller holds (does not hold) the locks named. */
#define MARLO_REQUIRES(...) MARLO_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define MARLO_EXCLUDES(...) MARLO_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))

/* The function takes (releases) the locks named, or the object's own. */
#define MARLO_ACQUIRE(...) MARLO_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define MARLO_RELEASE(...) MARLO_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
#define MARLO_TRY_ACQUIRE(...) MARLO_THREAD_ANNOTATION(try_acquire_capability(__VA_ARGS__))

/* The function returns a reference to the lock named. */
#define MARLO_RETURN_CAPABILITY(x) MARLO_THREAD_ANNOTATION(lock_returned(x))

/* Tells the analysis that the lock is held here; checks nothing at run time. */
#define MARLO_ASSERT_CAPABILITY(x) MARLO_THREAD_ANNOTATION(assert_capability(x))

/*
 * Turns the analysis off for one function whose locking it cannot follow.
 * Each use says why next to it.
 */
#define MARLO_NO_THREAD_SAFETY_ANALYSIS MARLO_THREAD_ANNOTATION(no_thread_safety_analysis)

#endif  // MARLO_BASE_THREAD_ANNOTATIONS_H
