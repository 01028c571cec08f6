// Native files behind a cache.
#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "BufferFactory.h"
#include "Cache.h"
#include "FileTestTools.h"
#include "MemorySource.h"
#include "TestHost.h"

namespace Orvane {
namespace {

using Source = AutoRelease<NativeFileSource>;

constexpr std::uint32_t kNow = CacheSource::kDueASAP;

class CachedFileTest : public OrvaneTest {
 protected:
  static constexpr std::size_t kMemory = 4 << 20;

  CachedFileTest() : memory_(kMemory) {}

  // One reference for the caller.
  static Cache* NewCache(std::size_t blocks, std::size_t blockSize) {
    const AutoRelease<BufferFactoryPhysMem> factory(new BufferFactoryPhysMem);
    EXPECT_TRUE(factory->Initialize(blockSize, blocks, blocks, 0));
    return new Cache(factory);
  }
  NativeFileSource* OpenCached(const std::string& path, Cache* cache,
                               OpenFor direction = OpenFor::kReadAndWrite, bool create = false) {
    NativeFileSource* const source = OpenSource(path, direction, create);
    EXPECT_TRUE(source->UseCache(cache));
    return source;
  }
  Outcome Read(FileSource* source, std::uint64_t offset, std::size_t size) const {
    return ReadInto(source, offset, {{memory_.At(), size}});
  }
  // Expects the bytes of a file of `fileSize` bytes of the pattern.
  void ExpectPattern(FileSource* source, std::uint64_t offset, std::size_t size,
                     std::uint64_t fileSize, std::uint64_t seed = 0) const {
    memory_.FillWith(0xA5);
    const std::uint64_t there =
        offset < fileSize ? std::min<std::uint64_t>(size, fileSize - offset) : 0;
    const auto result = there == size ? kOK : there > 0 ? kPartial : kOutOfRange;
    ASSERT_EQ((Outcome{result, there}), Read(source, offset, size)) << offset << ", " << size;
    ASSERT_TRUE(HasPattern(memory_.At(), there, offset, seed)) << offset << ", " << size;
    ASSERT_TRUE(memory_.IsFilledWith(0xA5, there, 100));
  }
  CacheSource::Result_t Start(FileSource* source, std::uint64_t offset, std::size_t place,
                              std::size_t size,
                              FileSource::ResultCallbackBufferList* callback) const {
    const AutoRelease<BufferList> list(NewListOf({{memory_.At(place), size}}));
    return source->ReadAsyncWithList(offset, list, callback, kNow);
  }
  CacheSource::Result_t StartWrite(FileSource* source, std::uint64_t offset, std::size_t place,
                                   std::size_t size,
                                   FileSource::ResultCallbackBufferList* callback) const {
    const AutoRelease<BufferList> list(NewListOf({{memory_.At(place), size}}));
    return source->WriteAsyncWithList(offset, list, callback, kNow);
  }

