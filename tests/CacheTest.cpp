// What a cache answers, what it asks of its sources, and how reads end.
#include "Cache.h"

#include <algorithm>
#include <chrono>
#include <future>
#include <limits>
#include <memory>
#include <numeric>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "Cache/CacheBlock.h"
#include "Cache/CacheBlockList.h"
#include "CacheTestTools.h"
#include "MTInterface.h"
#include "TestHost.h"

namespace Orvane {
namespace {

using Request = MemorySource::Request;

constexpr std::uint64_t kTop = std::numeric_limits<std::uint64_t>::max();

class CacheTest : public CacheToolsFixture {
 protected:
  std::vector<std::uint64_t> GetOffsets(MemorySource* source) {
    std::vector<std::uint64_t> offsets;
    for (const Request& request : source->GetRequests()) offsets.push_back(request.offset);
    return offsets;
  }
  // Holds all blocks of a cache of one: a read of block 0 of a source of its own.
  MemorySource* OccupyTheBlock(AsyncRequest* request) {
    MemorySource* const source = MakeSource(MemorySource::Pattern(kBlock));
    source->HoldRequests(true);
    EXPECT_EQ(CacheSource::kResultPending, request->Read(source, 0));
    EXPECT_TRUE(source->WaitForHeld(1));
    return source;
  }

