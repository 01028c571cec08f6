// Two threads that meet at one place of the library, which chance would hardly ever bring about.
#include <functional>
#include <memory>
#include <string>

#include "AsyncHandlerFixture.h"
#include "CacheFixture.h"
#include "CacheTestTools.h"
#include "MTHooks.h"

namespace Orvane {
namespace {

class SubmitInterleavingTest : public AsyncHandlerTest {};

TEST_F(SubmitInterleavingTest, ARequestIsWholeAsSoonAsTheLockOfItsSlotIsLeft) {
  AutoRelease<BufferList> list(NewPageList());
  AutoRelease<TestCallback> callback(new TestCallback(&log_));
  // Leaves something else behind in the slot.
  ASSERT_EQ(FileSource::kResultPending, Read(other_, list, callback, 5 * PageSize()));
  ASSERT_TRUE(host_.WaitForIssued(1));
  host_.Complete(0);
  ASSERT_TRUE(log_.WaitFor(1));
  ASSERT_TRUE(host_.WaitUntilIdle());

  // The first leave ends the search for a slot, the second one queues the request: there the worker
  // looks into the queue for a reason of its own.
  MTHooks::AfterLeave(LockClass::kHandlerSlot, 2, [this] {
    host_.Nudge();
    EXPECT_TRUE(host_.WaitForIssued(2));
  });
  ASSERT_EQ(FileSource::kResultPending, Write(file_, list, callback, 3 * PageSize()));
  ASSERT_TRUE(host_.WaitForIssued(2));
  const FakeHost::Issued issued = host_.GetIssued(1);
  EXPECT_EQ(file_, issued.file);
  EXPECT_TRUE(issued.write);
  EXPECT_EQ(3 * PageSize(), issued.offset);
  host_.Complete(1);
  ASSERT_TRUE(log_.WaitFor(2));
  ASSERT_TRUE(host_.WaitUntilIdle());
}

// A source whose requests end on another thread, as the test says.
class BackgroundSource : public FileSource {
 public:
  using End = std::function<void(ResultCallbackBufferList* callback, BufferList* list)>;

  explicit BackgroundSource(End end) : end_(std::move(end)) {}

  bool CanGatherReads() override { return true; }
  Result_t ReadAsyncWithListNonCached(std::uint64_t, BufferList* list,
                                      ResultCallbackBufferList* callback, std::uint32_t) override {
    thread_ = std::make_unique<Background>([=, this] { end_(callback, list); });
    return kResultPending;
  }
  Result_t WriteAsyncWithListNonCached(std::uint64_t, BufferList*, ResultCallbackBufferList*,
                                       std::uint32_t) override {
    return kResultNotSupported;
  }
  void PreReadNonCached(std::uint64_t, std::uint64_t, std::uint32_t,
                        MTThread::MTPriority) override {}
  void CancelNonCached() override {}

 protected:
  ~BackgroundSource() override = default;

