// Clang thread-safety annotations. With clang and -Wthread-safety the compiler checks that every
// field marked GUARDED_BY is only touched with its mutex held; other compilers see empty macros.
#pragma once

#if defined(__clang__)
#define KT_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define KT_THREAD_ANNOTATION(x)
#endif

#define CAPABILITY(x) KT_THREAD_ANNOTATION(capability(x))
#define SCOPED_CAPABILITY KT_THREAD_ANNOTATION(scoped_lockable)
#define GUARDED_BY(x) KT_THREAD_ANNOTATION(guarded_by(x))
#define PT_GUARDED_BY(x) KT_THREAD_ANNOTATION(pt_guarded_by(x))
#define ACQUIRED_BEFORE(...) KT_THREAD_ANNOTATION(acquired_before(__VA_ARGS__))
#define ACQUIRED_AFTER(...) KT_THREAD_ANNOTATION(acquired_after(__VA_ARGS__))
#define REQUIRES(...) KT_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define EXCLUDES(...) KT_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
#define ACQUIRE(...) KT_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define RELEASE(...) KT_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
#define TRY_ACQUIRE(...) KT_THREAD_ANNOTATION(try_acquire_capability(__VA_ARGS__))
#define RETURN_CAPABILITY(x) KT_THREAD_ANNOTATION(lock_returned(x))
#define NO_THREAD_SAFETY_ANALYSIS KT_THREAD_ANNOTATION(no_thread_safety_analysis)
