// Requests of the asynchronous I/O handler: accepted, issued, continued, reported.
#include "OSServices/AsyncHandler.h"

#include <algorithm>
#include <atomic>
#include <limits>

#include "AsyncHandlerFixture.h"

namespace Orvane {
namespace {

constexpr std::size_t kSlots = AsyncHandler::kRequestSlots;

// Counts what reaches it, and allocates nothing.
class CountingCallback : public FileSource::ResultCallbackBufferList {
 public:
  void Callback(FileSource::Result_t result, std::uint64_t, BufferList*, std::uint64_t) override {
    if (result != FileSource::kResultOK) ++failures;
    if (reports == 0) allocationsAtFirst = AllocationCounter::Count();
    allocationsAtLast = AllocationCounter::Count();
    ++reports;
    arrived.Release(1);
  }

  // The worker's until a report has arrived.
  std::size_t reports = 0;
  std::size_t failures = 0;
  std::size_t allocationsAtFirst = 0;
  std::size_t allocationsAtLast = 0;
  class Semaphore {
   public:
    Semaphore() : semaphore_(MTInterface::NewSemaphore(1000, 0)) {}
    void Release(std::uint32_t count) { semaphore_->Release(count); }
    bool Wait() { return semaphore_->Wait(20000, 1); }

   private:
    const std::unique_ptr<MTSemaphore> semaphore_;
  } arrived;

