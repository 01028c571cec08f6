// Memory shortage at every single allocation, and sources that throw: every read that was started
// is reported, nothing is lost and the cache goes on.
#include <atomic>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>

#include "Cache.h"
#include "Cache/CacheReaper.h"
#include "CacheTestTools.h"
#include "MTInterface.h"
#include "OSServices/LibraryThread.h"

namespace Orvane {
namespace {

constexpr std::size_t kMostAllocations = 400;

// The `ordinal`-th allocation of the calling thread from now on fails; none, for 0.
void FailLater(std::size_t ordinal) {
  AllocationFailure::Arm(ordinal);
}

class CacheFailureTest : public CacheToolsFixture {
 protected:
  // Reads of a source that have allocations fail on the thread that runs a hook.
  using Arm = std::function<void(HookedSource* source, std::function<void()> failLater)>;
  void ReadWithEachFailure(const Arm& arm) {
    for (std::size_t ordinal = 1; ordinal < 60; ++ordinal) {
      SCOPED_TRACE(ordinal);
      AutoRelease<BufferFactoryHeap> factory(NewHeapFactory(6, kBlock));
      MakeCacheOver(factory);
      HookedSource* const source = MakeHookedSource(contents_);
      std::atomic<bool> armed{false};
      arm(source, [&armed, ordinal] {
        if (!armed.exchange(true)) FailLater(ordinal);
      });
      AsyncRequest first(2 * kBlock);
      AsyncRequest second(3 * kBlock);
      AsyncRequest third(10);
      ASSERT_EQ(CacheSource::kResultPending, first.Read(source, 0));
      ASSERT_EQ(CacheSource::kResultPending, second.Read(source, kBlock));
      ASSERT_EQ(CacheSource::kResultPending, third.Read(source, 5 * kBlock));
      for (AsyncRequest* const request : {&first, &second, &third}) {
        const Report report = request->GetReport();
        EXPECT_TRUE(report.result == CacheSource::kResultOK ||
                    report.result == CacheSource::kResultError ||
                    report.result == CacheSource::kResultFailed)
            << report.result;
      }
      EXPECT_TRUE(armed);
      // All that is still wanted of the hooks is that they do nothing.
      Report report{};
      for (int k = 0; k < 3; ++k) {
        if (Read(source, 0, contents_.size(), &report) == contents_) break;
      }
      EXPECT_EQ((Report{CacheSource::kResultOK, contents_.size()}), report);
      ReleaseSources();
      ReleaseCache();
      // The failure may have hit the start of the helper thread that was to destroy the cache.
      EXPECT_TRUE(Eventually([&factory] {
        CacheReaper::Stop();
        return factory->GetNumberOfBuffersInUse() == 0;
      }));
    }
  }

