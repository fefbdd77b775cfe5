#pragma once
// Annotations for clang's thread-safety analysis (-Wthread-safety): which lock guards which
// data, and which functions expect a lock held or not held. The clang preset turns violations
// into errors; other compilers see nothing.
//
// Use them with base::Mutex and base::MutexLock (base/mutex.hpp): libstdc++'s std::mutex carries
// no capability attributes, so the analysis cannot see it being locked.

#if defined(__clang__)
#define TAMSEL_THREAD_ANNOTATION_ATTRIBUTE(x) __attribute__((x))
#else
#define TAMSEL_THREAD_ANNOTATION_ATTRIBUTE(x)  // no-op
#endif

// A class whose objects are locks (a mutex).
#ifndef CAPABILITY
#define CAPABILITY(x) TAMSEL_THREAD_ANNOTATION_ATTRIBUTE(capability(x))
#endif

// A class that holds a lock for its lifetime (RAII).
#ifndef SCOPED_CAPABILITY
#define SCOPED_CAPABILITY TAMSEL_THREAD_ANNOTATION_ATTRIBUTE(scoped_lockable)
#endif

// The member is read and written only with the given lock held.
#ifndef GUARDED_BY
#define GUARDED_BY(x) TAMSEL_THREAD_ANNOTATION_ATTRIBUTE(guarded_by(x))
#endif

// What the pointer points to is used only with the given lock held (the pointer itself is not).
#ifndef PT_GUARDED_BY
#define PT_GUARDED_BY(x) TAMSEL_THREAD_ANNOTATION_ATTRIBUTE(pt_guarded_by(x))
#endif

// Lock order, for locks that are taken together.
#ifndef ACQUIRED_BEFORE
#define ACQUIRED_BEFORE(...) TAMSEL_THREAD_ANNOTATION_ATTRIBUTE(acquired_before(__VA_ARGS__))
#endif

#ifndef ACQUIRED_AFTER
#define ACQUIRED_AFTER(...) TAMSEL_THREAD_ANNOTATION_ATTRIBUTE(acquired_after(__VA_ARGS__))
#endif

// The caller must hold the lock(s) exclusively (or shared) when calling the function.
#ifndef REQUIRES
#define REQUIRES(...) TAMSEL_THREAD_ANNOTATION_ATTRIBUTE(requires_capability(__VA_ARGS__))
#endif

#ifndef REQUIRES_SHARED
#define REQUIRES_SHARED(...) \
  TAMSEL_THREAD_ANNOTATION_ATTRIBUTE(requires_shared_capability(__VA_ARGS__))
#endif

// The function takes the lock(s) and returns with them held.
#ifndef ACQUIRE
#define ACQUIRE(...) TAMSEL_THREAD_ANNOTATION_ATTRIBUTE(acquire_capability(__VA_ARGS__))
#endif

#ifndef ACQUIRE_SHARED
#define ACQUIRE_SHARED(...) \
  TAMSEL_THREAD_ANNOTATION_ATTRIBUTE(acquire_shared_capability(__VA_ARGS__))
#endif

// The function expects the lock(s) held and returns with them released.
#ifndef RELEASE
#define RELEASE(...) TAMSEL_THREAD_ANNOTATION_ATTRIBUTE(release_capability(__VA_ARGS__))
#endif

#ifndef RELEASE_SHARED
#define RELEASE_SHARED(...) \
  TAMSEL_THREAD_ANNOTATION_ATTRIBUTE(release_shared_capability(__VA_ARGS__))
#endif

// The function takes the lock(s) when it returns the given value (true for a try_lock).
#ifndef TRY_ACQUIRE
#define TRY_ACQUIRE(...) TAMSEL_THREAD_ANNOTATION_ATTRIBUTE(try_acquire_capability(__VA_ARGS__))
#endif

#ifndef TRY_ACQUIRE_SHARED
#define TRY_ACQUIRE_SHARED(...) \
  TAMSEL_THREAD_ANNOTATION_ATTRIBUTE(try_acquire_shared_capability(__VA_ARGS__))
#endif

// The caller must not hold the lock(s): the function takes them itself.
#ifndef EXCLUDES
#define EXCLUDES(...) TAMSEL_THREAD_ANNOTATION_ATTRIBUTE(locks_excluded(__VA_ARGS__))
#endif

// The function checks at run time that the lock is held; after it the analysis assumes so.
#ifndef ASSERT_CAPABILITY
#define ASSERT_CAPABILITY(x) TAMSEL_THREAD_ANNOTATION_ATTRIBUTE(assert_capability(x))
#endif

#ifndef ASSERT_SHARED_CAPABILITY
#define ASSERT_SHARED_CAPABILITY(x) TAMSEL_THREAD_ANNOTATION_ATTRIBUTE(assert_shared_capability(x))
#endif

// The function returns a reference to the given lock.
#ifndef RETURN_CAPABILITY
#define RETURN_CAPABILITY(x) TAMSEL_THREAD_ANNOTATION_ATTRIBUTE(lock_returned(x))
#endif

// Turns the analysis off for one function, for locking the analysis cannot follow. Say why
// beside each use.
#ifndef NO_THREAD_SAFETY_ANALYSIS
#define NO_THREAD_SAFETY_ANALYSIS TAMSEL_THREAD_ANNOTATION_ATTRIBUTE(no_thread_safety_analysis)
#endif
