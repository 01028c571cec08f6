// Reads that wait for a block or for their source: when they go on, and how they are counted.
#include <array>
#include <cstdint>
#include <functional>
#include <utility>

#include "OwnBench.h"
#include "Scenario.h"
#include "SimBench.h"
#include "SimTools.h"

namespace Orvane {
namespace {

constexpr std::uint64_t kBlock = 512;
constexpr int kRounds = 12;
// After it whoever answers late stands at the gate of his source.
constexpr std::uint32_t kLongMs = 40;

// A read that its source does not answer before the gate is opened, and one that waits for its end.
class WaitingRead {
 public:
  WaitingRead(OwnBench* own, Cache* cache, OwnSource* source)
      : own_(own), cache_(cache), source_(source) {
    source_->choose = [this](std::uint64_t offset, std::uint64_t) {
      if (offset / kBlock % 2 == 0) return OwnAnswer::kLate;
      return isBusy_ ? OwnAnswer::kBusy : OwnAnswer::kInside;
    };
  }

  // Of the blocks 2 * round and 2 * round + 1. Answers after how many microseconds of the clock the
  // second read was over. `isBusy`: the source has no room for it either.
  std::uint64_t Play(std::uint64_t round, bool isBusy) {
    source_->SetGate(false);
    isBusy_ = isBusy;
    const std::size_t asked = source_->GetAsked().size();
    OwnReader& first = own_->NewReader(cache_, source_);
    OwnReader& second = own_->NewReader(cache_, source_);
    first.Start(2 * round * kBlock, kBlock);
    Simulator::WaitUntil(
        [&] { return source_->GetAsked().size() > asked || Simulator::GetFaults() > 0; });
    second.Start((2 * round + 1) * kBlock, kBlock);
    MTInterface::Sleep(kLongMs);
    const std::uint64_t opened = Simulator::GetTimeMicro();
    isBusy_ = false;
    source_->SetGate(true);
    Simulator::WaitUntil([&second] { return second.IsOver(); });
    const std::uint64_t took = Simulator::GetTimeMicro() - opened;
    own_->AwaitAll();
    return took;
  }

  // Where the clock stands still while somebody can go on, no time passes. It may jump by itself,
  // but not in every round.
  void RequireNoDelay(bool isBusy, const char* otherwise) {
    bool isAlwaysLate = true;
    for (std::uint64_t round = 0; round < kRounds; ++round) {
      if (Play(round, isBusy) == 0) isAlwaysLate = false;
    }
    if (isAlwaysLate && Simulator::GetFaults() == 0) Simulator::Fail(otherwise);
  }

 private:
  OwnBench* const own_;
  Cache* const cache_;
  OwnSource* const source_;
  bool isBusy_ = false;
};

ORVANE_SCENARIO(WaitingReadIsCountedOnce,
                "A read that is tried again and again for want of a block is one miss.") {
  OwnBench own(&bench);
  Cache* const cache = own.NewCache(kBlock, 1);
  WaitingRead waiting(&own, cache, own.NewSource(2 * kBlock));
  cache->CollectCacheStats(true);
  waiting.Play(0, /*isBusy=*/false);
  if (Simulator::GetFaults() > 0) return;
  Expect(cache->GetCacheMisses() == 2, "two reads of two blocks are not two misses");
  Expect(cache->GetCacheDirectReads() == 2, "two reads of two blocks are not two of the source");
  Expect(cache->GetCacheHits() == 0, "a read of what is not there is a hit");
}

ORVANE_SCENARIO(FreedBlockIsTakenAtOnce, "Who waits for the one block hears that it is free.") {
  OwnBench own(&bench);
  Cache* const cache = own.NewCache(kBlock, 1);
  WaitingRead waiting(&own, cache, own.NewSource(2 * kRounds * kBlock));
  waiting.RequireNoDelay(/*isBusy=*/false, "a block is free, and its reader waits on");
}

ORVANE_SCENARIO(RoomOfASourceIsTakenAtOnce,
                "Who found the source busy hears that a read of it has ended.") {
  OwnBench own(&bench);
  Cache* const cache = own.NewCache(kBlock, 4);
  WaitingRead waiting(&own, cache, own.NewSource(2 * kRounds * kBlock));
  waiting.RequireNoDelay(/*isBusy=*/true, "a source has room, and its reader waits on");
}

// A file source whose reads end inside the start, with whatever it was told to report.
class OddFileSource : public FileSource {
 public:
  struct End {
    Result_t result;
    std::int64_t movedBy;  // the offset it reports, against the one it was asked for
    std::uint64_t bytes;
  };

  explicit OddFileSource(const End& end) : end_(end) {}

  Result_t ReadAsyncWithListNonCached(std::uint64_t offset, BufferList* list,
                                      ResultCallbackBufferList* callback, std::uint32_t) override {
    constexpr const char* kFunction = "Orvane::OddFileSource::ReadAsyncWithListNonCached";
    callback->AddRef(__FILE__, kFunction, __LINE__);
    callback->Callback(end_.result, offset + static_cast<std::uint64_t>(end_.movedBy), list,
                       end_.bytes);
    callback->DecRef(__FILE__, kFunction, __LINE__);
    return kResultPending;
  }
  Result_t WriteAsyncWithListNonCached(std::uint64_t, BufferList*, ResultCallbackBufferList*,
                                       std::uint32_t) override {
    return kResultNotSupported;
  }
  void CancelNonCached() override {}
  bool CanGatherReads() override { return true; }

 private:
  const End end_;
};

ORVANE_SCENARIO(OddEndsOfASource,
                "A source reports success with fewer bytes, more of them, or other places.") {
  struct Case {
    OddFileSource::End end;
    CacheSource::Result_t result;
    std::uint64_t bytes;
  };
  // Of 700 bytes at 500 in the first of two blocks.
  constexpr std::array<Case, 8> kCases = {{
      {{CacheSource::kResultOK, 0, 1000}, CacheSource::kResultPartial, 500},
      {{CacheSource::kResultOK, 0, 0}, CacheSource::kResultOutOfRange, 0},
      {{CacheSource::kResultPartial, 0, 0}, CacheSource::kResultOutOfRange, 0},
      {{CacheSource::kResultOutOfRange, 0, 700}, CacheSource::kResultOutOfRange, 0},
      {{CacheSource::kResultPending, 0, 4096}, CacheSource::kResultError, 0},
      {{CacheSource::kResultPartial, 0, 1 << 20}, CacheSource::kResultOK, 700},
      {{CacheSource::kResultOK, -512, 512}, CacheSource::kResultError, 0},
      {{CacheSource::kResultError, 0, 700}, CacheSource::kResultError, 0},
  }};
  OwnBench own(&bench);
  Cache* const cache = own.NewCache(2048, 1 + Simulator::Random(2));
  for (int k = 0; k < 3; ++k) {
    const Case& expected = kCases[Simulator::Random(kCases.size())];
    const Held<OddFileSource> source(OrGiveUp([&] { return new OddFileSource(expected.end); }));
    source->UseCache(cache);
    OwnList list(700, /*wholePages=*/false);
    std::uint64_t bytes = 0;
    const CacheSource::Result_t result =
        OrGiveUp([&] { return source->ReadWithList(500, list.Get(), &bytes); });
    // Nothing stays behind that would keep the block from the next one.
    source->Cancel();
    Simulator::Settle();
    list.CheckAtRest();
    if (Simulator::GetFaults() > 0) continue;
    Expect(result == expected.result, "the end of a source read has become another result");
    Expect(bytes == expected.bytes, "the end of a source read has become other bytes");
  }
}

}  // namespace
}  // namespace Orvane