  const Memory memory_;
};

// Ranges.

TEST_F(CachedFileTest, AnyRangeOfAFileOfOddSizeIsRead) {
  const AutoRelease<Cache> cache(NewCache(8, 4 * Page()));
  const unsigned seed = std::random_device{}();
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::minstd_rand random(seed);
  for (const std::size_t size :
       {std::size_t{1}, Page() - 1, 4 * Page(), 4 * Page() + 1, 77 * Page() + 1234}) {
    const TestFile file("odd-" + std::to_string(size));
    ASSERT_TRUE(file.FillWithPattern(0, size));
    const Source source(OpenCached(file.Path(), cache));
    for (int round = 0; round < 200; ++round) {
      const std::uint64_t offset = random() % (size + 3 * Page());
      ExpectPattern(source, offset, 1 + random() % (20 * Page()), size);
      ASSERT_FALSE(HasFatalFailure());
    }
  }
}

TEST_F(CachedFileTest, ListsOfManySmallBuffersAreFilledInOrder) {
  const AutoRelease<Cache> cache(NewCache(8, 2 * Page()));
  const TestFile file("lists");
  const std::size_t size = 30 * Page() + 77;
  ASSERT_TRUE(file.FillWithPattern(0, size));
  const Source source(OpenCached(file.Path(), cache));
  for (const std::uint64_t offset : {std::uint64_t{0}, std::uint64_t{5}, 27 * Page() + 1}) {
    Pieces pieces;
    std::size_t at = 0;
    for (std::size_t length = 1; at < 9 * Page(); at += length, length = length % 201 + 1) {
      pieces.emplace_back(memory_.At(at), length);
    }
    const std::uint64_t there = std::min<std::uint64_t>(at, size - offset);
    for (int round = 0; round < 3; ++round) {  // missed, then from memory
      memory_.FillWith(0);
      const Outcome expected{there == at ? kOK : kPartial, there};
      EXPECT_EQ(expected, ReadInto(source, offset, pieces));
      EXPECT_TRUE(HasPattern(memory_.At(), there, offset));
      EXPECT_TRUE(memory_.IsFilledWith(0, there, Page()));
    }
  }
}

TEST_F(CachedFileTest, AFileThatIsLargerThanTheCacheIsReadAtOnce) {
  const AutoRelease<Cache> cache(NewCache(4, 2 * Page()));
  const TestFile file("large");
  const std::size_t size = 300 * Page() + 99;
  ASSERT_TRUE(file.FillWithPattern(0, size));
  const Source source(OpenCached(file.Path(), cache));
  ExpectPattern(source, 0, size, size);
  ExpectPattern(source, 0, 400 * Page(), size);
  const AutoRelease<Reports> reports(new Reports);
  constexpr std::size_t kReads = 3;
  for (std::size_t k = 0; k < kReads; ++k) {
    ASSERT_EQ(kPending, Start(source, 0, k * 310 * Page(), size, reports));
  }
  EXPECT_EQ(std::vector<Outcome>(kReads, {kOK, size}), reports->WaitFor(kReads));
  for (std::size_t k = 0; k < kReads; ++k) {
    EXPECT_TRUE(HasPattern(memory_.At(k * 310 * Page()), size, 0));
  }
}

TEST_F(CachedFileTest, MoreReadsAtOnceThanThereAreSlots) {
  const AutoRelease<Cache> cache(NewCache(150, Page()));
  const TestFile file("many");
  ASSERT_TRUE(file.FillWithPattern(0, 400 * Page()));
  const Source source(OpenCached(file.Path(), cache));
  const AutoRelease<Reports> reports(new Reports);
  constexpr std::size_t kReads = 200;
  {
    const BusyIoThread busy;
    for (std::size_t k = 0; k < kReads; ++k) {  // no two are adjacent
      ASSERT_EQ(kPending, Start(source, 2 * k * Page(), k * Page(), Page() - k, reports));
    }
    EXPECT_EQ(0u, reports->Count());
  }
  std::uint64_t total = 0;
  for (const Outcome& outcome : reports->WaitFor(kReads)) {
    EXPECT_EQ(kOK, outcome.result);
    total += outcome.bytes;
  }
  EXPECT_EQ(kReads * Page() - kReads * (kReads - 1) / 2, total);
  for (std::size_t k = 0; k < kReads; ++k) {
    EXPECT_TRUE(HasPattern(memory_.At(k * Page()), Page() - k, 2 * k * Page())) << k;
  }
  EXPECT_EQ(kReads, reports->Count());
}

// What cannot be read.

TEST_F(CachedFileTest, ClosedAndWriteOnlyFilesFailTheirReads) {
  const AutoRelease<Cache> cache(NewCache(4, Page()));
  const TestFile file("closed");
  ASSERT_TRUE(file.FillWithPattern(0, 8 * Page()));
  const Source never(NewSource(file.Path()));
  ASSERT_TRUE(never->UseCache(cache));
  const Source writeOnly(OpenCached(file.Path(), cache, OpenFor::kWrite));
  const Source closed(OpenCached(file.Path(), cache));
  ASSERT_TRUE(closed->Close());
  const Source absent(OpenCached(file.Path() + "-absent", cache));
  for (NativeFileSource* const source :
       {never.Get(), writeOnly.Get(), closed.Get(), absent.Get()}) {
    EXPECT_EQ((Outcome{kError, 0}), Read(source, 10, 3 * Page()));
    const AutoRelease<Reports> reports(new Reports);
    for (std::size_t k = 0; k < 20; ++k) {
      ASSERT_EQ(kPending, Start(source, k * Page(), k * Page(), Page(), reports));
    }
    EXPECT_EQ(std::vector<Outcome>(20, {kError, 0}), reports->WaitFor(20));
  }
  ExpectPattern(Source(OpenCached(file.Path(), cache)), 3, 5 * Page(), 8 * Page());
}

TEST_F(CachedFileTest, BlocksThatAreNotPagesFailTheReads) {
  const TestFile file("unaligned");
  ASSERT_TRUE(file.FillWithPattern(0, 8 * Page()));
  const AutoRelease<BufferFactoryHeap> factory(new BufferFactoryHeap);
  ASSERT_TRUE(factory->Initialize(Page() + 100, 8, 8, 0));
  const AutoRelease<Cache> cache(new Cache(factory));
  const Source source(OpenCached(file.Path(), cache));
  EXPECT_EQ(kError, Read(source, 0, 100).result);
  EXPECT_EQ(kError, Read(source, 3 * Page(), 3 * Page()).result);
  const AutoRelease<Reports> reports(new Reports);
  ASSERT_EQ(kPending, Start(source, 0, 0, 4 * Page(), reports));
  EXPECT_EQ(std::vector<Outcome>({{kError, 0}}), reports->WaitFor(1));
  EXPECT_EQ(kRequestSlots, CountFreeSlots());
}

TEST_F(CachedFileTest, ARangeThatPassesTheEndOfTheNumbersIsRefused) {
  const AutoRelease<Cache> cache(NewCache(4, Page()));
  const TestFile file("wrap");
  ASSERT_TRUE(file.FillWithPattern(0, Page()));
  const Source source(OpenCached(file.Path(), cache));
  const std::uint64_t last = ~std::uint64_t{0};
  EXPECT_EQ((Outcome{kNotSupported, kUntouched}), Read(source, last - 10, 100));
  EXPECT_EQ(kOutOfRange, WriteFrom(source, last - Page() + 1, {{memory_.At(), 4 * Page()}}).result);
  source->PreRead(last - 10, 100, kNow, MTThread::kPriorityNormal);
  cache->Invalidate(source, last - 10, 100);
  ExpectPattern(source, 0, Page(), Page());
}

TEST_F(CachedFileTest, OnTheIoThreadASynchronousReadIsAnErrorAtOnce) {
  const AutoRelease<Cache> cache(NewCache(4, Page()));
  const TestFile file("io-thread");
  ASSERT_TRUE(file.FillWithPattern(0, 4 * Page()));
  const Source source(OpenCached(file.Path(), cache));
  ExpectPattern(source, 0, Page(), 4 * Page());
  std::vector<Outcome> outcomes;
  {
    BusyIoThread busy;
    busy.BeforeLettingGo([&] {
      outcomes.push_back(Read(source, 0, Page()));  // in memory
      outcomes.push_back(Read(source, 2 * Page(), Page()));
      outcomes.push_back(WriteFrom(source, 0, {{memory_.At(), Page()}}));
    });
  }
  EXPECT_EQ(std::vector<Outcome>(3, {kError, kUntouched}), outcomes);
}

// Files that change.

TEST_F(CachedFileTest, WhatIsWrittenIsRead) {
  const AutoRelease<Cache> cache(NewCache(6, 2 * Page()));
  const TestFile file("written");
  const std::size_t size = 40 * Page();
  ASSERT_TRUE(file.FillWithPattern(0, size));
  const Source source(OpenCached(file.Path(), cache));
  const Memory written(4 * Page());
  std::minstd_rand random(5);
  for (std::uint64_t round = 1; round < 100; ++round) {
    const std::size_t page = random() % 36;
    ExpectPattern(source, 0, 8 * Page(), size);
    FillPattern(written.At(), written.Size(), 0, round);
    ASSERT_EQ((Outcome{kOK, written.Size()}),
              WriteFrom(source, page * Page(), {{written.At(), written.Size()}}));
    ASSERT_EQ((Outcome{kOK, written.Size()}), Read(source, page * Page(), written.Size()));
    ASSERT_TRUE(HasPattern(memory_.At(), written.Size(), 0, round));
    FillPattern(written.At(), written.Size(), page * Page());
    ASSERT_EQ(kOK, WriteFrom(source, page * Page(), {{written.At(), written.Size()}}).result);
    ASSERT_FALSE(HasFatalFailure());
  }
}

TEST_F(CachedFileTest, WhatIsAppendedIsRead) {
  const AutoRelease<Cache> cache(NewCache(6, 4 * Page()));
  const TestFile file("appended");
  ASSERT_TRUE(file.FillWithPattern(0, Page()));
  const Source source(OpenCached(file.Path(), cache));
  const Memory written(Page());
  for (std::uint64_t page = 1; page < 40; ++page) {
    ExpectPattern(source, 0, 50 * Page(), page * Page());
    ExpectPattern(source, page * Page(), 10, page * Page());
    FillPattern(written.At(), Page(), page * Page());
    ASSERT_EQ((Outcome{kOK, Page()}), WriteFrom(source, page * Page(), {{written.At(), Page()}}));
    ExpectPattern(source, page * Page() - 10, Page(), (page + 1) * Page());
    ASSERT_FALSE(HasFatalFailure());
  }
}

TEST_F(CachedFileTest, OpeningForgetsWhatTheFileHeldBefore) {
  const AutoRelease<Cache> cache(NewCache(16, Page()));
  const TestFile file("replaced");
  ASSERT_TRUE(file.FillWithPattern(0, 8 * Page(), 1));
  const Source source(OpenCached(file.Path(), cache));
  ExpectPattern(source, 0, 8 * Page(), 8 * Page(), 1);
  for (const bool remove : {false, true}) {
    const std::uint64_t seed = remove ? 3 : 2;
    if (remove) {
      EXPECT_TRUE(source->Delete());
    } else {
      EXPECT_TRUE(source->Close());
    }
    EXPECT_TRUE(file.Resize(0));
    ASSERT_TRUE(file.FillWithPattern(0, 6 * Page(), seed));
    ASSERT_TRUE(source->Open(/*forRead=*/true, /*forWrite=*/true, /*create=*/false));
    ExpectPattern(source, 0, 8 * Page(), 6 * Page(), seed);
  }
}

// Releases.

TEST_F(CachedFileTest, ReleasedRightBehindTheStartAReadStillEnds) {
  const TestFile file("released");
  ASSERT_TRUE(file.FillWithPattern(0, 64 * Page()));
  const AutoRelease<Reports> reports(new Reports);
  constexpr std::size_t kRounds = 300;
  std::size_t good = 0;
  for (std::size_t round = 0; round < kRounds; ++round) {
    AutoRelease<Cache> cache(NewCache(4, 4 * Page()));
    Source source(OpenCached(file.Path(), cache));
    const std::size_t place = round % 8 * 32 * Page();
    ASSERT_EQ(kPending, Start(source, 100, place, 20 * Page(), reports));
    cache.Release();
    source.Release();
    if (round % 8 != 7) continue;
    ASSERT_EQ(round + 1, reports->WaitFor(round + 1).size());
    for (std::size_t k = 0; k < 8; ++k) {
      if (HasPattern(memory_.At(k * 32 * Page()), 20 * Page(), 100)) ++good;
    }
    memory_.FillWith(0);
  }
  EXPECT_EQ(std::vector<Outcome>(kRounds, {kOK, 20 * Page()}), reports->WaitFor(kRounds));
  EXPECT_EQ(kRounds / 8 * 8, good);
  EXPECT_TRUE(Eventually([&] { return !IsOpenHere(file.Path()); }));
  EXPECT_TRUE(Eventually([&] { return reports->GetRefCount() == 1; }));
  EXPECT_EQ(kRounds, reports->Count());
}

TEST_F(CachedFileTest, NothingIsLeftWhenASynchronousCallReturns) {
  const AutoRelease<Cache> cache(NewCache(4, Page()));
  const TestFile file("counts");
  ASSERT_TRUE(file.FillWithPattern(0, 64 * Page()));
  const Source source(OpenCached(file.Path(), cache));
  const AutoRelease<BufferList> list(NewListOf({{memory_.At(), 2 * Page()}}));
  Buffer* const buffer = list->GetBuffer(0);
  for (std::size_t round = 0; round < 1000 && !HasFailure(); ++round) {
    const std::uint64_t offset = round * 7 % 60 * Page();
    std::uint64_t bytes = 0;
    const auto result = round % 3 == 0   ? source->Read(offset, buffer, &bytes)
                        : round % 3 == 1 ? source->ReadWithList(offset, list, &bytes)
                                         : source->WriteWithList(offset, list, &bytes);
    EXPECT_EQ((Outcome{kOK, 2 * Page()}), (Outcome{result, bytes}));
    EXPECT_EQ(1, list->GetRefCount());
    EXPECT_EQ(1, buffer->GetRefCount());
    EXPECT_EQ(Buffer::kBufferUnlocked, buffer->GetLockState());
  }
  EXPECT_TRUE(Eventually([&] { return source->GetRefCount() == 1; }));
  EXPECT_TRUE(Eventually([&] { return cache->GetRefCount() == 2; }));
}

TEST_F(CachedFileTest, ClosingEndsReadsThatWaitForBlocks) {
  const AutoRelease<Cache> cache(NewCache(2, Page()));
  const TestFile file("waiting");
  ASSERT_TRUE(file.FillWithPattern(0, 64 * Page()));
  const Source source(OpenCached(file.Path(), cache));
  const Source other(OpenCached(file.Path(), cache));
  for (int round = 0; round < 20; ++round) {
    const AutoRelease<Reports> reports(new Reports);
    const AutoRelease<Reports> others(new Reports);
    for (std::size_t k = 0; k < 10; ++k) {
      ASSERT_EQ(kPending, Start(source, 2 * k * Page(), k * Page(), Page(), reports));
      ASSERT_EQ(kPending, Start(other, 2 * k * Page(), (20 + k) * Page(), Page(), others));
    }
    EXPECT_TRUE(source->Close());
    EXPECT_EQ(10u, reports->Count());
    for (const Outcome& outcome : reports->WaitFor(10)) {
      EXPECT_TRUE(outcome == (Outcome{kOK, Page()}) || outcome == (Outcome{kFailed, 0}) ||
                  outcome == (Outcome{kError, 0}));
    }
    EXPECT_EQ(std::vector<Outcome>(10, {kOK, Page()}), others->WaitFor(10));
    ASSERT_TRUE(source->Open(/*forRead=*/true, /*forWrite=*/true, /*create=*/false));
  }
}

// Callbacks.

class CachedFileCallbackTest : public CachedFileTest {
 protected:
  static constexpr std::size_t kRequests = 8;

