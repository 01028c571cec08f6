// File sources on a cache, over files in memory whose requests end on command.
#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <limits>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "CacheFixture.h"
#include "FileTestTools.h"

namespace Orvane {
namespace {

using Source = AutoRelease<MemorySource>;

constexpr std::uint64_t kLastOffset = std::numeric_limits<std::uint64_t>::max();

// Whatever it runs is done by another thread while the calling one waits: a lock that the calling
// thread holds would stop both for good.
void OnAnotherThread(const std::function<void()>& work) {
  std::thread(work).join();
}

// Callbacks for one buffer.
class BufferReports : public FileSource::ResultCallbackBuffer {
 public:
  explicit BufferReports(std::function<void()> then = nullptr) : then_(std::move(then)) {}
  void Callback(CacheSource::Result_t, std::uint64_t, Buffer*, std::uint64_t) override {
    ++count_;
    if (then_) then_();
  }
  int Count() const { return count_; }

 protected:
  ~BufferReports() override = default;

 private:
  const std::function<void()> then_;
  std::atomic<int> count_{0};
};

class FileSourceCacheTest : public CacheFixture {
 protected:
  static CacheSource::Result_t Start(FileSource* source, std::uint64_t offset, Target* target,
                                     FileSource::ResultCallbackBufferList* callback) {
    return source->ReadAsyncWithList(offset, target->GetList(), callback, CacheSource::kDueASAP);
  }
  static CacheSource::Result_t StartWrite(FileSource* source, std::uint64_t offset, Target* target,
                                          FileSource::ResultCallbackBufferList* callback) {
    return source->WriteAsyncWithList(offset, target->GetList(), callback, CacheSource::kDueASAP);
  }
  // Reads past the cache; the callback runs inside CancelNonCached when the request is cancelled.
  static CacheSource::Result_t StartBeside(FileSource* source, Target* target,
                                           FileSource::ResultCallbackBufferList* callback) {
    return source->ReadAsyncWithListNonCached(0, target->GetList(), callback,
                                              CacheSource::kDueASAP);
  }
  static void Fill(Target* target, const std::string& bytes) {
    std::size_t done = 0;
    std::string copy = bytes;
    target->GetBuffer()->CopyInto(copy.data(), copy.size(), 0, &done);
    ASSERT_EQ(bytes.size(), done);
  }
  // Expects that the request left nothing behind.
  static void ExpectUntouched(Target* target, Reports* reports) {
    EXPECT_EQ(0u, reports->Count());
    EXPECT_EQ(1, reports->GetRefCount());
    EXPECT_EQ(1, target->GetList()->GetRefCount());
    EXPECT_EQ(Buffer::kBufferUnlocked, target->GetBuffer()->GetLockState());
  }
  // Runs `inside` while a Cancel of the source is under way on another thread, with everything that
  // it holds.
  void WhileCancelling(MemorySource* source, const std::function<void()>& inside) {
    source->HoldRequests(true);
    Target target(kBlock);
    const AutoRelease<Reports> reports(new Reports([&](Outcome) { OnAnotherThread(inside); }));
    ASSERT_EQ(kPending, StartBeside(source, &target, reports));
    source->HoldRequests(false);
    source->Cancel();
    EXPECT_EQ(std::vector<Outcome>({{kFailed, 0}}), reports->WaitFor(1));
  }
};

// Starting.

TEST_F(FileSourceCacheTest, AReadThatTheCacheRefusesIsNotSupportedAndTheCallbackIsNotCalled) {
  MakeCache(4);
  MemorySource* const source = MakeSource(MemorySource::Pattern(kBlock));
  Target target(kBlock);
  const AutoRelease<Reports> reports(new Reports);
  CacheSource::Result_t answer = kPending;
  WhileCancelling(source, [&] { answer = Start(source, 0, &target, reports); });
  EXPECT_EQ(kNotSupported, answer);
  ExpectUntouched(&target, reports);
  EXPECT_EQ(kNotSupported, Start(source, kLastOffset - 10, &target, reports));
  ExpectUntouched(&target, reports);
  EXPECT_EQ(1, source->GetRefCount());

  MakeCache(4);
  const AutoRelease<BufferFactoryHeap> empty(new BufferFactoryHeap);
  const AutoRelease<Cache> withoutBlocks(new Cache(empty));
  const Source other(new MemorySource("abc"));
  other->UseCache(withoutBlocks);
  EXPECT_EQ(kNotSupported, Start(other, 0, &target, reports));
  ExpectUntouched(&target, reports);
  EXPECT_EQ(1, other->GetRefCount());
  EXPECT_TRUE(other->GetRequests().empty());
}

TEST_F(FileSourceCacheTest, AReadOfOneBufferThatIsRefusedReleasesTheCallbackOnce) {
  MakeCache(4);
  MemorySource* const source = MakeSource("abc");
  const AutoRelease<BufferReports> reports(new BufferReports);
  const AutoRelease<HeapBuffer> buffer(new HeapBuffer(100));
  reports->AddRef("tests", "handed over", 0);
  EXPECT_EQ(kNotSupported, source->ReadAsync(kLastOffset - 10, buffer, reports, 0));
  EXPECT_EQ(0, reports->Count());
  EXPECT_EQ(1, reports->GetRefCount());
  EXPECT_EQ(1, buffer->GetRefCount());
}

TEST_F(FileSourceCacheTest, ASynchronousReadThatDoesNotStartLeavesTheByteCountAlone) {
  MakeCache(4);
  MemorySource* const source = MakeSource("abc");
  Target target(100);
  std::uint64_t bytes = kUntouched;
  EXPECT_EQ(kNotSupported, source->Read(kLastOffset - 10, target.GetBuffer(), &bytes));
  EXPECT_EQ(kNotSupported, source->ReadWithList(kLastOffset - 10, target.GetList(), &bytes));
  EXPECT_EQ(kUntouched, bytes);
  EXPECT_EQ(1, target.GetList()->GetRefCount());
  EXPECT_TRUE(source->GetRequests().empty());
}

TEST_F(FileSourceCacheTest, AListReadWithoutACallbackIsNotSupported) {
  MakeCache(4);
  MemorySource* const source = MakeSource(MemorySource::Pattern(kBlock));
  Target target(kBlock);
  EXPECT_EQ(kNotSupported, Start(source, 0, &target, nullptr));
  Read(source, 0, kBlock);
  EXPECT_EQ(kNotSupported, Start(source, 0, &target, nullptr)) << "not from memory either";
  EXPECT_EQ(1, target.GetList()->GetRefCount());
  EXPECT_TRUE(target.IsUntouchedFrom(0));
}

TEST_F(FileSourceCacheTest, EmptyReadsAreNotSupported) {
  MakeCache(4);
  MemorySource* const source = MakeSource(MemorySource::Pattern(kBlock));
  const AutoRelease<Reports> reports(new Reports);
  const AutoRelease<BufferList> empty(new BufferList(4));
  std::uint64_t bytes = kUntouched;
  EXPECT_EQ(kNotSupported, source->ReadAsyncWithList(0, nullptr, reports, 0));
  EXPECT_EQ(kNotSupported, source->ReadAsyncWithList(0, empty, reports, 0));
  EXPECT_EQ(kNotSupported, source->ReadWithList(0, nullptr, &bytes));
  EXPECT_EQ(kNotSupported, source->ReadWithList(0, empty, &bytes));
  EXPECT_EQ(kNotSupported, source->Read(0, nullptr, &bytes));
  EXPECT_EQ(kUntouched, bytes);
  EXPECT_EQ(0u, reports->Count());
  EXPECT_EQ(1, reports->GetRefCount());
  EXPECT_EQ(1, empty->GetRefCount());
}

// What sources answer.

TEST_F(FileSourceCacheTest, AnAnswerAtOnceEndsTheRead) {
  struct Case {
    CacheSource::Result_t answer;
    Outcome expected;
  };
  MakeCache(1);
  MemorySource* const source = MakeSource(MemorySource::Pattern(kBlock));
  for (const Case& row : {Case{kNotSupported, {kError, 0}}, Case{kError, {kError, 0}},
                          Case{kFailed, {kFailed, 0}}, Case{kOutOfRange, {kOutOfRange, 0}},
                          Case{kPartial, {kError, 0}}, Case{CacheSource::kResultNone, {kError, 0}},
                          Case{CacheSource::kResultUnknown, {kError, 0}}}) {
    source->AnswerNext(row.answer);
    Report report{};
    Read(source, 0, 100, &report);
    EXPECT_EQ((Report{row.expected.result, row.expected.bytes}), report) << row.answer;
  }
  EXPECT_EQ(MemorySource::Pattern(kBlock), Read(source, 0, kBlock)) << "the block is free again";
}

TEST_F(FileSourceCacheTest, ABusySourceIsAskedAgain) {
  MakeCache(4);
  MemorySource* const source = MakeSource(MemorySource::Pattern(kBlock));
  source->AnswerNext(kBusy, 5);
  EXPECT_EQ(MemorySource::Pattern(kBlock), Read(source, 0, kBlock));
  EXPECT_EQ(1u, source->GetRequests().size());
}

// Reports something else than what was asked for.
class OddSource : public MemorySource {
 public:
  OddSource(Result_t result, std::int64_t offset, std::uint64_t bytes)
      : MemorySource(Pattern(kSize)), result_(result), offset_(offset), bytes_(bytes) {}

