// Asynchronous reads of what is in memory.
#include <atomic>
#include <functional>
#include <memory>
#include <thread>

#include "AllocationCounter.h"
#include "CacheTestTools.h"
#include "MTInterface.h"

namespace Orvane {
namespace {

constexpr std::size_t kBytes = 8 * 4096;

// Keeps the thread for copies busy with a callback until it is let go; `last` is what that thread
// does then.
class BusyCopies {
 public:
  BusyCopies(
      FileSource* source, std::uint64_t offset, std::function<void()> last = [] {})
      : request_(16) {
    request_.OnReport([this, last](const Report&) {
      entered_->Release(1);
      EXPECT_TRUE(leave_->Wait(60000, 1));
      last();
    });
    EXPECT_EQ(CacheSource::kResultPending, request_.Read(source, offset));
    EXPECT_TRUE(entered_->Wait(5000, 1));
  }
  ~BusyCopies() { End(); }
  BusyCopies(const BusyCopies&) = delete;
  BusyCopies& operator=(const BusyCopies&) = delete;

  void End() {
    if (ended_) return;
    ended_ = true;
    leave_->Release(1);
    EXPECT_EQ(CacheSource::kResultOK, request_.GetReport().result);
  }

 private:
  const std::unique_ptr<MTSemaphore> entered_{MTInterface::NewSemaphore(1, 0)};
  const std::unique_ptr<MTSemaphore> leave_{MTInterface::NewSemaphore(1, 0)};
  AsyncRequest request_;
  bool ended_ = false;
};

class AsyncResidentReadTest : public CacheFixture {
 protected:
  void SetUp() override {
    CacheFixture::SetUp();
    MakeCache(16);
    contents_ = MemorySource::Pattern(kBytes);
    source_ = MakeSource(contents_);
    other_ = MakeSource(MemorySource::Pattern(kBytes, 2));
    Read(source_, 0, kBytes);
    Read(other_, 0, kBytes);
    source_->ClearRequests();
  }

  // Has other data read into all blocks, without a copy.
  void EvictAll() {
    MemorySource* const third = MakeSource(MemorySource::Pattern(16 * kBlock, 4));
    cache_->PreRead(third, 0, 16 * kBlock, CacheSource::kDueASAP, MTThread::kPriorityNormal);
    EXPECT_TRUE(Eventually([&] {
      std::uint64_t bytes = 0;
      for (const MemorySource::Request& request : third->GetRequests()) bytes += request.size;
      return bytes == 16 * kBlock;
    }));
  }

