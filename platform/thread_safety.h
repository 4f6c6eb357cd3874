// Lock discipline written into the code: clang's thread-safety analysis
// checks, at compile time, that a field marked as guarded is touched only
// with its lock held and that a lock is released on every path. Other
// compilers see empty macros.
#pragma once

#if defined(__clang__)
#define TESSEL_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define TESSEL_THREAD_ANNOTATION(x)
#endif

#define CAPABILITY(x) TESSEL_THREAD_ANNOTATION(capability(x))
#define SCOPED_CAPABILITY TESSEL_THREAD_ANNOTATION(scoped_lockable)
#define GUARDED_BY(x) TESSEL_THREAD_ANNOTATION(guarded_by(x))
#define PT_GUARDED_BY(x) TESSEL_THREAD_ANNOTATION(pt_guarded_by(x))
#define REQUIRES(...) TESSEL_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define EXCLUDES(...) TESSEL_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
#define ACQUIRE(...) TESSEL_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define RELEASE(...) TESSEL_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
#define TRY_ACQUIRE(...) TESSEL_THREAD_ANNOTATION(try_acquire_capability(__VA_ARGS__))
#define NO_THREAD_SAFETY_ANALYSIS TESSEL_THREAD_ANNOTATION(no_thread_safety_analysis)
