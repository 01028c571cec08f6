// What the sanitizers are told about a world: the thread sanitizer sees the order that the
// simulated primitives make and nothing of the hand-over of control, so that it finds plain fields
// that threads share without a lock although one runs at a time.
#pragma once

#if defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define ORVANE_SIM_TSAN 1
#endif
#if __has_feature(address_sanitizer)
#define ORVANE_SIM_ASAN 1
#endif
#endif
#if defined(__SANITIZE_THREAD__) && !defined(ORVANE_SIM_TSAN)
#define ORVANE_SIM_TSAN 1
#endif
#if defined(__SANITIZE_ADDRESS__)
#define ORVANE_SIM_ASAN 1
#endif

#include <cstddef>

#if defined(ORVANE_SIM_TSAN)
#include <sanitizer/tsan_interface.h>
extern "C" {
void AnnotateIgnoreReadsBegin(const char* file, int line);
void AnnotateIgnoreReadsEnd(const char* file, int line);
void AnnotateIgnoreWritesBegin(const char* file, int line);
void AnnotateIgnoreWritesEnd(const char* file, int line);
void AnnotateBenignRaceSized(const char* file, int line, const volatile void* memory,
                             std::size_t size, const char* why);
}
#endif
#if defined(ORVANE_SIM_ASAN)
#include <sanitizer/asan_interface.h>
#include <sanitizer/lsan_interface.h>
#endif

namespace Orvane {

// What happened before Publish on an object has happened for who calls Observe on it.
inline void SimPublish([[maybe_unused]] void* object) {
#if defined(ORVANE_SIM_TSAN)
  __tsan_release(object);
#endif
}
inline void SimObserve([[maybe_unused]] void* object) {
#if defined(ORVANE_SIM_TSAN)
  __tsan_acquire(object);
#endif
}

// The simulator's own state is safe because one thread runs at a time.
inline void SimIgnoreBegin() {
#if defined(ORVANE_SIM_TSAN)
  AnnotateIgnoreReadsBegin(__FILE__, __LINE__);
  AnnotateIgnoreWritesBegin(__FILE__, __LINE__);
#endif
}
inline void SimIgnoreEnd() {
#if defined(ORVANE_SIM_TSAN)
  AnnotateIgnoreWritesEnd(__FILE__, __LINE__);
  AnnotateIgnoreReadsEnd(__FILE__, __LINE__);
#endif
}

class SimIgnoring {
 public:
  SimIgnoring() { SimIgnoreBegin(); }
  ~SimIgnoring() { SimIgnoreEnd(); }
  SimIgnoring(const SimIgnoring&) = delete;
  SimIgnoring& operator=(const SimIgnoring&) = delete;
};

inline void SimPoison([[maybe_unused]] const void* memory, [[maybe_unused]] std::size_t size) {
#if defined(ORVANE_SIM_ASAN)
  __asan_poison_memory_region(memory, size);
#endif
}
inline void SimUnpoison([[maybe_unused]] const void* memory, [[maybe_unused]] std::size_t size) {
#if defined(ORVANE_SIM_ASAN)
  __asan_unpoison_memory_region(memory, size);
#endif
}

// Memory from which others may be reached, as from a stack: what a run that failed leaves behind is
// meant to stay.
inline void SimKeepReachable([[maybe_unused]] void* memory, [[maybe_unused]] std::size_t size) {
#if defined(ORVANE_SIM_ASAN)
  __lsan_register_root_region(memory, size);
#endif
}

}  // namespace Orvane