  std::string contents_;
  MemorySource* source_ = nullptr;
  MemorySource* other_ = nullptr;
};

TEST_F(AsyncResidentReadTest, AHitIsReportedOnceWithItsBytesAndStartsNoRequest) {
  AsyncRequest request(5000);
  ASSERT_EQ(CacheSource::kResultPending, request.Read(source_, 3000));
  EXPECT_EQ((Report{CacheSource::kResultOK, 5000}), request.GetReport());
  EXPECT_EQ(contents_.substr(3000, 5000), request.GetBytes(5000));
  EXPECT_TRUE(source_->GetRequests().empty());
}

TEST_F(AsyncResidentReadTest, TheStartOfAHitTakesOneAllocation) {
  // The first one makes room in the queue.
  AsyncRequest first(16);
  ASSERT_EQ(CacheSource::kResultPending, first.Read(source_, 0));
  first.GetReport();
  AsyncRequest second(16);
  const std::size_t before = AllocationCounter::Count();
  ASSERT_EQ(CacheSource::kResultPending, second.Read(source_, 0));
  EXPECT_GE(before + 1, AllocationCounter::Count());
  second.GetReport();
}

TEST_F(AsyncResidentReadTest, WithoutMemoryForItTheReadIsRefusedAndNothingIsReported) {
  AsyncRequest request(16);
  {
    const AllocationFailure failure(1);
    // The usual way has memory again.
    EXPECT_EQ(CacheSource::kResultPending, request.Read(source_, 0));
    EXPECT_TRUE(failure.HasHappened());
  }
  EXPECT_EQ((Report{CacheSource::kResultOK, 16}), request.GetReport());
  EXPECT_EQ(1u, request.GetReportCount());
  EXPECT_TRUE(Eventually([&] { return request.GetCallbackReferences() == 1; }));
}

TEST_F(AsyncResidentReadTest, WhatIsEvictedBeforeItsTurnIsReadAgain) {
  BusyCopies busy(other_, 0);
  AsyncRequest request(100);
  ASSERT_EQ(CacheSource::kResultPending, request.Read(source_, 4096));
  EvictAll();
  source_->SetContents(MemorySource::Pattern(kBytes, 3));
  EXPECT_FALSE(request.IsReported());
  busy.End();
  EXPECT_EQ((Report{CacheSource::kResultOK, 100}), request.GetReport());
  EXPECT_EQ(MemorySource::Pattern(kBytes, 3).substr(4096, 100), request.GetBytes(100));
  EXPECT_EQ(1u, source_->GetRequests().size());
}

TEST_F(AsyncResidentReadTest, WhatIsEvictedBeforeItsTurnMayEndShort) {
  BusyCopies busy(other_, 0);
  AsyncRequest request(100);
  ASSERT_EQ(CacheSource::kResultPending, request.Read(source_, 4096));
  EvictAll();
  source_->SetContents(MemorySource::Pattern(4096 + 60));
  busy.End();
  EXPECT_EQ((Report{CacheSource::kResultPartial, 60}), request.GetReport());
}

TEST_F(AsyncResidentReadTest, WhatIsEvictedMayNotBeReadAgainForLackOfMemory) {
  // Of the thread for copies.
  BusyCopies busy(other_, 0, [] { AllocationFailure::Arm(1); });
  AsyncRequest request(100);
  ASSERT_EQ(CacheSource::kResultPending, request.Read(source_, 4096));
  EvictAll();
  request.OnReport([](const Report&) { AllocationFailure::Arm(0); });
  busy.End();
  EXPECT_EQ((Report{CacheSource::kResultError, 0}), request.GetReport());
  EXPECT_TRUE(source_->GetRequests().empty());
  EXPECT_TRUE(Eventually([&] { return request.GetCallbackReferences() == 1; }));
}

// As a read does that waits for a block.
TEST_F(AsyncResidentReadTest, WhatIsInvalidatedBeforeItsTurnFails) {
  BusyCopies busy(other_, 0);
  AsyncRequest request(100);
  ASSERT_EQ(CacheSource::kResultPending, request.Read(source_, 4096));
  cache_->Invalidate(source_, 4096 + 100, 1);
  busy.End();
  EXPECT_EQ((Report{CacheSource::kResultFailed, 0}), request.GetReport());
  EXPECT_TRUE(source_->GetRequests().empty());
}

TEST_F(AsyncResidentReadTest, WhatIsInvalidatedElsewhereDoesNotConcernIt) {
  BusyCopies busy(other_, 0);
  AsyncRequest request(100);
  ASSERT_EQ(CacheSource::kResultPending, request.Read(source_, 2 * kBlock));
  cache_->Invalidate(other_, 0, kBytes);
  cache_->Invalidate(source_, 2 * kBlock, 0);
  cache_->Invalidate(source_, 0, 2 * kBlock);
  cache_->Invalidate(source_, 3 * kBlock, ~std::uint64_t{0});
  busy.End();
  EXPECT_EQ((Report{CacheSource::kResultOK, 100}), request.GetReport());
  EXPECT_EQ(contents_.substr(2 * kBlock, 100), request.GetBytes(100));
}

TEST_F(AsyncResidentReadTest, WhatIsInvalidatedToTheLastByteOfAllFails) {
  BusyCopies busy(other_, 0);
  AsyncRequest request(100);
  ASSERT_EQ(CacheSource::kResultPending, request.Read(source_, 7 * kBlock));
  cache_->Invalidate(source_, 5, ~std::uint64_t{0});
  busy.End();
  EXPECT_EQ((Report{CacheSource::kResultFailed, 0}), request.GetReport());
}

TEST_F(AsyncResidentReadTest, WhatWasInvalidatedBeforeTheStartDoesNotConcernIt) {
  cache_->Invalidate(source_, 0, kBytes);
  Read(source_, 0, kBytes);
  AsyncRequest request(100);
  ASSERT_EQ(CacheSource::kResultPending, request.Read(source_, 0));
  EXPECT_EQ((Report{CacheSource::kResultOK, 100}), request.GetReport());
}

// More than are remembered.
TEST_F(AsyncResidentReadTest, WhatIsInvalidatedElsewhereVeryOftenDoesNotConcernIt) {
  BusyCopies busy(other_, 0);
  AsyncRequest request(100);
  AsyncRequest forgotten(100);
  ASSERT_EQ(CacheSource::kResultPending, request.Read(source_, 0));
  ASSERT_EQ(CacheSource::kResultPending, forgotten.Read(source_, kBlock));
  for (int k = 0; k < 1000; ++k) cache_->Invalidate(other_, 0, 1);
  cache_->Invalidate(source_, kBlock, 1);
  for (int k = 0; k < 255; ++k) cache_->Invalidate(other_, 0, 1);
  busy.End();
  EXPECT_EQ((Report{CacheSource::kResultOK, 100}), request.GetReport());
  EXPECT_EQ((Report{CacheSource::kResultFailed, 0}), forgotten.GetReport());
}

// Otherwise it could be read again while the write is under way.
TEST_F(AsyncResidentReadTest, AHitFailsWhenItsRangeIsWrittenBeforeItsTurn) {
  BusyCopies busy(other_, 0);
  AsyncRequest read(100);
  ASSERT_EQ(CacheSource::kResultPending, read.Read(source_, 4096));
  source_->HoldRequests(true);
  AsyncRequest write(4096);
  ASSERT_EQ(CacheSource::kResultPending, write.Write(source_, 4096));
  ASSERT_TRUE(source_->WaitForHeld(1));
  busy.End();
  EXPECT_EQ((Report{CacheSource::kResultFailed, 0}), read.GetReport());
  source_->CompleteAll();
  EXPECT_EQ(CacheSource::kResultOK, write.GetReport().result);
}

// Its end may come, on another thread, before the thread for copies is done with it.
class LastCallback : public FileSource::ResultCallbackBufferList {
 public:
  explicit LastCallback(std::atomic<bool>* gone) : gone_(gone) {}
  void Callback(CacheSource::Result_t, std::uint64_t, BufferList*, std::uint64_t) override {}