 private:
  const End end_;
  std::unique_ptr<Background> thread_;
};

class SynchronousCallInterleavingTest : public OrvaneTest {};

TEST_F(SynchronousCallInterleavingTest, TheSemaphoreStaysUntilItsReleaseHasReturned) {
  const TestMTInterface& threading = TestMTInterface::Get();
  AutoRelease<Buffer> buffer(new HeapBuffer(100));
  Signal returned;
  const long before = threading.GetLiveCounts().semaphores;
  long during = 0;
  AutoRelease<BackgroundSource> source(new BackgroundSource([&](auto* callback, auto* list) {
    MTHooks::AfterNextRelease([&] {
      EXPECT_TRUE(returned.Wait());
      during = threading.GetLiveCounts().semaphores;
    });
    callback->Callback(FileSource::kResultOK, 0, list, 100);
  }));
  EXPECT_EQ(FileSource::kResultOK, source->Read(0, buffer, nullptr));
  returned.Raise();
  source.Release();
  EXPECT_EQ(before + 1, during);
  EXPECT_EQ(before, threading.GetLiveCounts().semaphores);
}

TEST_F(SynchronousCallInterleavingTest, TheBytesAreThereBeforeTheResult) {
  AutoRelease<Buffer> buffer(new HeapBuffer(100));
  Signal returned;
  AutoRelease<BackgroundSource> source(new BackgroundSource([&](auto* callback, auto* list) {
    callback->AddRef("tests", "start", 0);
    MTHooks::AfterNextSwap([&] { EXPECT_TRUE(returned.Wait()); });
    callback->Callback(FileSource::kResultPartial, 0, list, 42);
    callback->DecRef("tests", "end", 0);
  }));
  // Without the semaphore the caller asks for the result again and again.
  MTHooks::FailNextWait();
  std::uint64_t bytes = 0;
  EXPECT_EQ(FileSource::kResultPartial, source->Read(0, buffer, &bytes));
  returned.Raise();
  EXPECT_EQ(42U, bytes);
}

class CacheInterleavingTest : public CacheFixture {};

TEST_F(CacheInterleavingTest, AFreedBlockWakesTheReadThatWaitsForIt) {
  const MTHooks::LongWaits longWaits;
  MakeCache(1);
  MemorySource* const held = MakeSource(MemorySource::Pattern(kBlock));
  MemorySource* const source = MakeSource(MemorySource::Pattern(kBlock, 2));
  held->HoldRequests(true);
  AsyncRequest occupant(kBlock);
  ASSERT_EQ(CacheSource::kResultPending, occupant.Read(held, 0));
  ASSERT_TRUE(held->WaitForHeld(1));
  AsyncRequest waiting(kBlock);
  ASSERT_EQ(CacheSource::kResultPending, waiting.Read(source, 0));
  ASSERT_TRUE(Eventually([&] { return longWaits.GetCount() > 0; }));
  held->Complete();
  EXPECT_EQ((Report{CacheSource::kResultOK, kBlock}), waiting.GetReport());
  EXPECT_EQ((Report{CacheSource::kResultOK, kBlock}), occupant.GetReport());
}

TEST_F(CacheInterleavingTest, AnEndedSourceReadWakesTheOneThatFoundTheSourceBusy) {
  const MTHooks::LongWaits longWaits;
  MakeCache(4);
  MemorySource* const source = MakeSource(MemorySource::Pattern(4 * kBlock));
  source->HoldRequests(true);
  AsyncRequest first(kBlock);
  ASSERT_EQ(CacheSource::kResultPending, first.Read(source, 0));
  ASSERT_TRUE(source->WaitForHeld(1));
  // More than once: what else wakes the thread makes it ask again.
  source->AnswerNext(CacheSource::kResultBusy, 100);
  AsyncRequest second(kBlock);
  ASSERT_EQ(CacheSource::kResultPending, second.Read(source, 2 * kBlock));
  ASSERT_TRUE(Eventually([&] { return longWaits.GetCount() > 0; }));
  source->AnswerAsUsual();
  source->Complete();
  EXPECT_TRUE(source->WaitForHeld(1));
  source->CompleteAll();
  EXPECT_EQ((Report{CacheSource::kResultOK, kBlock}), first.GetReport());
  EXPECT_EQ((Report{CacheSource::kResultOK, kBlock}), second.GetReport());
}

TEST_F(CacheInterleavingTest, WhoeverIsToldOfAWriteReadsWhatWasWritten) {
  MakeCache(4);
  const std::string before = MemorySource::Pattern(kBlock);
  MemorySource* const source = MakeSource(before);
  source->HoldRequests(true);
  AsyncRequest write(kBlock);
  AsyncRequest meanwhile(kBlock);
  AsyncRequest after(kBlock);
  write.OnReport([&](const Report&) {
    ASSERT_EQ(CacheSource::kResultPending, after.Read(source, 0));
    EXPECT_EQ((Report{CacheSource::kResultOK, kBlock}), after.GetReport());
  });
  ASSERT_EQ(CacheSource::kResultPending, write.Write(source, 0));
  ASSERT_TRUE(source->WaitForHeld(1));
  ASSERT_EQ(CacheSource::kResultPending, meanwhile.Read(source, 0));
  ASSERT_TRUE(source->WaitForHeld(2));
  source->Complete(1);
  EXPECT_EQ((Report{CacheSource::kResultOK, kBlock}), meanwhile.GetReport());
  EXPECT_EQ(before, meanwhile.GetBytes(kBlock));
  source->HoldRequests(false);
  source->Complete(0);
  EXPECT_EQ((Report{CacheSource::kResultOK, kBlock}), write.GetReport());
  EXPECT_NE(before, source->GetContents());
  EXPECT_EQ(source->GetContents(), after.GetBytes(kBlock));
}

TEST_F(CacheInterleavingTest, AfterAnAppendNobodyJoinsAFillThatBeganBeforeIt) {
  MakeCache(4);
  MemorySource* const source = MakeSource(MemorySource::Pattern(100));
  source->HoldRequests(true);
  AsyncRequest early(kBlock);
  AsyncRequest append(kBlock);
  AsyncRequest late(kBlock);
  ASSERT_EQ(CacheSource::kResultPending, early.Read(source, 0));
  ASSERT_TRUE(source->WaitForHeld(1));
  ASSERT_EQ(CacheSource::kResultPending, append.Write(source, kBlock));
  ASSERT_TRUE(source->WaitForHeld(2));
  source->Complete(1);
  EXPECT_EQ((Report{CacheSource::kResultOK, kBlock}), append.GetReport());
  ASSERT_EQ(CacheSource::kResultPending, late.Read(source, 0));
  EXPECT_TRUE(source->WaitForHeld(2));
  // It has seen the end of the data where it was.
  source->CompleteWith(0, CacheSource::kResultPartial, 100);
  EXPECT_EQ((Report{CacheSource::kResultPartial, 100}), early.GetReport());
  source->CompleteAll();
  EXPECT_EQ((Report{CacheSource::kResultOK, kBlock}), late.GetReport());
}

TEST_F(CacheInterleavingTest, AReadUponAFailureJoinsNoBlockOfTheReadThatFailed) {
  MakeCache(4);
  const std::string contents = MemorySource::Pattern(2 * kBlock);
  MemorySource* const source = MakeSource(contents);
  source->HoldRequests(true);
  AsyncRequest first(2 * kBlock);
  AsyncRequest again(2 * kBlock);
  first.OnReport(
      [&](const Report&) { EXPECT_EQ(CacheSource::kResultPending, again.Read(source, 0)); });
  ASSERT_EQ(CacheSource::kResultPending, first.Read(source, 0));
  ASSERT_TRUE(source->WaitForHeld(1));
  // When the copying thread has been woken for the first block, before the end of the second one.
  MTHooks::AfterNextRelease([&] { EXPECT_TRUE(source->WaitForHeld(1)); });
  source->CompleteWith(0, CacheSource::kResultError, 0);
  EXPECT_EQ((Report{CacheSource::kResultError, 0}), first.GetReport());
  source->CompleteAll();
  EXPECT_EQ((Report{CacheSource::kResultOK, 2 * kBlock}), again.GetReport());
  EXPECT_EQ(contents, again.GetBytes(2 * kBlock));
}

}  // namespace
}  // namespace Orvane
