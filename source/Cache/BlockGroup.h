// What blocks of a cache share.
#pragma once

#include <memory>

#include "Cache/BlockQueue.h"
#include "MTPrimitives.h"
#include "OSServices/LockClass.h"

namespace Orvane {

class Cache;
class CacheBlockList;

// A lock for several blocks: a cache has many blocks, few of which are in use at once. Who holds
// the lock of one block never enters that of another, so it does not matter which of them share.
// Outlives its blocks.
struct BlockGroup {
  // `theCache` and `theList` may be null, in tests.
  BlockGroup(Cache* theCache, CacheBlockList* theList)
      : cache(theCache), list(theList), lock(NewCritSec(LockClass::kBlock)) {}

  Cache* const cache;
  CacheBlockList* const list;
  const std::unique_ptr<MTCritSec> lock;
  // For the next block of the group that needs one, or null.
  std::unique_ptr<BlockQueue> spareQueue ORVANE_GUARDED_BY(lock);
};

}  // namespace Orvane
