// What callers may do inside reports, and who may give up the last references where.
#include <atomic>
#include <chrono>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "Cache.h"
#include "Cache/CacheReaper.h"
#include "CacheTestTools.h"
#include "MTInterface.h"
#include "OSServices/LibraryThread.h"

namespace Orvane {
namespace {

template <typename Object>
void Release(Object* object) {
  object->DecRef("tests", "Orvane::CacheCallbackTest::Release", 0);
}

class CacheCallbackTest : public CacheToolsFixture {
 protected:
  // How a read of block 0 of a source comes to its report, on one thread of many.
  struct Ending {
    const char* name;
    // Ends the read, which the source holds.
    std::function<void(MemorySource*)> end;
    CacheSource::Result_t result;
  };
  std::vector<Ending> GetEndings() {
    return {
        {"by a copy", [](MemorySource* source) { source->Complete(); }, CacheSource::kResultOK},
        {"by the source",
         [](MemorySource* source) { source->CompleteWith(0, CacheSource::kResultFailed, 0); },
         CacheSource::kResultFailed},
        {"by a failed copy",
         [](MemorySource* source) { source->CompleteWith(0, CacheSource::kResultError, 0); },
         CacheSource::kResultError},
        {"by Cancel", [](MemorySource* source) { source->Cancel(); }, CacheSource::kResultFailed},
        {"by Purge", [this](MemorySource* source) { cache_->Purge(source); },
         CacheSource::kResultFailed},
        {"by Invalidate", [this](MemorySource* source) { cache_->Invalidate(source, 0, 1); },
         CacheSource::kResultFailed},
        {"by a write",
         [](MemorySource* source) {
           source->HoldRequests(false);
           Target target(10);
           EXPECT_EQ(CacheSource::kResultOK, source->Write(0, target.GetBuffer(), nullptr));
         },
         CacheSource::kResultFailed},
    };
  }

