// Whether a run went on undisturbed.
#pragma once

#include <cstdint>

#include "OrvaneSimulator.h"

namespace Orvane {

// Exact counts hold only where no call failed and no request can have waited too long in the queue,
// as happens when the clock jumps.
class SimCalm {
 public:
  bool Lasts() const {
    return Simulator::GetFaults() == 0 && Simulator::GetTimeMicro() - startMicro_ < kTooLongMicros;
  }

 private:
  static constexpr std::uint64_t kTooLongMicros = 10000000;

  const std::uint64_t startMicro_ = Simulator::GetTimeMicro();
};

}  // namespace Orvane