  Result_t ReadAsyncWithListNonCached(std::uint64_t offset, BufferList* list,
                                      ResultCallbackBufferList* callback, std::uint32_t) override {
    callback->AddRef("tests", "OddSource", 0);
    callback->Callback(result_, offset + static_cast<std::uint64_t>(offset_), list, bytes_);
    callback->DecRef("tests", "OddSource", 0);
    return kResultPending;
  }

  static constexpr std::size_t kSize = 8192;

 protected:
  ~OddSource() override = default;

 private:
  const Result_t result_;
  const std::int64_t offset_;
  const std::uint64_t bytes_;
};

TEST_F(FileSourceCacheTest, OddEndsOfASourceReadEndTheCachedRead) {
  struct Case {
    CacheSource::Result_t result;
    std::int64_t offset;
    std::uint64_t bytes;
    Outcome expected;
  };
  const std::array<Case, 11> rows = {{
      {kOK, 0, 1000, {kPartial, 500}},          // fewer bytes: the data ends there
      {kOK, 0, 0, {kOutOfRange, 0}},            // none
      {kPartial, 0, 0, {kOutOfRange, 0}},       // the same
      {kOutOfRange, 0, 700, {kOutOfRange, 0}},  // none, whatever it counts
      {CacheSource::kResultNone, 0, 4096, {kError, 0}},
      {kPending, 0, 4096, {kError, 0}},
      {kOK, 0, 1 << 20, {kOK, 1000}},  // more bytes than asked for
      {kPartial, 0, 1 << 20, {kOK, 1000}},
      {kOK, -4096, 4096, {kError, 0}},  // below the start
      {kPartial, -4096, 4096, {kError, 0}},
      {kError, 0, 4096, {kError, 0}},
  }};
  for (const Case& row : rows) {
    MakeCache(1);
    const AutoRelease<OddSource> source(new OddSource(row.result, row.offset, row.bytes));
    source->UseCache(cache_);
    Target target(1000);
    std::uint64_t bytes = kUntouched;
    const auto result = source->Read(kBlock + 500, target.GetBuffer(), &bytes);
    EXPECT_EQ(row.expected, (Outcome{result, bytes})) << row.result << " " << row.bytes;
    // The only block is free again.
    EXPECT_EQ("xyz", Read(MakeSource("xyz"), 0, 3));
    ReleaseSources();
  }
}

// Exceptions.

TEST_F(FileSourceCacheTest, ACallbackThatThrowsLeavesNothing) {
  MakeCache(4);
  MemorySource* const source = MakeSource(MemorySource::Pattern(kBlock));
  TestMTInterface::Get().TakeDebugText();
  Target target(kBlock);
  const AutoRelease<Reports> reports(new Reports([](Outcome) { throw 1; }));
  const AutoRelease<BufferReports> bufferReports(new BufferReports([] { throw 1; }));
  ASSERT_EQ(kPending, Start(source, 0, &target, reports));
  ASSERT_TRUE(Eventually([&] { return reports->GetRefCount() == 1; }));
  ASSERT_EQ(kPending, source->ReadAsync(0, target.GetBuffer(), bufferReports, 0));
  ASSERT_TRUE(Eventually([&] { return bufferReports->GetRefCount() == 1; }));
  ASSERT_EQ(kPending, StartWrite(source, 0, &target, reports));
  ASSERT_TRUE(Eventually([&] { return reports->GetRefCount() == 1; }));
  EXPECT_EQ(2u, reports->Count());
  EXPECT_EQ(1, bufferReports->Count());
  EXPECT_EQ(1, target.GetList()->GetRefCount());
  EXPECT_NE(std::string::npos, TestMTInterface::Get().TakeDebugText().find("Exception"));
  EXPECT_EQ(kBlock, Read(source, 0, kBlock).size()) << "the workers go on";
  EXPECT_TRUE(Eventually([&] { return source->GetRefCount() == 1; }));
}

// Writes.

TEST_F(FileSourceCacheTest, AWriteInvalidatesBeforeItStarts) {
  MakeCache(4);
  MemorySource* const source = MakeSource(MemorySource::Pattern(4 * kBlock));
  source->HoldRequests(true);
  Target waiting(kBlock);
  Target elsewhere(kBlock);
  const AutoRelease<Reports> reports(new Reports);
  const AutoRelease<Reports> others(new Reports);
  ASSERT_EQ(kPending, Start(source, 0, &waiting, reports));
  ASSERT_TRUE(source->WaitForHeld(1));
  ASSERT_EQ(kPending, Start(source, 2 * kBlock, &elsewhere, others));
  ASSERT_TRUE(source->WaitForHeld(2));
  source->HoldRequests(false);
  std::vector<std::size_t> reportedAtStart;
  source->OnStart([&](const MemorySource::Request& request) {
    if (request.isWrite) reportedAtStart.push_back(reports->WaitFor(1).size());
  });
  Target target(kBlock);
  std::uint64_t bytes = 0;
  EXPECT_EQ(kOK, source->Write(10, target.GetBuffer(), &bytes));
  EXPECT_EQ(std::vector<std::size_t>{1}, reportedAtStart);
  EXPECT_EQ(std::vector<Outcome>({{kFailed, 0}}), reports->WaitFor(1));
  source->CompleteAll();
  EXPECT_EQ(std::vector<Outcome>({{kOK, kBlock}}), others->WaitFor(1));
  EXPECT_EQ(target.GetBytes(kBlock), Read(source, 10, kBlock));
}

TEST_F(FileSourceCacheTest, AFillThatEndsDuringAWriteIsForgotten) {
  MakeCache(4);
  const std::string before = MemorySource::Pattern(2 * kBlock);
  MemorySource* const source = MakeSource(before);
  source->HoldRequests(true);
  Target written(kBlock);
  Target target(kBlock);
  const AutoRelease<Reports> writes(new Reports);
  const AutoRelease<Reports> reads(new Reports);
  for (const auto end : {kOK, kError, kFailed}) {
    Fill(&written, MemorySource::Pattern(kBlock, 7 + static_cast<unsigned>(end + 10)));
    source->HoldRequests(true);
    const std::size_t round = writes->Count() + 1;
    ASSERT_EQ(kPending, StartWrite(source, 0, &written, writes));
    ASSERT_EQ(kPending, Start(source, 0, &target, reads));
    ASSERT_TRUE(source->WaitForHeld(2));
    source->Complete(1);
    ASSERT_EQ(round, reads->WaitFor(round).size());
    source->HoldRequests(false);
    if (end == kOK) {
      source->Complete(0);
    } else {
      source->CompleteWith(0, end, kBlock);  // it failed behind what it has written
    }
    ASSERT_EQ(round, writes->WaitFor(round).size());
    EXPECT_EQ(written.GetBytes(kBlock), Read(source, 0, kBlock));
  }
  EXPECT_EQ(std::vector<Outcome>(3, {kOK, kBlock}), reads->WaitFor(3));
}

TEST_F(FileSourceCacheTest, AFillThatOutlivesTheWriteIsForgotten) {
  MakeCache(4);
  const std::string before = MemorySource::Pattern(2 * kBlock);
  MemorySource* const source = MakeSource(before);
  source->HoldRequests(true);
  Target written(kBlock);
  Target target(kBlock);
  const AutoRelease<Reports> writes(new Reports);
  const AutoRelease<Reports> reads(new Reports);
  ASSERT_EQ(kPending, StartWrite(source, 0, &written, writes));
  ASSERT_EQ(kPending, Start(source, 0, &target, reads));
  ASSERT_TRUE(source->WaitForHeld(2));
  source->HoldRequests(false);
  source->Complete(0);
  const std::string after = source->GetContents();
  // A read that comes now does not join the old fill.
  EXPECT_EQ(after.substr(0, kBlock), Read(source, 0, kBlock));
  source->SetContents(before);  // the device had read before the write
  source->Complete(0);
  source->SetContents(after);
  EXPECT_EQ(std::vector<Outcome>({{kOK, kBlock}}), reads->WaitFor(1));
  EXPECT_EQ(before.substr(0, kBlock), target.GetBytes(kBlock));
  EXPECT_EQ(after.substr(0, kBlock), Read(source, 0, kBlock));
}

TEST_F(FileSourceCacheTest, AWriteThatDoesNotStartForgetsWhatWasReadMeanwhile) {
  MakeCache(4);
  for (const auto answer : {kBusy, kError, kNotSupported}) {
    MemorySource* const source = MakeSource(MemorySource::Pattern(kBlock));
    const std::string after = MemorySource::Pattern(kBlock, 9);
    const AutoRelease<Reports> reads(new Reports);
    Target target(kBlock);
    source->OnStart([&](const MemorySource::Request& request) {
      if (!request.isWrite) return;
      ASSERT_EQ(kPending, Start(source, 0, &target, reads));
      ASSERT_EQ(1u, reads->WaitFor(1).size());
      source->SetContents(after);
      source->AnswerNext(answer);
    });
    std::uint64_t bytes = kUntouched;
    EXPECT_EQ(answer, source->Write(0, target.GetBuffer(), &bytes));
    EXPECT_EQ(kUntouched, bytes);
    EXPECT_EQ(after, Read(source, 0, kBlock));
  }
}

TEST_F(FileSourceCacheTest, WhatIsAppendedBehindTheEndCanBeRead) {
  MakeCache(4);
  for (const std::size_t size : {std::size_t{0}, std::size_t{100}, kBlock, kBlock + 1}) {
    const std::string before = MemorySource::Pattern(size);
    MemorySource* const source = MakeSource(before);
    Report report{};
    EXPECT_EQ(before, Read(source, 0, size + 200, &report));
    EXPECT_EQ(size == 0 ? kOutOfRange : kPartial, report.result);
    Read(source, size, 10, &report);
    EXPECT_EQ((Report{kOutOfRange, 0}), report);
    Target more(5000);
    EXPECT_EQ(kOK, source->Write(size, more.GetBuffer(), nullptr));
    EXPECT_EQ(before + more.GetBytes(5000), Read(source, 0, size + 5000));
  }
}

TEST_F(FileSourceCacheTest, AWriteFarBehindAShortBlockMovesItsEnd) {
  MakeCache(4);
  MemorySource* const source = MakeSource(MemorySource::Pattern(100));
  EXPECT_EQ(MemorySource::Pattern(100), Read(source, 0, 100));
  Target target(10);
  EXPECT_EQ(kOK, source->Write(3 * kBlock, target.GetBuffer(), nullptr));
  const std::string whole = source->GetContents();
  EXPECT_EQ(whole.substr(0, 3 * kBlock + 10), Read(source, 0, 3 * kBlock + 10));
}

TEST_F(FileSourceCacheTest, AReadErrorIsNotRemembered) {
  MakeCache(4);
  MemorySource* const source = MakeSource(MemorySource::Pattern(3 * kBlock));
  for (const auto result : {kError, kFailed, kNotSupported, kOutOfRange}) {
    source->EndAllWith(result);
    Report report{};
    Read(source, 100, 2 * kBlock, &report);
    EXPECT_EQ(0u, report.bytes);
    EXPECT_LT(report.result, CacheSource::kResultNone);
    source->EndAllWith(CacheSource::kResultNone);
    EXPECT_EQ(MemorySource::Pattern(3 * kBlock).substr(100, 2 * kBlock),
              Read(source, 100, 2 * kBlock));
    cache_->Purge(source);
  }
}

// Cancelling.

TEST_F(FileSourceCacheTest, CancelEndsReadsAndWritesAlikeBeforeItReturns) {
  MakeCache(2);
  MemorySource* const source = MakeSource(MemorySource::Pattern(64 * kBlock));
  MemorySource* const other = MakeSource(MemorySource::Pattern(kBlock, 3));
  for (const bool purge : {true, false}) {
    source->HoldRequests(true);
    std::vector<std::unique_ptr<Target>> targets;
    const AutoRelease<Reports> reports(new Reports);
    for (std::size_t k = 0; k < 20; ++k) {  // most of them wait for a block
      targets.push_back(std::make_unique<Target>(kBlock));
      ASSERT_EQ(kPending, Start(source, 2 * k * kBlock, targets.back().get(), reports));
    }
    ASSERT_TRUE(source->WaitForHeld(2));
    Target written(kBlock);
    ASSERT_EQ(kPending, StartWrite(source, 63 * kBlock, &written, reports));
    ASSERT_TRUE(source->WaitForHeld(3));
    if (purge) {
      cache_->Purge(source);
    } else {
      source->Cancel();
    }
    EXPECT_EQ(21u, reports->Count());
    EXPECT_EQ(std::vector<Outcome>(21, {kFailed, 0}), reports->WaitFor(21));
    EXPECT_TRUE(reports->AllBuffersWereUnlocked());
    source->HoldRequests(false);
    EXPECT_EQ(MemorySource::Pattern(kBlock, 3), Read(other, 0, kBlock));
    EXPECT_EQ(MemorySource::Pattern(kBlock), Read(source, 0, kBlock));
    cache_->Purge(source);
  }
}

TEST_F(FileSourceCacheTest, ASourceThatIsReleasedWhileItsReadsWaitForBlocksGoesWithThem) {
  MakeCache(1);
  MemorySource* const holder = MakeSource(MemorySource::Pattern(kBlock));
  holder->HoldRequests(true);
  Target held(kBlock);
  const AutoRelease<Reports> holdersReports(new Reports);
  ASSERT_EQ(kPending, Start(holder, 0, &held, holdersReports));
  ASSERT_TRUE(holder->WaitForHeld(1));
  const AutoRelease<Reports> reports(new Reports);
  Target target(2 * kBlock);
  Target second(kBlock);
  for (const bool cancel : {true, false}) {
    const std::size_t before = reports->Count();
    Source source(new MemorySource(MemorySource::Pattern(4 * kBlock)));
    source->UseCache(cache_);
    ASSERT_EQ(kPending, Start(source, 10, &target, reports));
    ASSERT_EQ(kPending, Start(source, 2 * kBlock, &second, reports));
    if (cancel) {
      source->Cancel();
      EXPECT_EQ(before + 2, reports->Count());
      source.Release();
    } else {
      source.Release();
      holder->CompleteAll();
    }
    const auto outcomes = reports->WaitFor(before + 2);
    ASSERT_EQ(before + 2, outcomes.size());
    EXPECT_EQ(cancel ? kFailed : kOK, outcomes.back().result);
  }
  EXPECT_EQ(1u, holdersReports->WaitFor(1).size());
  EXPECT_EQ(4u, reports->Count());
}

// Callbacks.

// Every kind of call that is allowed in a callback, made once by it and once by another thread
// while it waits.
class FileSourceCacheCallbackTest : public FileSourceCacheTest {
 protected:
  using Action = std::function<void()>;
  static constexpr std::size_t kWaitingActions = 2;  // they come first

