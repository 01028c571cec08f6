// The counters of a cache beside its work.
#include "Scenario.h"
#include "SimBench.h"

namespace Orvane {
namespace {

constexpr std::uint64_t kPage = SimFileModel::kPage;

std::uint32_t CountAll(Cache* cache) {
  return cache->GetCacheHits() + cache->GetCacheMisses() + cache->GetCacheDirectReads() +
         cache->GetCachePreReads();
}

ORVANE_SCENARIO(CacheCounters, "Counters grow while they are looked at, and begin again at 0.") {
  SimFileModel& file = bench.NewFile(8 * kPage);
  Cache* const cache = bench.NewCache(kPage, 3);
  SimSource& source = bench.NewSource(file, cache);
  cache->CollectCacheStats(true);
  std::uint32_t last = 0;
  for (int k = 0; k < 5; ++k) {
    source.Read(Simulator::Random(8) * kPage, kPage);
    const std::uint32_t count = CountAll(cache);
    if (count < last) Simulator::Fail("a counter has shrunk");
    last = count;
  }
  bench.AwaitAll();
  Simulator::Settle();
  if (Simulator::GetFaults() == 0 && CountAll(cache) < 5) Simulator::Fail("reads are not counted");
  cache->ResetCacheStats();
  if (CountAll(cache) != 0) Simulator::Fail("counters do not begin again");
  cache->CollectCacheStats(false);
  source.Read(0, kPage);
  bench.AwaitAll();
  if (CountAll(cache) != 0) Simulator::Fail("it counts while it is off");
}

}  // namespace
}  // namespace Orvane
