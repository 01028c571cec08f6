// More readers than the cache has blocks.
#include <string>

#include "OrvaneRunners.h"
#include "Sizes.h"
#include "Suite.h"
#include "TestFile.h"

namespace bench {

void AddShortageWorks(Suite* suite, const TestFile& file) {
  constexpr unsigned kBlocks = 16;
  Work work{"misses of 4 KiB through " + std::to_string(kBlocks) + " blocks", "reads", 0, {}, {}};
  CachedJob job{{file.GetName(), 4 * kKiB}, {4 * kKiB, kBlocks}};
  job.offsets = RandomOffsets(file.GetSize(), job.itemBytes, 5000);
  work.items = job.offsets.size();
  const auto name = [](unsigned readers) { return std::to_string(readers) + " readers"; };
  for (const unsigned readers : {kBlocks, 4 * kBlocks, 16 * kBlocks}) {
    job.depth = readers;
    work.contenders.push_back({name(readers), [job] { return NewOrvaneAsync(job); }});
    if (readers == kBlocks) continue;
    work.aims.push_back({"P15", name(readers), {name(kBlocks)}, Measure::kRate, true, 0.9});
  }
  suite->works.push_back(work);
}

}  // namespace bench
