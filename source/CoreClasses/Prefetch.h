// Memory that is going to be used soon.
#pragma once

#include <cstddef>

namespace Orvane {

// Starts to fetch the object from memory, without waiting for it: a hint, the object may be gone.
inline void Prefetch(const void* object, std::size_t size) {
#if defined(__GNUC__)
  constexpr std::size_t kCacheLine = 64;
  const char* const bytes = static_cast<const char*>(object);
  for (std::size_t offset = 0; offset < size; offset += kCacheLine) {
    __builtin_prefetch(bytes + offset);
  }
  __builtin_prefetch(bytes + size - 1);
#else
  static_cast<void>(object);
  static_cast<void>(size);
#endif
}

}  // namespace Orvane
