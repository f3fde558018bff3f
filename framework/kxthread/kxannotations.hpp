// Clang's thread-safety annotations under our prefix; nothing with other compilers.
#pragma once

#if defined(__clang__)
#define KX_ANNOTATION(x) __attribute__((x))
#else
#define KX_ANNOTATION(x)
#endif

#define KX_CAPABILITY(name) KX_ANNOTATION(capability(name))
#define KX_SCOPED_CAPABILITY KX_ANNOTATION(scoped_lockable)
#define KX_GUARDED_BY(mutex) KX_ANNOTATION(guarded_by(mutex))
#define KX_REQUIRES(...) KX_ANNOTATION(requires_capability(__VA_ARGS__))
#define KX_EXCLUDES(...) KX_ANNOTATION(locks_excluded(__VA_ARGS__))
#define KX_ACQUIRE(...) KX_ANNOTATION(acquire_capability(__VA_ARGS__))
#define KX_RELEASE(...) KX_ANNOTATION(release_capability(__VA_ARGS__))
#define KX_TRY_ACQUIRE(...) KX_ANNOTATION(try_acquire_capability(__VA_ARGS__))
#define KX_ASSERT_CAPABILITY(x) KX_ANNOTATION(assert_capability(x))
#define KX_NO_THREAD_SAFETY_ANALYSIS KX_ANNOTATION(no_thread_safety_analysis)
