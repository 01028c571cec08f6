// What the primitives do not offer directly, over the installed implementation.
#pragma once

#include "MTPrimitives.h"

namespace Orvane {

// Stores `value`; answers what was there before. A full barrier, as every operation of the value.
inline std::uint32_t AtomicExchange(MTAtomicUnsigned32* target, std::uint32_t value) {
  for (;;) {
    const std::uint32_t seen = target->Get();
    if (target->CompareAndSwap(seen, value)) return seen;
  }
}

}  // namespace Orvane
