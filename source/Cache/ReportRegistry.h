#pragma once

#include <cstdint>
#include <memory>

#include "MTPrimitives.h"

namespace Orvane {

// The reports of a cache that are on their way to callers: a request is over as soon as it is in
// here, and a cancel finds nothing of it any more, but its caller has yet to hear of it. Its lock
// is a leaf.
class ReportRegistry {
 public:
  // Part of whatever makes the report.
  class Entry {
   private:
    friend class ReportRegistry;
    Entry* previous_ = nullptr;
    Entry* next_ = nullptr;
    std::uint64_t number_ = 0;
    std::uint32_t sourceKey_ = 0;
  };

  // Stands for the reports that are about to be made in a block.
  class Pending {
   public:
    Pending(ReportRegistry* registry, std::uint32_t sourceKey) : registry_(registry) {
      registry_->Add(&entry_, sourceKey);
    }
    ~Pending() { registry_->Remove(&entry_); }
    Pending(const Pending&) = delete;
    Pending& operator=(const Pending&) = delete;

   private:
    ReportRegistry* const registry_;
    Entry entry_;
  };

  ReportRegistry();

  void Add(Entry* entry, std::uint32_t sourceKey);
  void Remove(Entry* entry);
  // Waits until all that are there now of the source were removed.
  void AwaitAllOf(std::uint32_t sourceKey);

 private:
  bool HasAnyUpTo(std::uint64_t number, std::uint32_t sourceKey);

  const std::unique_ptr<MTCritSec> lock_;
  Entry* first_ ORVANE_GUARDED_BY(lock_) = nullptr;
  std::uint64_t lastNumber_ ORVANE_GUARDED_BY(lock_) = 0;
};

}  // namespace Orvane