  const std::string contents_ = MemorySource::Pattern(8 * kBlock);
};

TEST_F(CacheCallbackTest, NoLockIsHeldAndEverythingWorksInsideAReportWhereverItComes) {
  for (const Ending& ending : GetEndings()) {
    SCOPED_TRACE(ending.name);
    MakeCache(8);
    MemorySource* const source = MakeSource(contents_);
    MemorySource* const other = MakeSource(contents_);
    MemorySource* const given = MakeSource(contents_);
    AsyncRequest given1(kBlock);
    AsyncRequest inner(2 * kBlock);
    AsyncRequest request(kBlock);
    request.OnReport([&](const Report&) {
      AssertNoLockIsHeld();
      cache_->CollectCacheStats(true);
      cache_->ResetCacheStats();
      EXPECT_EQ(0u, cache_->GetCacheHits() + cache_->GetCachePreReads());
      EXPECT_EQ(CacheSource::kResultPending, inner.Read(other, 0));
      cache_->PreRead(other, 3 * kBlock, 2 * kBlock, 0, MTThread::kPriorityNormal);
      cache_->Invalidate(source, 0, kBlock);
      cache_->Invalidate(other, 6 * kBlock, kBlock);
      source->Cancel();
      cache_->Purge(source);
      cache_->NotifySomethingChanged();
      cache_->Dump();
      // Another source goes, with a read that has just begun.
      given1.Read(given, 0);
      Release(given);
    });
    Disown(given);
    source->HoldRequests(true);
    ASSERT_EQ(CacheSource::kResultPending, request.Read(source, 0));
    ASSERT_TRUE(source->WaitForHeld(1));
    ending.end(source);
    EXPECT_EQ(ending.result, request.GetReport().result);
    EXPECT_EQ((Report{CacheSource::kResultOK, 2 * kBlock}), inner.GetReport());
    EXPECT_EQ((Report{CacheSource::kResultOK, kBlock}), given1.GetReport());
    source->HoldRequests(false);
    source->CompleteAll();
    ReleaseSources();
  }
}

TEST_F(CacheCallbackTest, AReportMayWaitForAMutexThatIsHeldAroundCallsIntoTheCache) {
  MakeCache(8);
  MemorySource* const source = MakeSource(contents_);
  MemorySource* const other = MakeSource(contents_);
  std::mutex mutex;
  std::promise<void> reporting;
  AsyncRequest request(kBlock);
  AsyncRequest second(kBlock);
  request.OnReport([&](const Report&) {
    reporting.set_value();
    const std::lock_guard lock(mutex);
  });
  {
    const std::lock_guard lock(mutex);
    ASSERT_EQ(CacheSource::kResultPending, request.Read(source, 0));
    reporting.get_future().wait();
    cache_->CollectCacheStats(true);
    cache_->GetCacheHits();
    cache_->PreRead(source, kBlock, kBlock, 0, MTThread::kPriorityNormal);
    EXPECT_EQ(CacheSource::kResultPending, second.Read(source, 0));
    cache_->Invalidate(other, 0, kBlock);
    cache_->Cancel(other);
    cache_->Purge(other);
    EXPECT_FALSE(request.IsReported());
  }
  EXPECT_EQ(CacheSource::kResultOK, request.GetReport().result);
  EXPECT_EQ(CacheSource::kResultOK, second.GetReport().result);
}

TEST_F(CacheCallbackTest, AnotherThreadCancelsWhileAReportOfACancelRuns) {
  MakeCache(4);
  MemorySource* const source = MakeSource(contents_);
  MemorySource* const other = MakeSource(contents_);
  source->HoldRequests(true);
  AsyncRequest request(kBlock);
  std::future<void> done;
  request.OnReport([&](const Report&) {
    done = std::async(std::launch::async, [&] { cache_->Purge(other); });
    EXPECT_EQ(std::future_status::ready, done.wait_for(std::chrono::seconds(5)));
  });
  request.Read(source, 0);
  ASSERT_TRUE(source->WaitForHeld(1));
  source->Cancel();
  EXPECT_EQ(CacheSource::kResultFailed, request.GetReport().result);
}

TEST_F(CacheCallbackTest, ReadingOnFromEachReport) {
  constexpr int kReads = 200;
  MakeCache(3);
  MemorySource* const source = MakeSource(contents_);
  std::vector<std::unique_ptr<AsyncRequest>> requests;
  for (int k = 0; k < kReads; ++k) requests.push_back(std::make_unique<AsyncRequest>(kBlock));
  for (int k = 0; k + 1 < kReads; ++k) {
    AsyncRequest* const next = requests[static_cast<std::size_t>(k) + 1].get();
    requests[static_cast<std::size_t>(k)]->OnReport([=](const Report&) {
      const std::uint64_t block = static_cast<std::uint64_t>(k) % 8;
      EXPECT_EQ(CacheSource::kResultPending, next->Read(source, block * kBlock));
    });
  }
  requests[0]->Read(source, 0);
  EXPECT_EQ((Report{CacheSource::kResultOK, kBlock}), requests.back()->GetReport());
}

TEST_F(CacheCallbackTest, SynchronousReadsAnswerAnErrorOnThreadsOfTheCache) {
  MakeCache(4);
  MemorySource* const source = MakeSource(contents_);
  MemorySource* const other = MakeSource(contents_);
  Read(other, 0, kBlock);
  AsyncRequest request(kBlock);
  CacheSource::Result_t missed = CacheSource::kResultNone;
  CacheSource::Result_t resident = CacheSource::kResultNone;
  CacheSource::Result_t written = CacheSource::kResultNone;
  request.OnReport([&](const Report&) {
    Target target(10);
    missed = other->Read(kBlock, target.GetBuffer(), nullptr);
    resident = other->Read(0, target.GetBuffer(), nullptr);
    written = other->Write(0, target.GetBuffer(), nullptr);
  });
  request.Read(source, 0);
  EXPECT_EQ(CacheSource::kResultOK, request.GetReport().result);
  EXPECT_EQ(CacheSource::kResultError, missed);
  EXPECT_EQ(CacheSource::kResultError, resident);
  EXPECT_EQ(CacheSource::kResultError, written);
}

TEST_F(CacheCallbackTest, AnExceptionOutOfAReportIsCaughtAndNothingIsKept) {
  for (const Ending& ending : GetEndings()) {
    SCOPED_TRACE(ending.name);
    MakeCache(2);
    MemorySource* const source = MakeSource(contents_);
    AutoRelease<HookedRecorder> recorder(new HookedRecorder);
    std::atomic<int> reports{0};
    recorder->OnReport([&reports](const Report&) {
      ++reports;
      throw std::runtime_error("test");
    });
    Target target(kBlock);
    source->HoldRequests(true);
    ASSERT_EQ(CacheSource::kResultPending,
              source->ReadAsyncWithList(0, target.GetList(), recorder, 0));
    ASSERT_TRUE(source->WaitForHeld(1));
    ending.end(source);
    EXPECT_TRUE(Eventually([&recorder] { return recorder->GetRefCount() == 1; }));
    EXPECT_EQ(1, reports);
    EXPECT_EQ(1, target.GetList()->GetRefCount());
    source->HoldRequests(false);
    source->CompleteAll();
    EXPECT_EQ(source->GetContents(), Read(source, 0, contents_.size()));
    ReleaseSources();
  }
  EXPECT_NE(std::string::npos,
            TestMTInterface::Get().TakeDebugText().find("Unhandled Exception In File Callback"));
}

// Sources and caches that nobody but a request holds.
class CacheLastReferenceTest : public CacheToolsFixture {
 protected:
  CacheLastReferenceTest() { factory_ = NewHeapFactory(kBlocks, kBlock); }
  void TearDown() override {
    EXPECT_TRUE(Eventually([this] { return factory_->GetNumberOfBuffersInUse() == 0; }));
    EXPECT_TRUE(Eventually([this] { return factory_->GetRefCount() == 1; }));
    Release(factory_);
    CacheToolsFixture::TearDown();
  }

