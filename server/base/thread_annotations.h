// Clang's thread-safety attributes. The clang builds check them with -Wthread-safety (and
// -Wthread-safety-beta for the lock order); other compilers see nothing.
#pragma once

#if defined(__clang__)
#define VEKT_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define VEKT_THREAD_ANNOTATION(x)
#endif

#define CAPABILITY(x) VEKT_THREAD_ANNOTATION(capability(x))
#define SCOPED_CAPABILITY VEKT_THREAD_ANNOTATION(scoped_lockable)
#define GUARDED_BY(x) VEKT_THREAD_ANNOTATION(guarded_by(x))
#define PT_GUARDED_BY(x) VEKT_THREAD_ANNOTATION(pt_guarded_by(x))
#define ACQUIRED_AFTER(...) VEKT_THREAD_ANNOTATION(acquired_after(__VA_ARGS__))
#define ACQUIRED_BEFORE(...) VEKT_THREAD_ANNOTATION(acquired_before(__VA_ARGS__))
#define REQUIRES(...) VEKT_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define ACQUIRE(...) VEKT_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define RELEASE(...) VEKT_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
#define TRY_ACQUIRE(...) VEKT_THREAD_ANNOTATION(try_acquire_capability(__VA_ARGS__))
#define EXCLUDES(...) VEKT_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
#define ASSERT_CAPABILITY(x) VEKT_THREAD_ANNOTATION(assert_capability(x))
#define RETURN_CAPABILITY(x) VEKT_THREAD_ANNOTATION(lock_returned(x))
#define NO_THREAD_SAFETY_ANALYSIS VEKT_THREAD_ANNOTATION(no_thread_safety_analysis)
