// Reads and writes of files without a cache.
#include "Scenario.h"
#include "SimBench.h"

namespace Orvane {
namespace {

constexpr std::uint64_t kPage = SimFileModel::kPage;

ORVANE_SMALL_SCENARIO(UncachedRead, "One asynchronous read.") {
  SimFileModel& file = bench.NewFile(4 * kPage);
  SimSource& source = bench.NewSource(file);
  const SimRequest& read = source.Read(kPage, 2 * kPage);
  bench.Await(read);
}

ORVANE_SCENARIO(UncachedMixture, "Reads and writes, lists and buffers, past the end, cancelled.") {
  SimFileModel& file = bench.NewFile(8 * kPage);
  SimSource& source = bench.NewSource(file);
  for (int k = 0; k < 6; ++k) {
    const std::uint64_t offset = Simulator::Random(10) * kPage;
    const std::uint64_t pages = 1 + Simulator::Random(3);
    SimRequestForm form;
    form.pieces = 1 + Simulator::Random(pages);
    if (Simulator::Random(3) == 0) {
      source.Write(offset, pages * kPage, form);
    } else {
      source.Read(offset, pages * kPage, form);
    }
    if (Simulator::Random(5) == 0) source.Cancel();
  }
  bench.AwaitAll();
}

ORVANE_SCENARIO(CachedMixture, "Reads through a small cache beside writes and invalidations.") {
  SimFileModel& file = bench.NewFile(8 * kPage);
  Cache* const cache = bench.NewCache(kPage, 3);
  SimSource& source = bench.NewSource(file, cache);
  for (int k = 0; k < 6; ++k) {
    const std::uint64_t offset = Simulator::Random(10 * kPage);
    const std::uint64_t size = 1 + Simulator::Random(3 * kPage);
    SimRequestForm form;
    form.pieces = 1 + Simulator::Random(3);
    form.anywhere = true;
    switch (Simulator::Random(8)) {
      case 0:
        source.Write(offset / kPage * kPage, kPage);
        break;
      case 1:
        source.Invalidate(offset, size);
        break;
      case 2:
        source.PreRead(offset, size);
        break;
      case 3:
        source.ReadNow(offset, size, form);
        break;
      default:
        source.Read(offset, size, form);
        break;
    }
    if (Simulator::Random(8) == 0) source.Cancel();
  }
  bench.AwaitAll();
}

}  // namespace
}  // namespace Orvane
