#pragma once

#include <cstdint>
#include <memory>

#include "MTPrimitives.h"

namespace Orvane {

// Four counters that exist only while statistics are collected. The lock is a leaf; while nothing
// is collected nobody takes it.
class CacheStatistics {
 public:
  enum Counter { kHits, kMisses, kDirectReads, kPreReads, kCounterCount };

  CacheStatistics();
  ~CacheStatistics();

  // Makes the counters that are missing, with 0; or discards all.
  void Collect(bool on);
  void Reset();
  void Add(Counter counter, std::uint32_t count);
  // 0 while nothing is collected.
  std::uint32_t Get(Counter counter);

 private:
  const std::unique_ptr<MTCritSec> lock_;
  const std::unique_ptr<MTAtomicUnsigned32> collects_;  // 0 or 1; written with lock_
  bool exists_ ORVANE_GUARDED_BY(lock_) = false;
  std::uint32_t counts_[kCounterCount] ORVANE_GUARDED_BY(lock_) = {};
};

}  // namespace Orvane
