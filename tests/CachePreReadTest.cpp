// What pre-reads fill, in which order and how often, and what becomes of those that cannot.
#include <atomic>
#include <future>
#include <limits>
#include <string>
#include <vector>

#include "Cache.h"
#include "CacheTestTools.h"
#include "MTInterface.h"

namespace Orvane {
namespace {

using Request = MemorySource::Request;

constexpr std::uint64_t kTop = std::numeric_limits<std::uint64_t>::max();
constexpr std::uint64_t kMicroPerMilli = 1000;

class CachePreReadTest : public CacheToolsFixture {
 protected:
  void PreRead(FileSource* source, std::uint64_t offset, std::uint64_t size,
               std::uint32_t dueTime = CacheSource::kDueASAP) {
    cache_->PreRead(source, offset, size, dueTime, MTThread::kPriorityNormal);
  }
  // The read thread is done with what was queued before.
  void Settle() {
    MemorySource* const other = MakeSource(MemorySource::Pattern(kBlock));
    AsyncRequest request(1);
    const std::uint32_t last = MTInterface::GetCurrentTimeMilli() + 1000000;
    EXPECT_EQ(CacheSource::kResultPending, request.Read(other, 0, last));
    EXPECT_EQ(CacheSource::kResultOK, request.GetReport().result);
  }
  // A cache with statistics on, and a source on it.
  HookedSource* Make(std::size_t blocks) {
    MakeCache(blocks);
    cache_->CollectCacheStats(true);
    return MakeHookedSource(contents_);
  }

