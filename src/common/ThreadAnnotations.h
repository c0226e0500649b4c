#pragma once

// Lock annotations, checked by clang with -Wthread-safety and -Wthread-safety-beta; empty for
// every other compiler.
#if defined(__clang__)
#define KZ_THREAD_ATTRIBUTE(x) __attribute__((x))
#else
#define KZ_THREAD_ATTRIBUTE(x)
#endif

#define KZ_CAPABILITY(name) KZ_THREAD_ATTRIBUTE(capability(name))
#define KZ_SCOPED_CAPABILITY KZ_THREAD_ATTRIBUTE(scoped_lockable)
#define KZ_GUARDED_BY(lock) KZ_THREAD_ATTRIBUTE(guarded_by(lock))
#define KZ_REQUIRES(...) KZ_THREAD_ATTRIBUTE(requires_capability(__VA_ARGS__))
#define KZ_EXCLUDES(...) KZ_THREAD_ATTRIBUTE(locks_excluded(__VA_ARGS__))
#define KZ_ACQUIRE(...) KZ_THREAD_ATTRIBUTE(acquire_capability(__VA_ARGS__))
#define KZ_TRY_ACQUIRE(...) KZ_THREAD_ATTRIBUTE(try_acquire_capability(__VA_ARGS__))
#define KZ_RELEASE(...) KZ_THREAD_ATTRIBUTE(release_capability(__VA_ARGS__))
#define KZ_ACQUIRED_AFTER(...) KZ_THREAD_ATTRIBUTE(acquired_after(__VA_ARGS__))
#define KZ_NO_ANALYSIS KZ_THREAD_ATTRIBUTE(no_thread_safety_analysis)
