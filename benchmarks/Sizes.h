#pragma once

#include <cstdint>
#include <string>

namespace bench {

inline constexpr std::uint64_t kKiB = 1024;
inline constexpr std::uint64_t kMiB = 1024 * kKiB;

// "64 KiB", "1 MiB".
inline std::string SizeText(std::uint64_t bytes) {
  return bytes % kMiB == 0 ? std::to_string(bytes / kMiB) + " MiB"
                           : std::to_string(bytes / kKiB) + " KiB";
}

}  // namespace bench
