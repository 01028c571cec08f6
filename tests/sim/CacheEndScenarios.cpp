// Sources and caches that are given up while they are used.
#include <memory>
#include <new>
#include <utility>

#include "CacheScenarioTools.h"
#include "OwnRead.h"
#include "Scenario.h"
#include "SimBench.h"

namespace Orvane {
namespace {

constexpr const char* kFile = "tests/sim/CacheEndScenarios";
constexpr std::uint64_t kPage = SimFileModel::kPage;

ORVANE_SCENARIO(AllGivenUpBesideARead, "Source and cache go as soon as a read has started.") {
  SimFileModel& file = bench.NewFile(2 * kPage);
  Cache* const cache = bench.NewCache(kPage, 2);
  SimSource& source = bench.NewSource(file, cache);
  const SimRequest& read = source.Read(0, 2 * kPage);
  source.Release();
  bench.ReleaseCache(cache);
  bench.Await(read);
}

ORVANE_SCENARIO(AllGivenUpInAReport, "The report of a read gives up source and cache.") {
  SimFileModel& file = bench.NewFile(2 * kPage);
  Cache* const cache = bench.NewCache(kPage, 2);
  SimSource& source = bench.NewSource(file, cache);
  SimRequest& read = source.Read(0, 16, ThenDo([&source, &bench](SimRequest&) {
                                   bench.ReleaseCache(source.GetCache());
                                   source.Release();
                                 }));
  bench.Await(read);
}

ORVANE_SCENARIO(CancelGivesUpTheCache,
                "A report that only a cancel can bring gives up source and cache.") {
  SimFileModel& file = bench.NewFile(kPage);
  Cache* const cache = bench.NewCache(kPage, 2);
  SimSource& source = bench.NewSource(file, cache);
  SimulatedFiles::SetHanging(file.Name(), true);
  // Writes pass the cache by: nothing of it holds it for their sake.
  SimRequestForm form = ThenDo([&source, &bench, cache](SimRequest& request) {
    if (request.Result() != CacheSource::kResultFailed) return;
    bench.ReleaseCache(cache);
    source.Release();
  });
  form.anywhere = false;
  source.Write(0, kPage, std::move(form));
  if (Simulator::Random(2) == 0) {
    source.Cancel();
  } else {
    source.Close();
  }
  Simulator::Settle();
}

ORVANE_SMALL_SCENARIO(AllGivenUpBesideAPreRead, "Source and cache go while a block is filled.") {
  EveryOrder::NotYet();
  SimFileModel& file = bench.NewFile(2 * kPage);
  Cache* const cache = bench.NewCache(kPage, 2);
  SimSource& source = bench.NewSource(file, cache);
  const EveryOrder everyOrder;
  source.PreRead(0, 2 * kPage);
  source.Release();
  bench.ReleaseCache(cache);
}

ORVANE_SCENARIO(GivenUpWithManyReads,
                "Reads of two sources are under way when all is given up, by two threads.") {
  Cache* const cache = bench.NewCache(kPage, 2);
  SimSource& first = bench.NewSource(bench.NewFile(4 * kPage), cache);
  SimSource& second = bench.NewSource(bench.NewFile(4 * kPage), cache);
  const auto use = [](SimSource& source) {
    for (std::uint64_t k = 0; k < 2; ++k) {
      source.Read(k * kPage + Simulator::Random(kPage), 2 * kPage, AnywhereInPieces(2));
      if (Simulator::Random(2) == 0) source.PreRead((k + 2) * kPage, kPage);
      if (Simulator::Random(3) == 0) source.Write(Simulator::Random(4) * kPage, kPage);
    }
    source.Release();
  };
  Crew crew;
  crew.Start([&use, &first] { use(first); });
  bench.ReleaseCache(cache);
  use(second);
  crew.Join();
  bench.AwaitAll();
}

ORVANE_SCENARIO(GivenUpOnTheIOThread,
                "Reports of an uncached file give up other files and their caches.") {
  SimSource& uncached = bench.NewSource(bench.NewFile(2 * kPage));
  for (std::uint64_t k = 0; k < 2; ++k) {
    Cache* const cache = bench.NewCache(kPage, 2);
    SimSource& source = bench.NewSource(bench.NewFile(3 * kPage), cache);
    if (Simulator::Random(2) == 0) source.Read(0, 2 * kPage);
    if (Simulator::Random(2) == 0) source.PreRead(kPage, 2 * kPage);
    if (Simulator::Random(2) == 0) source.Write(2 * kPage, kPage);
    SimRequestForm form = ThenDo([&source, &bench](SimRequest&) {
      bench.ReleaseCache(source.GetCache());
      source.Release();
    });
    form.anywhere = false;
    uncached.Read(k * kPage, kPage, std::move(form));
  }
  bench.AwaitAll();
}

ORVANE_SCENARIO(CancelledAndGivenUpInReports,
                "A report cancels what else there is, then gives up the source.") {
  Cache* const cache = bench.NewCache(kPage, 3);
  SimSource& source = bench.NewSource(bench.NewFile(4 * kPage), cache);
  bench.ReleaseCache(cache);
  const auto end = [&source](SimRequest&) {
    if (source.IsReleased()) return;
    switch (Simulator::Random(3)) {
      case 0:
        source.Cancel();
        break;
      case 1:
        source.Close();
        break;
      default:
        source.Purge();
        break;
    }
    if (!source.IsReleased()) source.Release();
  };
  SimRequestForm hit = ThenDo(end);
  SimRequestForm miss = ThenDo(end);
  const bool fromMemory = Simulator::Random(2) == 0;
  if (fromMemory) source.ReadNow(0, kPage);
  source.Read(2 * kPage, 24, AnywhereInPieces(1));
  source.PreRead(3 * kPage, kPage);
  if (fromMemory) {
    source.Read(8, 24, std::move(hit));
  } else {
    source.Read(kPage, kPage, std::move(miss));
  }
  bench.AwaitAll();
}

// One reference.
struct FactoryRelease {
  void operator()(BufferFactory* factory) const { factory->DecRef(kFile, "FactoryRelease", 0); }
};
using FactoryHold = std::unique_ptr<BufferFactory, FactoryRelease>;

FactoryHold NewFactory(std::size_t buffers) {
  try {
    FactoryHold factory(new BufferFactoryPhysMem);
    if (factory->Initialize(kPage, buffers, buffers, 0)) return factory;
  } catch (const std::bad_alloc&) {
    // Short of memory.
  }
  if (Simulator::GetFaults() == 0) Simulator::Fail("a factory cannot be made");
  throw SimSetupFailed();
}

Cache* NewCacheOver(BufferFactory* factory) {
  try {
    return new Cache(factory);
  } catch (...) {
    if (Simulator::GetFaults() == 0) Simulator::Fail("a cache cannot be made");
    return nullptr;
  }
}

// A buffer that the device still writes into is not lent to another cache.
ORVANE_SCENARIO(CacheEndsBeforeItsReads,
                "A cache goes while reads of a source that is not its own fill its blocks.") {
  constexpr std::size_t kBuffers = 5;
  const FactoryHold factory = NewFactory(kBuffers);
  SimFileModel& file = bench.NewFile(5 * kPage);
  SimSource& source = bench.NewSource(file);
  SimSource& other = bench.NewSource(bench.NewFile(4 * kPage));
  OwnReads reads;
  const bool hangs = Simulator::Random(2) == 0;
  if (hangs) SimulatedFiles::SetHanging(file.Name(), true);
  if (Cache* const cache = NewCacheOver(factory.get())) {
    reads.Start(cache, source, 0, 2 * kPage);
    reads.Start(cache, source, kPage + 5, 100);
    reads.Start(cache, source, 4 * kPage, 2 * kPage);
    for (std::uint64_t steps = Simulator::Random(100); steps > 0; --steps) Simulator::Step();
    // A cache that had no memory for all of its blocks asks for a free one for as long as they
    // hang.
    if (!hangs && Simulator::Random(4) == 0) Simulator::Settle();
    cache->DecRef(kFile, "CacheEndsBeforeItsReads", __LINE__);
    reads.RequireOver("its cache was destroyed");
  }
  if (Cache* const cache = NewCacheOver(factory.get())) {
    reads.Start(cache, other, 0, 2 * kPage);
    SimulatedFiles::SetHanging(file.Name(), false);
    reads.Start(cache, other, 2 * kPage + 9, kPage);
    if (Simulator::Random(2) == 0) source.Cancel();
    if (Simulator::Random(2) == 0) Simulator::WaitUntil([&reads] { return reads.AreOver(); });
    cache->DecRef(kFile, "CacheEndsBeforeItsReads", __LINE__);
    reads.RequireOver("its cache was destroyed");
  }
  SimulatedFiles::SetHanging(file.Name(), false);
  Simulator::Settle();
  if (factory->GetNumberOfBuffersFree() != kBuffers) Simulator::Fail("a buffer was not given back");
}

ORVANE_SCENARIO(CacheGivenUpOnTheIOThread,
                "A report on the I/O thread destroys a cache over reads that are under way.") {
  const FactoryHold factory = NewFactory(3);
  SimSource& source = bench.NewSource(bench.NewFile(4 * kPage));
  OwnReads reads;
  Cache* cache = NewCacheOver(factory.get());
  if (!cache) return;
  const auto giveUp = [&cache] {
    if (cache) std::exchange(cache, nullptr)->DecRef(kFile, "CacheGivenUpOnTheIOThread", __LINE__);
  };
  reads.Start(cache, source, 0, 2 * kPage);
  reads.Start(cache, source, 2 * kPage, 100);
  SimRequestForm form = ThenDo([&giveUp](SimRequest&) { giveUp(); });
  form.anywhere = false;
  source.Read(3 * kPage, kPage, std::move(form));
  Simulator::Settle();
  giveUp();  // if the read was refused
}

}  // namespace
}  // namespace Orvane
