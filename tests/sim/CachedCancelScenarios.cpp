// Cancelling, purging and closing while reads through a cache are under way.
#include "CacheScenarioTools.h"
#include "Scenario.h"
#include "SimBench.h"

namespace Orvane {
namespace {

constexpr std::uint64_t kPage = SimFileModel::kPage;

ORVANE_SMALL_SCENARIO(CancelBesideAHit, "A read of what is in memory is cancelled.") {
  EveryOrder::NotYet();
  SimFileModel& file = bench.NewFile(2 * kPage);
  SimSource& source = bench.NewSource(file, bench.NewCache(kPage, 1));
  source.ReadNow(0, kPage);
  const EveryOrder everyOrder;
  StartedRequests started;
  started.Add(source.Read(8, 16, AnywhereInPieces(1)));
  started.Cancel(source);
}

ORVANE_SMALL_SCENARIO(CancelBesideAMiss, "A read that fills a block is cancelled.") {
  EveryOrder::NotYet();
  SimFileModel& file = bench.NewFile(2 * kPage);
  SimSource& source = bench.NewSource(file, bench.NewCache(kPage, 1));
  const EveryOrder everyOrder;
  StartedRequests started;
  started.Add(source.Read(8, 16, AnywhereInPieces(1)));
  started.Cancel(source);
}

ORVANE_SCENARIO(TwoCancelsOfARead, "Two threads cancel the same read.") {
  SimFileModel& file = bench.NewFile(2 * kPage);
  SimSource& source = bench.NewSource(file, bench.NewCache(kPage, 1));
  StartedRequests started;
  started.Add(source.Read(0, kPage));
  Crew crew;
  crew.Start([&started, &source] { started.Cancel(source); });
  started.Cancel(source);
}

ORVANE_SMALL_SCENARIO(InvalidateBesideAHit, "What is being copied is forgotten, then cancelled.") {
  EveryOrder::NotYet();
  SimFileModel& file = bench.NewFile(kPage);
  SimSource& source = bench.NewSource(file, bench.NewCache(kPage, 1));
  source.ReadNow(0, kPage);
  const EveryOrder everyOrder;
  StartedRequests started;
  started.Add(source.Read(8, 16, AnywhereInPieces(1)));
  source.Invalidate(0, 1);
  started.Cancel(source);
}

// What an invalidation takes out of a block no cancel finds there any more.
ORVANE_SCENARIO(CancelBesideAnInvalidation,
                "Reads are failed by one thread, cancelled by another.") {
  SimFileModel& file = bench.NewFile(kPage);
  SimSource& source = bench.NewSource(file, bench.NewCache(kPage, 2));
  SimulatedFiles::SetHanging(file.Name(), true);
  StartedRequests started;
  started.Add(source.Read(0, 16, AnywhereInPieces(1)));
  started.Add(source.Read(64, 16, AnywhereInPieces(1)));
  Simulator::Settle();
  Crew crew;
  crew.Start([&source] { source.Invalidate(0, kPage); });
  started.Cancel(source);
  crew.Join();
  SimulatedFiles::SetHanging(file.Name(), false);
}

ORVANE_SCENARIO(CloseBesideARead, "A file is closed while it is read through a cache.") {
  SimFileModel& file = bench.NewFile(2 * kPage);
  SimSource& source = bench.NewSource(file, bench.NewCache(kPage, 2));
  StartedRequests started;
  Crew crew;
  crew.Start([&started, &source] { started.Add(source.Read(0, 2 * kPage)); });
  started.Close(source);
}

ORVANE_SCENARIO(CancelAmongAllStages,
                "Hits, misses, batches, waiting reads, pre-reads and writes are cancelled.") {
  SimFileModel& file = bench.NewFile(8 * kPage);
  SimSource& source = bench.NewSource(file, bench.NewCache(kPage, 3));
  source.ReadNow(0, 2 * kPage);
  StartedRequests started;
  Crew crew;
  crew.Start([&started, &source] {
    started.Add(source.Read(Simulator::Random(kPage), kPage, AnywhereInPieces(2)));  // hits
    started.Add(source.Read(2 * kPage + 1, 2 * kPage, AnywhereInPieces(3)));         // a batch
    started.Add(source.Read(2 * kPage + 9, 5, AnywhereInPieces(1)));                 // waits for it
    started.Add(source.Write(7 * kPage, kPage));
  });
  source.PreRead(5 * kPage, 2 * kPage);
  for (std::uint64_t k = 0; k < 4; ++k) {
    started.Add(source.Read((1 + 2 * k) * kPage, kPage));  // more than there are blocks
  }
  switch (Simulator::Random(3)) {
    case 0:
      started.Cancel(source);
      break;
    case 1:
      started.Purge(source);
      break;
    default:
      started.Close(source);
      break;
  }
  crew.Join();
  bench.AwaitAll();
}

ORVANE_SCENARIO(TwoThreadsCancel, "Two threads cancel, purge and close the same and other files.") {
  Cache* const cache = bench.NewCache(kPage, 4);
  SimSource& first = bench.NewSource(bench.NewFile(4 * kPage), cache);
  SimSource& second = bench.NewSource(bench.NewFile(4 * kPage), cache);
  StartedRequests started;
  const auto work = [&started](SimSource& reads, SimSource& ends) {
    for (int k = 0; k < 3; ++k) {
      started.Add(reads.Read(Simulator::Random(4 * kPage), kPage, AnywhereInPieces(1)));
      if (Simulator::Random(2) == 0) started.Cancel(Simulator::Random(2) == 0 ? reads : ends);
    }
    if (Simulator::Random(2) == 0) started.Purge(ends);
    if (Simulator::Random(8) == 0) started.Close(ends);
  };
  Crew crew;
  crew.Start([&work, &first, &second] { work(first, second); });
  crew.Start([&work, &second] { work(second, second); });
  work(second, first);
  crew.Join();
  bench.AwaitAll();
}

ORVANE_SCENARIO(CancelSparesOthers, "One file of a cache is cancelled; another's reads go on.") {
  Cache* const cache = bench.NewCache(kPage, 2);
  SimSource& cancelled = bench.NewSource(bench.NewFile(4 * kPage), cache);
  SimSource& spared = bench.NewSource(bench.NewFile(4 * kPage), cache);
  StartedRequests started;
  Crew crew;
  crew.Start([&spared] {
    for (std::uint64_t k = 0; k < 4; ++k) spared.Read(k * kPage, kPage / 2, AnywhereInPieces(1));
  });
  for (int k = 0; k < 3; ++k) {
    started.Add(cancelled.Read(Simulator::Random(4) * kPage, kPage));
    if (Simulator::Random(2) == 0) cancelled.PreRead(Simulator::Random(4) * kPage, kPage);
    Simulator::Step();
    started.Cancel(cancelled);
  }
  crew.Join();
  bench.AwaitAll();
}

// A copy may still be queued for a block that by then is another file's.
ORVANE_SCENARIO(CancelSparesWhoHasTheBlock, "A cancel meets the only block in other hands.") {
  Cache* const cache = bench.NewCache(kPage, 1);
  SimSource& cancelled = bench.NewSource(bench.NewFile(kPage), cache);
  SimSource& spared = bench.NewSource(bench.NewFile(kPage), cache);
  cancelled.ReadNow(0, kPage);
  StartedRequests started;
  Crew crew;
  crew.Start([&spared] { spared.Read(0, 16, AnywhereInPieces(1)); });
  started.Add(cancelled.Read(0, 16, AnywhereInPieces(1)));
  started.Add(cancelled.Read(32, 16, AnywhereInPieces(1)));
  started.Cancel(cancelled);
}

ORVANE_SCENARIO(CancelOfAHangingDevice, "A device hangs below a cache until it is cancelled.") {
  Cache* const cache = bench.NewCache(kPage, 3);
  SimFileModel& file = bench.NewFile(6 * kPage);
  SimSource& source = bench.NewSource(file, cache);
  SimSource& other = bench.NewSource(bench.NewFile(kPage), cache);
  SimulatedFiles::SetHanging(file.Name(), true);
  StartedRequests started;
  started.Add(source.Read(kPage / 2, kPage, AnywhereInPieces(2)));
  started.Add(source.Read(kPage / 2, kPage, AnywhereInPieces(1)));
  source.PreRead(3 * kPage, 2 * kPage);
  SimRequest& reached = other.Read(0, kPage);
  // Not until all is quiet: without a free block the cache looks again every millisecond.
  for (std::uint64_t steps = Simulator::Random(200); steps > 0; --steps) Simulator::Step();
  if (Simulator::Random(2) == 0) {
    started.Cancel(source);
    started.Add(source.Read(0, kPage));
  }
  Crew crew;
  crew.Start([&started, &source] { started.Cancel(source); });
  started.Close(source);
  crew.Join();
  SimulatedFiles::SetHanging(file.Name(), false);
  bench.Await(reached);
  bench.AwaitAll();
}

ORVANE_SCENARIO(CancelOnTheIOThread,
                "Reports on the I/O thread cancel through a cache while other threads do.") {
  Cache* const cache = bench.NewCache(kPage, 2);
  SimSource& cached = bench.NewSource(bench.NewFile(4 * kPage), cache);
  SimSource& sibling = bench.NewSource(bench.NewFile(2 * kPage), cache);
  SimSource& uncached = bench.NewSource(bench.NewFile(4 * kPage));
  StartedRequests started;
  Crew crew;
  crew.Start([&started, &cached, &sibling] {
    started.Add(cached.Read(0, 3 * kPage));
    if (Simulator::Random(2) == 0) started.Cancel(cached);
    started.Add(sibling.Read(0, kPage));
    started.Cancel(sibling);
  });
  for (std::uint64_t k = 0; k < 3; ++k) {
    SimRequestForm form = ThenDo([&cached, &sibling](SimRequest&) {
      (Simulator::Random(2) == 0 ? cached : sibling).Cancel();
      if (Simulator::Random(4) == 0) cached.Purge();
    });
    form.anywhere = false;
    started.Add(uncached.Read(k * kPage, kPage, std::move(form)));
    started.Add(cached.Read(k * kPage, kPage));
  }
  if (Simulator::Random(2) == 0) started.Cancel(uncached);
  crew.Join();
  bench.AwaitAll();
}

ORVANE_SCENARIO(MoreThanTheSlots,
                "More requests than slots through two caches and none; counters come and go.") {
  constexpr std::uint64_t kSlots = 61;
  SimFileModel& stuck = bench.NewFile(kPage);
  SimSource& uncached = bench.NewSource(stuck);
  Cache* const left = bench.NewCache(kPage, 2);
  Cache* const right = bench.NewCache(2 * kPage, 2);
  SimFileModel& file = bench.NewFile(8 * kPage);
  SimSource& viaLeft = bench.NewSource(file, left);
  SimSource& viaRight = bench.NewSource(file, right);
  SimulatedFiles::SetHanging(stuck.Name(), true);
  StartedRequests started;
  SimRequestForm form;
  form.mayBeBusy = true;
  const std::uint64_t taken = kSlots - 2 + Simulator::Random(4);
  for (std::uint64_t k = 0; k < taken; ++k) started.Add(uncached.Read(0, kPage, form));
  left->CollectCacheStats(true);
  Crew crew;
  crew.Start([&viaLeft, left] {
    viaLeft.PreRead(6 * kPage, kPage);
    for (std::uint64_t k = 0; k < 3; ++k) viaLeft.Read(k * kPage, kPage);
    left->CollectCacheStats(Simulator::Random(2) == 0);
    left->ResetCacheStats();
    left->Dump();
  });
  for (std::uint64_t k = 0; k < 3; ++k) {
    started.Add(viaRight.Read(k * kPage + 7, kPage, AnywhereInPieces(2)));
    if (Simulator::Random(4) == 0) started.Cancel(viaRight);
  }
  if (left->GetCacheHits() > 5 * kSlots) Simulator::Fail("more hits than blocks were asked for");
  left->NotifySomethingChanged();
  started.Cancel(uncached);
  SimulatedFiles::SetHanging(stuck.Name(), false);
  crew.Join();
  bench.AwaitAll();
}

}  // namespace
}  // namespace Orvane