  void SetUp() override {
    FileSourceCacheTest::SetUp();
    target_ = std::make_unique<Target>(kBlock);
    more_ = std::make_unique<Target>(kBlock);
    written_ = std::make_unique<Target>(kBlock);
    moreReports_ = new Reports;
    MakeCache(4);
    source_ = MakeSource(MemorySource::Pattern(16 * kBlock));
    other_ = MakeSource(MemorySource::Pattern(16 * kBlock, 2));
  }
  void TearDown() override {
    target_.reset();
    more_.reset();
    written_.reset();
    moreReports_->DecRef("tests", "TearDown", 0);
    FileSourceCacheTest::TearDown();
  }
  std::vector<Action> Actions() {
    return {
        [this] { source_->Cancel(); },
        [this] { cache_->Purge(source_); },
        [this] { other_->Cancel(); },
        [this] { cache_->Invalidate(source_, 0, 100 * kBlock); },
        [this] { cache_->CollectCacheStats(cache_->GetCacheHits() % 2 == 0); },
        [this] { source_->PreRead(0, 4 * kBlock, 0, MTThread::kPriorityNormal); },
        [this] { EXPECT_EQ(kPending, Start(other_, 0, more_.get(), moreReports_)); },
        [this] { EXPECT_EQ(kPending, StartWrite(other_, kBlock, written_.get(), moreReports_)); },
        [] { AutoRelease<Cache>(new Cache(nullptr)).Release(); },
        [] {
          const AutoRelease<BufferFactoryHeap> factory(new BufferFactoryHeap);
          factory->Initialize(kBlock, 2, 2, 0);
          AutoRelease<Cache> cache(new Cache(factory));
          Source source(new MemorySource("abc"));
          source->UseCache(cache);
          cache.Release();
          source.Release();
        },
    };
  }
  // Runs `round` once per action, and once more with the action on another thread. The round is
  // handed a callback that runs the action, once, and counts.
  void ForEachAction(const std::function<void(Reports*)>& round) {
    for (std::size_t k = 0; k < Actions().size(); ++k) {
      for (const bool elsewhere : {false, true}) {
        // It would wait for the very report.
        if (elsewhere && k < kWaitingActions) continue;
        SCOPED_TRACE(testing::Message() << "action " << k << (elsewhere ? " elsewhere" : ""));
        cache_->Purge(source_);
        std::atomic<bool> acted{false};
        const Action action = Actions()[k];
        const AutoRelease<Reports> reports(new Reports([&](Outcome) {
          if (acted.exchange(true)) return;
          if (elsewhere) {
            OnAnotherThread(action);
          } else {
            action();
          }
        }));
        round(reports);
        ASSERT_FALSE(HasFatalFailure());
        ASSERT_TRUE(Eventually([&] { return moreReports_->GetRefCount() == 1; }));
        ASSERT_TRUE(Eventually([&] { return source_->GetRefCount() == 1; }));
      }
    }
  }

