// Whether a run went on undisturbed.
#pragma once

#include <cstdint>

#include "OrvaneSimulator.h"

namespace Orvane {

// A request of a file that waited this long to be issued may fail: ten seconds by a clock that
// counts whole milliseconds, where the first and the last are not whole.
constexpr std::uint64_t kMostQueueMicros = 10000000 - 999;

// Exact counts hold only where no call failed and no request can have waited too long in the queue,
// as happens when the clock jumps.
class SimCalm {
 public:
  bool Lasts() const {
    return Simulator::GetFaults() == 0 &&
           Simulator::GetTimeMicro() - startMicro_ < kMostQueueMicros;
  }

 private:
  const std::uint64_t startMicro_ = Simulator::GetTimeMicro();
};

}  // namespace Orvane
