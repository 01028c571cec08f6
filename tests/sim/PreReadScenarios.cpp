// Pre-reads: that they come in time, once, in order, and never in the way of what is wanted.
#include <cstdint>

#include "OwnBench.h"
#include "Scenario.h"
#include "SimBench.h"
#include "SimCalm.h"
#include "SimTools.h"

namespace Orvane {
namespace {

constexpr std::uint64_t kPage = SimFileModel::kPage;
constexpr std::uint32_t kHourMs = 3600000;

SimRequestForm Anywhere() {
  SimRequestForm form;
  form.anywhere = true;
  return form;
}

std::uint32_t DueIn(std::uint64_t ms) {
  const std::uint32_t due = MTInterface::GetCurrentTimeMilli() + static_cast<std::uint32_t>(ms);
  return due == CacheSource::kDueASAP ? 1 : due;
}

ORVANE_SCENARIO(PreReadThenRead, "A read joins a pre-read, whatever has become of it.") {
  SimFileModel& file = bench.NewFile(kPage);
  SimSource& source = bench.NewSource(file, bench.NewCache(kPage, 1));
  source.PreRead(0, 100);
  source.ReadNow(10, 100, Anywhere());
}

ORVANE_SCENARIO(PreReadIsHit, "What was pre-read is not read again.") {
  const SimCalm calm;
  SimFileModel& file = bench.NewFile(4 * kPage);
  Cache* const cache = bench.NewCache(kPage, 4);
  cache->CollectCacheStats(true);
  SimSource& source = bench.NewSource(file, cache);
  source.PreRead(kPage - 1, 2, DueIn(Simulator::Random(100)));
  if (Simulator::Random(2) == 0) source.PreRead(0, 2 * kPage);
  Simulator::Settle();
  const std::uint32_t preReads = cache->GetCachePreReads();
  source.ReadNow(0, 2 * kPage, Anywhere());
  if (!calm.Lasts()) return;
  if (preReads != 2) Simulator::Fail("two blocks were not pre-read once");
  if (cache->GetCacheMisses() != 0) Simulator::Fail("what was pre-read was missed");
  if (cache->GetCacheHits() != 2) Simulator::Fail("what was pre-read was not hit");
}

ORVANE_SCENARIO(ReadingAhead, "A reader keeps a window of pre-reads with due times ahead of him.") {
  constexpr std::uint64_t kWindow = 3;
  SimFileModel& file = bench.NewFile(7 * kPage + 40);
  SimSource& source = bench.NewSource(file, bench.NewCache(kPage, 4));
  for (std::uint64_t block = 0; block < 8; ++block) {
    if (block == 0) source.PreRead(0, kWindow * kPage, DueIn(20));
    source.PreRead((block + kWindow) * kPage, kPage, DueIn(10 * Simulator::Random(10)));
    if (Simulator::Random(2) == 0) {
      source.ReadNow(block * kPage, kPage, Anywhere());
    } else {
      source.Read(block * kPage, kPage, Anywhere());
    }
    if (Simulator::Random(4) == 0) MTInterface::Sleep(10);
  }
  bench.AwaitAll();
}

ORVANE_SCENARIO(PreReadOfMoreThanAll, "Pre-reads of more than the cache holds, beside reads.") {
  SimFileModel& file = bench.NewFile(9 * kPage);
  Cache* const cache = bench.NewCache(kPage, 2);
  cache->CollectCacheStats(true);
  SimSource& source = bench.NewSource(file, cache);
  const bool alone = Simulator::Random(2) == 0;
  source.PreRead(Simulator::Random(kPage), ~std::uint64_t{0}, DueIn(50));
  if (alone) {
    Simulator::Settle();
    if (cache->GetCachePreReads() > 2) Simulator::Fail("more blocks were pre-read than there are");
  }
  for (int k = 0; k < 3; ++k) source.Read(Simulator::Random(9) * kPage, kPage, Anywhere());
  bench.AwaitAll();
}

ORVANE_SCENARIO(PreReadKeepsWhatIsDue, "A pre-read never evicts what is wanted later than now.") {
  SimFileModel& file = bench.NewFile(6 * kPage);
  Cache* const cache = bench.NewCache(kPage, 2);
  cache->CollectCacheStats(true);
  SimSource& source = bench.NewSource(file, cache);
  const SimCalm calm;
  source.PreRead(0, 2 * kPage, DueIn(kHourMs));
  Simulator::Settle();
  const std::uint32_t before = cache->GetCachePreReads();
  source.PreRead(3 * kPage, kPage, Simulator::Random(2) == 0 ? 0 : DueIn(10));
  Simulator::Settle();
  if (!calm.Lasts()) return;
  if (before != 2) Simulator::Fail("two blocks were not pre-read");
  if (cache->GetCachePreReads() != 2) Simulator::Fail("a block that is wanted later was evicted");
  source.ReadNow(0, 2 * kPage, Anywhere());
  if (calm.Lasts() && cache->GetCacheMisses() != 0) Simulator::Fail("what was pre-read is gone");
  // Whoever wants data now is not held up by what others want later.
  source.ReadNow(4 * kPage, kPage, Anywhere());
}

ORVANE_SCENARIO(PreReadBesideCancel, "Pre-reads and reads while the source is cancelled.") {
  SimFileModel& file = bench.NewFile(6 * kPage);
  Cache* const cache = bench.NewCache(kPage, 3);
  SimSource& source = bench.NewSource(file, cache);
  Crew threads;
  threads.Start([&source] {
    for (int k = 0; k < 3; ++k) {
      source.PreRead(Simulator::Random(5 * kPage), 2 * kPage, DueIn(Simulator::Random(20)));
    }
  });
  threads.Start([&source] {
    for (int k = 0; k < 2; ++k) source.ReadNow(Simulator::Random(5 * kPage), 100, Anywhere());
  });
  for (int k = 0; k < 2; ++k) {
    if (Simulator::Random(3) == 0) {
      source.Purge();
    } else {
      source.Cancel();
    }
  }
  threads.Join();
}

ORVANE_SCENARIO(PreReadBesideWrite, "What a pre-read brings is not shown when a write was later.") {
  SimFileModel& file = bench.NewFile(4 * kPage);
  SimSource& source = bench.NewSource(file, bench.NewCache(2 * kPage, 2));
  for (int k = 0; k < 2; ++k) {
    source.PreRead(0, 4 * kPage, DueIn(Simulator::Random(3)));
    source.Write(Simulator::Random(5) * kPage, kPage);
    source.Read(Simulator::Random(4) * kPage, kPage, Anywhere());
  }
  bench.AwaitAll();
  source.ReadNow(0, 4 * kPage, Anywhere());
}

ORVANE_SCENARIO(PreReadAndRelease, "The last references of source and cache go with pre-reads.") {
  SimFileModel& file = bench.NewFile(4 * kPage);
  Cache* const cache = bench.NewCache(kPage, 2);
  SimSource& source = bench.NewSource(file, cache);
  source.PreRead(0, 4 * kPage, DueIn(Simulator::Random(100)));
  if (Simulator::Random(2) == 0) Simulator::Settle();
  if (Simulator::Random(2) == 0) bench.ReleaseCache(cache);
  source.Release();
}

ORVANE_SCENARIO(SourcePreReadsItself, "A source that supports pre-reads is asked once in 2 s.") {
  OwnBench own(&bench);
  Cache* const cache = own.NewCache(512, 4);
  OwnSource* const source = own.NewSource(2048);
  source->supportsPreReads = true;
  const std::uint32_t due = DueIn(5);
  const std::uint64_t dueMicro = Simulator::GetTimeMicro() + 5000;
  const auto preRead = [cache, source, due] {
    cache->PreRead(source, 512, 512, due, MTThread::kPriorityNormal);
    Simulator::Settle();
  };
  preRead();
  const std::uint64_t first = source->GetPreReads();
  const bool isForgotten = Simulator::Random(2) == 0;
  if (isForgotten) own.Cancel(cache, source);
  preRead();
  const std::uint64_t second = source->GetPreReads();
  const bool isInTime = Simulator::GetTimeMicro() < dueMicro + 2000000;
  MTInterface::Sleep(2100);
  preRead();
  const std::uint64_t third = source->GetPreReads();
  if (Simulator::GetFaults() == 0) {
    if (first != 1) Simulator::Fail("the source was not asked to pre-read");
    if (isForgotten && second != 2) Simulator::Fail("a cancelled pre-read was remembered");
    if (isInTime && !isForgotten && second != 1) Simulator::Fail("a pre-read was made twice");
    if (third <= second) Simulator::Fail("a pre-read was remembered for ever");
    if (!source->GetAsked().empty()) Simulator::Fail("a pre-read was made into a read");
  }
  own.NewReader(cache, source).Start(500, 100);
  // The read has done what the pre-read was for.
  own.AwaitAll();
  if (Simulator::Random(2) == 0) own.Cancel(cache, source);
}

ORVANE_SCENARIO(OwnSourcePreRead, "A pre-read and a read of a source in memory.") {
  OwnBench own(&bench);
  Cache* const cache = own.NewCache(512, 1);
  OwnSource* const source = own.NewSource(512);
  cache->PreRead(source, 0, 1, 0, MTThread::kPriorityNormal);
  own.NewReader(cache, source).Start(0, 100);
}

ORVANE_SCENARIO(PreReadsOfOwnSource,
                "Pre-reads of sources that gather or do not, fail, or tell of an early end.") {
  OwnBench own(&bench);
  Cache* const cache = own.NewCache(512, 4);
  OwnSource* const source = own.NewSource(512 * 5 - 10);
  source->gathers = Simulator::Random(2) == 0;
  source->choose = [](std::uint64_t, std::uint64_t) {
    constexpr OwnAnswer kAnswers[] = {OwnAnswer::kInside, OwnAnswer::kLate,      OwnAnswer::kPieces,
                                      OwnAnswer::kShort,  OwnAnswer::kLateError, OwnAnswer::kThrow,
                                      OwnAnswer::kBusy,   OwnAnswer::kNothing};
    return kAnswers[Simulator::Random(8)];
  };
  for (int k = 0; k < 3; ++k) {
    cache->PreRead(source, Simulator::Random(6 * 512), Simulator::Random(1500),
                   DueIn(Simulator::Random(5)), MTThread::kPriorityNormal);
    own.NewReader(cache, source).Start(Simulator::Random(6 * 512), 1 + Simulator::Random(1000));
    if (Simulator::Random(4) == 0) own.Cancel(cache, source);
  }
}

}  // namespace
}  // namespace Orvane