  MemorySource* source_ = nullptr;
  MemorySource* other_ = nullptr;
  std::unique_ptr<Target> target_;
  std::unique_ptr<Target> more_;
  std::unique_ptr<Target> written_;
  Reports* moreReports_ = nullptr;
};

TEST_F(FileSourceCacheCallbackTest, OnAWorkerEveryCallWorks) {
  ForEachAction([&](Reports* reports) {
    ASSERT_EQ(kPending, Start(source_, 0, target_.get(), reports));
    EXPECT_EQ(std::vector<Outcome>({{kOK, kBlock}}), reports->WaitFor(1));
    EXPECT_TRUE(Eventually([&] { return reports->GetRefCount() == 1; }));
    EXPECT_EQ(1u, reports->Count());
  });
}

TEST_F(FileSourceCacheCallbackTest, OnTheCancellingThreadEveryCallWorks) {
  Target second(kBlock);
  ForEachAction([&](Reports* reports) {
    source_->HoldRequests(true);
    ASSERT_EQ(kPending, Start(source_, 0, target_.get(), reports));
    ASSERT_TRUE(source_->WaitForHeld(1));
    ASSERT_EQ(kPending, Start(source_, 5 * kBlock, &second, reports));
    source_->HoldRequests(false);
    source_->Cancel();
    EXPECT_EQ(2u, reports->Count());
    EXPECT_TRUE(Eventually([&] { return reports->GetRefCount() == 1; }));
    EXPECT_EQ(2u, reports->Count());
  });
}

TEST_F(FileSourceCacheCallbackTest, TheReportOfACancelledWriteHoldsNoLockEither) {
  ForEachAction([&](Reports* reports) {
    source_->HoldRequests(true);
    ASSERT_EQ(kPending, StartWrite(source_, 8 * kBlock, target_.get(), reports));
    source_->HoldRequests(false);
    source_->Cancel();
    EXPECT_EQ(std::vector<Outcome>({{kFailed, 0}}), reports->WaitFor(1));
    EXPECT_EQ(1u, reports->Count());
    EXPECT_EQ(1, reports->GetRefCount());
  });
}

TEST_F(FileSourceCacheCallbackTest, InsideAWriteEveryCallWorks) {
  Target written(kBlock);
  ForEachAction([&](Reports* reports) {
    source_->HoldRequests(true);
    ASSERT_EQ(kPending, Start(source_, 3 * kBlock, target_.get(), reports));
    ASSERT_TRUE(source_->WaitForHeld(1));
    source_->HoldRequests(false);
    // It fails the read that waits for the old bytes.
    EXPECT_EQ(kOK, source_->Write(3 * kBlock, written.GetBuffer(), nullptr));
    EXPECT_EQ(1u, reports->WaitFor(1).size());
    source_->CompleteAll();
    EXPECT_TRUE(Eventually([&] { return reports->GetRefCount() == 1; }));
    EXPECT_EQ(1u, reports->Count());
  });
}

TEST_F(FileSourceCacheCallbackTest, OnAWorkerSynchronousCallsAreErrorsAtOnce) {
  Read(source_, 0, kBlock);  // in memory or not
  Target target(kBlock);
  std::vector<CacheSource::Result_t> results;
  std::uint64_t bytes = kUntouched;
  const AutoRelease<Reports> reports(new Reports([&](Outcome) {
    for (const std::uint64_t offset : {std::uint64_t{0}, std::uint64_t{8 * kBlock}}) {
      results.push_back(source_->Read(offset, target.GetBuffer(), &bytes));
      results.push_back(source_->ReadWithList(offset, target.GetList(), &bytes));
      results.push_back(source_->Write(offset, target.GetBuffer(), &bytes));
      results.push_back(source_->WriteWithList(offset, target.GetList(), &bytes));
    }
  }));
  ASSERT_EQ(kPending, Start(source_, 0, target_.get(), reports));
  ASSERT_EQ(1u, reports->WaitFor(1).size());
  ASSERT_TRUE(Eventually([&] { return reports->GetRefCount() == 1; }));
  EXPECT_EQ(std::vector<CacheSource::Result_t>(8, kError), results);
  EXPECT_EQ(kUntouched, bytes);
  EXPECT_TRUE(target.IsUntouchedFrom(0));
}

TEST_F(FileSourceCacheCallbackTest, OnTheCancellingThreadSynchronousCallsWork) {
  Target target(kBlock);
  Outcome read{};
  const AutoRelease<Reports> reports(new Reports(
      [&](Outcome) { read.result = source_->Read(8 * kBlock, target.GetBuffer(), &read.bytes); }));
  for (const bool write : {false, true}) {
    source_->HoldRequests(true);
    ASSERT_EQ(kPending, write ? StartWrite(source_, 0, target_.get(), reports)
                              : Start(source_, 0, target_.get(), reports));
    ASSERT_TRUE(source_->WaitForHeld(1));
    source_->HoldRequests(false);
    read = {};
    source_->Cancel();
    EXPECT_EQ((Outcome{kOK, kBlock}), read);
    cache_->Purge(source_);
  }
}

TEST_F(FileSourceCacheCallbackTest, CancelReturnsAfterReportsThatOtherThreadsMake) {
  std::atomic<bool> entered{false};
  std::atomic<bool> cancelling{false};
  std::atomic<bool> over{false};
  const AutoRelease<Reports> reports(new Reports([&](Outcome) {
    entered = true;
    EXPECT_TRUE(Eventually([&] { return cancelling.load(); }));
    // Gives wrong code a chance to be too early; right code does not depend on it.
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    over = true;
  }));
  for (const int way : {0, 1, 2}) {
    entered = cancelling = over = false;
    std::thread writer;
    if (way == 2) {
      writer =
          std::thread([&] { EXPECT_EQ(kPending, StartWrite(source_, 0, target_.get(), reports)); });
    } else {
      ASSERT_EQ(kPending, Start(source_, 0, target_.get(), reports));
    }
    ASSERT_TRUE(Eventually([&] { return entered.load(); }));
    other_->Cancel();  // does not wait for it
    cancelling = true;
    if (way == 1) {
      cache_->Purge(source_);
    } else {
      source_->Cancel();
    }
    EXPECT_TRUE(over);
    if (writer.joinable()) writer.join();
  }
}

// The last references of source and cache, given up inside the report.
TEST_F(FileSourceCacheCallbackTest, TheLastReleaseInsideAReportWorksOnEveryThread) {
  enum Way { kWorker, kCancel, kPurge, kInvalidate, kCompletion, kWays };
  for (int round = 0; round < 20 * kWays; ++round) {
    const int way = round % kWays;
    MakeCache(4);
    Cache* const cache = std::exchange(cache_, nullptr);
    auto* const source = new MemorySource(MemorySource::Pattern(4 * kBlock));
    source->UseCache(cache);
    const AutoRelease<Reports> reports(new Reports([&](Outcome) {
      cache->DecRef("tests", "inside", 0);
      source->DecRef("tests", "inside", 0);
    }));
    source->HoldRequests(way != kWorker);
    ASSERT_EQ(kPending, Start(source, 0, target_.get(), reports));
    ASSERT_TRUE(way == kWorker || source->WaitForHeld(1));
    if (way == kCancel) source->Cancel();
    if (way == kPurge) cache->Purge(source);
    if (way == kInvalidate) {
      const Source keep((source->AddRef("tests", "keep", 0), source));
      cache->Invalidate(source, 0, kBlock);
      keep->CompleteAll();
    }
    if (way == kCompletion) source->CompleteWith(0, kFailed, 0);
    ASSERT_EQ(1u, reports->WaitFor(1).size());
    ASSERT_TRUE(Eventually([&] { return reports->GetRefCount() == 1; }));
  }
}

// Resident reads.

class FileSourceResidentReadTest : public FileSourceCacheTest {
 protected:
  static constexpr std::size_t kSize = 6 * kBlock + 100;

