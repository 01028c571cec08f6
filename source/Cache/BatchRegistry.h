#pragma once

#include <memory>

#include "MTPrimitives.h"

namespace Orvane {

class DispatchedReadCallback;

// The batches of a cache whose source reads have not ended. Its lock is a leaf.
class BatchRegistry {
 public:
  BatchRegistry();

  void Add(DispatchedReadCallback* batch);
  // REQUIRES: it was added, and not removed yet.
  void Remove(DispatchedReadCallback* batch);
  // Orphans every batch.
  void OrphanAll();
  bool IsEmpty();

 private:
  DispatchedReadCallback* AcquireFirst();

  const std::unique_ptr<MTCritSec> lock_;
  DispatchedReadCallback* first_ ORVANE_GUARDED_BY(lock_) = nullptr;
};

}  // namespace Orvane