 protected:
  ~LastCallback() override {
    AssertNoLockIsHeld();
    *gone_ = true;
  }

 private:
  std::atomic<bool>* const gone_;
};

TEST_F(AsyncResidentReadTest, WhatIsReadAgainGivesUpNothingInsideALock) {
  for (int k = 0; k < 100; ++k) {
    std::atomic<bool> gone{false};
    AutoRelease<HeapBuffer> buffer(new HeapBuffer(100));
    auto* const callback = new LastCallback(&gone);
    auto* const list = new BufferList(buffer, false, 1);
    {
      BusyCopies busy(other_, 0);
      ASSERT_EQ(CacheSource::kResultPending,
                source_->ReadAsyncWithList(4096, list, callback, CacheSource::kDueASAP));
      callback->DecRef("tests", "Orvane::AsyncResidentReadTest", 0);
      list->DecRef("tests", "Orvane::AsyncResidentReadTest", 0);
      EvictAll();
      source_->AnswerNext(CacheSource::kResultFailed);
    }
    ASSERT_TRUE(Eventually([&] { return gone.load(); }));
    Read(source_, 4096, 100);
    Read(other_, 0, 16);
  }
}

// A source that finds its cache by itself and changes it.
class SwappingSource : public MemorySource {
 public:
  using MemorySource::MemorySource;
  Cache* GetCache() override { return current_; }
  void Set(Cache* cache) { current_ = cache; }

 protected:
  ~SwappingSource() override = default;

 private:
  Cache* current_ = nullptr;
};

TEST_F(AsyncResidentReadTest, TheCacheStaysUntilTheReportWhoeverHasIt) {
  AutoRelease<SwappingSource> source(new SwappingSource(contents_));
  auto* const factory = new BufferFactoryHeap;
  ASSERT_TRUE(factory->Initialize(kBlock, 16, 16, 0));
  auto* const cache = new Cache(factory);
  factory->DecRef("tests", "Orvane::AsyncResidentReadTest", 0);
  source->Set(cache);
  Read(source, 0, kBytes);
  AsyncRequest request(16);
  {
    BusyCopies busy(source, 0);
    ASSERT_EQ(CacheSource::kResultPending, request.Read(source, 0));
    source->Set(nullptr);
    cache->DecRef("tests", "Orvane::AsyncResidentReadTest", 0);
  }
  EXPECT_EQ((Report{CacheSource::kResultOK, 16}), request.GetReport());
}

// Holds the thread for copies for a moment when it gives the list back.
class SlowList : public BufferList {
 public:
  explicit SlowList(Buffer* buffer) : BufferList(buffer, false, 1) {}
  long DecRef(const char* file, const char* function, unsigned long line) override {
    if (std::this_thread::get_id() != test_) MTInterface::Sleep(100);
    return BufferList::DecRef(file, function, line);
  }