  void SetUp() override {
    FileSourceCacheTest::SetUp();
    MakeCache(8);
    source_ = MakeSource(contents_);
    cache_->CollectCacheStats(true);
  }
  // Has the blocks of the range in memory.
  void Bring(std::uint64_t offset, std::size_t size) {
    Read(source_, offset, size);
    source_->ClearRequests();
    cache_->ResetCacheStats();
  }

  const std::string contents_ = MemorySource::Pattern(kSize);
  MemorySource* source_ = nullptr;
};

TEST_F(FileSourceResidentReadTest, AHitStartsNoRequestAndAllocatesNothing) {
  Bring(0, kSize);
  Target target(3 * kBlock);
  for (const std::uint64_t offset : {std::uint64_t{0}, std::uint64_t{kBlock + 10}}) {
    std::uint64_t bytes = 0;
    const std::size_t before = AllocationCounter::Count();
    const auto result = source_->Read(offset, target.GetBuffer(), &bytes);
    const auto listResult = source_->ReadWithList(offset, target.GetList(), &bytes);
    EXPECT_EQ(before, AllocationCounter::Count());
    EXPECT_EQ(kOK, result);
    EXPECT_EQ(kOK, listResult);
    EXPECT_EQ(3 * kBlock, bytes);
    EXPECT_EQ(contents_.substr(offset, 3 * kBlock), target.GetBytes(3 * kBlock));
  }
  EXPECT_TRUE(source_->GetRequests().empty());
}

TEST_F(FileSourceResidentReadTest, AHitLeavesNoReferenceBehind) {
  Bring(0, kSize);
  ASSERT_TRUE(Eventually([&] { return source_->GetRefCount() == 1; }));
  ASSERT_TRUE(Eventually([&] { return cache_->GetRefCount() == 2; }));
  Target target(kBlock);
  EXPECT_EQ(kOK, source_->ReadWithList(5, target.GetList(), nullptr));
  EXPECT_EQ(1, source_->GetRefCount());
  EXPECT_EQ(2, cache_->GetRefCount());
  EXPECT_EQ(1, target.GetList()->GetRefCount());
  EXPECT_EQ(Buffer::kBufferUnlocked, target.GetBuffer()->GetLockState());
}

TEST_F(FileSourceResidentReadTest, HitsAreCountedPerBlock) {
  Bring(0, kSize);
  Read(source_, 0, 1);
  EXPECT_EQ(1u, cache_->GetCacheHits());
  Read(source_, kBlock - 1, 2);
  EXPECT_EQ(3u, cache_->GetCacheHits());
  Read(source_, 0, kSize);
  EXPECT_EQ(10u, cache_->GetCacheHits());
  EXPECT_EQ(0u, cache_->GetCacheMisses());
  EXPECT_EQ(0u, cache_->GetCacheDirectReads());
}

TEST_F(FileSourceResidentReadTest, ItNeedsNoThreadOfTheCache) {
  Bring(0, kSize);
  MemorySource* const other = MakeSource("abc");
  std::string read;
  WhileCancelling(other, [&] { read = Read(source_, 10, 2 * kBlock); });
  EXPECT_EQ(contents_.substr(10, 2 * kBlock), read);
}

TEST_F(FileSourceResidentReadTest, ItIsRefusedWhileTheSourceIsCancelled) {
  Bring(0, kSize);
  Report report{};
  WhileCancelling(source_, [&] {
    Target target(kBlock);
    report.bytes = kUntouched;
    report.result = source_->Read(0, target.GetBuffer(), &report.bytes);
  });
  EXPECT_EQ((Report{kNotSupported, kUntouched}), report);
  EXPECT_EQ(contents_.substr(0, kBlock), Read(source_, 0, kBlock));
}

TEST_F(FileSourceResidentReadTest, AMissingBlockTakesTheUsualWay) {
  Bring(0, kBlock);
  Bring(2 * kBlock, kBlock);
  EXPECT_EQ(contents_.substr(0, 3 * kBlock), Read(source_, 0, 3 * kBlock));
  const std::vector<MemorySource::Request> expected = {{false, kBlock, kBlock, 0}};
  EXPECT_EQ(expected, source_->GetRequests());
  EXPECT_EQ(2u, cache_->GetCacheHits());
  EXPECT_EQ(1u, cache_->GetCacheMisses());
}

TEST_F(FileSourceResidentReadTest, ABlockThatIsBeingFilledIsWaitedFor) {
  source_->HoldRequests(true);
  Target target(kBlock);
  const AutoRelease<Reports> reports(new Reports);
  ASSERT_EQ(kPending, Start(source_, 0, &target, reports));
  ASSERT_TRUE(source_->WaitForHeld(1));
  std::string read;
  std::thread reader([&] { read = Read(source_, 5, 100); });
  ASSERT_TRUE(Eventually([&] { return cache_->GetCacheHits() == 1; }));
  source_->CompleteAll();
  reader.join();
  EXPECT_EQ(contents_.substr(5, 100), read);
  EXPECT_EQ(1u, reports->WaitFor(1).size());
}

TEST_F(FileSourceResidentReadTest, AListOfManySmallBuffersIsFilledInOrder) {
  Bring(0, kSize);
  std::string memory(9000, '\0');
  Pieces pieces;
  for (std::size_t at = 0, size = 1; at + size <= memory.size(); at += size, size = size % 37 + 1) {
    pieces.emplace_back(reinterpret_cast<unsigned char*>(memory.data() + at), size);
  }
  const AutoRelease<BufferList> list(NewListOf(pieces));
  const std::size_t size = list->GetTotalSizeOfBuffers();
  std::uint64_t bytes = 0;
  EXPECT_EQ(kOK, source_->ReadWithList(kBlock - 3, list, &bytes));
  EXPECT_EQ(size, bytes);
  EXPECT_EQ(contents_.substr(kBlock - 3, size), memory.substr(0, size));
  EXPECT_TRUE(source_->GetRequests().empty());
}

TEST_F(FileSourceResidentReadTest, TheShortLastBlockServesWhatItHas) {
  Bring(0, kSize);
  const std::size_t last = 6 * kBlock;
  EXPECT_EQ(contents_.substr(last), Read(source_, last, 100));
  EXPECT_EQ(contents_.substr(last + 50, 20), Read(source_, last + 50, 20));
  EXPECT_EQ(contents_.substr(last - 50), Read(source_, last - 50, 150));
  Report report{};
  EXPECT_EQ(contents_.substr(last - 50), Read(source_, last - 50, 151, &report));
  EXPECT_EQ((Report{kPartial, 150}), report);
  EXPECT_EQ(contents_.substr(last), Read(source_, last, kBlock, &report));
  EXPECT_EQ((Report{kPartial, 100}), report);
  Read(source_, last + 100, 1, &report);
  EXPECT_EQ((Report{kOutOfRange, 0}), report);
  EXPECT_TRUE(source_->GetRequests().empty()) << "all of it was known";
}

// References and locks of a synchronous caller.
TEST_F(FileSourceCacheTest, NothingIsLeftWhenASynchronousCallReturns) {
  MakeCache(2);
  MemorySource* const source = MakeSource(MemorySource::Pattern(64 * kBlock));
  Target target(2 * kBlock);
  for (std::size_t round = 0; round < 2000 && !HasFailure(); ++round) {
    const std::uint64_t offset = round * 1000 % (60 * kBlock);
    std::uint64_t bytes = 0;
    if (round % 2 == 0) {
      EXPECT_EQ(kOK, source->Read(offset, target.GetBuffer(), &bytes));
    } else if (round % 7 == 0) {
      EXPECT_EQ(kOK, source->WriteWithList(offset, target.GetList(), &bytes));
    } else {
      EXPECT_EQ(kOK, source->ReadWithList(offset, target.GetList(), &bytes));
    }
    EXPECT_EQ(2 * kBlock, bytes);
    EXPECT_EQ(1, target.GetList()->GetRefCount());
    EXPECT_EQ(2, target.GetBuffer()->GetRefCount());
    EXPECT_EQ(Buffer::kBufferUnlocked, target.GetBuffer()->GetLockState());
  }
  // What the threads of the cache held of them for their own work.
  EXPECT_TRUE(Eventually([&] { return source->GetRefCount() == 1; }));
  EXPECT_TRUE(Eventually([&] { return cache_->GetRefCount() == 2; }));
}

TEST_F(FileSourceCacheTest, ReleasedRightBehindTheStartAReadStillEnds) {
  const AutoRelease<Reports> reports(new Reports);
  constexpr std::size_t kRounds = 300;
  std::vector<std::unique_ptr<Target>> targets;
  for (std::size_t round = 0; round < kRounds; ++round) {
    MakeCache(2);
    AutoRelease<Cache> cache(std::exchange(cache_, nullptr));
    Source source(new MemorySource(MemorySource::Pattern(8 * kBlock)));
    source->UseCache(cache);
    targets.push_back(std::make_unique<Target>(3 * kBlock));
    ASSERT_EQ(kPending, Start(source, 100, targets.back().get(), reports));
    cache.Release();
    source.Release();
    ASSERT_EQ(round + 1, reports->WaitFor(round + 1).size());
  }
  EXPECT_EQ(std::vector<Outcome>(kRounds, {kOK, 3 * kBlock}), reports->WaitFor(kRounds));
  EXPECT_TRUE(Eventually([&] { return reports->GetRefCount() == 1; }));
  for (const auto& target : targets) {
    EXPECT_EQ(MemorySource::Pattern(8 * kBlock).substr(100, 3 * kBlock),
              target->GetBytes(3 * kBlock));
  }
}

TEST_F(FileSourceResidentReadTest, MoreBlocksThanAreHeldAtOnceAreAHitToo) {
  constexpr std::size_t kSmall = 64;
  constexpr std::size_t kCount = 40;
  MakeCache(kCount, kSmall);
  const std::string contents = MemorySource::Pattern(kCount * kSmall, 3);
  MemorySource* const source = MakeSource(contents);
  Read(source, 0, contents.size());
  source->ClearRequests();
  EXPECT_EQ(contents.substr(5), Read(source, 5, contents.size() - 5));
  EXPECT_TRUE(source->GetRequests().empty());
  // One that is missing far behind sends all of it the usual way.
  cache_->Invalidate(source, 35 * kSmall, 1);
  EXPECT_EQ(contents, Read(source, 0, contents.size()));
  const std::vector<MemorySource::Request> expected = {{false, 35 * kSmall, kSmall, 0}};
  EXPECT_EQ(expected, source->GetRequests());
}

// Memory that takes nothing.
class DeafBuffer : public HeapBuffer {
 public:
  explicit DeafBuffer(BufferResult_t answer) : HeapBuffer(100), answer_(answer) {}
  BufferResult_t CopyInto(void*, std::size_t, std::size_t, std::size_t* moved) override {
    if (moved) *moved = 0;
    return answer_;
  }