  const std::string contents_ = MemorySource::Pattern(8 * kBlock);
};

TEST_F(CacheFailureTest, OnTheThreadOfTheCaller) {
  MakeCache(4);
  MemorySource* const source = MakeSource(contents_);
  bool happened = true;
  for (std::size_t ordinal = 1; happened; ++ordinal) {
    ASSERT_GT(kMostAllocations, ordinal);
    AsyncRequest request(2 * kBlock);
    CacheSource::Result_t started = CacheSource::kResultNone;
    {
      AllocationFailure failure(ordinal);
      try {
        started = request.Read(source, 0);
      } catch (const std::bad_alloc&) {
        started = CacheSource::kResultNotSupported;
      }
      happened = failure.HasHappened();
    }
    if (started == CacheSource::kResultPending) {
      EXPECT_EQ(CacheSource::kResultOK, request.GetReport().result);
    } else {
      EXPECT_EQ(CacheSource::kResultNotSupported, started);
      EXPECT_FALSE(request.IsReported());
    }
    EXPECT_TRUE(Eventually([&request] { return request.GetCallbackReferences() == 1; })) << ordinal;
  }
}

TEST_F(CacheFailureTest, OnTheThreadOfTheCallerOfARead) {
  MakeCache(4);
  MemorySource* const source = MakeSource(contents_);
  bool happened = true;
  for (std::size_t ordinal = 1; happened; ++ordinal) {
    ASSERT_GT(kMostAllocations, ordinal);
    TransactionRequest request(2 * kBlock);
    ASSERT_TRUE(request.Setup(source, 0));
    CacheSource::Result_t started = CacheSource::kResultNone;
    {
      AllocationFailure failure(ordinal);
      started = cache_->Read(request.GetTransaction());
      happened = failure.HasHappened();
    }
    if (started == CacheSource::kResultPending) {
      EXPECT_EQ(CacheSource::kResultOK, request.GetReport().result);
    } else {
      EXPECT_EQ(CacheSource::kResultError, started);
      EXPECT_EQ((Report{CacheSource::kResultError, 0}), request.GetReport());
    }
  }
}

TEST_F(CacheFailureTest, OnTheThreadOfASynchronousRead) {
  MakeCache(4);
  MemorySource* const source = MakeSource(contents_);
  bool happened = true;
  for (std::size_t ordinal = 1; happened; ++ordinal) {
    ASSERT_GT(kMostAllocations, ordinal);
    cache_->Purge(source);
    Target target(2 * kBlock);
    AllocationFailure failure(ordinal);
    CacheSource::Result_t result = CacheSource::kResultNotSupported;
    try {
      result = source->Read(0, target.GetBuffer(), nullptr);
    } catch (const std::bad_alloc&) {
    }
    happened = failure.HasHappened();
    EXPECT_EQ(happened ? CacheSource::kResultNotSupported : CacheSource::kResultOK, result);
    EXPECT_EQ(2, target.GetBuffer()->GetRefCount());
  }
}

TEST_F(CacheFailureTest, OnTheReadThread) {
  ReadWithEachFailure([](HookedSource* source, std::function<void()> failLater) {
    source->OnGather(std::move(failLater));
  });
}

TEST_F(CacheFailureTest, OnTheReadThreadWithoutGathering) {
  ReadWithEachFailure([](HookedSource* source, std::function<void()> failLater) {
    source->SetGathers(false);
    source->OnGather(std::move(failLater));
  });
}

TEST_F(CacheFailureTest, OnTheDispatchingThread) {
  ReadWithEachFailure([](HookedSource* source, std::function<void()> failLater) {
    source->OnStart([failLater](const MemorySource::Request&) { failLater(); });
  });
}

TEST_F(CacheFailureTest, OnTheDispatchingThreadWithoutGathering) {
  ReadWithEachFailure([](HookedSource* source, std::function<void()> failLater) {
    source->SetGathers(false);
    source->OnStart([failLater](const MemorySource::Request&) { failLater(); });
  });
}

TEST_F(CacheFailureTest, OnTheCopyingThread) {
  for (std::size_t ordinal = 1; ordinal < 30; ++ordinal) {
    MakeCache(4);
    MemorySource* const source = MakeSource(contents_);
    AutoRelease<HookedBuffer> buffer(new HookedBuffer(4 * kBlock));
    AutoRelease<BufferList> list(new BufferList(buffer, /*adoptReference=*/false, 1));
    AutoRelease<ReportRecorder> recorder(new ReportRecorder);
    bool armed = false;
    buffer->OnCopyInto([&armed, ordinal] {
      if (!std::exchange(armed, true)) FailLater(ordinal);
    });
    source->SetGathers(false);
    ASSERT_EQ(CacheSource::kResultPending, source->ReadAsyncWithList(0, list, recorder, 0));
    const CacheSource::Result_t result = recorder->GetOne().result;
    EXPECT_TRUE(result == CacheSource::kResultOK || result == CacheSource::kResultError);
    EXPECT_EQ(contents_, Read(source, 0, contents_.size()));
    ReleaseSources();
  }
}

TEST_F(CacheFailureTest, OnTheThreadThatEndsTheSourceRead) {
  for (const CacheSource::Result_t ending :
       {CacheSource::kResultOK, CacheSource::kResultPartial, CacheSource::kResultFailed}) {
    bool happened = true;
    for (std::size_t ordinal = 1; happened; ++ordinal) {
      ASSERT_GT(kMostAllocations, ordinal);
      MakeCache(4);
      MemorySource* const source = MakeSource(contents_);
      source->HoldRequests(true);
      AsyncRequest request(3 * kBlock);
      ASSERT_EQ(CacheSource::kResultPending, request.Read(source, 0));
      ASSERT_TRUE(source->WaitForHeld(1));
      const std::uint64_t bytes = ending == CacheSource::kResultPartial ? kBlock + 9 : 3 * kBlock;
      {
        AllocationFailure failure(ordinal);
        source->CompleteWith(0, ending, bytes);
        happened = failure.HasHappened();
      }
      const Report report = request.GetReport();
      EXPECT_TRUE(report.result == ending || report.result == CacheSource::kResultError) << ordinal;
      source->HoldRequests(false);
      // What was named its end is not.
      cache_->Invalidate(source, 0, contents_.size());
      EXPECT_EQ(contents_, Read(source, 0, contents_.size()));
      ReleaseSources();
    }
  }
}

TEST_F(CacheFailureTest, OnTheThreadsOfCancelPurgeAndInvalidate) {
  const std::function<void(MemorySource*)> kOperations[] = {
      [this](MemorySource* source) { cache_->Cancel(source); },
      [this](MemorySource* source) { cache_->Purge(source); },
      [this](MemorySource* source) { cache_->Invalidate(source, 0, 8 * kBlock); },
  };
  for (const auto& operation : kOperations) {
    bool happened = true;
    for (std::size_t ordinal = 1; happened; ++ordinal) {
      ASSERT_GT(kMostAllocations, ordinal);
      MakeCache(4);
      MemorySource* const source = MakeSource(contents_);
      source->SetGathers(false);
      source->HoldRequests(true);
      AsyncRequest request(3 * kBlock);
      ASSERT_EQ(CacheSource::kResultPending, request.Read(source, 0));
      ASSERT_TRUE(source->WaitForHeld(3));
      {
        AllocationFailure failure(ordinal);
        try {
          operation(source);
        } catch (const std::bad_alloc&) {
          // The source's own; nothing is left held.
          operation(source);
        }
        happened = failure.HasHappened();
      }
      EXPECT_EQ((Report{CacheSource::kResultFailed, 0}), request.GetReport());
      source->HoldRequests(false);
      source->CompleteAll();
      EXPECT_EQ(contents_, Read(source, 0, contents_.size()));
      ReleaseSources();
    }
  }
}

TEST_F(CacheFailureTest, AReadWithoutPrimitivesIsReportedOrRefused) {
  TestMTInterface& mt = TestMTInterface::Get();
  for (long ordinal = 1; ordinal < 40; ++ordinal) {
    MakeCache(4);
    MemorySource* const source = MakeSource(contents_);
    AsyncRequest request(2 * kBlock);
    CacheSource::Result_t started = CacheSource::kResultNone;
    mt.FailCreation(ordinal, TestMTInterface::kThrow);
    try {
      started = request.Read(source, 0);
    } catch (const std::bad_alloc&) {
      started = CacheSource::kResultNotSupported;
    }
    if (started == CacheSource::kResultPending) {
      const CacheSource::Result_t result = request.GetReport().result;
      EXPECT_TRUE(result == CacheSource::kResultOK || result == CacheSource::kResultError ||
                  result == CacheSource::kResultFailed);
    } else {
      EXPECT_EQ(CacheSource::kResultNotSupported, started);
    }
    mt.StopFailing();
    EXPECT_EQ(contents_, Read(source, 0, contents_.size()));
    ReleaseSources();
  }
}

TEST_F(CacheFailureTest, AConstructorWithoutPrimitivesLeavesNothingBehind) {
  TestMTInterface& mt = TestMTInterface::Get();
  AutoRelease<BufferFactoryHeap> factory(NewHeapFactory(3, kBlock));
  const LiveCounts before = mt.GetLiveCounts();
  long failures = 0;
  for (bool isWhole = false; !isWhole;) {
    ASSERT_GT(200, failures);
    mt.FailCreation(failures + 1, TestMTInterface::kThrow);
    try {
      AutoRelease<Cache> cache(new Cache(factory));
      isWhole = !mt.StopFailing();
      // Fewer blocks, or none.
      if (!isWhole) ++failures;
    } catch (const std::bad_alloc&) {
      ++failures;
    }
    EXPECT_TRUE(Eventually([&] { return mt.GetLiveCounts() == before; })) << failures;
    EXPECT_EQ(3u, factory->GetNumberOfBuffersFree()) << failures;
    EXPECT_EQ(1, factory->GetRefCount()) << failures;
  }
  EXPECT_LT(10, failures);
}

TEST_F(CacheFailureTest, AConstructorWithoutMemoryLeavesNothingBehind) {
  AutoRelease<BufferFactoryHeap> factory(NewHeapFactory(3, kBlock));
  const LiveCounts before = TestMTInterface::Get().GetLiveCounts();
  bool happened = true;
  for (std::size_t ordinal = 1; happened; ++ordinal) {
    ASSERT_GT(kMostAllocations, ordinal);
    {
      AllocationFailure failure(ordinal);
      try {
        AutoRelease<Cache> cache(new Cache(factory));
        happened = failure.HasHappened();
      } catch (const std::bad_alloc&) {
      } catch (const char*) {
        // A thread that could not be made.
      }
    }
    EXPECT_EQ(before, TestMTInterface::Get().GetLiveCounts()) << ordinal;
    EXPECT_EQ(3u, factory->GetNumberOfBuffersFree()) << ordinal;
    EXPECT_EQ(1, factory->GetRefCount()) << ordinal;
  }
}

TEST_F(CacheFailureTest, ACacheThatCameOutSmallerWorks) {
  TestMTInterface& mt = TestMTInterface::Get();
  for (long ordinal = 1; ordinal < 60; ++ordinal) {
    AutoRelease<BufferFactoryHeap> factory(NewHeapFactory(3, kBlock));
    mt.FailCreation(ordinal, TestMTInterface::kThrow);
    try {
      MakeCacheOver(factory);
    } catch (const std::bad_alloc&) {
      cache_ = nullptr;
    }
    mt.StopFailing();
    if (!cache_) continue;
    MemorySource* const source = MakeSource(contents_);
    Report report{};
    const std::string bytes = Read(source, 0, contents_.size(), &report);
    const bool reads = report.result != CacheSource::kResultNotSupported;
    EXPECT_EQ(reads ? contents_ : std::string(), bytes);
    ReleaseSources();
    ReleaseCache();
  }
}

TEST_F(CacheFailureTest, ASourceThatThrowsFailsItsReadsAndTheCacheGoesOn) {
  MakeCache(4);
  HookedSource* const source = MakeHookedSource(contents_);
  MemorySource* const other = MakeSource(contents_);
  const auto throws = [] { throw std::runtime_error("test"); };
  Report report{};
  source->OnGather(throws);
  Read(source, 0, 2 * kBlock, &report);
  EXPECT_EQ((Report{CacheSource::kResultFailed, 0}), report);
  source->OnGather(nullptr);
  source->OnStart([](const MemorySource::Request&) { throw std::runtime_error("test"); });
  for (const bool gathers : {true, false}) {
    source->SetGathers(gathers);
    Read(source, 0, 2 * kBlock, &report);
    EXPECT_EQ((Report{CacheSource::kResultFailed, 0}), report);
  }
  source->OnStart(nullptr);
  source->OnPreRead(throws);
  cache_->PreRead(source, 0, 2 * kBlock, 0, MTThread::kPriorityNormal);
  EXPECT_EQ(contents_, Read(other, 0, contents_.size()));
  source->OnPreRead(nullptr);
  EXPECT_EQ(contents_, Read(source, 0, contents_.size()));
  // No section was left held.
  std::thread([&] { cache_->Purge(source); }).join();
}

// Memory that runs out inside the constructor may cost the cache blocks or a thread.
TEST_F(CacheFailureTest, ACacheWithoutOneOfItsThreadsRefusesReads) {
  std::size_t refusals = 0;
  for (std::size_t ordinal = 1; ordinal < 120; ++ordinal) {
    SCOPED_TRACE(ordinal);
    AutoRelease<BufferFactoryHeap> factory(NewHeapFactory(3, kBlock));
    try {
      const AllocationFailure failure(ordinal);
      MakeCacheOver(factory);
    } catch (const std::bad_alloc&) {
      cache_ = nullptr;
      continue;
    } catch (const char*) {  // a thread that could not be made
      cache_ = nullptr;
      continue;
    }
    MemorySource* const source = MakeSource(contents_);
    Report report{};
    const std::string bytes = Read(source, 0, contents_.size(), &report);
    const bool reads = report.result != CacheSource::kResultNotSupported;
    if (!reads) ++refusals;
    EXPECT_EQ(reads ? contents_ : std::string(), bytes);
    // Without a thread there is nothing that a pre-read could wait for either.
    source->PreRead(0, kBlock, CacheSource::kDueASAP, MTThread::kPriorityNormal);
    source->Cancel();
    ReleaseSources();
    ReleaseCache();
  }
  EXPECT_LE(3u, refusals) << "one for each thread";
}

// Runs a hook on the threads of the cache whenever they ask for its key.
class KeyedSource : public MemorySource {
 public:
  KeyedSource(const std::string& contents, std::function<void()> onKey)
      : MemorySource(contents), onKey_(std::move(onKey)) {}
  std::uint32_t GetSourceKey() override {
    if (LibraryThreadMark::IsSetOnThisThread()) onKey_();
    return MemorySource::GetSourceKey();
  }