  const std::string contents_ = MemorySource::Pattern(8 * kBlock);
};

TEST_F(CacheTest, ReadWithoutATransactionIsNotSupported) {
  MakeCache(2);
  EXPECT_EQ(CacheSource::kResultNotSupported, cache_->Read(nullptr));
}

TEST_F(CacheTest, ReadWithoutASourceIsNotSupportedAndSetsNothing) {
  MakeCache(2);
  TransactionRequest request(kBlock);
  EXPECT_EQ(CacheSource::kResultNotSupported, cache_->Read(request.GetTransaction()));
  std::uint64_t bytes = 7;
  EXPECT_EQ(CacheSource::kResultError, request.GetTransaction()->GetResult(&bytes));
  EXPECT_FALSE(request.IsReported());
  EXPECT_TRUE(request.Setup(MakeSource(contents_), 0));
  EXPECT_EQ(CacheSource::kResultPending, cache_->Read(request.GetTransaction()));
  EXPECT_EQ((Report{CacheSource::kResultOK, kBlock}), request.GetReport());
}

TEST_F(CacheTest, ATransactionOfNoBytesIsOutOfRange) {
  MakeCache(2);
  MemorySource* const source = MakeSource(contents_);
  AutoRelease<CacheTransaction> transaction(new CacheTransaction);
  AutoRelease<StatusRecorder> status(new StatusRecorder);
  AutoRelease<BufferList> list(new BufferList);
  ASSERT_TRUE(transaction->Setup(source, 0, list, status, 0, MTThread::kPriorityNormal));
  EXPECT_EQ(CacheSource::kResultOutOfRange, cache_->Read(transaction));
  EXPECT_EQ((Report{CacheSource::kResultOutOfRange, 0}), status->GetOne());
  EXPECT_EQ(CacheSource::kResultOutOfRange, transaction->GetResult(nullptr));
  // It is not in use any more.
  EXPECT_TRUE(transaction->Cleanup());
}

TEST_F(CacheTest, WithoutAFactoryEveryReadIsAnError) {
  MakeCacheOver(nullptr);
  EXPECT_EQ(0u, cache_->GetBlockSize());
  HookedSource* const source = MakeHookedSource(contents_);
  TransactionRequest request(kBlock);
  EXPECT_EQ(CacheSource::kResultError, request.Read(cache_, source, 0));
  EXPECT_EQ((Report{CacheSource::kResultError, 0}), request.GetReport());
  EXPECT_EQ(CacheSource::kResultError, request.GetTransaction()->GetResult(nullptr));
  cache_->PreRead(source, 0, 10 * kBlock, 0, MTThread::kPriorityNormal);
  cache_->Invalidate(source, 0, kBlock);
  cache_->Cancel(source);
  cache_->Purge(source);
  cache_->NotifySomethingChanged();
  cache_->Dump();
  EXPECT_EQ(0u, source->GetTries());
  EXPECT_EQ(2u, source->GetCancelCount());
}

TEST_F(CacheTest, WithoutAFactoryFileReadsAreNotSupportedAndNotReported) {
  MakeCacheOver(nullptr);
  MemorySource* const source = MakeSource(contents_);
  AsyncRequest request(kBlock);
  EXPECT_EQ(CacheSource::kResultNotSupported, request.Read(source, 0));
  EXPECT_FALSE(request.IsReported());
  EXPECT_EQ(1, request.GetCallbackReferences());
  std::uint64_t bytes = 7;
  AutoRelease<HeapBuffer> buffer(new HeapBuffer(10));
  EXPECT_EQ(CacheSource::kResultNotSupported, source->Read(0, buffer, &bytes));
  EXPECT_EQ(7u, bytes);
}

TEST_F(CacheTest, ASecondCacheOnOneFactoryHasNoBlocksAndRefuses) {
  AutoRelease<BufferFactoryHeap> factory(NewHeapFactory(4, kBlock));
  AutoRelease<Cache> first(new Cache(factory));
  MakeCacheOver(factory);
  MemorySource* const source = MakeSource(contents_);
  TransactionRequest request(kBlock);
  EXPECT_EQ(CacheSource::kResultError, request.Read(cache_, source, 0));
  EXPECT_EQ((Report{CacheSource::kResultError, 0}), request.GetReport());
  source->PreRead(0, kBlock, 0, MTThread::kPriorityNormal);
  AsyncRequest read(kBlock);
  EXPECT_EQ(CacheSource::kResultNotSupported, read.Read(source, 0));
  EXPECT_TRUE(source->GetRequests().empty());
}

TEST_F(CacheTest, AFactoryThatWasNotInitialisedGivesACacheThatRefuses) {
  AutoRelease<BufferFactoryHeap> factory(new BufferFactoryHeap);
  MakeCacheOver(factory);
  TransactionRequest request(kBlock);
  EXPECT_EQ(CacheSource::kResultError, request.Read(cache_, MakeSource(contents_), 0));
}

TEST_F(CacheTest, TakesAllBuffersForLifeAndGivesThemBack) {
  AutoRelease<BufferFactoryHeap> factory(NewHeapFactory(4, kBlock));
  MakeCacheOver(factory);
  EXPECT_EQ(kBlock, cache_->GetBlockSize());
  EXPECT_EQ(0u, factory->GetNumberOfBuffersFree());
  MemorySource* const source = MakeSource(contents_);
  Read(source, 0, 8 * kBlock);
  // The threads of the cache may hold both for a moment longer than the reader waits.
  EXPECT_TRUE(Eventually([source] { return source->GetRefCount() == 1; }));
  ReleaseSources();
  EXPECT_TRUE(Eventually([this] { return cache_->GetRefCount() == 1; }));
  ReleaseCache();
  EXPECT_EQ(4u, factory->GetNumberOfBuffersFree());
  EXPECT_EQ(1, factory->GetRefCount());
}

TEST_F(CacheTest, MissedBlocksThatFollowEachOtherAreOneRead) {
  MakeCache(8);
  MemorySource* const source = MakeSource(contents_);
  EXPECT_EQ(contents_.substr(100, 3 * kBlock - 200), Read(source, 100, 3 * kBlock - 200));
  EXPECT_EQ((std::vector<Request>{{false, 0, 3 * kBlock, 0}}), source->GetRequests());
}

TEST_F(CacheTest, ASourceThatDoesNotGatherGetsOneReadPerBlock) {
  MakeCache(8);
  MemorySource* const source = MakeSource(contents_);
  source->SetGathers(false);
  EXPECT_EQ(contents_.substr(100, 3 * kBlock - 200), Read(source, 100, 3 * kBlock - 200));
  EXPECT_EQ((std::vector<Request>{
                {false, 0, kBlock, 0}, {false, kBlock, kBlock, 0}, {false, 2 * kBlock, kBlock, 0}}),
            source->GetRequests());
}

TEST_F(CacheTest, BlocksInMemoryBetweenMissesCutTheRead) {
  MakeCache(8);
  MemorySource* const source = MakeSource(contents_);
  Read(source, 2 * kBlock, 1);
  source->ClearRequests();
  EXPECT_EQ(contents_.substr(0, 5 * kBlock), Read(source, 0, 5 * kBlock));
  EXPECT_EQ((std::vector<Request>{{false, 0, 2 * kBlock, 0}, {false, 3 * kBlock, 2 * kBlock, 0}}),
            source->GetRequests());
}

TEST_F(CacheTest, SourceReadsCarryTheDueTimeOfTheirRequest) {
  MakeCache(8);
  MemorySource* const source = MakeSource(contents_);
  AsyncRequest request(kBlock);
  request.Read(source, 0, 12345);
  EXPECT_EQ((Report{CacheSource::kResultOK, kBlock}), request.GetReport());
  EXPECT_EQ((std::vector<Request>{{false, 0, kBlock, 12345}}), source->GetRequests());
}

TEST_F(CacheTest, RequestsAreServedInOrderOfDueTimeAsSoonAsPossibleFirst) {
  MakeCache(8);
  HookedSource* const source = MakeHookedSource(contents_);
  // The read thread stands still in the first of them until all are queued.
  std::promise<void> queued;
  const std::shared_future<void> allQueued(queued.get_future());
  source->OnGather([allQueued] { allQueued.wait(); });
  const std::uint32_t now = MTInterface::GetCurrentTimeMilli();
  AsyncRequest first(kBlock);
  AsyncRequest late(kBlock);
  AsyncRequest early(kBlock);
  AsyncRequest asap(kBlock);
  first.Read(source, 0);
  ASSERT_TRUE(Eventually([source] { return source->GetTries() == 1; }));
  late.Read(source, 2 * kBlock, now + 5000);
  early.Read(source, 4 * kBlock, now + 1000);
  asap.Read(source, 6 * kBlock, CacheSource::kDueASAP);
  queued.set_value();
  for (AsyncRequest* const request : {&first, &late, &early, &asap}) {
    EXPECT_EQ(CacheSource::kResultOK, request->GetReport().result);
  }
  EXPECT_EQ((std::vector<std::uint64_t>{0, 6 * kBlock, 4 * kBlock, 2 * kBlock}),
            GetOffsets(source));
}

TEST_F(CacheTest, WhenAllBlocksAreBusyAReadKeepsTheRangesThatItStillNeeds) {
  MakeCache(2);
  HookedSource* const source = MakeHookedSource(contents_);
  source->HoldRequests(true);
  AsyncRequest request(4 * kBlock);
  ASSERT_EQ(CacheSource::kResultPending, request.Read(source, 0));
  ASSERT_TRUE(source->WaitForHeld(1));
  ASSERT_TRUE(Eventually([source] { return source->GetTries() >= 2; }));
  EXPECT_FALSE(request.IsReported());
  EXPECT_EQ(1u, source->GetHeldCount());
  source->HoldRequests(false);
  source->Complete();
  EXPECT_EQ((Report{CacheSource::kResultOK, 4 * kBlock}), request.GetReport());
  EXPECT_EQ(contents_.substr(0, 4 * kBlock), request.GetBytes(4 * kBlock));
}

TEST_F(CacheTest, AReadThatWaitsForABlockDoesNotSpin) {
  MakeCache(1);
  AsyncRequest occupant(kBlock);
  MemorySource* const other = OccupyTheBlock(&occupant);
  HookedSource* const source = MakeHookedSource(contents_);
  AsyncRequest waiting(kBlock);
  waiting.Read(source, 0);
  ASSERT_TRUE(Eventually([source] { return source->GetTries() >= 2; }));
  const auto start = std::chrono::steady_clock::now();
  const std::size_t before = source->GetTries();
  MTInterface::Sleep(200);
  const std::size_t tries = source->GetTries() - before;
  const std::chrono::duration<double, std::milli> took = std::chrono::steady_clock::now() - start;
  EXPECT_GE(took.count() + 3, static_cast<double>(tries));
  other->Complete();
  EXPECT_EQ(CacheSource::kResultOK, waiting.GetReport().result);
  EXPECT_EQ(CacheSource::kResultOK, occupant.GetReport().result);
}

TEST_F(CacheTest, RetriesDoNotInflateTheCounts) {
  MakeCache(1);
  cache_->CollectCacheStats(true);
  AsyncRequest occupant(kBlock);
  MemorySource* const other = OccupyTheBlock(&occupant);
  HookedSource* const source = MakeHookedSource(contents_);
  AsyncRequest waiting(kBlock);
  waiting.Read(source, 0);
  ASSERT_TRUE(Eventually([source] { return source->GetTries() >= 10; }));
  other->Complete();
  EXPECT_EQ(CacheSource::kResultOK, waiting.GetReport().result);
  EXPECT_EQ(CacheSource::kResultOK, occupant.GetReport().result);
  EXPECT_EQ(2u, cache_->GetCacheMisses());
  EXPECT_EQ(2u, cache_->GetCacheDirectReads());
  EXPECT_EQ(0u, cache_->GetCacheHits());
}

TEST_F(CacheTest, TheReadThatIsDueFirstGetsTheBlockThatIsFreedFirst) {
  MakeCache(1);
  AsyncRequest occupant(kBlock);
  MemorySource* const other = OccupyTheBlock(&occupant);
  HookedSource* const source = MakeHookedSource(contents_);
  source->HoldRequests(true);
  const std::uint32_t now = MTInterface::GetCurrentTimeMilli();
  AsyncRequest late(kBlock);
  AsyncRequest early(kBlock);
  late.Read(source, 0, now + 5000);
  ASSERT_TRUE(Eventually([source] { return source->GetTries() >= 1; }));
  early.Read(source, kBlock, now + 1000);
  const std::size_t tries = source->GetTries();
  ASSERT_TRUE(Eventually([=] { return source->GetTries() >= tries + 3; }));
  other->Complete();
  ASSERT_TRUE(source->WaitForHeld(1));
  EXPECT_EQ(std::vector<std::uint64_t>{kBlock}, GetOffsets(source));
  source->Complete();
  EXPECT_EQ(CacheSource::kResultOK, early.GetReport().result);
  EXPECT_FALSE(late.IsReported());
  ASSERT_TRUE(source->WaitForHeld(1));
  source->Complete();
  EXPECT_EQ(CacheSource::kResultOK, late.GetReport().result);
}

TEST_F(CacheTest, AnIdleCacheAsksNothingAndRunsNothing) {
  MakeCache(4);
  HookedSource* const source = MakeHookedSource(contents_);
  Read(source, 0, kBlock);
  const std::size_t tries = source->GetTries();
  const std::uint64_t before = GetProcessorMicros();
  MTInterface::Sleep(100);
  // Three threads that polled each millisecond would take several.
  EXPECT_GT(20000u, GetProcessorMicros() - before);
  EXPECT_EQ(tries, source->GetTries());
}

TEST_F(CacheTest, ABusySourceIsAskedAgainUntilItHasRoom) {
  MakeCache(4);
  MemorySource* const source = MakeSource(contents_);
  source->AnswerNext(CacheSource::kResultBusy, 20);
  EXPECT_EQ(contents_.substr(0, 2 * kBlock), Read(source, 0, 2 * kBlock));
  EXPECT_EQ(1u, source->GetRequests().size());
}

TEST_F(CacheTest, ASourceThatRefusesToStartFailsTheReadAndNothingHangs) {
  const std::pair<CacheSource::Result_t, CacheSource::Result_t> kAnswers[] = {
      {CacheSource::kResultNotSupported, CacheSource::kResultError},
      {CacheSource::kResultError, CacheSource::kResultError},
      {CacheSource::kResultUnknown, CacheSource::kResultError},
      {CacheSource::kResultOutOfRange, CacheSource::kResultOutOfRange},
      {CacheSource::kResultFailed, CacheSource::kResultFailed},
      {CacheSource::kResultNone, CacheSource::kResultError},
      {CacheSource::kResultLockFailed, CacheSource::kResultError},
      {CacheSource::kResultPartial, CacheSource::kResultError},
  };
  for (const bool gathers : {true, false}) {
    MakeCache(4);
    MemorySource* const source = MakeSource(contents_);
    source->SetGathers(gathers);
    for (const auto& [answer, result] : kAnswers) {
      source->AnswerNext(answer);
      Report report{};
      Read(source, 10, 100, &report);
      EXPECT_EQ((Report{result, 0}), report) << answer;
    }
    // None of it was kept, and no block was lost.
    EXPECT_EQ(contents_, Read(source, 0, contents_.size()));
    ReleaseSources();
  }
}

TEST_F(CacheTest, ASourceThatHasItAllAtOnceNeedsNoReport) {
  MakeCache(4);
  MemorySource* const source = MakeSource(contents_);
  source->AnswerNext(CacheSource::kResultOK);
  Report report{};
  Read(source, 0, 2 * kBlock, &report);
  EXPECT_EQ((Report{CacheSource::kResultOK, 2 * kBlock}), report);
}

TEST_F(CacheTest, WhateverASourceReportsEndsTheRead) {
  struct Row {
    CacheSource::Result_t result;
    std::uint64_t bytes;
    Report expected;
  };
  const Row kRows[] = {
      {CacheSource::kResultOK, kBlock, {CacheSource::kResultOK, kBlock}},
      {CacheSource::kResultOK, kBlock + 1, {CacheSource::kResultOK, kBlock}},
      {CacheSource::kResultOK, 100, {CacheSource::kResultPartial, 100}},
      {CacheSource::kResultOK, 0, {CacheSource::kResultOutOfRange, 0}},
      {CacheSource::kResultPartial, 100, {CacheSource::kResultPartial, 100}},
      {CacheSource::kResultPartial, kBlock, {CacheSource::kResultOK, kBlock}},
      {CacheSource::kResultPartial, 0, {CacheSource::kResultOutOfRange, 0}},
      {CacheSource::kResultOutOfRange, 0, {CacheSource::kResultOutOfRange, 0}},
      {CacheSource::kResultOutOfRange, 100, {CacheSource::kResultOutOfRange, 0}},
      {CacheSource::kResultNone, kBlock, {CacheSource::kResultError, 0}},
      {CacheSource::kResultPending, kBlock, {CacheSource::kResultError, 0}},
      {CacheSource::kResultLockFailed, kBlock, {CacheSource::kResultError, 0}},
      {CacheSource::kResultFailed, 0, {CacheSource::kResultFailed, 0}},
      {CacheSource::kResultNotSupported, 0, {CacheSource::kResultError, 0}},
      {CacheSource::kResultUnknown, kBlock, {CacheSource::kResultError, 0}},
      {CacheSource::kResultError, kBlock, {CacheSource::kResultError, 0}},
      {CacheSource::kResultBusy, 0, {CacheSource::kResultError, 0}},
  };
  const std::string contents = MemorySource::Pattern(kBlock);
  for (const Row& row : kRows) {
    MakeCache(1);
    MemorySource* const source = MakeSource(contents);
    source->HoldRequests(true);
    AsyncRequest request(kBlock);
    ASSERT_EQ(CacheSource::kResultPending, request.Read(source, 0));
    ASSERT_TRUE(source->WaitForHeld(1));
    source->CompleteWith(0, row.result, row.bytes);
    EXPECT_EQ(row.expected, request.GetReport()) << row.result << ", " << row.bytes;
    EXPECT_EQ(contents.substr(0, row.expected.bytes), request.GetBytes(row.expected.bytes));
    EXPECT_TRUE(request.GetTarget().IsUntouchedFrom(row.expected.bytes));
    ReleaseSources();
  }
}

TEST_F(CacheTest, AFailedReadIsNeverShownAsTheEndOfTheFile) {
  MakeCache(4);
  MemorySource* const source = MakeSource(contents_);
  Read(source, 0, kBlock);
  source->EndAllWith(CacheSource::kResultError);
  Report report{};
  // Alone, and behind a block that is there already.
  Read(source, 2 * kBlock + 10, 100, &report);
  EXPECT_EQ((Report{CacheSource::kResultError, 0}), report);
  Read(source, 100, kBlock, &report);
  EXPECT_EQ((Report{CacheSource::kResultError, 0}), report);
  source->EndAllWith(CacheSource::kResultNone);
  EXPECT_EQ(contents_.substr(100, kBlock), Read(source, 100, kBlock));
}

// Every order in which the blocks of a read can be filled.
class CacheEndOfDataTest : public CacheToolsFixture {
 protected:
  void ReadInEveryOrder(std::size_t fileSize, std::uint64_t offset, std::size_t size,
                        const Report& expected) {
    const std::string contents = MemorySource::Pattern(fileSize);
    MakeCache(8);
    HookedSource* const source = MakeHookedSource(contents);
    source->SetGathers(false);
    source->HoldRequests(true);
    const std::size_t blocks = (offset % kBlock + size + kBlock - 1) / kBlock;
    std::vector<std::size_t> order(blocks);
    std::iota(order.begin(), order.end(), 0);
    do {
      AsyncRequest request(size);
      ASSERT_EQ(CacheSource::kResultPending, request.Read(source, offset));
      ASSERT_TRUE(source->WaitForHeld(blocks));
      std::vector<std::size_t> left(blocks);
      std::iota(left.begin(), left.end(), 0);
      for (const std::size_t next : order) {
        const auto place = std::find(left.begin(), left.end(), next);
        source->Complete(static_cast<std::size_t>(place - left.begin()));
        left.erase(place);
      }
      ASSERT_EQ(expected, request.GetReport());
      ASSERT_EQ(contents.substr(std::min<std::size_t>(offset, fileSize), expected.bytes),
                request.GetBytes(expected.bytes));
      ASSERT_TRUE(request.GetTarget().IsUntouchedFrom(expected.bytes));
      source->HoldRequests(false);
      cache_->Purge(source);
      source->HoldRequests(true);
    } while (std::next_permutation(order.begin(), order.end()));
    ReleaseSources();
  }
};

TEST_F(CacheEndOfDataTest, ReadsAcrossTheEndGiveAllLeadingBytesInAnyOrder) {
  ReadInEveryOrder(2 * kBlock + 100, 0, 5 * kBlock,
                   {CacheSource::kResultPartial, 2 * kBlock + 100});
  ReadInEveryOrder(2 * kBlock + 100, 50, 4 * kBlock - 50,
                   {CacheSource::kResultPartial, 2 * kBlock + 50});
}

TEST_F(CacheEndOfDataTest, ReadsAcrossAnEndBetweenTwoBlocksGiveAllLeadingBytesInAnyOrder) {
  ReadInEveryOrder(2 * kBlock, 0, 4 * kBlock, {CacheSource::kResultPartial, 2 * kBlock});
  ReadInEveryOrder(2 * kBlock, kBlock + 1, 2 * kBlock, {CacheSource::kResultPartial, kBlock - 1});
}

TEST_F(CacheEndOfDataTest, ReadsBehindTheEndAreOutOfRangeInAnyOrder) {
  ReadInEveryOrder(2 * kBlock, 2 * kBlock, 3 * kBlock, {CacheSource::kResultOutOfRange, 0});
  ReadInEveryOrder(2 * kBlock + 100, 2 * kBlock + 100, 3 * kBlock,
                   {CacheSource::kResultOutOfRange, 0});
  ReadInEveryOrder(100, 3 * kBlock, 3 * kBlock, {CacheSource::kResultOutOfRange, 0});
}

TEST_F(CacheEndOfDataTest, ReadsUpToTheEndAreWholeInAnyOrder) {
  ReadInEveryOrder(2 * kBlock + 100, kBlock, kBlock + 100, {CacheSource::kResultOK, kBlock + 100});
}

TEST_F(CacheEndOfDataTest, BlocksInMemoryChangeNothingAboutTheEnd) {
  const std::string contents = MemorySource::Pattern(2 * kBlock + 100);
  for (int mask = 0; mask < 32; ++mask) {
    MakeCache(8);
    MemorySource* const source = MakeSource(contents);
    Report report{};
    for (std::size_t k = 0; k < 5; ++k) {
      if (mask & (1 << k)) Read(source, k * kBlock + 50, 10, &report);
    }
    EXPECT_EQ(contents, Read(source, 0, 5 * kBlock, &report));
    EXPECT_EQ((Report{CacheSource::kResultPartial, 2 * kBlock + 100}), report) << mask;
    ReleaseSources();
  }
}

TEST_F(CacheTest, NoListAndAnEmptyOneAreNotSupportedAndNothingIsKept) {
  MakeCache(2);
  MemorySource* const source = MakeSource(contents_);
  AutoRelease<ReportRecorder> recorder(new ReportRecorder);
  AutoRelease<BufferList> empty(new BufferList);
  const long references = source->GetRefCount();
  EXPECT_EQ(CacheSource::kResultNotSupported, source->ReadAsyncWithList(0, nullptr, recorder, 0));
  EXPECT_EQ(CacheSource::kResultNotSupported, source->ReadAsyncWithList(0, empty, recorder, 0));
  EXPECT_EQ(CacheSource::kResultNotSupported, source->ReadWithList(0, empty, nullptr));
  EXPECT_EQ(CacheSource::kResultNotSupported, source->Read(0, nullptr, nullptr));
  Target target(10);
  EXPECT_EQ(CacheSource::kResultNotSupported,
            source->ReadAsyncWithList(0, target.GetList(), nullptr, 0));
  EXPECT_EQ(1, recorder->GetRefCount());
  EXPECT_EQ(1, empty->GetRefCount());
  EXPECT_EQ(references, source->GetRefCount());
  EXPECT_TRUE(recorder->GetReports().empty());
}

TEST_F(CacheTest, RangesThatPassTheTopOfTheNumbersAreRefused) {
  MakeCache(2);
  MemorySource* const source = MakeSource(contents_);
  AsyncRequest request(kBlock);
  EXPECT_EQ(CacheSource::kResultNotSupported, request.Read(source, kTop - 100));
  EXPECT_FALSE(request.IsReported());
  EXPECT_EQ(1, request.GetCallbackReferences());
  TransactionRequest transaction(kBlock);
  EXPECT_FALSE(transaction.Setup(source, kTop - 100));
  EXPECT_EQ(CacheSource::kResultNotSupported, cache_->Read(transaction.GetTransaction()));
}

TEST_F(CacheTest, AReadInTheLastBlockOfAllEnds) {
  MakeCache(2);
  MemorySource* const source = MakeSource(contents_);
  Report report{};
  Read(source, kTop - 100, 50, &report);
  EXPECT_GT(CacheSource::kResultNone, report.result);
  EXPECT_EQ(0u, report.bytes);
  EXPECT_EQ(contents_, Read(source, 0, contents_.size()));
}

TEST_F(CacheTest, InvalidationReachesToTheTopOfTheNumbers) {
  MakeCache(4);
  MemorySource* const source = MakeSource(contents_);
  Read(source, 0, 3 * kBlock);
  source->ClearRequests();
  cache_->Invalidate(source, kBlock + 10, kTop);
  Read(source, 0, 3 * kBlock);
  EXPECT_EQ((std::vector<Request>{{false, kBlock, 2 * kBlock, 0}}), source->GetRequests());
}

TEST_F(CacheTest, InvalidationForgetsTheBlocksThatMeetTheRange) {
  MakeCache(8);
  MemorySource* const source = MakeSource(contents_);
  MemorySource* const other = MakeSource(contents_);
  Read(source, 0, 4 * kBlock);
  Read(other, 0, 4 * kBlock);
  source->ClearRequests();
  other->ClearRequests();
  cache_->Invalidate(nullptr, 0, kTop);
  cache_->Invalidate(source, 0, 0);
  cache_->Invalidate(source, 2 * kBlock - 1, 2);
  Read(source, 0, 4 * kBlock);
  Read(other, 0, 4 * kBlock);
  EXPECT_EQ((std::vector<Request>{{false, kBlock, 2 * kBlock, 0}}), source->GetRequests());
  EXPECT_TRUE(other->GetRequests().empty());
}

TEST_F(CacheTest, InvalidationFailsTheReadsThatWaitForTheRange) {
  MakeCache(4);
  MemorySource* const source = MakeSource(contents_);
  source->SetGathers(false);
  source->HoldRequests(true);
  AsyncRequest first(kBlock);
  AsyncRequest second(kBlock);
  first.Read(source, 0);
  second.Read(source, kBlock);
  ASSERT_TRUE(source->WaitForHeld(2));
  cache_->Invalidate(source, 0, 1);
  EXPECT_EQ((Report{CacheSource::kResultFailed, 0}), first.GetReport());
  source->CompleteAll();
  EXPECT_EQ((Report{CacheSource::kResultOK, kBlock}), second.GetReport());
}

TEST_F(CacheTest, PurgeForgetsAllBlocksOfTheSource) {
  MakeCache(8);
  MemorySource* const source = MakeSource(contents_);
  MemorySource* const other = MakeSource(contents_);
  Read(source, 0, 3 * kBlock);
  Read(other, 0, 3 * kBlock);
  source->ClearRequests();
  other->ClearRequests();
  cache_->Purge(nullptr);
  Read(source, 0, 3 * kBlock);
  EXPECT_TRUE(source->GetRequests().empty());
  cache_->Purge(source);
  Read(source, 0, 3 * kBlock);
  Read(other, 0, 3 * kBlock);
  EXPECT_EQ((std::vector<Request>{{false, 0, 3 * kBlock, 0}}), source->GetRequests());
  EXPECT_TRUE(other->GetRequests().empty());
}

// Between the moment in which the last holder leaves a block that is to be forgotten and the one in
// which he gets the list's lock to have it forgotten.
TEST_F(CacheTest, ABlockThatIsClaimedBeforeItIsForgottenIsKept) {
  MemorySource* const source = MakeUnattachedSource(contents_);
  AutoRelease<BufferFactoryHeap> factory(NewHeapFactory(1, kBlock));
  CacheBlockList list(nullptr, factory);
  CacheBlock* const block = list.GetBlock(0);
  TransactionRequest failing(kBlock);
  TransactionRequest next(kBlock);
  ASSERT_TRUE(failing.Setup(source, 0));
  ASSERT_TRUE(next.Setup(source, kBlock));
  ASSERT_EQ(block, list.FindBlockToReadInto(failing.GetTransaction()));
  ASSERT_TRUE(block->CompleteReadInto(0, CacheSource::kResultError));
  std::thread lastHolder;
  {
    CacheBlockList::Lock lock(&list);
    lastHolder = std::thread([block] { block->ProcessPendingTransactions(nullptr); });
    EXPECT_TRUE(Eventually([block] { return block->GetLockCount() == 0; }));
    EXPECT_EQ(block, list.FindBlockToReadInto(next.GetTransaction()));
  }
  lastHolder.join();
  ASSERT_TRUE(block->CompleteReadInto(kBlock, CacheSource::kResultOK));
  block->ProcessPendingTransactions(nullptr);
  EXPECT_EQ((Report{CacheSource::kResultError, 0}), failing.GetReport());
  EXPECT_EQ((Report{CacheSource::kResultOK, kBlock}), next.GetReport());
  EXPECT_EQ(0, block->GetLockCount());
  EXPECT_EQ(source->GetSourceKey(), block->GetSourceKey());
  EXPECT_EQ(kBlock, block->GetValidBytes());
}

TEST_F(CacheTest, StatisticsCountBlocks) {
  MakeCache(8);
  MemorySource* const source = MakeSource(contents_);
  cache_->CollectCacheStats(true);
  Read(source, 0, 3 * kBlock);
  EXPECT_EQ(3u, cache_->GetCacheMisses());
  EXPECT_EQ(3u, cache_->GetCacheDirectReads());
  EXPECT_EQ(0u, cache_->GetCacheHits());
  Read(source, 10, 2 * kBlock);
  EXPECT_EQ(3u, cache_->GetCacheHits());
  AsyncRequest request(2 * kBlock);
  request.Read(source, 2 * kBlock);
  EXPECT_EQ(CacheSource::kResultOK, request.GetReport().result);
  EXPECT_EQ(4u, cache_->GetCacheHits());
  EXPECT_EQ(4u, cache_->GetCacheMisses());
  EXPECT_EQ(4u, cache_->GetCacheDirectReads());
  EXPECT_EQ(0u, cache_->GetCachePreReads());
}

TEST_F(CacheTest, StatisticsAreOffAtFirstAndDiscardedWhenTurnedOff) {
  MakeCache(8);
  MemorySource* const source = MakeSource(contents_);
  const auto counts = [this] {
    return std::vector<std::uint32_t>{cache_->GetCacheHits(), cache_->GetCacheMisses(),
                                      cache_->GetCacheDirectReads(), cache_->GetCachePreReads()};
  };
  const std::vector<std::uint32_t> kNone(4);
  Read(source, 0, kBlock);
  Read(source, 0, kBlock);
  EXPECT_EQ(kNone, counts());
  cache_->ResetCacheStats();
  cache_->CollectCacheStats(true);
  Read(source, 0, 2 * kBlock);
  EXPECT_EQ((std::vector<std::uint32_t>{1, 1, 1, 0}), counts());
  cache_->CollectCacheStats(true);
  EXPECT_EQ((std::vector<std::uint32_t>{1, 1, 1, 0}), counts());
  cache_->ResetCacheStats();
  EXPECT_EQ(kNone, counts());
  Read(source, 0, kBlock);
  EXPECT_EQ((std::vector<std::uint32_t>{1, 0, 0, 0}), counts());
  cache_->CollectCacheStats(false);
  EXPECT_EQ(kNone, counts());
  Read(source, 0, kBlock);
  cache_->CollectCacheStats(true);
  EXPECT_EQ(kNone, counts());
}

TEST_F(CacheTest, DumpChangesNothing) {
  MakeCache(4);
  MemorySource* const source = MakeSource(contents_);
  source->HoldRequests(true);
  AsyncRequest request(2 * kBlock);
  request.Read(source, 0);
  ASSERT_TRUE(source->WaitForHeld(1));
  cache_->Dump();
  EXPECT_FALSE(request.IsReported());
  source->Complete();
  EXPECT_EQ((Report{CacheSource::kResultOK, 2 * kBlock}), request.GetReport());
}

TEST_F(CacheTest, BytesOfAnEarlierUseOfABlockNeverReachAReader) {
  MakeCache(1);
  MemorySource* const secret = MakeSource(std::string(kBlock, 'S'));
  Read(secret, 0, kBlock);
  MemorySource* const source = MakeSource(contents_);
  // Claims to have read it all and has read nothing.
  source->EndAllWith(CacheSource::kResultPartial, 10);
  AsyncRequest request(kBlock);
  request.Read(source, 0);
  EXPECT_EQ((Report{CacheSource::kResultPartial, 10}), request.GetReport());
  EXPECT_EQ(contents_.substr(0, 10), request.GetBytes(10));
  EXPECT_TRUE(request.GetTarget().IsUntouchedFrom(10));
}

TEST_F(CacheTest, ABufferThatDoesNotLockFailsItsReadAndFreesTheBlock) {
  MakeCache(1);
  MemorySource* const source = MakeSource(contents_);
  AutoRelease<HookedBuffer> buffer(new HookedBuffer(kBlock));
  buffer->RefuseLocks(true);
  EXPECT_EQ(CacheSource::kResultError, source->Read(0, buffer, nullptr));
  EXPECT_EQ(contents_.substr(kBlock, kBlock), Read(source, kBlock, kBlock));
}

TEST_F(CacheTest, ReadOfATransactionInUseIsAnErrorAndChangesNothing) {
  MakeCache(4);
  MemorySource* const source = MakeSource(contents_);
  source->HoldRequests(true);
  TransactionRequest request(kBlock);
  ASSERT_EQ(CacheSource::kResultPending, request.Read(cache_, source, 0));
  ASSERT_TRUE(source->WaitForHeld(1));
  EXPECT_EQ(CacheSource::kResultError, cache_->Read(request.GetTransaction()));
  EXPECT_FALSE(request.IsReported());
  EXPECT_EQ(CacheSource::kResultPending, request.GetTransaction()->GetResult(nullptr));
  source->Complete();
  EXPECT_EQ((Report{CacheSource::kResultOK, kBlock}), request.GetReport());
  EXPECT_EQ(contents_.substr(0, kBlock), request.GetBytes(kBlock));
}

TEST_F(CacheTest, SetupAndCleanupAreRefusedInFlightAndWorkInsideTheReport) {
  MakeCache(4);
  MemorySource* const source = MakeSource(contents_);
  MemorySource* const other = MakeSource(MemorySource::Pattern(kBlock, 9));
  source->HoldRequests(true);
  TransactionRequest request(kBlock);
  bool cleaned = false;
  bool loaded = false;
  request.OnReport([&](CacheTransaction* transaction) {
    if (cleaned) return;
    BufferList* const list = request.GetTarget().GetList();
    cleaned = transaction->Cleanup();
    loaded = transaction->Setup(other, 0, list, request.GetStatus(), 0, MTThread::kPriorityNormal);
  });
  ASSERT_EQ(CacheSource::kResultPending, request.Read(cache_, source, 0));
  ASSERT_TRUE(source->WaitForHeld(1));
  EXPECT_FALSE(request.GetTransaction()->Cleanup());
  EXPECT_FALSE(request.Setup(other, 0));
  EXPECT_EQ(source, request.GetTransaction()->GetSource());
  source->Complete();
  ASSERT_TRUE(request.WaitForReports(1));
  EXPECT_TRUE(cleaned);
  EXPECT_TRUE(loaded);
  EXPECT_EQ(CacheSource::kResultPending, cache_->Read(request.GetTransaction()));
  ASSERT_TRUE(request.WaitForReports(2));
  EXPECT_EQ(other->GetContents(), request.GetBytes(kBlock));
}

TEST_F(CacheTest, BlocksThatEndAfterTheReportDoNotTouchTheTransactionOrItsMemory) {
  MakeCache(4);
  MemorySource* const source = MakeSource(contents_);
  MemorySource* const other = MakeSource(MemorySource::Pattern(2 * kBlock, 9));
  source->SetGathers(false);
  source->HoldRequests(true);
  other->HoldRequests(true);
  TransactionRequest request(2 * kBlock);
  ASSERT_EQ(CacheSource::kResultPending, request.Read(cache_, source, 0));
  ASSERT_TRUE(source->WaitForHeld(2));
  cache_->Invalidate(source, kBlock, 1);
  ASSERT_TRUE(request.WaitForReports(1));
  EXPECT_EQ((std::vector<Report>{{CacheSource::kResultFailed, 0}}), request.GetReports());
  // The same transaction and memory for something else, while block 0 still has it in its queue.
  ASSERT_EQ(CacheSource::kResultPending, request.Read(cache_, other, 0));
  ASSERT_TRUE(other->WaitForHeld(1));
  source->CompleteAll();
  // Behind the stale entry in the queue of the copies.
  EXPECT_EQ(contents_.substr(0, kBlock), Read(source, 0, kBlock));
  EXPECT_TRUE(request.GetTarget().IsUntouchedFrom(0));
  EXPECT_EQ(1u, request.GetReports().size());
  other->CompleteAll();
  ASSERT_TRUE(request.WaitForReports(2));
  EXPECT_EQ((Report{CacheSource::kResultOK, 2 * kBlock}), request.GetReports()[1]);
  EXPECT_EQ(other->GetContents(), request.GetBytes(2 * kBlock));
}

TEST_F(CacheTest, MemoryThatIsFreedInsideTheReportIsNotWrittenTo) {
  MakeCache(4);
  MemorySource* const source = MakeSource(contents_);
  source->SetGathers(false);
  source->HoldRequests(true);
  auto memory = std::make_unique<char[]>(2 * kBlock);
  AutoRelease<HostBuffer> buffer(new HostBuffer(memory.get(), 2 * kBlock));
  AutoRelease<BufferList> list(new BufferList(buffer, /*adoptReference=*/false, 1));
  AutoRelease<HookedRecorder> recorder(new HookedRecorder);
  recorder->OnReport([&memory](const Report&) { memory.reset(); });
  ASSERT_EQ(CacheSource::kResultPending, source->ReadAsyncWithList(0, list, recorder, 0));
  ASSERT_TRUE(source->WaitForHeld(2));
  cache_->Invalidate(source, 0, 1);
  ASSERT_TRUE(recorder->WaitFor(1));
  EXPECT_EQ(nullptr, memory);
  source->HoldRequests(false);
  source->CompleteAll();
  Read(source, 0, 2 * kBlock);
  EXPECT_EQ((Report{CacheSource::kResultFailed, 0}), recorder->GetOne());
}

TEST_F(CacheTest, AReportWaitsForTheEndOfACopyThatIsUnderWay) {
  MakeCache(4);
  MemorySource* const source = MakeSource(contents_);
  source->SetGathers(false);
  source->HoldRequests(true);
  AutoRelease<HookedBuffer> buffer(new HookedBuffer(2 * kBlock));
  AutoRelease<BufferList> list(new BufferList(buffer, /*adoptReference=*/false, 1));
  AutoRelease<ReportRecorder> recorder(new ReportRecorder);
  std::size_t reportsInsideCopy = 99;
  buffer->OnCopyInto([&] {
    std::thread([&] { cache_->Invalidate(source, kBlock, 1); }).join();
    reportsInsideCopy = recorder->GetReports().size();
  });
  ASSERT_EQ(CacheSource::kResultPending, source->ReadAsyncWithList(0, list, recorder, 0));
  ASSERT_TRUE(source->WaitForHeld(2));
  source->Complete(0);
  EXPECT_EQ((Report{CacheSource::kResultFailed, 0}), recorder->GetOne());
  EXPECT_EQ(0u, reportsInsideCopy);
  source->CompleteAll();
}

TEST_F(CacheTest, AListThatGrewPastTheTopOfTheNumbersIsRefused) {
  MakeCache(2);
  MemorySource* const source = MakeSource(contents_);
  TransactionRequest request(100);
  ASSERT_TRUE(request.Setup(source, kTop - 200));
  AutoRelease<HeapBuffer> more(new HeapBuffer(101));
  ASSERT_TRUE(request.GetTarget().GetList()->AddBuffer(more, /*adoptReference=*/false));
  EXPECT_EQ(CacheSource::kResultNotSupported, cache_->Read(request.GetTransaction()));
  EXPECT_FALSE(request.IsReported());
  EXPECT_TRUE(request.GetTransaction()->Cleanup());
}

}  // namespace
}  // namespace Orvane
