// Reads of files through a cache: hits, misses, batches, ends of files, residents, statistics.
#include <cstdint>
#include <new>

#include "Scenario.h"
#include "SimBench.h"
#include "SimCalm.h"
#include "SimTools.h"

namespace Orvane {
namespace {

constexpr std::uint64_t kPage = SimFileModel::kPage;

SimRequestForm Anywhere(std::size_t pieces = 1) {
  SimRequestForm form;
  form.anywhere = true;
  form.pieces = pieces;
  return form;
}

void ReadSomewhere(SimSource* source, std::uint64_t range, std::uint64_t most) {
  const std::uint64_t offset = Simulator::Random(range);
  const std::uint64_t size = 1 + Simulator::Random(most);
  const SimRequestForm form = Anywhere(1 + Simulator::Random(3));
  if (Simulator::Random(3) == 0) {
    source->ReadNow(offset, size, form);
  } else {
    source->Read(offset, size, form);
  }
}

ORVANE_SCENARIO(CachedMiss, "One read through a cache with one block.") {
  SimFileModel& file = bench.NewFile(kPage);
  SimSource& source = bench.NewSource(file, bench.NewCache(kPage, 1));
  source.ReadNow(7, 100, Anywhere());
}

ORVANE_SCENARIO(SameBlockTwice, "Two reads of a block that is not there.") {
  SimFileModel& file = bench.NewFile(kPage);
  SimSource& source = bench.NewSource(file, bench.NewCache(kPage, 1));
  source.Read(0, 10, Anywhere());
  source.Read(4000, 200, Anywhere());
  bench.AwaitAll();
}

ORVANE_SCENARIO(CachedMixture, "Reads through a small cache beside writes and invalidations.") {
  SimFileModel& file = bench.NewFile(8 * kPage);
  Cache* const cache = bench.NewCache(kPage, 3);
  SimSource& source = bench.NewSource(file, cache);
  for (int k = 0; k < 6; ++k) {
    const std::uint64_t offset = Simulator::Random(10 * kPage);
    const std::uint64_t size = 1 + Simulator::Random(3 * kPage);
    SimRequestForm form = Anywhere(1 + Simulator::Random(3));
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

ORVANE_SCENARIO(HitAndMiss, "One read of blocks that are there and blocks that are not.") {
  SimFileModel& file = bench.NewFile(6 * kPage);
  const SimCalm calm;
  Cache* const cache = bench.NewCache(kPage, 6);
  cache->CollectCacheStats(true);
  SimSource& source = bench.NewSource(file, cache);
  // A block that was used in the first millisecond of the clock counts as one that never was.
  MTInterface::Sleep(2);
  std::uint32_t there = 0;
  for (std::uint64_t block = 0; block < 6; ++block) {
    if (Simulator::Random(2) == 0) continue;
    ++there;
    source.ReadNow(block * kPage, kPage, Anywhere());
  }
  source.ReadNow(10, 6 * kPage - 20, Anywhere(4));
  if (calm.Lasts()) {
    // Each block is read from the file once, and met once more if it was there.
    if (cache->GetCacheMisses() != 6 || cache->GetCacheDirectReads() != 6)
      Simulator::Fail("not every block was missed once");
    if (cache->GetCacheHits() != there) Simulator::Fail("not every block that was there was hit");
  }
  source.Read(Simulator::Random(6 * kPage), kPage, Anywhere(2));
  bench.AwaitAll();
}

ORVANE_SCENARIO(EndOfFileInBlocks,
                "Reads across and behind the end, with blocks that came in different order.") {
  const std::uint64_t tails[] = {0, 1, 512, kPage, kPage + 8, 2 * kPage - 1};
  const std::uint64_t bytes = 2 * kPage * Simulator::Random(3) + tails[Simulator::Random(6)];
  SimFileModel& file = bench.NewFile(bytes);
  SimSource& source = bench.NewSource(file, bench.NewCache(2 * kPage, 4));
  // The order of replacement, in which blocks are filled and served, is that of the last use.
  for (std::uint64_t k = Simulator::Random(4); k > 0; --k) {
    source.ReadNow(Simulator::Random(4) * 2 * kPage, 1 + Simulator::Random(100), Anywhere());
  }
  for (int k = 0; k < 3; ++k) {
    const std::uint64_t back = Simulator::Random(3 * kPage);
    const std::uint64_t offset = bytes < back ? 0 : bytes - back + Simulator::Random(3) * kPage;
    source.Read(offset, 1 + Simulator::Random(6 * kPage), Anywhere(1 + Simulator::Random(3)));
  }
  bench.AwaitAll();
}

ORVANE_SCENARIO(EndOfFileInBatch, "One read of three blocks, of which the file has one.") {
  SimFileModel& file = bench.NewFile(kPage + 100);
  SimSource& source = bench.NewSource(file, bench.NewCache(kPage, 3));
  source.ReadNow(0, 3 * kPage, Anywhere());
}

ORVANE_SCENARIO(AppendAfterEnd, "What is appended after a read at the end of the file is read.") {
  const std::uint64_t pages = 1 + Simulator::Random(2);
  SimFileModel& file = bench.NewFile(pages * kPage);
  SimSource& source = bench.NewSource(file, bench.NewCache((1 + Simulator::Random(3)) * kPage, 3));
  Crew threads;
  threads.Start([&source, pages] {
    for (int k = 0; k < 2; ++k) source.ReadNow(pages * kPage - 100, 200, Anywhere());
  });
  for (std::uint64_t k = 0; k < 3; ++k) {
    source.Read((pages + k) * kPage - Simulator::Random(2) * 100, kPage, Anywhere());
    // Behind a gap, too: then the end lies in a block that is not written to.
    source.WriteNow((pages + k + Simulator::Random(2) * 3) * kPage, kPage);
    if (Simulator::Random(2) == 0) bench.AwaitAll();
    source.ReadNow(pages * kPage - 100, 200, Anywhere());
  }
  threads.Join();
  bench.AwaitAll();
  source.ReadNow((pages - 1) * kPage, 5 * kPage, Anywhere());
}

ORVANE_SCENARIO(EndMovesMeanwhile, "A block is filled up to the end while a write moves the end.") {
  SimFileModel& file = bench.NewFile(kPage);
  SimSource& source = bench.NewSource(file, bench.NewCache(2 * kPage, 2));
  source.Read(kPage - 100, 200, Anywhere());
  source.WriteNow(4 * kPage, kPage);
  source.ReadNow(kPage - 100, 200, Anywhere());
  bench.AwaitAll();
  source.ReadNow(kPage - 100, 200, Anywhere());
}

ORVANE_SCENARIO(MoreReadersThanBlocks, "Reads wait for blocks, and go on when one is free.") {
  SimFileModel& file = bench.NewFile(8 * kPage);
  SimSource& source = bench.NewSource(file, bench.NewCache(kPage, 1 + Simulator::Random(2)));
  Crew threads;
  for (int k = 0; k < 2; ++k) {
    threads.Start([&source] {
      source.Read(Simulator::Random(8) * kPage, 50, Anywhere());
      source.ReadNow(Simulator::Random(5 * kPage), 3 * kPage, Anywhere(2));
    });
  }
  for (int k = 0; k < 3; ++k) {
    source.Read(Simulator::Random(8 * kPage), 1 + Simulator::Random(2 * kPage), Anywhere());
  }
  threads.Join();
  bench.AwaitAll();
}

ORVANE_SCENARIO(WaitingTakesTime,
                "Two transfers that take long hold all blocks that others want.") {
  SimFileModel& slow = bench.NewFile(4 * kPage);
  SimFileModel& quick = bench.NewFile(4 * kPage);
  Cache* const cache = bench.NewCache(kPage, 2);
  SimSource& slowSource = bench.NewSource(slow, cache);
  SimSource& quickSource = bench.NewSource(quick, cache);
  SimulatedFiles::SetHanging(slow.Name(), true);
  slowSource.Read(0, 2 * kPage, Anywhere());
  quickSource.Read(100, 100, Anywhere());
  slowSource.Read(2 * kPage, 8, Anywhere());
  quickSource.Read(kPage, 2 * kPage, Anywhere());
  MTInterface::Sleep(static_cast<std::uint32_t>(Simulator::Random(100)));
  SimulatedFiles::SetHanging(slow.Name(), false);
  bench.AwaitAll();
}

ORVANE_SCENARIO(SameBlockForMany, "Many threads want one block at once; it is read once.") {
  SimFileModel& file = bench.NewFile(2 * kPage);
  const SimCalm calm;
  Cache* const cache = bench.NewCache(2 * kPage, 2);
  cache->CollectCacheStats(true);
  SimSource& source = bench.NewSource(file, cache);
  Crew threads;
  for (int k = 0; k < 5; ++k) {
    threads.Start([&source] { ReadSomewhere(&source, kPage, kPage); });
  }
  threads.Join();
  bench.AwaitAll();
  if (!calm.Lasts()) return;
  if (cache->GetCacheMisses() != 1) Simulator::Fail("the block was not read once");
  if (cache->GetCacheHits() != 4) Simulator::Fail("not all others were hits");
}

ORVANE_SCENARIO(ResidentBesideEviction,
                "Synchronous reads on the calling threads while others evict, write, invalidate.") {
  SimFileModel& file = bench.NewFile(6 * kPage);
  Cache* const cache = bench.NewCache(kPage, 2);
  SimSource& source = bench.NewSource(file, cache);
  source.ReadNow(0, 2 * kPage, Anywhere());
  Crew threads;
  for (int k = 0; k < 2; ++k) {
    threads.Start([&source] {
      for (int times = 0; times < 3; ++times) {
        source.ReadNow(Simulator::Random(kPage), 1 + Simulator::Random(kPage), Anywhere(2));
      }
    });
  }
  for (int k = 0; k < 4; ++k) {
    const std::uint64_t page = Simulator::Random(6);
    switch (Simulator::Random(6)) {
      case 0:
        source.Write(page * kPage, kPage);
        break;
      case 1:
        source.Invalidate(page * kPage, kPage);
        break;
      default:
        source.Read(page * kPage, 10, Anywhere());
        break;
    }
  }
  threads.Join();
  bench.AwaitAll();
}

ORVANE_SCENARIO(ResidentAndEviction, "A resident read while its block is claimed.") {
  SimFileModel& file = bench.NewFile(2 * kPage);
  SimSource& source = bench.NewSource(file, bench.NewCache(kPage, 1));
  source.ReadNow(0, 8, Anywhere());
  Crew threads;
  threads.Start([&source] { source.ReadNow(16, 8, Anywhere()); });
  source.ReadNow(kPage, 8, Anywhere());
}

ORVANE_SCENARIO(BlockSizes, "Blocks smaller and larger than requests at odd places.") {
  SimFileModel& file = bench.NewFile(8 * kPage + Simulator::Random(kPage));
  const std::uint64_t pages = 1 + Simulator::Random(4);
  SimSource& source = bench.NewSource(file, bench.NewCache(pages * kPage, 1 + 8 / pages));
  for (int k = 0; k < 4; ++k) {
    ReadSomewhere(&source, 8 * kPage, Simulator::Random(2) == 0 ? 64 : 4 * kPage);
  }
  bench.AwaitAll();
}

ORVANE_SCENARIO(ReadsUponReports, "Each report starts the next read, of what is there or is not.") {
  SimFileModel& file = bench.NewFile(6 * kPage);
  SimSource& source = bench.NewSource(file, bench.NewCache(kPage, 3));
  int left = 4;
  SimRequestForm form = Anywhere(2);
  form.onReport = [&left, &form](SimRequest& request) {
    if (left-- <= 0) return;
    request.Source().Read(Simulator::Random(6 * kPage), 1 + Simulator::Random(kPage), form);
  };
  source.Read(0, 2 * kPage, form);
  source.Read(kPage, 2 * kPage, form);
  bench.AwaitAll();
}

ORVANE_SCENARIO(TwoSourcesOneCache, "Files of one cache never show each other's bytes.") {
  Cache* const cache = bench.NewCache(kPage, 2);
  SimSource& one = bench.NewSource(bench.NewFile(3 * kPage), cache);
  SimSource& other = bench.NewSource(bench.NewFile(3 * kPage - 100), cache);
  for (int k = 0; k < 6; ++k) {
    ReadSomewhere(Simulator::Random(2) == 0 ? &one : &other, 3 * kPage, kPage);
  }
  bench.AwaitAll();
}

ORVANE_SCENARIO(RefusedReads, "Reads without a place, past 2^64, of nothing and without blocks.") {
  SimFileModel& file = bench.NewFile(kPage);
  Cache* const cache = bench.NewCache(kPage, 1);
  SimSource& source = bench.NewSource(file, cache);
  const auto refuses = [&source](std::uint64_t offset, BufferList* list) {
    std::uint64_t bytes = 77;
    const CacheSource::Result_t result = source.Get()->ReadWithList(offset, list, &bytes);
    if (result != CacheSource::kResultNotSupported && Simulator::GetFaults() == 0) {
      Simulator::Fail("not refused");
    }
    if (bytes != 77) Simulator::Fail("a refusal told a number of bytes");
  };
  source.Read(10, 10, Anywhere());
  try {
    refuses(0, nullptr);
    auto* const empty = new BufferList;
    const SharedObjectAutoRef keepEmpty(empty);
    empty->DecRef(__FILE__, "RefusedReads", __LINE__);
    refuses(0, empty);
    char bytes[16];
    auto* const buffer = new HostBuffer(bytes, sizeof bytes);
    const SharedObjectAutoRef keepBuffer(buffer);
    buffer->DecRef(__FILE__, "RefusedReads", __LINE__);
    std::uint64_t read = 0;
    const CacheSource::Result_t result = source.Get()->Read(~std::uint64_t{0} - 8, buffer, &read);
    if (result != CacheSource::kResultNotSupported && Simulator::GetFaults() == 0) {
      Simulator::Fail("a range past 2^64 was not refused");
    }
  } catch (const std::bad_alloc&) {
    if (Simulator::GetFaults() == 0) Simulator::Fail("thrown without a reason");
  }
  bench.AwaitAll();
}

ORVANE_SCENARIO(Statistics, "Counting is turned on, off and back while others read.") {
  const SimCalm calm;
  SimFileModel& file = bench.NewFile(4 * kPage);
  Cache* const cache = bench.NewCache(kPage, 2);
  SimSource& source = bench.NewSource(file, cache);
  Crew threads;
  for (int k = 0; k < 2; ++k) {
    threads.Start([&source] {
      for (int times = 0; times < 3; ++times) ReadSomewhere(&source, 3 * kPage, kPage);
    });
  }
  for (int k = 0; k < 6; ++k) {
    if (Simulator::Random(3) == 0) {
      cache->ResetCacheStats();
    } else {
      cache->CollectCacheStats(Simulator::Random(2) == 0);
    }
    if (cache->GetCacheMisses() > 12) Simulator::Fail("more blocks were missed than asked for");
    if (Simulator::Random(4) == 0) source.Cancel();
  }
  threads.Join();
  bench.AwaitAll();
  cache->CollectCacheStats(false);
  if (cache->GetCacheHits() + cache->GetCacheMisses() + cache->GetCachePreReads() != 0) {
    Simulator::Fail("counts though it is off");
  }
  cache->CollectCacheStats(true);
  source.ReadNow(0, kPage, Anywhere());
  const std::uint32_t hits = cache->GetCacheHits();
  source.ReadNow(0, kPage, Anywhere());
  if (calm.Lasts() && cache->GetCacheHits() != hits + 1) {
    Simulator::Fail("a hit was not counted");
  }
}

}  // namespace
}  // namespace Orvane
