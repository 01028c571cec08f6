// Cancel and Purge, alone, inside each other and beside everything else.
#include <atomic>
#include <future>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "Cache.h"
#include "CacheTestTools.h"
#include "MTInterface.h"

namespace Orvane {
namespace {

constexpr Report kCancelled{CacheSource::kResultFailed, 0};

class CacheCancelTest : public CacheToolsFixture {
 protected:
  const std::string contents_ = MemorySource::Pattern(8 * kBlock);
};

TEST_F(CacheCancelTest, ReadsThatWaitForTheirSourceAreReportedBeforeItReturns) {
  MakeCache(4);
  MemorySource* const source = MakeSource(contents_);
  MemorySource* const other = MakeSource(contents_);
  source->HoldRequests(true);
  other->HoldRequests(true);
  AsyncRequest first(kBlock);
  AsyncRequest second(kBlock);
  AsyncRequest others(kBlock);
  first.Read(source, 0);
  second.Read(source, 100);
  others.Read(other, 0);
  ASSERT_TRUE(source->WaitForHeld(1));
  ASSERT_TRUE(other->WaitForHeld(1));
  cache_->Cancel(nullptr);
  cache_->Cancel(source);
  EXPECT_TRUE(first.IsReported() && second.IsReported());
  EXPECT_EQ(kCancelled, first.GetReport());
  EXPECT_EQ(kCancelled, second.GetReport());
  EXPECT_FALSE(others.IsReported());
  other->CompleteAll();
  EXPECT_EQ((Report{CacheSource::kResultOK, kBlock}), others.GetReport());
  source->HoldRequests(false);
  EXPECT_EQ(contents_, Read(source, 0, contents_.size()));
}

TEST_F(CacheCancelTest, ReadsThatWaitForABlockAreReportedBeforeItReturns) {
  MakeCache(1);
  MemorySource* const other = MakeSource(contents_);
  other->HoldRequests(true);
  AsyncRequest occupant(kBlock);
  occupant.Read(other, 0);
  ASSERT_TRUE(other->WaitForHeld(1));
  HookedSource* const source = MakeHookedSource(contents_);
  AsyncRequest waiting(kBlock);
  waiting.Read(source, 0);
  ASSERT_TRUE(Eventually([source] { return source->GetTries() > 0; }));
  cache_->Cancel(source);
  EXPECT_TRUE(waiting.IsReported());
  EXPECT_EQ(kCancelled, waiting.GetReport());
  other->Complete();
  EXPECT_EQ(CacheSource::kResultOK, occupant.GetReport().result);
}

TEST_F(CacheCancelTest, ASynchronousReadThatWaitsForABlockReturns) {
  MakeCache(1);
  MemorySource* const other = MakeSource(contents_);
  other->HoldRequests(true);
  AsyncRequest occupant(kBlock);
  occupant.Read(other, 0);
  ASSERT_TRUE(other->WaitForHeld(1));
  HookedSource* const source = MakeHookedSource(contents_);
  Report report{};
  std::thread reader([&] { Read(source, 0, kBlock, &report); });
  EXPECT_TRUE(Eventually([source] { return source->GetTries() > 0; }));
  source->Cancel();
  reader.join();
  EXPECT_EQ(kCancelled, report);
  other->Complete();
}

TEST_F(CacheCancelTest, ReadsAreFailedWhereverTheyAre) {
  // Queued behind a read thread that stands still, waiting for a busy source, and being filled.
  MakeCache(2);
  HookedSource* const source = MakeHookedSource(contents_);
  source->AnswerNext(CacheSource::kResultBusy, 1000000);
  AsyncRequest busy(kBlock);
  busy.Read(source, 0);
  AsyncRequest attached(10);
  attached.Read(source, 100);
  AsyncRequest large(5 * kBlock);
  large.Read(source, kBlock);
  cache_->Cancel(source);
  EXPECT_TRUE(busy.IsReported() && attached.IsReported() && large.IsReported());
  EXPECT_EQ(kCancelled, busy.GetReport());
  EXPECT_EQ(kCancelled, attached.GetReport());
  EXPECT_EQ(kCancelled, large.GetReport());
  EXPECT_TRUE(source->GetRequests().empty());
}

TEST_F(CacheCancelTest, WritesAreCancelledToo) {
  MakeCache(4);
  MemorySource* const source = MakeSource(contents_);
  source->HoldRequests(true);
  AsyncRequest write(kBlock);
  ASSERT_EQ(CacheSource::kResultPending, write.Write(source, 0));
  for (const bool purges : {false, true}) {
    if (purges) {
      cache_->Purge(source);
    } else {
      cache_->Cancel(source);
    }
    EXPECT_EQ(kCancelled, write.GetReport());
  }
}

TEST_F(CacheCancelTest, AWriteFailsTheReadsThatWaitForWhatItOverwrites) {
  MakeCache(4);
  MemorySource* const source = MakeSource(contents_);
  source->HoldRequests(true);
  AsyncRequest read(kBlock);
  read.Read(source, 0);
  ASSERT_TRUE(source->WaitForHeld(1));
  source->HoldRequests(false);
  AsyncRequest write(10);
  ASSERT_EQ(CacheSource::kResultPending, write.Write(source, 50));
  EXPECT_EQ(kCancelled, read.GetReport());
  EXPECT_EQ((Report{CacheSource::kResultOK, 10}), write.GetReport());
  source->CompleteAll();
  EXPECT_EQ(source->GetContents(), Read(source, 0, contents_.size()));
}

TEST_F(CacheCancelTest, MeanwhileReadsOfTheSourceAreRefused) {
  MakeCache(4);
  HookedSource* const source = MakeHookedSource(contents_);
  MemorySource* const other = MakeSource(contents_);
  TransactionRequest refused(kBlock);
  AsyncRequest fileRead(kBlock);
  AsyncRequest others(kBlock);
  source->OnCancel([&] {
    EXPECT_EQ(CacheSource::kResultFailed, refused.Read(cache_, source, 0));
    EXPECT_EQ(CacheSource::kResultFailed, refused.GetTransaction()->GetResult(nullptr));
    EXPECT_EQ(CacheSource::kResultNotSupported, fileRead.Read(source, 0));
    EXPECT_EQ(CacheSource::kResultNotSupported,
              source->Read(0, fileRead.GetTarget().GetBuffer(), nullptr));
    EXPECT_EQ(CacheSource::kResultPending, others.Read(other, 0));
  });
  cache_->Cancel(source);
  source->OnCancel(nullptr);
  EXPECT_EQ(kCancelled, refused.GetReport());
  EXPECT_FALSE(fileRead.IsReported());
  EXPECT_EQ(1, fileRead.GetCallbackReferences());
  EXPECT_EQ((Report{CacheSource::kResultOK, kBlock}), others.GetReport());
  // Not in use any more, and served again.
  EXPECT_EQ(CacheSource::kResultPending, refused.Read(cache_, source, 0));
  ASSERT_TRUE(refused.WaitForReports(2));
  EXPECT_EQ((Report{CacheSource::kResultOK, kBlock}), refused.GetReports()[1]);
}

TEST_F(CacheCancelTest, ACancelInsideACancelLeavesTheOuterOneInForce) {
  MakeCache(4);
  HookedSource* const outer = MakeHookedSource(contents_);
  HookedSource* const inner = MakeHookedSource(contents_);
  AsyncRequest atInner(kBlock);
  AsyncRequest afterInner(kBlock);
  AsyncRequest ofInner(kBlock);
  inner->OnCancel([&] { EXPECT_EQ(CacheSource::kResultNotSupported, atInner.Read(inner, 0)); });
  outer->OnCancel([&] {
    cache_->Cancel(inner);
    EXPECT_EQ(CacheSource::kResultNotSupported, afterInner.Read(outer, 0));
    EXPECT_EQ(CacheSource::kResultPending, ofInner.Read(inner, 0));
  });
  cache_->Cancel(outer);
  outer->OnCancel(nullptr);
  inner->OnCancel(nullptr);
  EXPECT_EQ(CacheSource::kResultOK, ofInner.GetReport().result);
  EXPECT_EQ(contents_, Read(outer, 0, contents_.size()));
  EXPECT_EQ(contents_, Read(inner, 0, contents_.size()));
}

TEST_F(CacheCancelTest, WhileOneWaitsForItsSourceOthersUseTheCache) {
  MakeCache(4);
  HookedSource* const source = MakeHookedSource(contents_);
  MemorySource* const other = MakeSource(contents_);
  AsyncRequest read(kBlock);
  AsyncRequest write(kBlock);
  // What the thread does that a cancel waits for.
  source->OnCancel([&] {
    std::thread([&] {
      cache_->CollectCacheStats(true);
      cache_->GetCacheHits();
      cache_->ResetCacheStats();
      cache_->Invalidate(other, 0, kBlock);
      cache_->Invalidate(source, 0, kBlock);
      cache_->PreRead(other, kBlock, kBlock, 0, MTThread::kPriorityNormal);
      cache_->NotifySomethingChanged();
      EXPECT_EQ(CacheSource::kResultPending, read.Read(other, 0));
      EXPECT_EQ(CacheSource::kResultPending, write.Write(other, 7 * kBlock));
    }).join();
  });
  cache_->Cancel(source);
  EXPECT_EQ(CacheSource::kResultOK, read.GetReport().result);
  EXPECT_EQ(CacheSource::kResultOK, write.GetReport().result);
}

TEST_F(CacheCancelTest, AnExceptionOutOfTheSourceLeavesNothingHeld) {
  MakeCache(4);
  HookedSource* const source = MakeHookedSource(contents_);
  source->OnCancel([] { throw std::runtime_error("test"); });
  EXPECT_THROW(cache_->Cancel(source), std::runtime_error);
  EXPECT_THROW(cache_->Purge(source), std::runtime_error);
  source->OnCancel(nullptr);
  std::thread([&] {
    EXPECT_EQ(contents_, Read(source, 0, contents_.size()));
    cache_->Purge(source);
  }).join();
}

TEST_F(CacheCancelTest, ASourceThatCannotStopItsReadsEndsThemLater) {
  MakeCache(2);
  MemorySource* const source = MakeSource(contents_);
  source->SetObeysCancel(false);
  source->HoldRequests(true);
  AsyncRequest request(2 * kBlock);
  request.Read(source, 0);
  ASSERT_TRUE(source->WaitForHeld(1));
  cache_->Purge(source);
  EXPECT_EQ(kCancelled, request.GetReport());
  source->HoldRequests(false);
  // No block is free until it lets go of them.
  AsyncRequest next(2 * kBlock);
  next.Read(source, 2 * kBlock);
  EXPECT_EQ(1u, source->GetHeldCount());
  source->CompleteAll();
  EXPECT_EQ((Report{CacheSource::kResultOK, 2 * kBlock}), next.GetReport());
  EXPECT_TRUE(request.GetTarget().IsUntouchedFrom(0));
}

TEST_F(CacheCancelTest, AReadThatWaitsForTheBlockOfAFailedOneSucceeds) {
  for (int k = 0; k < 200; ++k) {
    MakeCache(1);
    HookedSource* const source = MakeHookedSource(contents_);
    source->HoldRequests(true);
    AsyncRequest failing(kBlock);
    failing.Read(source, 0);
    ASSERT_TRUE(source->WaitForHeld(1));
    AsyncRequest waiting(kBlock);
    waiting.Read(source, kBlock);
    ASSERT_TRUE(Eventually([source] { return source->GetTries() >= 2; }));
    source->HoldRequests(false);
    source->CompleteWith(0, CacheSource::kResultFailed, 0);
    EXPECT_EQ(kCancelled, failing.GetReport());
    EXPECT_EQ((Report{CacheSource::kResultOK, kBlock}), waiting.GetReport());
    EXPECT_EQ(contents_.substr(kBlock, kBlock), waiting.GetBytes(kBlock));
    ReleaseSources();
  }
}

// Cancel, inside the report of a request that ends on each kind of thread.
TEST_F(CacheCancelTest, WorksInsideAReportOnAThreadOfTheCache) {
  MakeCache(4);
  HookedSource* const source = MakeHookedSource(contents_);
  MemorySource* const other = MakeSource(contents_);
  other->HoldRequests(true);
  AsyncRequest others(kBlock);
  others.Read(other, 0);
  ASSERT_TRUE(other->WaitForHeld(1));
  AsyncRequest request(kBlock);
  request.OnReport([&](const Report&) {
    source->Cancel();
    cache_->Purge(other);
    EXPECT_TRUE(others.IsReported());
  });
  request.Read(source, 0);
  EXPECT_EQ((Report{CacheSource::kResultOK, kBlock}), request.GetReport());
  EXPECT_EQ(kCancelled, others.GetReport());
}

TEST_F(CacheCancelTest, WorksInsideAReportOfACancel) {
  MakeCache(4);
  MemorySource* const source = MakeSource(contents_);
  MemorySource* const other = MakeSource(contents_);
  source->HoldRequests(true);
  other->HoldRequests(true);
  AsyncRequest request(kBlock);
  AsyncRequest others(kBlock);
  request.OnReport([&](const Report&) {
    source->Cancel();
    other->Cancel();
    EXPECT_TRUE(others.IsReported());
  });
  request.Read(source, 0);
  others.Read(other, 0);
  ASSERT_TRUE(source->WaitForHeld(1));
  ASSERT_TRUE(other->WaitForHeld(1));
  source->Cancel();
  EXPECT_EQ(kCancelled, request.GetReport());
  EXPECT_EQ(kCancelled, others.GetReport());
}

TEST_F(CacheCancelTest, WorksInsideAReportWhileAnotherThreadCancels) {
  for (int k = 0; k < 100; ++k) {
    MakeCache(4);
    MemorySource* const source = MakeSource(contents_);
    MemorySource* const other = MakeSource(contents_);
    AsyncRequest request(kBlock);
    AsyncRequest others(kBlock);
    request.OnReport([&](const Report&) { cache_->Cancel(other); });
    others.OnReport([&](const Report&) { cache_->Cancel(source); });
    ASSERT_EQ(CacheSource::kResultPending, request.Read(source, 0));
    // The report of the first may be cancelling it right now.
    const bool started = others.Read(other, 0) == CacheSource::kResultPending;
    std::thread first([&] { cache_->Cancel(source); });
    std::thread second([&] { cache_->Purge(other); });
    first.join();
    second.join();
    request.GetReport();
    if (started) others.GetReport();
    ReleaseSources();
  }
}

TEST_F(CacheCancelTest, StatisticsAreSafeBesideReadsAndCancels) {
  constexpr int kRounds = 300;
  MakeCache(4);
  MemorySource* const source = MakeSource(contents_);
  std::atomic<bool> ends{false};
  std::thread toggler([&] {
    for (bool on = true; !ends; on = !on) {
      cache_->CollectCacheStats(on);
      cache_->ResetCacheStats();
      EXPECT_GE(cache_->GetCacheMisses() + 100000, cache_->GetCacheHits());
      cache_->GetCacheDirectReads();
      cache_->GetCachePreReads();
      std::this_thread::yield();
    }
  });
  std::thread canceller([&] {
    while (!ends) {
      cache_->Cancel(source);
      cache_->Dump();
      cache_->Purge(source);
      std::this_thread::yield();
    }
  });
  for (int k = 0; k < kRounds; ++k) {
    AsyncRequest request(3 * kBlock);
    const CacheSource::Result_t started =
        request.Read(source, static_cast<std::uint64_t>(k % 5) * kBlock);
    cache_->PreRead(source, 0, kBlock, 0, MTThread::kPriorityNormal);
    if (started != CacheSource::kResultPending) {
      EXPECT_EQ(CacheSource::kResultNotSupported, started);
      continue;
    }
    const Report report = request.GetReport();
    EXPECT_TRUE(report == kCancelled || report == (Report{CacheSource::kResultOK, 3 * kBlock}));
  }
  ends = true;
  toggler.join();
  canceller.join();
}

TEST_F(CacheCancelTest, ConcurrentCancelsOfManySourcesEndEveryReadOnce) {
  constexpr int kSources = 3;
  constexpr int kRounds = 100;
  MakeCache(6);
  std::vector<MemorySource*> sources;
  for (int k = 0; k < kSources; ++k) sources.push_back(MakeSource(contents_));
  std::atomic<int> running{kSources};
  std::vector<std::thread> threads;
  for (MemorySource* const source : sources) {
    threads.emplace_back([&, source] {
      for (int k = 0; k < kRounds; ++k) {
        AsyncRequest request(4 * kBlock);
        if (request.Read(source, static_cast<std::uint64_t>(k % 4) * kBlock) !=
            CacheSource::kResultPending) {
          continue;
        }
        const Report report = request.GetReport();
        EXPECT_TRUE(report == kCancelled || report == (Report{CacheSource::kResultOK, 4 * kBlock}));
      }
      --running;
    });
  }
  for (int k = 0; k < 2; ++k) {
    threads.emplace_back([&, k] {
      for (std::size_t at = static_cast<std::size_t>(k); running > 0; ++at) {
        if (at % 2 == 0) {
          sources[at % kSources]->Cancel();
        } else {
          cache_->Purge(sources[at % kSources]);
        }
        MTInterface::Sleep(1);
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  for (MemorySource* const source : sources) {
    EXPECT_EQ(contents_, Read(source, 0, contents_.size()));
  }
}

}  // namespace
}  // namespace Orvane
