// Due times and stamps, extended past the wrap of the millisecond clock.
#pragma once

#include <cstdint>

#include "MTInterface.h"

namespace Orvane {

// One reading of the clock.
struct CacheTime {
  std::uint64_t micro;

  static CacheTime Now() { return {MTInterface::GetCurrentTimeMicro()}; }
  // Milliseconds that do not wrap; the low 32 bits are what GetCurrentTimeMilli answers.
  std::uint64_t Milli() const { return micro / 1000; }
  // The due time as milliseconds that do not wrap: the moment within 24.8 days of this one, before
  // or after, that has these low 32 bits. At least 1, since 0 means none.
  std::uint64_t Extend(std::uint32_t dueTime) const {
    const auto difference =
        static_cast<std::int32_t>(dueTime - static_cast<std::uint32_t>(Milli()));
    const std::int64_t moment = static_cast<std::int64_t>(Milli()) + difference;
    return moment < 1 ? 1 : static_cast<std::uint64_t>(moment);
  }
};

}  // namespace Orvane
