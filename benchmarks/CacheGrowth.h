#pragma once

namespace bench {

// Registers what a hit and a miss of caches of several sizes cost, and what a queued command costs
// when many are queued.
void RegisterCacheGrowth();

// Registers what a cache of 262,144 blocks costs before it is used, and what one costs that has
// nothing to do.
void RegisterCacheFootprint();

}  // namespace bench
