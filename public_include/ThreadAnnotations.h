// Clang's thread-safety annotations under the project's prefix; empty for other compilers.
// One build (preset `thread-safety`) turns every violation into an error.
#pragma once

#if defined(__clang__)
#define ORVANE_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define ORVANE_THREAD_ANNOTATION(x)
#endif

#define ORVANE_CAPABILITY(name) ORVANE_THREAD_ANNOTATION(capability(name))
#define ORVANE_SCOPED_CAPABILITY ORVANE_THREAD_ANNOTATION(scoped_lockable)
#define ORVANE_GUARDED_BY(lock) ORVANE_THREAD_ANNOTATION(guarded_by(lock))
#define ORVANE_PT_GUARDED_BY(lock) ORVANE_THREAD_ANNOTATION(pt_guarded_by(lock))
#define ORVANE_REQUIRES(...) ORVANE_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define ORVANE_EXCLUDES(...) ORVANE_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
#define ORVANE_ACQUIRE(...) ORVANE_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define ORVANE_RELEASE(...) ORVANE_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
#define ORVANE_NO_THREAD_SAFETY_ANALYSIS ORVANE_THREAD_ANNOTATION(no_thread_safety_analysis)