  void SetUp() override {
    CachedFileTest::SetUp();
    file_ = std::make_unique<TestFile>("callbacks");
    ASSERT_TRUE(file_->FillWithPattern(0, 256 * Page()));
  }
  void TearDown() override {
    file_.reset();
    CachedFileTest::TearDown();
  }
  // Reads and writes of the source, half of each.
  void StartRequests(FileSource* source, Reports* reports) {
    for (std::size_t k = 0; k < kRequests; ++k) {
      ASSERT_EQ(kPending, k % 2 == 0
                              ? Start(source, 4 * k * Page(), k * Page(), Page(), reports)
                              : StartWrite(source, 4 * k * Page(), k * Page(), Page(), reports));
    }
  }

  std::unique_ptr<TestFile> file_;
};

// Requests that the I/O thread has not come to are reported one by one; one of the reports cancels.
TEST_F(CachedFileCallbackTest, ACancelInsideTheReportOfACancelEnds) {
  const AutoRelease<Cache> cache(NewCache(16, Page()));
  const Source source(OpenCached(file_->Path(), cache));
  for (const bool purge : {false, true}) {
    for (int round = 0; round < 20; ++round) {
      const AutoRelease<Reports> reports(new Reports([&](Outcome) {
        if (purge) {
          cache->Purge(source);
        } else {
          source->Cancel();
        }
      }));
      cache->Purge(source);  // what is in memory is reported at once
      auto busy = std::make_unique<BusyIoThread>();
      StartRequests(source, reports);
      std::size_t reportedAtReturn = 0;
      std::thread canceller([&] {
        source->Cancel();
        reportedAtReturn = reports->Count();
      });
      busy->LetGo();
      canceller.join();
      EXPECT_EQ(kRequests, reportedAtReturn);
      busy.reset();
      EXPECT_EQ(kRequests, reports->WaitFor(kRequests).size());
      EXPECT_TRUE(Eventually([&] { return reports->GetRefCount() == 1; }));
    }
  }
  EXPECT_EQ(kRequestSlots, CountFreeSlots());
}

TEST_F(CachedFileCallbackTest, CancelsOfManyThreadsAndCallbacksNeverWaitForEachOther) {
  const AutoRelease<Cache> cache(NewCache(8, Page()));
  const Source source(OpenCached(file_->Path(), cache));
  const Source other(OpenCached(file_->Path(), cache));
  const unsigned seed = std::random_device{}();
  SCOPED_TRACE("seed " + std::to_string(seed));
  constexpr int kRounds = 300;
  std::atomic<std::size_t> started{0};
  const AutoRelease<Reports> reports(new Reports([&](Outcome outcome) {
    if (outcome.bytes % 3 == 0) source->Cancel();
    if (outcome.bytes % 3 == 1) cache->Purge(other);
    if (outcome.bytes % 3 == 2) other->CancelNonCached();
  }));
  const auto run = [&](unsigned number) {
    std::minstd_rand random(seed + number);
    for (int round = 0; round < kRounds; ++round) {
      const Source& target = random() % 2 == 0 ? source : other;
      // Memory that is read into is not written from meanwhile.
      const bool isWrite = random() % 3 == 0;
      const std::size_t place = (number * 8 + (isWrite ? 0 : 4) + random() % 4) * Page();
      const std::size_t offset = random() % 200 * Page();
      const auto answer = isWrite ? StartWrite(target, offset, place, Page(), reports)
                                  : Start(target, offset, place, Page() - random() % 3, reports);
      if (answer == kPending) ++started;
      if (random() % 4 == 0) target->Cancel();
    }
  };
  std::vector<std::thread> threads;
  for (unsigned number = 0; number < 3; ++number) threads.emplace_back(run, number);
  for (std::thread& thread : threads) thread.join();
  source->Cancel();
  other->Cancel();
  EXPECT_TRUE(Eventually([&] { return reports->Count() == started; }));
  EXPECT_TRUE(Eventually([&] { return reports->GetRefCount() == 1; }));
  EXPECT_EQ(started, reports->Count());
  EXPECT_EQ(kRequestSlots, CountFreeSlots());
}

// Everything that is allowed in a callback, on the I/O thread, on workers and on the thread that
// cancels.
TEST_F(CachedFileCallbackTest, EveryCallWorksInEveryReport) {
  const AutoRelease<Cache> cache(NewCache(8, Page()));
  const Source source(OpenCached(file_->Path(), cache));
  const Source other(OpenCached(file_->Path(), cache));
  const AutoRelease<Reports> more(new Reports);
  std::atomic<std::size_t> moreStarted{0};
  const std::vector<std::function<void()>> actions = {
      [&] { source->Cancel(); },
      [&] { cache->Purge(source); },
      [&] { cache->Purge(other); },
      [&] { source->Close(); },
      [&] { other->Cancel(); },
      [&] { cache->Invalidate(source, 0, 256 * Page()); },
      [&] { source->PreRead(0, 16 * Page(), kNow, MTThread::kPriorityNormal); },
      [&] { cache->CollectCacheStats(cache->GetCacheHits() % 2 == 0); },
      [&] {
        if (Start(other, 100 * Page(), 100 * Page(), Page(), more) == kPending) ++moreStarted;
      },
      [&] {
        if (StartWrite(other, 90 * Page(), 110 * Page(), Page(), more) == kPending) ++moreStarted;
      },
      [&] { Source(OpenCached(file_->Path(), cache)).Release(); },
  };
  enum Way { kLet, kCancelled, kClosed, kWays };
  for (std::size_t k = 0; k < actions.size(); ++k) {
    for (int way = 0; way < kWays; ++way) {
      SCOPED_TRACE(testing::Message() << "action " << k << ", way " << way);
      const AutoRelease<Reports> reports(new Reports([&](Outcome) { actions[k](); }));
      {
        const BusyIoThread busy;
        StartRequests(source, reports);
      }
      if (way == kCancelled) source->Cancel();
      if (way == kClosed) source->Close();
      ASSERT_EQ(kRequests, reports->WaitFor(kRequests).size());
      ASSERT_TRUE(Eventually([&] { return reports->GetRefCount() == 1; }));
      ASSERT_EQ(kRequests, reports->Count());
      source->Close();
      ASSERT_TRUE(source->Open(/*forRead=*/true, /*forWrite=*/true, /*create=*/false));
    }
  }
  EXPECT_TRUE(Eventually([&] { return more->Count() == moreStarted; }));
  EXPECT_TRUE(Eventually([&] { return more->GetRefCount() == 1; }));
}

TEST_F(CachedFileCallbackTest, AFileCanBeDeletedInsideAReport) {
  const AutoRelease<Cache> cache(NewCache(8, Page()));
  for (const bool write : {false, true}) {
    ASSERT_TRUE(file_->FillWithPattern(0, 8 * Page()));
    const Source source(OpenCached(file_->Path(), cache));
    std::atomic<bool> deleted{false};
    const AutoRelease<Reports> reports(new Reports([&](Outcome) { deleted = source->Delete(); }));
    ASSERT_EQ(kPending, write ? StartWrite(source, 0, 0, Page(), reports)
                              : Start(source, 0, 0, Page(), reports));
    EXPECT_EQ(std::vector<Outcome>({{kOK, Page()}}), reports->WaitFor(1));
    EXPECT_TRUE(Eventually([&] { return reports->GetRefCount() == 1; }));
    EXPECT_TRUE(deleted);
    EXPECT_FALSE(file_->Exists());
  }
}

// The last references of source and cache, given up in a report, inside the call that ends the
// request.
TEST_F(CachedFileCallbackTest, TheLastReleaseInsideAReportWorksOnTheIoThread) {
  enum Way { kCancel, kClose, kDelete, kPurge, kNothing, kWays };
  for (int round = 0; round < 10 * kWays; ++round) {
    const int way = round % kWays;
    const bool write = round / kWays % 2 == 0;
    ASSERT_TRUE(file_->FillWithPattern(0, 8 * Page()));
    Cache* const cache = NewCache(4, Page());
    NativeFileSource* const source = OpenCached(file_->Path(), cache);
    const AutoRelease<Reports> reports(new Reports([&](Outcome) {
      cache->DecRef("tests", "inside", 0);
      source->DecRef("tests", "inside", 0);
    }));
    {
      BusyIoThread busy;
      ASSERT_EQ(kPending, write ? StartWrite(source, 0, 0, Page(), reports)
                                : Start(source, 0, 0, Page(), reports));
      busy.BeforeLettingGo([&] {
        if (way == kCancel) source->Cancel();
        if (way == kClose) source->Close();
        if (way == kDelete) source->Delete();
        if (way == kPurge) cache->Purge(source);
      });
    }
    ASSERT_EQ(1u, reports->WaitFor(1).size());
    ASSERT_TRUE(Eventually([&] { return reports->GetRefCount() == 1; }));
    ASSERT_TRUE(Eventually([&] { return !IsOpenHere(file_->Path()); }));
  }
}

TEST_F(CachedFileCallbackTest, TheLastReleaseInsideAReportWorksOnTheCallersThread) {
  for (const bool remove : {false, true}) {
    ASSERT_TRUE(file_->FillWithPattern(0, 8 * Page()));
    AutoRelease<Cache> cache(NewCache(1, Page()));
    const AutoRelease<MemorySource> holder(new MemorySource(MemorySource::Pattern(Page())));
    holder->UseCache(cache);
    holder->HoldRequests(true);
    const AutoRelease<Reports> holdersReports(new Reports);
    ASSERT_EQ(kPending, Start(holder, 0, Page(), Page(), holdersReports));
    ASSERT_TRUE(holder->WaitForHeld(1));
    // No block is left for it, so it is reported inside the call and not before.
    NativeFileSource* const source = OpenCached(file_->Path(), cache);
    const AutoRelease<Reports> reports(
        new Reports([&](Outcome) { source->DecRef("tests", "inside", 0); }));
    ASSERT_EQ(kPending, Start(source, 0, 0, Page(), reports));
    EXPECT_TRUE(remove ? source->Delete() : source->Close());
    EXPECT_EQ(std::vector<Outcome>({{kFailed, 0}}), reports->WaitFor(1));
    EXPECT_TRUE(Eventually([&] { return !IsOpenHere(file_->Path()); }));
    holder->CompleteAll();
    EXPECT_EQ(1u, holdersReports->WaitFor(1).size());
  }
}

}  // namespace
}  // namespace Orvane
