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

}  // namespace
}  // namespace Orvane
