// What compilers call by different names. ORVANE_EXPORT marks what the library exports: everything
// else is hidden, in the static library too.
#pragma once

#if defined(ORVANE_STATIC)
#define ORVANE_EXPORT
#elif defined(_WIN32)
#if defined(ORVANE_BUILDING)
#define ORVANE_EXPORT __declspec(dllexport)
#else
#define ORVANE_EXPORT __declspec(dllimport)
#endif
#else
#define ORVANE_EXPORT __attribute__((visibility("default")))
#endif

#if defined(_MSC_VER)
#define ORVANE_NO_INLINE __declspec(noinline)
#else
#define ORVANE_NO_INLINE __attribute__((noinline))
#endif
