#pragma once

#include "MTPrimitives.h"

namespace Orvane {

// An atomic pointer over the host's 64-bit counter, whose narrowed success report it inherits.
class MTAtomicPointerGeneric : public MTAtomicPointer {
 public:
  // Takes over `bits`, which holds the bits of `initial`.
  MTAtomicPointerGeneric(void* initial, MTAtomicUnsigned64* bits)
      : MTAtomicPointer(initial), bits_(bits) {}
  ~MTAtomicPointerGeneric() override { delete bits_; }

  void* Get() override {
    return reinterpret_cast<void*>(static_cast<std::uintptr_t>(bits_->Get()));
  }
  bool CompareAndSwap(void* expected, void* desired) override {
    return bits_->CompareAndSwap(reinterpret_cast<std::uintptr_t>(expected),
                                 reinterpret_cast<std::uintptr_t>(desired));
  }

 private:
  MTAtomicUnsigned64* const bits_;
};

}  // namespace Orvane