 protected:
  ~SlowList() override = default;

 private:
  const std::thread::id test_ = std::this_thread::get_id();
};

TEST_F(AsyncResidentReadTest, TheListIsBackWhenACancelHasReturned) {
  Target target(100);
  AutoRelease<SlowList> list(new SlowList(target.GetBuffer()));
  std::atomic<bool> reported{false};
  class Flag : public FileSource::ResultCallbackBufferList {
   public:
    explicit Flag(std::atomic<bool>* flag) : flag_(flag) {}
    void Callback(CacheSource::Result_t, std::uint64_t, BufferList*, std::uint64_t) override {
      *flag_ = true;
    }

   protected:
    ~Flag() override = default;

   private:
    std::atomic<bool>* const flag_;
  };
  AutoRelease<Flag> callback(new Flag(&reported));
  ASSERT_EQ(CacheSource::kResultPending,
            source_->ReadAsyncWithList(0, list, callback, CacheSource::kDueASAP));
  ASSERT_TRUE(Eventually([&] { return reported.load(); }));
  source_->Cancel();
  EXPECT_EQ(1, list->GetRefCount());
}

TEST_F(AsyncResidentReadTest, ACancelBeforeItsTurnReportsItBeforeItReturns) {
  BusyCopies busy(other_, 0);
  AsyncRequest request(100);
  AsyncRequest others(100);
  ASSERT_EQ(CacheSource::kResultPending, request.Read(source_, 0));
  ASSERT_EQ(CacheSource::kResultPending, others.Read(other_, 0));
  source_->Cancel();
  EXPECT_TRUE(request.IsReported());
  EXPECT_EQ((Report{CacheSource::kResultFailed, 0}), request.GetReport());
  EXPECT_FALSE(others.IsReported());
  busy.End();
  EXPECT_EQ((Report{CacheSource::kResultOK, 100}), others.GetReport());
}

TEST_F(AsyncResidentReadTest, ACancelWaitsForTheReportThatIsUnderWay) {
  const std::unique_ptr<MTSemaphore> entered(MTInterface::NewSemaphore(1, 0));
  std::atomic<bool> over{false};
  AsyncRequest request(16);
  request.OnReport([&](const Report&) {
    entered->Release(1);
    MTInterface::Sleep(50);
    over = true;
  });
  ASSERT_EQ(CacheSource::kResultPending, request.Read(source_, 0));
  ASSERT_TRUE(entered->Wait(5000, 1));
  source_->Cancel();
  EXPECT_TRUE(over);
  EXPECT_EQ((Report{CacheSource::kResultOK, 16}), request.GetReport());
}

// The blocks stay: only the read is given up.
TEST_F(AsyncResidentReadTest, ACancelForgetsNoData) {
  {
    BusyCopies busy(other_, 0);
    AsyncRequest request(100);
    ASSERT_EQ(CacheSource::kResultPending, request.Read(source_, 0));
    source_->Cancel();
    EXPECT_EQ(CacheSource::kResultFailed, request.GetReport().result);
  }
  EXPECT_EQ(contents_, Read(source_, 0, kBytes));
  EXPECT_TRUE(source_->GetRequests().empty());
}

TEST_F(AsyncResidentReadTest, TheOneThatIsDueFirstIsServedFirst) {
  std::vector<int> order;
  const std::uint32_t now = MTInterface::GetCurrentTimeMilli();
  AsyncRequest late(16);
  AsyncRequest early(16);
  late.OnReport([&](const Report&) { order.push_back(2); });
  early.OnReport([&](const Report&) { order.push_back(1); });
  {
    BusyCopies busy(other_, 0);
    ASSERT_EQ(CacheSource::kResultPending, late.Read(source_, 0, now + 60000));
    ASSERT_EQ(CacheSource::kResultPending, early.Read(source_, 0, now + 30000));
  }
  early.GetReport();
  late.GetReport();
  EXPECT_EQ((std::vector<int>{1, 2}), order);
}

// One that is wanted later stays when another block is needed, however long ago it was used.
TEST_F(AsyncResidentReadTest, TheDueTimeKeepsItsBlock) {
  AsyncRequest request(16);
  const std::uint32_t now = MTInterface::GetCurrentTimeMilli();
  ASSERT_EQ(CacheSource::kResultPending, request.Read(source_, 0, now + 60000));
  EXPECT_EQ(CacheSource::kResultOK, request.GetReport().result);
  // As many as there are, but for that one.
  MemorySource* const third = MakeSource(MemorySource::Pattern(2 * kBytes));
  Read(third, 0, 15 * kBlock);
  Read(source_, 0, 16);
  EXPECT_TRUE(source_->GetRequests().empty());
}

TEST_F(AsyncResidentReadTest, HitsAreCountedPerBlock) {
  cache_->CollectCacheStats(true);
  AsyncRequest request(2 * 4096);
  ASSERT_EQ(CacheSource::kResultPending, request.Read(source_, 100));
  request.GetReport();
  EXPECT_EQ(3u, cache_->GetCacheHits());
  EXPECT_EQ(0u, cache_->GetCacheMisses());
}

TEST_F(AsyncResidentReadTest, ACallbackMayStartTheNextForEver) {
  constexpr int kReads = 100000;
  Target target(16);
  const std::unique_ptr<MTSemaphore> finished(MTInterface::NewSemaphore(1, 0));
  class Chain : public FileSource::ResultCallbackBufferList {
   public:
    Chain(FileSource* source, MTSemaphore* finished) : source_(source), finished_(finished) {}
    void Callback(CacheSource::Result_t result, std::uint64_t, BufferList* list,
                  std::uint64_t bytes) override {
      if (result == CacheSource::kResultOK && bytes == 16 && --left_ > 0) {
        source_->ReadAsyncWithList(0, list, this, CacheSource::kDueASAP);
      } else {
        finished_->Release(1);
      }
    }
    int GetLeft() const { return left_; }

   protected:
    ~Chain() override = default;

   private:
    FileSource* const source_;
    MTSemaphore* const finished_;
    int left_ = kReads;
  };
  AutoRelease<Chain> chain(new Chain(source_, finished.get()));
  ASSERT_EQ(CacheSource::kResultPending,
            source_->ReadAsyncWithList(0, target.GetList(), chain, CacheSource::kDueASAP));
  ASSERT_TRUE(finished->Wait(60000, 1));
  EXPECT_EQ(0, chain->GetLeft());
}

TEST_F(AsyncResidentReadTest, ACallbackThatThrowsLeavesNothing) {
  AsyncRequest request(16);
  request.OnReport([](const Report&) { throw 1; });
  ASSERT_EQ(CacheSource::kResultPending, request.Read(source_, 0));
  EXPECT_TRUE(Eventually([&] { return request.GetCallbackReferences() == 1; }));
  // It is not among the reports that a cancel waits for.
  source_->Cancel();
}

// The read keeps source and cache.
TEST_F(AsyncResidentReadTest, ReleasedBehindTheStartEverythingStaysUntilTheReport) {
  AsyncRequest request(16);
  {
    BusyCopies busy(other_, 0);
    ASSERT_EQ(CacheSource::kResultPending, request.Read(source_, 0));
    ReleaseCache();
    sources_.erase(sources_.begin());
    source_->DecRef("tests", "Orvane::AsyncResidentReadTest", 0);
  }
  EXPECT_EQ((Report{CacheSource::kResultOK, 16}), request.GetReport());
  EXPECT_TRUE(Eventually([&] { return request.GetCallbackReferences() == 1; }));
}

// Those are served block by block, so that others get their turn.
TEST_F(AsyncResidentReadTest, LargeReadsAreHitsToo) {
  constexpr std::size_t kLarge = 3 << 20;
  MakeCache(64, 1 << 16);
  const std::string contents = MemorySource::Pattern(kLarge);
  MemorySource* const source = MakeSource(contents);
  Read(source, 0, kLarge);
  source->ClearRequests();
  AsyncRequest request(kLarge);
  ASSERT_EQ(CacheSource::kResultPending, request.Read(source, 0));
  EXPECT_EQ((Report{CacheSource::kResultOK, kLarge}), request.GetReport());
  EXPECT_EQ(contents, request.GetBytes(kLarge));
  EXPECT_TRUE(source->GetRequests().empty());
}

}  // namespace
}  // namespace Orvane