  const std::string contents_ = MemorySource::Pattern(8 * kBlock);
};

TEST_F(CachePreReadTest, NoBytesQueueNothing) {
  HookedSource* const source = Make(8);
  PreRead(source, 0, 0);
  PreRead(source, 3 * kBlock, 0);
  PreRead(nullptr, 0, kBlock);
  Settle();
  EXPECT_EQ(0u, source->GetTries());
  EXPECT_TRUE(source->GetRequests().empty());
}

TEST_F(CachePreReadTest, ARangeInsideABlockFillsThatBlock) {
  HookedSource* const source = Make(8);
  PreRead(source, 5000, 100);
  Settle();
  EXPECT_EQ((std::vector<Request>{{false, 4096, 4096, 0}}), source->GetRequests());
  EXPECT_EQ(1u, cache_->GetCachePreReads());
}

TEST_F(CachePreReadTest, ARangeAcrossTwoBlocksFillsBoth) {
  HookedSource* const source = Make(8);
  source->SetGathers(false);
  PreRead(source, 4000, 200);
  Settle();
  EXPECT_EQ((std::vector<Request>{{false, 0, 4096, 0}, {false, 4096, 4096, 0}}),
            source->GetRequests());
  EXPECT_EQ(2u, cache_->GetCachePreReads());
}

TEST_F(CachePreReadTest, WhatWasPreReadIsAHit) {
  HookedSource* const source = Make(8);
  PreRead(source, kBlock, 2 * kBlock);
  Settle();
  cache_->ResetCacheStats();
  source->ClearRequests();
  EXPECT_EQ(contents_.substr(kBlock, 2 * kBlock), Read(source, kBlock, 2 * kBlock));
  EXPECT_TRUE(source->GetRequests().empty());
  EXPECT_EQ(2u, cache_->GetCacheHits());
  EXPECT_EQ(0u, cache_->GetCacheMisses());
}

TEST_F(CachePreReadTest, PreReadsAreCountedAsSuchAndNotAsMisses) {
  HookedSource* const source = Make(8);
  PreRead(source, 0, 3 * kBlock);
  ASSERT_TRUE(Eventually([source] { return !source->GetRequests().empty(); }));
  EXPECT_TRUE(Eventually([this] { return cache_->GetCachePreReads() == 3; }));
  EXPECT_EQ(0u, cache_->GetCacheMisses());
  EXPECT_EQ(0u, cache_->GetCacheDirectReads());
  EXPECT_EQ(0u, cache_->GetCacheHits());
}

TEST_F(CachePreReadTest, AdjacentOnesAreOneRead) {
  HookedSource* const source = Make(8);
  PreRead(source, 0, 4 * kBlock);
  Settle();
  EXPECT_EQ((std::vector<Request>{{false, 0, 4 * kBlock, 0}}), source->GetRequests());
}

TEST_F(CachePreReadTest, GatheringEndsAtOneMegabyte) {
  constexpr std::size_t kMost = (1 << 20) / kBlock;
  MakeCache(kMost + 100);
  MemorySource* const source = MakeSource(MemorySource::Pattern((kMost + 44) * kBlock));
  PreRead(source, 0, (kMost + 44) * kBlock);
  Settle();
  EXPECT_EQ((std::vector<Request>{{false, 0, kMost * kBlock, 0},
                                  {false, kMost * kBlock, 44 * kBlock, 0}}),
            source->GetRequests());
}

TEST_F(CachePreReadTest, BlocksInMemoryAreNotReadAgain) {
  HookedSource* const source = Make(8);
  Read(source, kBlock, kBlock);
  source->ClearRequests();
  PreRead(source, 0, 3 * kBlock);
  Settle();
  EXPECT_EQ((std::vector<Request>{{false, 0, kBlock, 0}, {false, 2 * kBlock, kBlock, 0}}),
            source->GetRequests());
  EXPECT_EQ(2u, cache_->GetCachePreReads());
}

TEST_F(CachePreReadTest, WhatIsOnItsWayIsNotAskedForAgain) {
  HookedSource* const source = Make(8);
  source->HoldRequests(true);
  PreRead(source, 0, 2 * kBlock);
  ASSERT_TRUE(source->WaitForHeld(1));
  PreRead(source, 0, 2 * kBlock);
  PreRead(source, kBlock + 10, 10);
  Settle();
  EXPECT_EQ(1u, source->GetRequests().size());
  source->CompleteAll();
  EXPECT_EQ(2u, cache_->GetCachePreReads());
}

TEST_F(CachePreReadTest, AReadThatMeetsAFillWaitsForItAndIsAHit) {
  HookedSource* const source = Make(8);
  source->HoldRequests(true);
  PreRead(source, 0, 2 * kBlock);
  ASSERT_TRUE(source->WaitForHeld(1));
  AsyncRequest request(2 * kBlock);
  ASSERT_EQ(CacheSource::kResultPending, request.Read(source, 0));
  ASSERT_TRUE(Eventually([this] { return cache_->GetCacheHits() == 2; }));
  EXPECT_FALSE(request.IsReported());
  source->Complete();
  EXPECT_EQ((Report{CacheSource::kResultOK, 2 * kBlock}), request.GetReport());
  EXPECT_EQ(contents_.substr(0, 2 * kBlock), request.GetBytes(2 * kBlock));
  EXPECT_EQ(1u, source->GetRequests().size());
  EXPECT_EQ(0u, cache_->GetCacheMisses());
}

TEST_F(CachePreReadTest, RunInOrderOfDueTimeWithTheirOwn) {
  HookedSource* const source = Make(8);
  const std::uint32_t now = MTInterface::GetCurrentTimeMilli();
  std::promise<void> queued;
  const std::shared_future<void> allQueued(queued.get_future());
  source->OnPreRead([allQueued] { allQueued.wait(); });
  PreRead(source, 0, kBlock);
  PreRead(source, 2 * kBlock, kBlock, now + 5000);
  PreRead(source, 4 * kBlock, kBlock, now + 1000);
  queued.set_value();
  Settle();
  EXPECT_EQ((std::vector<Request>{{false, 0, kBlock, 0},
                                  {false, 4 * kBlock, kBlock, now + 1000},
                                  {false, 2 * kBlock, kBlock, now + 5000}}),
            source->GetRequests());
}

TEST_F(CachePreReadTest, OneThatFindsNoFreeBlockIsDropped) {
  HookedSource* const source = Make(1);
  MemorySource* const other = MakeSource(contents_);
  other->HoldRequests(true);
  AsyncRequest occupant(kBlock);
  occupant.Read(other, 0);
  ASSERT_TRUE(other->WaitForHeld(1));
  std::atomic<int> asked{0};
  source->OnPreRead([&asked] { ++asked; });
  PreRead(source, 0, kBlock);
  ASSERT_TRUE(Eventually([&asked] { return asked == 1; }));
  other->Complete();
  EXPECT_EQ(CacheSource::kResultOK, occupant.GetReport().result);
  other->HoldRequests(false);
  Settle();
  EXPECT_TRUE(source->GetRequests().empty());
  EXPECT_EQ(0u, cache_->GetCachePreReads());
  // It is not among the pending ones: the next is made.
  Read(source, 0, 1);
  EXPECT_EQ(1u, source->GetRequests().size());
}

TEST_F(CachePreReadTest, ABlockThatIsWantedLaterThanNowIsEvictedByReadsOnly) {
  HookedSource* const source = Make(1);
  MemorySource* const other = MakeSource(contents_);
  AsyncRequest wanted(kBlock);
  wanted.Read(other, 0, MTInterface::GetCurrentTimeMilli() + 60000);
  EXPECT_EQ(CacheSource::kResultOK, wanted.GetReport().result);
  std::atomic<int> asked{0};
  source->OnPreRead([&asked] { ++asked; });
  PreRead(source, 0, kBlock);
  ASSERT_TRUE(Eventually([&asked] { return asked == 1; }));
  EXPECT_EQ(contents_.substr(0, 10), Read(other, 0, 10));
  EXPECT_EQ(1u, other->GetRequests().size());
  EXPECT_TRUE(source->GetRequests().empty());
  EXPECT_EQ(contents_.substr(0, 10), Read(source, 0, 10));
}

TEST_F(CachePreReadTest, ASourceThatPreReadsItselfIsAskedBlockByBlockAndOnce) {
  HookedSource* const source = Make(8);
  source->SetSupportsPreReads(true);
  const std::uint32_t later = MTInterface::GetCurrentTimeMilli() + 60000;
  PreRead(source, 100, 10, later);
  PreRead(source, 0, 2 * kBlock, later);
  Settle();
  EXPECT_EQ((std::vector<Request>{{false, 0, kBlock, later}, {false, kBlock, kBlock, later}}),
            source->GetPreReads());
  EXPECT_TRUE(source->GetRequests().empty());
  EXPECT_EQ(0u, cache_->GetCachePreReads());
}

TEST_F(CachePreReadTest, AfterTwoSecondsBehindItsDueTimeASourceIsAskedAgain) {
  HookedSource* const source = Make(8);
  source->SetSupportsPreReads(true);
  const std::uint32_t now = MTInterface::GetCurrentTimeMilli();
  PreRead(source, 0, kBlock, now + 60000);
  PreRead(source, 0, kBlock, now + 60000);
  Settle();
  EXPECT_EQ(1u, source->GetPreReads().size());
  TestMTInterface::Get().ShiftClock(61900 * kMicroPerMilli - 1500 * kMicroPerMilli);
  PreRead(source, 0, kBlock, now + 60000);
  Settle();
  EXPECT_EQ(1u, source->GetPreReads().size());
  TestMTInterface::Get().ShiftClock(1700 * kMicroPerMilli);
  PreRead(source, 0, kBlock, now + 60000);
  Settle();
  EXPECT_EQ(2u, source->GetPreReads().size());
}

TEST_F(CachePreReadTest, AReadEndsThePendingOnesThatItCovers) {
  HookedSource* const source = Make(8);
  source->SetSupportsPreReads(true);
  const std::uint32_t later = MTInterface::GetCurrentTimeMilli() + 60000;
  PreRead(source, 0, 3 * kBlock, later);
  Settle();
  EXPECT_EQ(3u, source->GetPreReads().size());
  Read(source, 100, kBlock);
  cache_->Invalidate(source, 0, kTop);
  PreRead(source, 0, 3 * kBlock, later);
  Settle();
  // The first two are asked for again, the third is pending still.
  EXPECT_EQ(5u, source->GetPreReads().size());
}

TEST_F(CachePreReadTest, CancelAndPurgeForgetThePendingOnes) {
  HookedSource* const source = Make(8);
  HookedSource* const other = MakeHookedSource(contents_);
  source->SetSupportsPreReads(true);
  other->SetSupportsPreReads(true);
  const std::uint32_t later = MTInterface::GetCurrentTimeMilli() + 60000;
  const auto preReadBoth = [&] {
    PreRead(source, 0, kBlock, later);
    PreRead(other, 0, kBlock, later);
    Settle();
  };
  preReadBoth();
  cache_->Cancel(source);
  preReadBoth();
  EXPECT_EQ(2u, source->GetPreReads().size());
  cache_->Purge(source);
  preReadBoth();
  EXPECT_EQ(3u, source->GetPreReads().size());
  EXPECT_EQ(1u, other->GetPreReads().size());
}

TEST_F(CachePreReadTest, APendingOneKeepsNeitherItsSourceNorTheCache) {
  for (const bool supports : {true, false}) {
    AutoRelease<BufferFactoryHeap> factory(NewHeapFactory(4, kBlock));
    MakeCacheOver(factory);
    HookedSource* const source = MakeHookedSource(contents_);
    source->SetSupportsPreReads(supports);
    PreRead(source, 0, kBlock, MTInterface::GetCurrentTimeMilli() + 60000);
    ASSERT_TRUE(Eventually(
        [&] { return !source->GetPreReads().empty() || !source->GetRequests().empty(); }));
    EXPECT_TRUE(Eventually([source] { return source->GetRefCount() == 1; }));
    ReleaseSources();
    EXPECT_TRUE(Eventually([this] { return cache_->GetRefCount() == 1; }));
    ReleaseCache();
    EXPECT_EQ(4u, factory->GetNumberOfBuffersFree());
  }
}

TEST_F(CachePreReadTest, NoMoreThanAllBlocksCanHoldIsReadAhead) {
  MakeCache(4);
  MemorySource* const source = MakeSource(contents_);
  source->HoldRequests(true);
  PreRead(source, 0, kTop);
  ASSERT_TRUE(source->WaitForHeld(1));
  EXPECT_EQ((std::vector<Request>{{false, 0, 4 * kBlock, 0}}), source->GetRequests());
  source->HoldRequests(false);
  source->CompleteAll();
}

TEST_F(CachePreReadTest, TheTopOfTheNumbersIsNoObstacle) {
  MakeCache(4);
  MemorySource* const source = MakeSource(contents_);
  PreRead(source, kTop, 1);
  PreRead(source, kTop - 1, kTop);
  PreRead(source, kTop - 2 * kBlock, kTop);
  Settle();
  for (const Request& request : source->GetRequests()) {
    EXPECT_EQ(0u, request.offset % kBlock);
    EXPECT_GE(kTop - request.offset, request.size);
  }
  EXPECT_EQ(contents_, Read(source, 0, contents_.size()));
}

TEST_F(CachePreReadTest, WhileItsSourceIsCancelledOneIsDropped) {
  HookedSource* const source = Make(8);
  bool inside = false;
  source->OnCancel([&] {
    PreRead(source, 0, kBlock);
    inside = true;
  });
  cache_->Cancel(source);
  EXPECT_TRUE(inside);
  Settle();
  EXPECT_TRUE(source->GetRequests().empty());
}

TEST_F(CachePreReadTest, AFillThatFailedIsNotKept) {
  HookedSource* const source = Make(8);
  source->EndAllWith(CacheSource::kResultError);
  PreRead(source, 0, 2 * kBlock);
  Settle();
  EXPECT_EQ(1u, source->GetRequests().size());
  source->EndAllWith(CacheSource::kResultNone);
  EXPECT_EQ(contents_.substr(0, 2 * kBlock), Read(source, 0, 2 * kBlock));
}

TEST_F(CachePreReadTest, BehindTheEndOfTheDataNothingIsKept) {
  HookedSource* const source = Make(8);
  PreRead(source, 8 * kBlock, 2 * kBlock);
  Settle();
  source->SetContents(contents_ + contents_);
  EXPECT_EQ(contents_.substr(0, 2 * kBlock), Read(source, 8 * kBlock, 2 * kBlock));
}

TEST_F(CachePreReadTest, CancelEndsTheFillsAndReadsThatWaitForThem) {
  HookedSource* const source = Make(8);
  source->HoldRequests(true);
  PreRead(source, 0, 2 * kBlock);
  ASSERT_TRUE(source->WaitForHeld(1));
  AsyncRequest request(kBlock);
  request.Read(source, 0);
  ASSERT_TRUE(Eventually([this] { return cache_->GetCacheHits() == 1; }));
  source->Cancel();
  EXPECT_EQ((Report{CacheSource::kResultFailed, 0}), request.GetReport());
  EXPECT_EQ(0u, source->GetHeldCount());
}

TEST_F(CachePreReadTest, MemoryShortageLosesPreReadsAndNothingElse) {
  bool happened = true;
  for (std::size_t ordinal = 1; happened; ++ordinal) {
    ASSERT_GT(200u, ordinal);
    HookedSource* const source = Make(8);
    {
      AllocationFailure failure(ordinal);
      PreRead(source, 0, 3 * kBlock);
      happened = failure.HasHappened();
    }
    EXPECT_EQ(contents_, Read(source, 0, contents_.size())) << ordinal;
    ReleaseSources();
  }
}

TEST_F(CachePreReadTest, ASourceThatDoesNotPreReadByItselfIsNotAskedTo) {
  MakeCache(2);
  MemorySource* const source = MakeSource(MemorySource::Pattern(kBlock));
  TransactionRequest request(100);
  ASSERT_TRUE(request.Setup(source, 7));
  request.GetTransaction()->PreReadDirect();
  EXPECT_TRUE(source->GetPreReads().empty());
  source->SetSupportsPreReads(true);
  request.GetTransaction()->PreReadDirect();
  const std::vector<MemorySource::Request> expected = {{false, 7, 100, 0}};
  EXPECT_EQ(expected, source->GetPreReads());
}

}  // namespace
}  // namespace Orvane
