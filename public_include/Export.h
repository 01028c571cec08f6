// Marks what the library exports. Everything else is hidden, in the static library too.
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