  static constexpr std::size_t kBlocks = 4;
  const std::string contents_ = MemorySource::Pattern(8 * kBlock);
  BufferFactoryHeap* factory_ = nullptr;
};

TEST_F(CacheLastReferenceTest, StartingAReadAndReleasingSourceAndCacheAtOnce) {
  for (int k = 0; k < 50; ++k) {
    auto* const cache = new Cache(factory_);
    auto* const source = new MemorySource(contents_);
    source->UseCache(cache);
    AsyncRequest request(3 * kBlock);
    ASSERT_EQ(CacheSource::kResultPending, request.Read(source, 0));
    Release(cache);
    Release(source);
    EXPECT_EQ((Report{CacheSource::kResultOK, 3 * kBlock}), request.GetReport());
    EXPECT_EQ(contents_.substr(0, 3 * kBlock), request.GetBytes(3 * kBlock));
    ASSERT_TRUE(Eventually([this] { return factory_->GetNumberOfBuffersInUse() == 0; })) << k;
  }
}

TEST_F(CacheLastReferenceTest, InsideAReportOnAThreadOfTheCache) {
  for (int k = 0; k < 50; ++k) {
    auto* const cache = new Cache(factory_);
    auto* const source = new MemorySource(contents_);
    source->UseCache(cache);
    AsyncRequest request(kBlock);
    request.OnReport([=](const Report&) {
      Release(cache);
      Release(source);
    });
    ASSERT_EQ(CacheSource::kResultPending, request.Read(source, 0));
    EXPECT_EQ((Report{CacheSource::kResultOK, kBlock}), request.GetReport());
    ASSERT_TRUE(Eventually([this] { return factory_->GetNumberOfBuffersInUse() == 0; })) << k;
  }
}

TEST_F(CacheLastReferenceTest, InsideAReportWithOtherReadsUnderWay) {
  auto* const cache = new Cache(factory_);
  auto* const source = new MemorySource(contents_);
  auto* const other = new MemorySource(contents_);
  source->UseCache(cache);
  other->UseCache(cache);
  other->HoldRequests(true);
  AsyncRequest held(kBlock);
  AsyncRequest request(kBlock);
  held.Read(other, 0);
  ASSERT_TRUE(other->WaitForHeld(1));
  request.OnReport([=](const Report&) {
    Release(cache);
    Release(source);
  });
  ASSERT_EQ(CacheSource::kResultPending, request.Read(source, 0));
  EXPECT_EQ((Report{CacheSource::kResultOK, kBlock}), request.GetReport());
  EXPECT_FALSE(held.IsReported());
  other->Complete();
  EXPECT_EQ((Report{CacheSource::kResultOK, kBlock}), held.GetReport());
  Release(other);
}

TEST_F(CacheLastReferenceTest, InsideAReportOnTheThreadThatEndsTheSourceRead) {
  auto* const cache = new Cache(factory_);
  auto* const source = new MemorySource(contents_);
  source->UseCache(cache);
  source->HoldRequests(true);
  AsyncRequest request(kBlock);
  request.OnReport([=](const Report&) {
    Release(cache);
    Release(source);
  });
  ASSERT_EQ(CacheSource::kResultPending, request.Read(source, 0));
  ASSERT_TRUE(source->WaitForHeld(1));
  source->CompleteWith(0, CacheSource::kResultFailed, 0);
  EXPECT_EQ(CacheSource::kResultFailed, request.GetReport().result);
}

TEST_F(CacheLastReferenceTest, InsideAReportOfACancel) {
  auto* const cache = new Cache(factory_);
  auto* const source = new MemorySource(contents_);
  source->UseCache(cache);
  source->HoldRequests(true);
  AsyncRequest request(kBlock);
  request.OnReport([=](const Report&) {
    Release(source);
    Release(cache);
  });
  ASSERT_EQ(CacheSource::kResultPending, request.Read(source, 0));
  ASSERT_TRUE(source->WaitForHeld(1));
  source->AddRef("tests", "test", 0);
  source->Cancel();
  EXPECT_EQ(CacheSource::kResultFailed, request.GetReport().result);
  Release(source);
}

TEST_F(CacheLastReferenceTest, InsideTheStatusOfATransaction) {
  auto* const cache = new Cache(factory_);
  AutoRelease<MemorySource> source(new MemorySource(contents_));
  TransactionRequest request(kBlock);
  request.OnReport([=](CacheTransaction*) { Release(cache); });
  ASSERT_EQ(CacheSource::kResultPending, request.Read(cache, source, 0));
  EXPECT_EQ((Report{CacheSource::kResultOK, kBlock}), request.GetReport());
}

TEST_F(CacheLastReferenceTest, ACacheThatGoesFailsReadsThatItsSourceHasNotEnded) {
  auto* const cache = new Cache(factory_);
  AutoRelease<MemorySource> source(new MemorySource(contents_));
  source->HoldRequests(true);
  TransactionRequest request(2 * kBlock);
  TransactionRequest attached(10);
  ASSERT_EQ(CacheSource::kResultPending, request.Read(cache, source, 0));
  ASSERT_TRUE(source->WaitForHeld(1));
  ASSERT_EQ(CacheSource::kResultPending, attached.Read(cache, source, 100));
  Release(cache);
  EXPECT_TRUE(request.IsReported() && attached.IsReported());
  EXPECT_EQ((Report{CacheSource::kResultFailed, 0}), request.GetReport());
  EXPECT_EQ((Report{CacheSource::kResultFailed, 0}), attached.GetReport());
  // The source may still write to their buffers, which nobody else gets meanwhile.
  EXPECT_EQ(2u, factory_->GetNumberOfBuffersInUse());
  EXPECT_EQ(kBlocks - 2, factory_->GetNumberOfBuffersFree());
  AutoRelease<Cache> next(new Cache(factory_));
  EXPECT_EQ(0u, factory_->GetNumberOfBuffersFree());
  source->Complete();
  EXPECT_EQ(2u, factory_->GetNumberOfBuffersFree());
  EXPECT_TRUE(request.GetTarget().IsUntouchedFrom(0));
}

TEST_F(CacheLastReferenceTest, ACacheThatGoesFailsReadsThatWaitForBlocksOrAreQueued) {
  auto* const cache = new Cache(factory_);
  AutoRelease<HookedSource> source(new HookedSource(contents_));
  source->HoldRequests(true);
  TransactionRequest large(8 * kBlock);
  TransactionRequest waiting(kBlock);
  ASSERT_EQ(CacheSource::kResultPending, large.Read(cache, source, 0));
  ASSERT_TRUE(source->WaitForHeld(1));
  ASSERT_EQ(CacheSource::kResultPending, waiting.Read(cache, source, 7 * kBlock));
  Release(cache);
  EXPECT_EQ((Report{CacheSource::kResultFailed, 0}), large.GetReport());
  EXPECT_EQ((Report{CacheSource::kResultFailed, 0}), waiting.GetReport());
  source->CompleteAll();
}

TEST_F(CacheLastReferenceTest, ACacheThatGoesDoesNotWaitForABusySource) {
  auto* const cache = new Cache(factory_);
  AutoRelease<MemorySource> source(new MemorySource(contents_));
  source->AnswerNext(CacheSource::kResultBusy, 1000000);
  TransactionRequest request(2 * kBlock);
  ASSERT_EQ(CacheSource::kResultPending, request.Read(cache, source, 0));
  Release(cache);
  EXPECT_EQ((Report{CacheSource::kResultFailed, 0}), request.GetReport());
  EXPECT_EQ(0u, factory_->GetNumberOfBuffersInUse());
}

TEST_F(CacheLastReferenceTest, WhileTheHelperThreadIsStopped) {
  for (int k = 0; k < 300; ++k) {
    auto* const cache = new Cache(factory_);
    auto* const source = new MemorySource(contents_);
    source->UseCache(cache);
    AsyncRequest request(kBlock);
    std::promise<void> released;
    request.OnReport([&released, cache, source](const Report&) {
      released.set_value();
      Release(cache);
      Release(source);
    });
    ASSERT_EQ(CacheSource::kResultPending, request.Read(source, 0));
    released.get_future().wait();
    // Before, while or after the cache is handed over.
    for (int pause = 0; pause < k % 10; ++pause) std::this_thread::yield();
    std::thread other(&CacheReaper::Stop);
    CacheReaper::Stop();
    other.join();
    request.GetReport();
    ASSERT_TRUE(Eventually([this] { return factory_->GetNumberOfBuffersInUse() == 0; })) << k;
  }
}

TEST_F(CacheLastReferenceTest, WithoutAThreadToDestroyItACacheGoesWithTheNextStop) {
  TestMTInterface& mt = TestMTInterface::Get();
  CacheReaper::Stop();
  auto* const cache = new Cache(factory_);
  mt.TakeDebugText();
  {
    const LibraryThreadMark mark;
    mt.FailCreation(1, TestMTInterface::kThrow);
    Release(cache);
    EXPECT_TRUE(mt.StopFailing());
  }
  EXPECT_EQ("No Thread To Destroy A Cache\n", mt.TakeDebugText());
  EXPECT_EQ(kBlocks, factory_->GetNumberOfBuffersInUse());
  CacheReaper::Stop();
  EXPECT_EQ(0u, factory_->GetNumberOfBuffersInUse());
}

TEST_F(CacheLastReferenceTest, SourceReadsEndWhileTheirCacheGoes) {
  for (int k = 0; k < 100; ++k) {
    auto* const cache = new Cache(factory_);
    AutoRelease<MemorySource> source(new MemorySource(contents_));
    source->SetGathers(false);
    source->HoldRequests(true);
    TransactionRequest request(3 * kBlock);
    ASSERT_EQ(CacheSource::kResultPending, request.Read(cache, source, 0));
    ASSERT_TRUE(source->WaitForHeld(3));
    std::thread completer([&source] { source->CompleteAll(); });
    Release(cache);
    completer.join();
    const Report report = request.GetReport();
    EXPECT_TRUE(report == (Report{CacheSource::kResultFailed, 0}) ||
                report == (Report{CacheSource::kResultOK, 3 * kBlock}));
    ASSERT_EQ(0u, factory_->GetNumberOfBuffersInUse()) << k;
  }
}

}  // namespace
}  // namespace Orvane