 protected:
  ~KeyedSource() override = default;

 private:
  const std::function<void()> onKey_;
};

// The queue of copies grows with its first one, and pre-reads need none.
TEST_F(CacheFailureTest, AHitWhoseCopyFindsNoMemoryIsReported) {
  for (std::size_t ordinal = 1; ordinal < 6; ++ordinal) {
    SCOPED_TRACE(ordinal);
    MakeCache(4);
    std::atomic<bool> armed{false};
    const AutoRelease<KeyedSource> source(new KeyedSource(contents_, [&armed, ordinal] {
      if (armed.exchange(false)) FailLater(ordinal);
    }));
    source->UseCache(cache_);
    source->PreRead(0, kBlock, CacheSource::kDueASAP, MTThread::kPriorityNormal);
    ASSERT_TRUE(Eventually([&] { return source->GetRequests().size() == 1; }));
    ASSERT_TRUE(Eventually([&] { return source->GetRefCount() == 1; }));
    AsyncRequest request(100);
    armed = true;
    ASSERT_EQ(CacheSource::kResultPending, request.Read(source, 5));
    const Report report = request.GetReport();
    EXPECT_FALSE(armed);
    if (report.result == CacheSource::kResultOK) {
      EXPECT_EQ(contents_.substr(5, 100), request.GetBytes(100));
    } else {
      EXPECT_TRUE(report.result == CacheSource::kResultFailed ||
                  report.result == CacheSource::kResultError)
          << report.result;
      EXPECT_EQ(0u, report.bytes);
    }
    EXPECT_EQ(contents_.substr(0, kBlock), Read(source, 0, kBlock));
  }
}

}  // namespace
}  // namespace Orvane