 protected:
  ~CountingCallback() override = default;
};

// A list of these buffers, whose references it takes.
BufferList* NewListOf(std::initializer_list<Buffer*> buffers) {
  auto* list = new BufferList(buffers.size());
  for (Buffer* buffer : buffers) EXPECT_TRUE(list->AddBuffer(buffer, /*adoptReference=*/true));
  return list;
}

TEST_F(AsyncHandlerTest, ACompletedRequestIsReportedOnce) {
  AutoRelease<BufferList> list(NewPageList(2));
  AutoRelease<TestCallback> callback(new TestCallback(&log_));
  ASSERT_EQ(FileSource::kResultPending, Read(file_, list, callback, 8 * PageSize()));
  ASSERT_TRUE(host_.WaitForIssued(1));
  const FakeHost::Issued issued = host_.GetIssued(0);
  EXPECT_FALSE(issued.write);
  EXPECT_EQ(file_, issued.file);
  EXPECT_EQ(8 * PageSize(), issued.offset);
  EXPECT_EQ(2 * PageSize(), issued.Bytes());
  EXPECT_EQ(list->GetBuffer(0)->GetAddress(), issued.runs.front().address);
  EXPECT_EQ(0U, log_.Count());
  EXPECT_TRUE(IsLocked(list));

  host_.Complete(0);
  ASSERT_TRUE(log_.WaitFor(1));
  ASSERT_TRUE(host_.WaitUntilIdle());
  const RequestReport expected{FileSource::kResultOK, 8 * PageSize(), list, 2 * PageSize()};
  EXPECT_EQ(std::vector<RequestReport>{expected}, log_.All());
  EXPECT_EQ(1, list->GetRefCount());
  EXPECT_EQ(1, callback->GetRefCount());
  EXPECT_EQ(1, file_->GetRefCount());
  EXPECT_EQ(0U, handler_->GetNumberOfSlotsInUse());
}

TEST_F(AsyncHandlerTest, AWriteIsIssuedAsOne) {
  AutoRelease<BufferList> list(NewPageList());
  AutoRelease<TestCallback> callback(new TestCallback(&log_));
  ASSERT_EQ(FileSource::kResultPending, Write(file_, list, callback));
  ASSERT_TRUE(host_.WaitForIssued(1));
  EXPECT_TRUE(host_.GetIssued(0).write);
  host_.Complete(0);
  ASSERT_TRUE(log_.WaitFor(1));
  EXPECT_EQ(FileSource::kResultOK, log_.All()[0].result);
}

TEST_F(AsyncHandlerTest, RequestsAreIssuedInTheOrderOfTheirSubmission) {
  AutoRelease<TestCallback> callback(new TestCallback(&log_));
  std::vector<std::unique_ptr<AutoRelease<BufferList>>> lists;
  ASSERT_NO_FATAL_FAILURE(Block());
  for (std::uint64_t i = 0; i < 10; ++i) {
    lists.push_back(std::make_unique<AutoRelease<BufferList>>(NewPageList()));
    ASSERT_EQ(FileSource::kResultPending, Read(file_, *lists.back(), callback, i * PageSize()));
  }
  Resume();
  ASSERT_TRUE(host_.WaitForIssued(11));
  for (std::size_t i = 0; i < 10; ++i) {
    EXPECT_EQ(i * PageSize(), host_.GetIssued(1 + i).offset);
    host_.Complete(1 + i);
  }
  ASSERT_TRUE(log_.WaitFor(10));
}

// What the host answers.

TEST_F(AsyncHandlerTest, AnImmediateFailureIsReportedOnceAsAnError) {
  host_.SetIssueAnswer(file_, Started::kFailed);
  AutoRelease<BufferList> list(NewPageList());
  AutoRelease<TestCallback> callback(new TestCallback(&log_));
  ASSERT_EQ(FileSource::kResultPending, Read(file_, list, callback, PageSize()));
  ASSERT_TRUE(log_.WaitFor(1));
  ASSERT_TRUE(host_.WaitUntilIdle());
  const RequestReport expected{FileSource::kResultError, PageSize(), list, 0};
  EXPECT_EQ(std::vector<RequestReport>{expected}, log_.All());
  EXPECT_EQ(0U, handler_->GetNumberOfSlotsInUse());
  EXPECT_FALSE(IsLocked(list));
}

TEST_F(AsyncHandlerTest, AnImmediateEndOfFileIsOutOfRangeWithNoBytes) {
  host_.SetIssueAnswer(file_, Started::kEndOfFile);
  AutoRelease<BufferList> list(NewPageList());
  AutoRelease<TestCallback> callback(new TestCallback(&log_));
  ASSERT_EQ(FileSource::kResultPending, Read(file_, list, callback, PageSize()));
  ASSERT_TRUE(log_.WaitFor(1));
  ASSERT_TRUE(host_.WaitUntilIdle());
  const RequestReport expected{FileSource::kResultOutOfRange, PageSize(), list, 0};
  EXPECT_EQ(std::vector<RequestReport>{expected}, log_.All());
}

TEST_F(AsyncHandlerTest, AnImmediateAnswerToTheRestOfATransferEndsTheRequest) {
  AutoRelease<BufferList> list(NewPageList(2));
  AutoRelease<TestCallback> callback(new TestCallback(&log_));
  ASSERT_EQ(FileSource::kResultPending, Read(file_, list, callback));
  ASSERT_TRUE(host_.WaitForIssued(1));
  host_.SetIssueAnswer(file_, Started::kEndOfFile);
  host_.Complete(0, PageSize());
  ASSERT_TRUE(log_.WaitFor(1));
  const RequestReport expected{FileSource::kResultPartial, 0, list, PageSize()};
  EXPECT_EQ(std::vector<RequestReport>{expected}, log_.All());
}

TEST_F(AsyncHandlerTest, AFailureOfTheHostIsAnError) {
  AutoRelease<BufferList> list(NewPageList());
  AutoRelease<TestCallback> callback(new TestCallback(&log_));
  ASSERT_EQ(FileSource::kResultPending, Read(file_, list, callback));
  ASSERT_TRUE(host_.WaitForIssued(1));
  host_.Complete(0, Outcome::kFailed);
  ASSERT_TRUE(log_.WaitFor(1));
  const RequestReport expected{FileSource::kResultError, 0, list, 0};
  EXPECT_EQ(std::vector<RequestReport>{expected}, log_.All());
}

TEST_F(AsyncHandlerTest, AnEndOfFileAtTheStartIsOutOfRange) {
  AutoRelease<BufferList> list(NewPageList());
  AutoRelease<TestCallback> callback(new TestCallback(&log_));
  ASSERT_EQ(FileSource::kResultPending, Read(file_, list, callback));
  ASSERT_TRUE(host_.WaitForIssued(1));
  host_.Complete(0, Outcome::kEndOfFile);
  ASSERT_TRUE(log_.WaitFor(1));
  const RequestReport expected{FileSource::kResultOutOfRange, 0, list, 0};
  EXPECT_EQ(std::vector<RequestReport>{expected}, log_.All());
}

// Short transfers.

TEST_F(AsyncHandlerTest, AShortTransferIsContinuedFromThePageThatWasCut) {
  AutoRelease<BufferList> list(NewPageList(4));
  AutoRelease<TestCallback> callback(new TestCallback(&log_));
  ASSERT_EQ(FileSource::kResultPending, Read(file_, list, callback, 16 * PageSize()));
  ASSERT_TRUE(host_.WaitForIssued(1));
  host_.Complete(0, PageSize() + 100);
  ASSERT_TRUE(host_.WaitForIssued(2));
  const FakeHost::Issued rest = host_.GetIssued(1);
  EXPECT_EQ(17 * PageSize(), rest.offset);
  EXPECT_EQ(3 * PageSize(), rest.Bytes());
  EXPECT_EQ(static_cast<char*>(list->GetBuffer(0)->GetAddress()) + PageSize(),
            rest.runs.front().address);
  EXPECT_NE(host_.GetIssued(0).generation, rest.generation);
  EXPECT_EQ(0U, log_.Count());
  EXPECT_TRUE(IsLocked(list));
  host_.Complete(1);
  ASSERT_TRUE(log_.WaitFor(1));
  const RequestReport expected{FileSource::kResultOK, 16 * PageSize(), list, 4 * PageSize()};
  EXPECT_EQ(std::vector<RequestReport>{expected}, log_.All());
}

TEST_F(AsyncHandlerTest, TheRestOfAListBeginsInTheRightBuffer) {
  // The middle third of a larger buffer is left out, so that there are two stretches of memory.
  AutoRelease<Buffer> memory(PhysMemInterface::Allocate(6 * PageSize()));
  char* const start = static_cast<char*>(memory->GetAddress());
  AutoRelease<BufferList> list(
      NewListOf({new BufferPartOfBuffer(start, 2 * PageSize(), memory),
                 new BufferPartOfBuffer(start + 4 * PageSize(), 2 * PageSize(), memory)}));
  AutoRelease<TestCallback> callback(new TestCallback(&log_));
  ASSERT_EQ(FileSource::kResultPending, Write(file_, list, callback));
  ASSERT_TRUE(host_.WaitForIssued(1));
  ASSERT_EQ(2U, host_.GetIssued(0).runs.size());
  host_.Complete(0, 3 * PageSize() + 1);
  ASSERT_TRUE(host_.WaitForIssued(2));
  const FakeHost::Issued rest = host_.GetIssued(1);
  ASSERT_EQ(1U, rest.runs.size());
  EXPECT_EQ(start + 5 * PageSize(), rest.runs[0].address);
  EXPECT_EQ(PageSize(), rest.runs[0].length);
  EXPECT_EQ(3 * PageSize(), rest.offset);
  host_.Complete(1);
  ASSERT_TRUE(log_.WaitFor(1));
  EXPECT_EQ(4 * PageSize(), log_.All()[0].bytes);
}

TEST_F(AsyncHandlerTest, AReadThatGetsNoFurtherIsPartial) {
  AutoRelease<BufferList> list(NewPageList(2));
  AutoRelease<TestCallback> callback(new TestCallback(&log_));
  ASSERT_EQ(FileSource::kResultPending, Read(file_, list, callback));
  ASSERT_TRUE(host_.WaitForIssued(1));
  host_.Complete(0, 100);
  ASSERT_TRUE(host_.WaitForIssued(2));
  EXPECT_EQ(0U, host_.GetIssued(1).offset);
  host_.Complete(1, 100);
  // The cut page came just as short again: the host is asked for exactly the rest.
  ASSERT_TRUE(host_.WaitForIssued(3));
  EXPECT_EQ(100U, host_.GetIssued(2).offset);
  host_.Complete(2, 0);
  ASSERT_TRUE(log_.WaitFor(1));
  ASSERT_TRUE(host_.WaitUntilIdle());
  EXPECT_EQ(3U, host_.CountIssued());
  const RequestReport expected{FileSource::kResultPartial, 0, list, 100};
  EXPECT_EQ(std::vector<RequestReport>{expected}, log_.All());
}

TEST_F(AsyncHandlerTest, AnEndOfFileBehindSomeBytesIsPartial) {
  AutoRelease<BufferList> list(NewPageList(2));
  AutoRelease<TestCallback> callback(new TestCallback(&log_));
  ASSERT_EQ(FileSource::kResultPending, Read(file_, list, callback));
  ASSERT_TRUE(host_.WaitForIssued(1));
  host_.Complete(0, PageSize());
  ASSERT_TRUE(host_.WaitForIssued(2));
  host_.Complete(1, Outcome::kEndOfFile);
  ASSERT_TRUE(log_.WaitFor(1));
  const RequestReport expected{FileSource::kResultPartial, 0, list, PageSize()};
  EXPECT_EQ(std::vector<RequestReport>{expected}, log_.All());
}

TEST_F(AsyncHandlerTest, AReadOfNoBytesIsOutOfRange) {
  AutoRelease<BufferList> list(NewPageList());
  AutoRelease<TestCallback> callback(new TestCallback(&log_));
  ASSERT_EQ(FileSource::kResultPending, Read(file_, list, callback));
  ASSERT_TRUE(host_.WaitForIssued(1));
  host_.Complete(0, std::uint64_t{0});
  ASSERT_TRUE(log_.WaitFor(1));
  const RequestReport expected{FileSource::kResultOutOfRange, 0, list, 0};
  EXPECT_EQ(std::vector<RequestReport>{expected}, log_.All());
}

TEST_F(AsyncHandlerTest, AWriteThatStopsMovingIsAnError) {
  AutoRelease<BufferList> list(NewPageList(2));
  AutoRelease<TestCallback> callback(new TestCallback(&log_));
  ASSERT_EQ(FileSource::kResultPending, Write(file_, list, callback));
  ASSERT_TRUE(host_.WaitForIssued(1));
  host_.Complete(0, PageSize());
  ASSERT_TRUE(host_.WaitForIssued(2));
  host_.Complete(1, std::uint64_t{0});
  ASSERT_TRUE(log_.WaitFor(1));
  EXPECT_EQ(FileSource::kResultError, log_.All()[0].result);
}

TEST_F(AsyncHandlerTest, AKnownEndOfFileSavesTheLastTransfer) {
  host_.SetEnd(file_, 8 * PageSize() + 5000);
  AutoRelease<BufferList> list(NewPageList(4));
  AutoRelease<TestCallback> callback(new TestCallback(&log_));
  ASSERT_EQ(FileSource::kResultPending, Read(file_, list, callback, 8 * PageSize()));
  ASSERT_TRUE(host_.WaitForIssued(1));
  host_.Complete(0, 5000);
  ASSERT_TRUE(log_.WaitFor(1));
  ASSERT_TRUE(host_.WaitUntilIdle());
  EXPECT_EQ(1U, host_.CountIssued());
  const RequestReport expected{FileSource::kResultPartial, 8 * PageSize(), list, 5000};
  EXPECT_EQ(std::vector<RequestReport>{expected}, log_.All());
}

TEST_F(AsyncHandlerTest, AShortWriteIsContinuedAlsoAtTheEndOfTheFile) {
  host_.SetEnd(file_, PageSize());
  AutoRelease<BufferList> list(NewPageList(2));
  AutoRelease<TestCallback> callback(new TestCallback(&log_));
  ASSERT_EQ(FileSource::kResultPending, Write(file_, list, callback));
  ASSERT_TRUE(host_.WaitForIssued(1));
  host_.Complete(0, PageSize());
  ASSERT_TRUE(host_.WaitForIssued(2));
  host_.Complete(1);
  ASSERT_TRUE(log_.WaitFor(1));
  EXPECT_EQ(FileSource::kResultOK, log_.All()[0].result);
}

// Completions that are nobody's.

TEST_F(AsyncHandlerTest, ACompletionOfAnotherGenerationIsIgnored) {
  AutoRelease<BufferList> list(NewPageList());
  AutoRelease<TestCallback> callback(new TestCallback(&log_));
  ASSERT_EQ(FileSource::kResultPending, Read(file_, list, callback));
  ASSERT_TRUE(host_.WaitForIssued(1));
  const FakeHost::Issued issued = host_.GetIssued(0);
  host_.Push({issued.slot, issued.generation - 1, Outcome::kMoved, PageSize()});
  host_.Push({issued.slot, issued.generation + 1, Outcome::kMoved, PageSize()});
  ASSERT_TRUE(host_.WaitUntilIdle());
  EXPECT_EQ(0U, log_.Count());
  EXPECT_EQ(1U, handler_->GetNumberOfSlotsInUse());
  EXPECT_TRUE(IsLocked(list));
  host_.Complete(0);
  ASSERT_TRUE(log_.WaitFor(1));
}

TEST_F(AsyncHandlerTest, ACompletionOfAFreeOrUnknownSlotIsIgnored) {
  for (const std::uint32_t slot : {0U, 5U, 60U, 61U, 63U, 0xFFFFFFFEU, 0xFFFFFFFFU}) {
    host_.Push({slot, 0, Outcome::kMoved, PageSize()});
    host_.Push({slot, 1, Outcome::kMoved, PageSize()});
  }
  ASSERT_TRUE(host_.WaitUntilIdle());
  EXPECT_EQ(0U, log_.Count());
  AutoRelease<BufferList> list(NewPageList());
  AutoRelease<TestCallback> callback(new TestCallback(&log_));
  ASSERT_EQ(FileSource::kResultPending, Read(file_, list, callback));
  ASSERT_TRUE(host_.WaitForIssued(1));
  host_.Complete(0);
  ASSERT_TRUE(log_.WaitFor(1));
}

TEST_F(AsyncHandlerTest, ALateCompletionDoesNotFreeAReusedSlot) {
  AutoRelease<BufferList> list(NewPageList());
  AutoRelease<BufferList> second(NewPageList());
  AutoRelease<TestCallback> callback(new TestCallback(&log_));
  ASSERT_EQ(FileSource::kResultPending, Read(file_, list, callback));
  ASSERT_TRUE(host_.WaitForIssued(1));
  host_.Complete(0);
  ASSERT_TRUE(log_.WaitFor(1));
  ASSERT_TRUE(host_.WaitUntilIdle());
  ASSERT_EQ(FileSource::kResultPending, Read(other_, second, callback));
  ASSERT_TRUE(host_.WaitForIssued(2));
  const FakeHost::Issued first = host_.GetIssued(0);
  ASSERT_EQ(first.slot, host_.GetIssued(1).slot);
  host_.Push({first.slot, first.generation, Outcome::kMoved, PageSize()});
  ASSERT_TRUE(host_.WaitUntilIdle());
  EXPECT_EQ(1U, log_.Count());
  EXPECT_EQ(1U, handler_->GetNumberOfSlotsInUse());
  EXPECT_TRUE(IsLocked(second));
  host_.Complete(1);
  ASSERT_TRUE(log_.WaitFor(2));
}

// What is accepted.

TEST_F(AsyncHandlerTest, TheSixtySecondRequestIsRefusedUntilOneCompletes) {
  AutoRelease<TestCallback> callback(new TestCallback(&log_));
  std::vector<std::unique_ptr<AutoRelease<BufferList>>> lists;
  for (std::size_t i = 0; i < kSlots; ++i) {
    lists.push_back(std::make_unique<AutoRelease<BufferList>>(NewPageList()));
    ASSERT_EQ(FileSource::kResultPending, Read(file_, *lists.back(), callback)) << i;
  }
  AutoRelease<BufferList> oneMore(NewPageList());
  EXPECT_EQ(FileSource::kResultBusy, Read(file_, oneMore, callback));
  EXPECT_FALSE(IsLocked(oneMore));
  EXPECT_EQ(1, oneMore->GetRefCount());
  EXPECT_EQ(kSlots, handler_->GetNumberOfSlotsInUse());
  ASSERT_TRUE(host_.WaitForIssued(kSlots));
  host_.Complete(30);
  ASSERT_TRUE(log_.WaitFor(1));
  EXPECT_EQ(FileSource::kResultPending, Read(file_, oneMore, callback));
  AutoRelease<BufferList> tooMany(NewPageList());
  EXPECT_EQ(FileSource::kResultBusy, Read(file_, tooMany, callback));
  handler_->Cancel(file_);
  EXPECT_EQ(kSlots + 1, log_.Count());
}

TEST_F(AsyncHandlerTest, ARangeThatPassesTheLastOffsetIsOutOfRange) {
  constexpr std::uint64_t kLast = std::numeric_limits<std::uint64_t>::max();
  AutoRelease<BufferList> list(NewPageList(2));
  AutoRelease<TestCallback> callback(new TestCallback(&log_));
  const std::uint64_t highest = kLast - 2 * PageSize() + 1;
  for (const std::uint64_t offset : {highest + 1, highest + PageSize(), kLast}) {
    EXPECT_EQ(FileSource::kResultOutOfRange, Read(file_, list, callback, offset)) << offset;
    EXPECT_FALSE(IsLocked(list));
    EXPECT_EQ(1, list->GetRefCount());
    EXPECT_EQ(1, callback->GetRefCount());
    EXPECT_EQ(1, file_->GetRefCount());
    EXPECT_EQ(0U, handler_->GetNumberOfSlotsInUse());
  }
}

TEST_F(AsyncHandlerTest, ARangeThatEndsWithTheLastOffsetIsAccepted) {
  AutoRelease<BufferList> list(NewPageList(2));
  AutoRelease<TestCallback> callback(new TestCallback(&log_));
  const std::uint64_t offset = 0 - 2 * PageSize();
  ASSERT_EQ(FileSource::kResultPending, Read(file_, list, callback, offset));
  ASSERT_TRUE(host_.WaitForIssued(1));
  EXPECT_EQ(offset, host_.GetIssued(0).offset);
  host_.Complete(0);
  ASSERT_TRUE(log_.WaitFor(1));
  EXPECT_EQ(FileSource::kResultOK, log_.All()[0].result);
}

TEST_F(AsyncHandlerTest, ABufferThatIsNotPageAlignedIsRefusedAtOnce) {
  AutoRelease<Buffer> memory(PhysMemInterface::Allocate(4 * PageSize()));
  char* const start = static_cast<char*>(memory->GetAddress());
  AutoRelease<TestCallback> callback(new TestCallback(&log_));
  const std::pair<std::size_t, std::size_t> kOddOnes[] = {
      {512, PageSize()}, {PageSize(), PageSize() - 512}, {PageSize(), 0}};
  for (const auto& [place, size] : kOddOnes) {
    // Behind a good buffer, which must not stay locked either.
    AutoRelease<BufferList> list(NewListOf({new BufferPartOfBuffer(start, PageSize(), memory),
                                            new BufferPartOfBuffer(start + place, size, memory)}));
    EXPECT_EQ(FileSource::kResultError, Read(file_, list, callback)) << place << ", " << size;
    for (std::size_t i = 0; i < 2; ++i) {
      // A count below 0 would show as unlocked after the next lock.
      EXPECT_EQ(Buffer::kBufferUnlocked, list->GetBuffer(i)->GetLockState());
      list->GetBuffer(i)->Lock();
      EXPECT_EQ(Buffer::kBufferLocked, list->GetBuffer(i)->GetLockState());
    }
    EXPECT_EQ(1, list->GetRefCount());
  }
  EXPECT_EQ(0U, handler_->GetNumberOfSlotsInUse());
  EXPECT_EQ(1, callback->GetRefCount());
  EXPECT_EQ(0U, log_.Count());
}

TEST_F(AsyncHandlerTest, NoListIsAnError) {
  AutoRelease<TestCallback> callback(new TestCallback(&log_));
  EXPECT_EQ(FileSource::kResultError, Read(file_, nullptr, callback));
  AutoRelease<BufferList> empty(new BufferList);
  EXPECT_EQ(FileSource::kResultError, Read(file_, empty, callback));
  EXPECT_EQ(0U, handler_->GetNumberOfSlotsInUse());
}

TEST_F(AsyncHandlerTest, AFileThatIsBeingClosedAcceptsNothing) {
  AutoRelease<BufferList> list(NewPageList());
  AutoRelease<TestCallback> callback(new TestCallback(&log_));
  handler_->BeginClose(file_);
  EXPECT_EQ(FileSource::kResultNotSupported, Read(file_, list, callback));
  EXPECT_FALSE(IsLocked(list));
  EXPECT_EQ(1, list->GetRefCount());
  EXPECT_EQ(1, callback->GetRefCount());
  EXPECT_EQ(1, file_->GetRefCount());
  EXPECT_EQ(0U, handler_->GetNumberOfSlotsInUse());
  EXPECT_EQ(FileSource::kResultPending, Read(other_, list, callback));
  handler_->Cancel(other_);
}

TEST_F(AsyncHandlerTest, AShortageOfMemoryIsAnErrorAndKeepsNothing) {
  // More pages than the slot had room for before, so that its arrays must grow.
  AutoRelease<BufferList> list(NewPageList(8));
  AutoRelease<TestCallback> callback(new TestCallback(&log_));
  for (std::size_t ordinal = 1; ordinal <= 2; ++ordinal) {
    Result_t result = FileSource::kResultNone;
    {
      const AllocationFailure failure(ordinal);
      result = Read(file_, list, callback);
      EXPECT_TRUE(failure.HasHappened());
    }
    EXPECT_EQ(FileSource::kResultError, result);
    EXPECT_FALSE(IsLocked(list));
    EXPECT_EQ(1, list->GetRefCount());
    EXPECT_EQ(1, callback->GetRefCount());
    EXPECT_EQ(1, file_->GetRefCount());
    EXPECT_EQ(0U, handler_->GetNumberOfSlotsInUse());
  }
  EXPECT_EQ(FileSource::kResultPending, Read(file_, list, callback));
  handler_->Cancel(file_);
}

// At the callback.

TEST_F(AsyncHandlerTest, TheCallbackIsHeldFromTheStartToTheEndOfItsCall) {
  AutoRelease<BufferList> list(NewPageList());
  long inside = 0;
  TestCallback* seen = nullptr;
  AutoRelease<TestCallback> callback(
      new TestCallback(&log_, [&](const RequestReport&) { inside = seen->GetRefCount(); }));
  seen = callback;
  ASSERT_EQ(FileSource::kResultPending, Read(file_, list, callback));
  EXPECT_EQ(2, callback->GetRefCount());
  ASSERT_TRUE(host_.WaitForIssued(1));
  host_.Complete(0);
  ASSERT_TRUE(log_.WaitFor(1));
  ASSERT_TRUE(host_.WaitUntilIdle());
  EXPECT_EQ(2, inside);
  EXPECT_EQ(1, callback->GetRefCount());
}

TEST_F(AsyncHandlerTest, ACallbackMayGoWithItsReport) {
  AutoRelease<BufferList> list(NewPageList());
  {
    AutoRelease<TestCallback> callback(new TestCallback(&log_));
    ASSERT_EQ(FileSource::kResultPending, Read(file_, list, callback));
  }
  ASSERT_TRUE(host_.WaitForIssued(1));
  host_.Complete(0);
  ASSERT_TRUE(log_.WaitFor(1));
}

TEST_F(AsyncHandlerTest, AtTheCallbackTheBuffersAreUnlockedAndTheListIsNotInUse) {
  AutoRelease<BufferList> list(NewPageList());
  bool locked = true;
  long references = 0;
  std::size_t slots = kSlots;
  AutoRelease<TestCallback> callback(new TestCallback(&log_, [&](const RequestReport& report) {
    locked = IsLocked(report.list);
    references = report.list->GetRefCount();
    slots = handler_->GetNumberOfSlotsInUse();
  }));
  ASSERT_EQ(FileSource::kResultPending, Read(file_, list, callback));
  ASSERT_TRUE(host_.WaitForIssued(1));
  EXPECT_EQ(2, list->GetRefCount());
  host_.Complete(0);
  ASSERT_TRUE(log_.WaitFor(1));
  ASSERT_TRUE(host_.WaitUntilIdle());
  EXPECT_FALSE(locked);
  EXPECT_EQ(2, references);  // the test's and the report's, not that of the transfer
  EXPECT_EQ(0U, slots);
}

TEST_F(AsyncHandlerTest, AtTheCallbackTheSlotIsFree) {
  constexpr std::size_t kRounds = 3;
  std::vector<std::unique_ptr<AutoRelease<BufferList>>> lists;
  std::vector<Result_t> refusals;
  TestCallback* again = nullptr;
  AutoRelease<TestCallback> last(new TestCallback(&log_));
  std::atomic<std::size_t> resubmitted{0};
  AutoRelease<TestCallback> callback(new TestCallback(&log_, [&](const RequestReport& report) {
    const bool more = resubmitted++ < (kRounds - 1) * kSlots;
    const Result_t result = Read(file_, report.list, more ? again : last.Get());
    if (result != FileSource::kResultPending) refusals.push_back(result);
  }));
  again = callback;
  for (std::size_t i = 0; i < kSlots; ++i) {
    lists.push_back(std::make_unique<AutoRelease<BufferList>>(NewPageList()));
    ASSERT_EQ(FileSource::kResultPending, Read(file_, *lists.back(), callback));
  }
  for (std::size_t i = 0; i < (kRounds + 1) * kSlots; ++i) {
    ASSERT_TRUE(host_.WaitForIssued(i + 1));
    host_.Complete(i);
  }
  ASSERT_TRUE(log_.WaitFor((kRounds + 1) * kSlots));
  ASSERT_TRUE(host_.WaitUntilIdle());
  EXPECT_EQ(std::vector<Result_t>{}, refusals);
  EXPECT_EQ(0U, handler_->GetNumberOfSlotsInUse());
}

TEST_F(AsyncHandlerTest, NoLockIsHeldDuringACallback) {
  AutoRelease<FakeFile> third(new FakeFile);
  AutoRelease<BufferList> list(NewPageList());
  AutoRelease<BufferList> second(NewPageList());
  AutoRelease<TestCallback> plain(new TestCallback(&log_));
  bool gotThrough = false;
  AutoRelease<TestCallback> callback(new TestCallback(&log_, [&](const RequestReport&) {
    Background work([&] {
      EXPECT_EQ(FileSource::kResultPending, Read(other_, second, plain));
      handler_->BeginClose(third);
      EXPECT_EQ(1U, handler_->GetNumberOfSlotsInUse());
    });
    gotThrough = work.WaitUntilDone();
  }));
  ASSERT_EQ(FileSource::kResultPending, Read(file_, list, callback));
  ASSERT_TRUE(host_.WaitForIssued(1));
  host_.Complete(0);
  ASSERT_TRUE(host_.WaitForIssued(2));
  EXPECT_TRUE(gotThrough);
  host_.Complete(1);
  ASSERT_TRUE(log_.WaitFor(2));
}

TEST_F(AsyncHandlerTest, NoLockIsHeldDuringTheReportsOfACancelAndATimeout) {
  std::atomic<int> gotThrough{0};
  AutoRelease<BufferList> lists[] = {AutoRelease<BufferList>(NewPageList()),
                                     AutoRelease<BufferList>(NewPageList())};
  AutoRelease<TestCallback> callback(new TestCallback(&log_, [&](const RequestReport&) {
    Background work([&] { handler_->GetNumberOfSlotsInUse(); });
    if (work.WaitUntilDone()) ++gotThrough;
  }));
  ASSERT_EQ(FileSource::kResultPending, Read(file_, lists[0], callback));
  handler_->Cancel(file_);
  EXPECT_EQ(1, gotThrough);
  ASSERT_TRUE(host_.WaitUntilIdle());
  ASSERT_NO_FATAL_FAILURE(Block());
  ASSERT_EQ(FileSource::kResultPending, Read(file_, lists[1], callback));
  TestMTInterface::Get().ShiftClock(kTimeoutMicro);
  Resume();
  ASSERT_TRUE(log_.WaitFor(2));
  ASSERT_TRUE(host_.WaitUntilIdle());
  EXPECT_EQ(2, gotThrough);
}

TEST_F(AsyncHandlerTest, ACancelFromAnotherThreadReachesTheWorkerWhileACallbackBlocks) {
  ASSERT_NO_FATAL_FAILURE(Block());
  const std::size_t wakes = host_.CountWakes();
  Background cancel([&] { handler_->Cancel(file_); });
  EXPECT_TRUE(host_.WaitForWakes(wakes + 1));
  EXPECT_FALSE(cancel.IsDone());
  Resume();
  EXPECT_TRUE(cancel.WaitUntilDone());
}

TEST_F(AsyncHandlerTest, WithoutACallbackEveryPathEndsTheRequest) {
  AutoRelease<BufferList> list(NewPageList());
  const auto expectGone = [&](const char* path) {
    EXPECT_EQ(0U, handler_->GetNumberOfSlotsInUse()) << path;
    EXPECT_FALSE(IsLocked(list)) << path;
    EXPECT_EQ(1, list->GetRefCount()) << path;
    EXPECT_EQ(1, file_->GetRefCount()) << path;
  };
  const Outcome kOutcomes[] = {Outcome::kMoved, Outcome::kEndOfFile, Outcome::kFailed};
  for (const Outcome outcome : kOutcomes) {
    const std::size_t place = host_.CountIssued();
    ASSERT_EQ(FileSource::kResultPending, Read(file_, list, nullptr));
    ASSERT_TRUE(host_.WaitForIssued(place + 1));
    if (outcome == Outcome::kMoved)
      host_.Complete(place);
    else
      host_.Complete(place, outcome);
    ASSERT_TRUE(host_.WaitUntilIdle());
    expectGone("completion");
  }
  ASSERT_EQ(FileSource::kResultPending, Read(file_, list, nullptr));
  handler_->Cancel(file_);
  ASSERT_TRUE(host_.WaitUntilIdle());
  expectGone("cancel");

  ASSERT_NO_FATAL_FAILURE(Block());
  ASSERT_EQ(FileSource::kResultPending, Read(file_, list, nullptr));
  TestMTInterface::Get().ShiftClock(kTimeoutMicro);
  Resume();
  ASSERT_TRUE(host_.WaitUntilIdle());
  expectGone("time-out");

  for (const Started answer : {Started::kFailed, Started::kEndOfFile}) {
    host_.SetIssueAnswer(file_, answer);
    ASSERT_EQ(FileSource::kResultPending, Read(file_, list, nullptr));
    ASSERT_TRUE(host_.WaitUntilIdle());
    expectGone("immediate answer");
  }
}

TEST_F(AsyncHandlerTest, ACallbackThatThrowsIsLoggedOnceAndTheNextRequestWorks) {
  TestMTInterface::Get().TakeDebugText();
  AutoRelease<BufferList> list(NewPageList());
  AutoRelease<TestCallback> callback(
      new TestCallback(&log_, [](const RequestReport&) { throw 5; }));
  AutoRelease<TestCallback> good(new TestCallback(&log_));
  ASSERT_EQ(FileSource::kResultPending, Read(file_, list, callback));
  ASSERT_TRUE(host_.WaitForIssued(1));
  host_.Complete(0);
  ASSERT_TRUE(log_.WaitFor(1));
  ASSERT_TRUE(host_.WaitUntilIdle());
  EXPECT_EQ("Unhandled Exception In File Callback\n", TestMTInterface::Get().TakeDebugText());
  EXPECT_EQ(1, callback->GetRefCount());
  EXPECT_EQ(1, list->GetRefCount());
  EXPECT_EQ(1, file_->GetRefCount());
  ASSERT_EQ(FileSource::kResultPending, Read(file_, list, good));
  ASSERT_TRUE(host_.WaitForIssued(2));
  host_.Complete(1);
  ASSERT_TRUE(log_.WaitFor(2));
  EXPECT_EQ(FileSource::kResultOK, log_.All()[1].result);
}

TEST_F(AsyncHandlerTest, ACallbackThatThrowsDoesNotEndACancel) {
  AutoRelease<BufferList> list(NewPageList());
  AutoRelease<BufferList> second(NewPageList());
  AutoRelease<TestCallback> callback(
      new TestCallback(&log_, [](const RequestReport&) { throw 5; }));
  ASSERT_EQ(FileSource::kResultPending, Read(file_, list, callback));
  ASSERT_EQ(FileSource::kResultPending, Read(file_, second, callback));
  handler_->Cancel(file_);
  EXPECT_EQ(2U, log_.Count());
  TestMTInterface::Get().TakeDebugText();
}

// Time.

TEST_F(AsyncHandlerTest, ARequestThatWaitedTooLongTakesItsFileAlong) {
  AutoRelease<BufferList> lists[] = {
      AutoRelease<BufferList>(NewPageList()), AutoRelease<BufferList>(NewPageList()),
      AutoRelease<BufferList>(NewPageList()), AutoRelease<BufferList>(NewPageList())};
  ReportLog others;
  AutoRelease<TestCallback> callback(new TestCallback(&log_));
  AutoRelease<TestCallback> otherCallback(new TestCallback(&others));
  ASSERT_EQ(FileSource::kResultPending, Read(file_, lists[0], callback, PageSize()));
  ASSERT_TRUE(host_.WaitForIssued(1));
  ASSERT_EQ(FileSource::kResultPending, Read(other_, lists[1], otherCallback));
  ASSERT_TRUE(host_.WaitForIssued(2));
  ASSERT_NO_FATAL_FAILURE(Block());
  ASSERT_EQ(FileSource::kResultPending, Read(file_, lists[2], callback, 2 * PageSize()));
  ASSERT_EQ(FileSource::kResultPending, Read(file_, lists[3], callback, 3 * PageSize()));
  TestMTInterface::Get().ShiftClock(kTimeoutMicro);
  Resume();
  ASSERT_TRUE(log_.WaitFor(3));
  ASSERT_TRUE(host_.WaitUntilIdle());
  const std::vector<RequestReport> expected{
      {FileSource::kResultError, PageSize(), lists[0], 0},
      {FileSource::kResultError, 2 * PageSize(), lists[2], 0},
      {FileSource::kResultError, 3 * PageSize(), lists[3], 0}};
  std::vector<RequestReport> reports = log_.All();
  std::sort(reports.begin(), reports.end(),
            [](const RequestReport& a, const RequestReport& b) { return a.offset < b.offset; });
  EXPECT_EQ(expected, reports);
  EXPECT_EQ(3U, host_.CountIssued());  // neither of the two was issued
  EXPECT_EQ(0U, others.Count());
  EXPECT_TRUE(IsLocked(lists[1]));
  host_.Complete(1);
  ASSERT_TRUE(others.WaitFor(1));
  EXPECT_EQ(FileSource::kResultOK, others.All()[0].result);
}

TEST_F(AsyncHandlerTest, WhatATimeOutTakesAlongIsReportedAfterTheHostLetGoOfIt) {
  host_.SetOnCancel(OnCancel::kStaysInFlight);
  AutoRelease<BufferList> list(NewPageList());
  AutoRelease<BufferList> queued(NewPageList());
  AutoRelease<TestCallback> callback(new TestCallback(&log_));
  ASSERT_EQ(FileSource::kResultPending, Read(file_, list, callback));
  ASSERT_TRUE(host_.WaitForIssued(1));
  ASSERT_NO_FATAL_FAILURE(Block());
  ASSERT_EQ(FileSource::kResultPending, Read(file_, queued, callback));
  TestMTInterface::Get().ShiftClock(kTimeoutMicro);
  Resume();
  ASSERT_TRUE(host_.WaitForCancels(1));
  ASSERT_TRUE(host_.WaitUntilIdle());
  ASSERT_EQ(1U, log_.Count());  // the one that waited
  EXPECT_EQ(queued, log_.All()[0].list);
  EXPECT_TRUE(IsLocked(list));
  host_.Complete(0);  // the host did it after all
  ASSERT_TRUE(log_.WaitFor(2));
  for (const RequestReport& report : log_.All()) {
    EXPECT_EQ(FileSource::kResultError, report.result);
    EXPECT_EQ(0U, report.bytes);
  }
}

TEST_F(AsyncHandlerTest, ARequestThatWaitedAlmostTooLongIsIssued) {
  AutoRelease<BufferList> list(NewPageList());
  AutoRelease<TestCallback> callback(new TestCallback(&log_));
  ASSERT_NO_FATAL_FAILURE(Block());
  ASSERT_EQ(FileSource::kResultPending, Read(file_, list, callback));
  TestMTInterface::Get().ShiftClock(kTimeoutMicro / 10);
  Resume();
  ASSERT_TRUE(host_.WaitForIssued(2));
  host_.Complete(1);
  ASSERT_TRUE(log_.WaitFor(1));
  EXPECT_EQ(FileSource::kResultOK, log_.All()[0].result);
}

TEST_F(AsyncHandlerTest, AnIssuedRequestHasAllTheTimeItNeeds) {
  AutoRelease<BufferList> list(NewPageList());
  AutoRelease<TestCallback> callback(new TestCallback(&log_));
  ASSERT_EQ(FileSource::kResultPending, Read(file_, list, callback));
  ASSERT_TRUE(host_.WaitForIssued(1));
  TestMTInterface::Get().ShiftClock(10 * kTimeoutMicro);
  host_.Nudge();
  ASSERT_TRUE(host_.WaitUntilIdle());
  EXPECT_EQ(0U, log_.Count());
  host_.Complete(0);
  ASSERT_TRUE(log_.WaitFor(1));
  EXPECT_EQ(FileSource::kResultOK, log_.All()[0].result);
}

// Moves the clock to so many milliseconds before the 32-bit count of milliseconds wraps.
void MoveClockBeforeWrap(std::uint32_t ms) {
  const std::uint32_t now = MTInterface::GetCurrentTimeMilli();
  TestMTInterface::Get().ShiftClock(std::uint64_t{0U - ms - now} * 1000);
}

TEST_F(AsyncHandlerTest, ADeadlineBehindTheWrapOfTheClockIsNotDueBeforeIt) {
  AutoRelease<BufferList> list(NewPageList());
  AutoRelease<TestCallback> callback(new TestCallback(&log_));
  MoveClockBeforeWrap(kTimeoutMs - 1000);
  ASSERT_EQ(FileSource::kResultPending, Read(file_, list, callback));
  ASSERT_TRUE(host_.WaitForIssued(1));
  host_.Complete(0);
  ASSERT_TRUE(log_.WaitFor(1));
  EXPECT_EQ(FileSource::kResultOK, log_.All()[0].result);
}

TEST_F(AsyncHandlerTest, ADeadlineBeforeTheWrapOfTheClockIsDueBehindIt) {
  AutoRelease<BufferList> list(NewPageList());
  AutoRelease<TestCallback> callback(new TestCallback(&log_));
  ASSERT_NO_FATAL_FAILURE(Block());
  // Far enough that the deadline stays before the wrap on a machine that stalls here.
  MoveClockBeforeWrap(kTimeoutMs + 300000);
  ASSERT_EQ(FileSource::kResultPending, Read(file_, list, callback));
  TestMTInterface::Get().ShiftClock(kTimeoutMicro + 400000000);
  Resume();
  ASSERT_TRUE(log_.WaitFor(1));
  EXPECT_EQ(FileSource::kResultError, log_.All()[0].result);
}

// The worker.

TEST_F(AsyncHandlerTest, TheNextPortIsTriedWhenOneCannotBeAttached) {
  FakeHost host;
  AsyncHandler handler(host.Factory(/*failures=*/2));
  EXPECT_TRUE(handler.IsRunning());
  EXPECT_EQ(3, host.GetPortsMade());
}

TEST_F(AsyncHandlerTest, WithoutAPortRequestsAreRefusedAndCancelReturns) {
  AutoRelease<BufferList> list(NewPageList());
  AutoRelease<TestCallback> callback(new TestCallback(&log_));
  AsyncHandler handler([](int) { return nullptr; });
  EXPECT_FALSE(handler.IsRunning());
  EXPECT_EQ(FileSource::kResultNotSupported,
            handler.Submit(AsyncHandler::kRead, file_, list, 0, kTimeoutMs, callback));
  handler.Cancel(file_);
  handler.BeginClose(file_);
  EXPECT_EQ(1, list->GetRefCount());
  EXPECT_EQ(1, callback->GetRefCount());
  EXPECT_EQ(0U, handler.GetNumberOfSlotsInUse());
}

TEST_F(AsyncHandlerTest, WithoutAThreadRequestsAreRefusedAndCancelReturns) {
  AutoRelease<BufferList> list(NewPageList());
  AutoRelease<TestCallback> callback(new TestCallback(&log_));
  // A handler makes two semaphores, two counters and two locks, then its thread.
  TestMTInterface::Get().FailCreation(7, TestMTInterface::kNull);
  FakeHost host;
  AsyncHandler handler(host.Factory());
  TestMTInterface::Get().FailCreation(0, TestMTInterface::kNull);
  ASSERT_EQ(0, host.GetPortsMade());
  EXPECT_FALSE(handler.IsRunning());
  EXPECT_EQ(FileSource::kResultNotSupported,
            handler.Submit(AsyncHandler::kRead, file_, list, 0, kTimeoutMs, callback));
  handler.Cancel(file_);
  EXPECT_EQ(1, list->GetRefCount());
  EXPECT_EQ(1, callback->GetRefCount());
}

TEST_F(AsyncHandlerTest, ItsEndReportsWhatIsQueuedAndWhatIsInFlight) {
  AutoRelease<BufferList> lists[] = {AutoRelease<BufferList>(NewPageList()),
                                     AutoRelease<BufferList>(NewPageList()),
                                     AutoRelease<BufferList>(NewPageList())};
  AutoRelease<TestCallback> callback(new TestCallback(&log_));
  ASSERT_EQ(FileSource::kResultPending, Read(other_, lists[0], callback, PageSize()));
  ASSERT_TRUE(host_.WaitForIssued(1));
  ASSERT_NO_FATAL_FAILURE(Block());
  ASSERT_EQ(FileSource::kResultPending, Read(file_, lists[1], callback, 2 * PageSize()));
  ASSERT_EQ(FileSource::kResultPending, Read(file_, lists[2], callback, 3 * PageSize()));
  const std::size_t wakes = host_.CountWakes();
  {
    Background end([&] { handler_.reset(); });
    EXPECT_TRUE(host_.WaitForWakes(wakes + 1));
    Resume();
  }
  const std::vector<RequestReport> expected{{FileSource::kResultError, 2 * PageSize(), lists[1], 0},
                                            {FileSource::kResultError, 3 * PageSize(), lists[2], 0},
                                            {FileSource::kResultFailed, PageSize(), lists[0], 0}};
  EXPECT_EQ(expected, log_.All());
  EXPECT_EQ(2U, host_.CountIssued());
  for (const auto& list : lists) {
    EXPECT_FALSE(IsLocked(list));
    EXPECT_EQ(1, list->GetRefCount());
  }
  EXPECT_EQ(1, callback->GetRefCount());
}

TEST_F(AsyncHandlerTest, InTheReportsOfItsEndNothingIsAccepted) {
  AutoRelease<BufferList> list(NewPageList());
  Result_t inside = FileSource::kResultNone;
  AsyncHandler* const handler = handler_.get();
  AutoRelease<TestCallback> callback(new TestCallback(&log_, [&](const RequestReport& report) {
    inside = handler->Submit(AsyncHandler::kRead, file_, report.list, 0, kTimeoutMs, nullptr);
    handler->Cancel(file_);
  }));
  ASSERT_EQ(FileSource::kResultPending, Read(file_, list, callback));
  ASSERT_TRUE(host_.WaitForIssued(1));
  handler_.reset();
  EXPECT_EQ(FileSource::kResultNotSupported, inside);
  EXPECT_EQ(1U, log_.Count());
}

TEST_F(AsyncHandlerTest, CompletionsWithoutEndDoNotHoldUpACancel) {
  AutoRelease<BufferList> list(NewPageList());
  AutoRelease<TestCallback> callback(new TestCallback(&log_));
  host_.NeverRunDry(true);
  ASSERT_EQ(FileSource::kResultPending, Read(file_, list, callback));
  Background cancel([&] { handler_->Cancel(file_); });
  EXPECT_TRUE(cancel.WaitUntilDone());
  host_.NeverRunDry(false);
  EXPECT_TRUE(log_.WaitFor(1));
}

TEST_F(AsyncHandlerTest, CompletionsWithoutEndDoNotHoldUpTheEnd) {
  host_.NeverRunDry(true);
  Background end([&] { handler_.reset(); });
  EXPECT_TRUE(end.WaitUntilDone());
  host_.NeverRunDry(false);
}

TEST_F(AsyncHandlerTest, FailuresWithoutEndDoNotHoldUpOtherFiles) {
  host_.SetIssueAnswer(file_, Started::kFailed);
  AutoRelease<BufferList> list(NewPageList());
  AutoRelease<BufferList> second(NewPageList());
  ReportLog others;
  AutoRelease<TestCallback> otherCallback(new TestCallback(&others));
  ASSERT_EQ(FileSource::kResultPending, Read(other_, second, otherCallback));
  ASSERT_TRUE(host_.WaitForIssued(1));
  // A caller who tries again for as long as the other file is not served, within reason.
  std::size_t attempts = 0;
  TestCallback* again = nullptr;
  AutoRelease<TestCallback> callback(new TestCallback(&log_, [&](const RequestReport& report) {
    if (++attempts == 1) host_.Complete(0);
    if (others.Count() == 0 && attempts < 1000) Read(file_, report.list, again);
  }));
  again = callback;
  ASSERT_EQ(FileSource::kResultPending, Read(file_, list, callback));
  ASSERT_TRUE(others.WaitFor(1));
  ASSERT_TRUE(host_.WaitUntilIdle());
  EXPECT_LT(attempts, 1000U);
}

TEST_F(AsyncHandlerTest, TheSteadyStateAllocatesNothing) {
  constexpr std::size_t kRequests = 10000;
  constexpr std::size_t kInFlight = 32;
  std::vector<std::unique_ptr<AutoRelease<BufferList>>> lists;
  for (std::size_t i = 0; i < kSlots; ++i) {
    lists.push_back(std::make_unique<AutoRelease<BufferList>>(NewPageList(4)));
  }
  AutoRelease<CountingCallback> warmUp(new CountingCallback);
  AutoRelease<CountingCallback> callback(new CountingCallback);
  const auto read = [&](BufferList* list, CountingCallback* to) {
    return handler_->Submit(AsyncHandler::kRead, file_, list, 0, kTimeoutMs, to);
  };

  // Every slot meets a list once; its arrays keep their room.
  ASSERT_NO_FATAL_FAILURE(Block());
  host_.CompleteEverything();
  for (const auto& list : lists) ASSERT_EQ(FileSource::kResultPending, read(*list, warmUp));
  Resume();
  for (std::size_t i = 0; i < kSlots; ++i) ASSERT_TRUE(warmUp->arrived.Wait());

  const std::size_t before = AllocationCounter::Count();
  for (std::size_t i = 0; i < kRequests; ++i) {
    if (i >= kInFlight) {
      ASSERT_TRUE(callback->arrived.Wait());
    }
    ASSERT_EQ(FileSource::kResultPending, read(*lists[i % kInFlight], callback));
  }
  const std::size_t after = AllocationCounter::Count();
  for (std::size_t i = 0; i < kInFlight; ++i) ASSERT_TRUE(callback->arrived.Wait());
  ASSERT_TRUE(host_.WaitUntilIdle());
  EXPECT_EQ(kRequests, callback->reports);
  EXPECT_EQ(0U, callback->failures);
  EXPECT_EQ(before, after) << "by the caller";
  EXPECT_EQ(callback->allocationsAtFirst, callback->allocationsAtLast) << "by the worker";
}

}  // namespace
}  // namespace Orvane