 protected:
  ~DeafBuffer() override = default;

 private:
  const BufferResult_t answer_;
};

TEST_F(FileSourceResidentReadTest, MemoryThatTakesNothingFailsTheReadAndTheBlockStays) {
  Bring(0, kSize);
  for (const Buffer::BufferResult_t answer : {Buffer::kBufferLockFailed, Buffer::kBufferOK}) {
    const AutoRelease<DeafBuffer> deaf(new DeafBuffer(answer));
    EXPECT_EQ(kError, source_->Read(10, deaf, nullptr));
    ASSERT_TRUE(Eventually([&] { return deaf->GetRefCount() == 1; }));
    EXPECT_EQ(contents_.substr(10, 100), Read(source_, 10, 100));
  }
  EXPECT_TRUE(source_->GetRequests().empty()) << "the block was let go of and kept";
}

TEST_F(FileSourceCacheTest, AWriteWithoutACallbackForgetsTheOldBytes) {
  MakeCache(4);
  MemorySource* const source = MakeSource(MemorySource::Pattern(kBlock));
  Read(source, 0, kBlock);
  Target target(10);
  Fill(&target, "0123456789");
  ASSERT_EQ(kPending, StartWrite(source, 100, &target, nullptr));
  EXPECT_EQ("0123456789", Read(source, 100, 10));
  EXPECT_TRUE(Eventually([&] { return source->GetRefCount() == 1; }));
  EXPECT_TRUE(Eventually([&] { return target.GetList()->GetRefCount() == 1; }));
}

TEST_F(FileSourceCacheTest, AWriteThatThrowsLeavesNothingAndForgetsWhatWasReadMeanwhile) {
  MakeCache(4);
  MemorySource* const source = MakeSource(MemorySource::Pattern(kBlock));
  Target target(10);
  const AutoRelease<Reports> reports(new Reports);
  source->OnStart([&](const MemorySource::Request& request) {
    if (!request.isWrite) return;
    OnAnotherThread([&] { Read(source, 0, kBlock); });
    throw 1;
  });
  EXPECT_THROW(StartWrite(source, 100, &target, reports), int);
  source->OnStart(nullptr);
  ExpectUntouched(&target, reports);
  EXPECT_TRUE(Eventually([&] { return source->GetRefCount() == 1; }));
  source->ClearRequests();
  Read(source, 0, 10);
  EXPECT_EQ(1u, source->GetRequests().size());
}

}  // namespace
}  // namespace Orvane
