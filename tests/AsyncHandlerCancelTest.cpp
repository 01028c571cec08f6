// Cancelling: what is outstanding is collected from the host, then reported, and nothing else is.
#include <algorithm>
#include <optional>

#include "AsyncHandlerFixture.h"

namespace Orvane {
namespace {

constexpr FileSource::Result_t kPending = FileSource::kResultPending;
constexpr FileSource::Result_t kCancelled = FileSource::kResultFailed;

class AsyncHandlerCancelTest : public AsyncHandlerTest {};

TEST_F(AsyncHandlerCancelTest, ACancelledRequestIsReportedOnlyAfterItsCompletion) {
  host_.SetOnCancel(OnCancel::kStaysInFlight);
  AutoRelease<BufferList> list(NewPageList());
  AutoRelease<TestCallback> callback(new TestCallback(&log_));
  ASSERT_EQ(kPending, Read(file_, list, callback, PageSize()));
  ASSERT_TRUE(host_.WaitForIssued(1));
  Background cancel([&] { handler_->Cancel(file_); });
  ASSERT_TRUE(host_.WaitForCancels(1));
  ASSERT_TRUE(host_.WaitUntilIdle());
  EXPECT_EQ(0U, log_.Count());
  EXPECT_FALSE(cancel.IsDone());
  EXPECT_TRUE(IsLocked(list));
  EXPECT_EQ(1U, handler_->GetNumberOfSlotsInUse());
  host_.Complete(0, Outcome::kFailed);
  EXPECT_TRUE(cancel.WaitUntilDone());
  const RequestReport expected{kCancelled, PageSize(), list, 0};
  EXPECT_EQ(std::vector<RequestReport>{expected}, log_.All());
  EXPECT_FALSE(IsLocked(list));
}

TEST_F(AsyncHandlerCancelTest, ACancelledRequestCountsNothingAlsoWhenItSucceeded) {
  host_.SetOnCancel(OnCancel::kSucceeds);
  AutoRelease<BufferList> list(NewPageList());
  AutoRelease<TestCallback> callback(new TestCallback(&log_));
  ASSERT_EQ(kPending, Read(file_, list, callback, PageSize()));
  ASSERT_TRUE(host_.WaitForIssued(1));
  handler_->Cancel(file_);
  const RequestReport expected{kCancelled, PageSize(), list, 0};
  EXPECT_EQ(std::vector<RequestReport>{expected}, log_.All());
}

TEST_F(AsyncHandlerCancelTest, ARequestThatIsCancelledHalfwayIsNotContinued) {
  host_.SetOnCancel(OnCancel::kStaysInFlight);
  AutoRelease<BufferList> list(NewPageList(2));
  AutoRelease<TestCallback> callback(new TestCallback(&log_));
  ASSERT_EQ(kPending, Read(file_, list, callback));
  ASSERT_TRUE(host_.WaitForIssued(1));
  Background cancel([&] { handler_->Cancel(file_); });
  ASSERT_TRUE(host_.WaitForCancels(1));
  host_.Complete(0, PageSize());
  EXPECT_TRUE(cancel.WaitUntilDone());
  EXPECT_EQ(1U, host_.CountIssued());
  const RequestReport expected{kCancelled, 0, list, 0};
  EXPECT_EQ(std::vector<RequestReport>{expected}, log_.All());
}

TEST_F(AsyncHandlerCancelTest, WithNothingOutstandingItReturns) {
  handler_->Cancel(file_);
  handler_->Cancel(file_);
  EXPECT_EQ(0U, host_.CountCancels());
  EXPECT_EQ(0U, log_.Count());
}

TEST_F(AsyncHandlerCancelTest, EveryRequestOfTheFileIsReportedAndNoneOfAnother) {
  constexpr std::uint64_t kEach = 20;
  std::vector<std::unique_ptr<AutoRelease<BufferList>>> lists;
  ReportLog others;
  AutoRelease<TestCallback> callback(new TestCallback(&log_));
  AutoRelease<TestCallback> otherCallback(new TestCallback(&others));
  for (std::uint64_t i = 0; i < 2 * kEach; ++i) {
    lists.push_back(std::make_unique<AutoRelease<BufferList>>(NewPageList()));
    const bool first = i % 2 == 0;
    ASSERT_EQ(kPending, Read(first ? file_ : other_, *lists.back(),
                             first ? callback : otherCallback, i * PageSize()));
  }
  handler_->Cancel(file_);
  std::vector<RequestReport> reports = log_.All();
  ASSERT_EQ(kEach, reports.size());
  std::sort(reports.begin(), reports.end(),
            [](const RequestReport& a, const RequestReport& b) { return a.offset < b.offset; });
  for (std::uint64_t i = 0; i < kEach; ++i) {
    EXPECT_EQ((RequestReport{kCancelled, 2 * i * PageSize(), *lists[2 * i], 0}), reports[i]);
  }
  EXPECT_EQ(0U, others.Count());
  EXPECT_EQ(kEach, handler_->GetNumberOfSlotsInUse());
  handler_->Cancel(other_);
  EXPECT_EQ(kEach, others.Count());
  EXPECT_EQ(kEach, log_.Count());
}

TEST_F(AsyncHandlerCancelTest, TwoFilesThatCouldNotBeOpenedAreTwoFiles) {
  host_.SetIssueAnswer(file_, Started::kFailed);
  host_.SetIssueAnswer(other_, Started::kFailed);
  AutoRelease<BufferList> list(NewPageList());
  AutoRelease<BufferList> second(NewPageList());
  AutoRelease<TestCallback> callback(new TestCallback(&log_));
  ASSERT_NO_FATAL_FAILURE(Block());
  ASSERT_EQ(kPending, Read(file_, list, callback));
  ASSERT_EQ(kPending, Read(other_, second, callback));
  const std::size_t wakes = host_.CountWakes();
  {
    Background cancel([&] { handler_->Cancel(file_); });
    EXPECT_TRUE(host_.WaitForWakes(wakes + 1));
    Resume();
  }
  ASSERT_TRUE(log_.WaitFor(2));
  const std::vector<RequestReport> expected{{kCancelled, 0, list, 0},
                                            {FileSource::kResultError, 0, second, 0}};
  EXPECT_EQ(expected, log_.All());
}

// Requests that have not been issued.

TEST_F(AsyncHandlerCancelTest, QueuedRequestsAreNeverIssued) {
  AutoRelease<BufferList> lists[] = {AutoRelease<BufferList>(NewPageList()),
                                     AutoRelease<BufferList>(NewPageList()),
                                     AutoRelease<BufferList>(NewPageList())};
  AutoRelease<TestCallback> callback(new TestCallback(&log_));
  ASSERT_NO_FATAL_FAILURE(Block());
  ASSERT_EQ(kPending, Read(file_, lists[0], callback, PageSize()));
  ASSERT_EQ(kPending, Read(other_, lists[1], callback, 2 * PageSize()));
  ASSERT_EQ(kPending, Read(file_, lists[2], callback, 3 * PageSize()));
  const std::size_t wakes = host_.CountWakes();
  {
    Background cancel([&] { handler_->Cancel(file_); });
    EXPECT_TRUE(host_.WaitForWakes(wakes + 1));
    Resume();
  }
  ASSERT_TRUE(host_.WaitForIssued(2));
  ASSERT_TRUE(host_.WaitUntilIdle());
  ASSERT_EQ(2U, host_.CountIssued());
  EXPECT_EQ(other_, host_.GetIssued(1).file);
  EXPECT_EQ(0U, host_.CountCancels());
  EXPECT_EQ(2U, log_.Count());
  host_.Complete(1);
  ASSERT_TRUE(log_.WaitFor(3));
}

TEST_F(AsyncHandlerCancelTest, AReusedSlotIsIssuedOnceWithItsNewRequest) {
  AutoRelease<BufferList> list(NewPageList());
  AutoRelease<BufferList> second(NewPageList());
  AutoRelease<BufferList> trigger(NewPageList());
  AutoRelease<FakeFile> third(new FakeFile);
  AutoRelease<TestCallback> plain(new TestCallback(&log_));
  // On the worker, so that nothing is issued in between.
  AutoRelease<TestCallback> callback(new TestCallback(&log_, [&](const RequestReport&) {
    EXPECT_EQ(kPending, Read(file_, list, plain, PageSize()));
    handler_->Cancel(file_);
    EXPECT_EQ(kPending, Write(other_, second, plain, 2 * PageSize()));
  }));
  ASSERT_EQ(kPending, Read(third, trigger, callback));
  ASSERT_TRUE(host_.WaitForIssued(1));
  host_.Complete(0);
  ASSERT_TRUE(host_.WaitForIssued(2));
  ASSERT_TRUE(host_.WaitUntilIdle());
  ASSERT_EQ(2U, host_.CountIssued());
  const FakeHost::Issued issued = host_.GetIssued(1);
  EXPECT_EQ(host_.GetIssued(0).slot, issued.slot);
  EXPECT_EQ(other_, issued.file);
  EXPECT_TRUE(issued.write);
  EXPECT_EQ(2 * PageSize(), issued.offset);
  EXPECT_EQ(second->GetBuffer(0)->GetAddress(), issued.runs[0].address);
  host_.Complete(1);
  ASSERT_TRUE(log_.WaitFor(3));
  ASSERT_TRUE(host_.WaitUntilIdle());
  const std::vector<RequestReport> expected{
      {FileSource::kResultOK, 0, trigger, PageSize()},
      {kCancelled, PageSize(), list, 0},
      {FileSource::kResultOK, 2 * PageSize(), second, PageSize()}};
  EXPECT_EQ(expected, log_.All());
}

TEST_F(AsyncHandlerCancelTest, ARequestThatTheHostRefusedAtOnceCanStillBeCancelled) {
  host_.SetIssueAnswer(file_, Started::kFailed);
  AutoRelease<BufferList> lists[] = {AutoRelease<BufferList>(NewPageList()),
                                     AutoRelease<BufferList>(NewPageList())};
  AutoRelease<TestCallback> plain(new TestCallback(&log_));
  AutoRelease<TestCallback> callback(
      new TestCallback(&log_, [&](const RequestReport&) { handler_->Cancel(file_); }));
  ASSERT_NO_FATAL_FAILURE(Block());
  ASSERT_EQ(kPending, Read(file_, lists[0], callback, PageSize()));
  ASSERT_EQ(kPending, Read(file_, lists[1], plain, 2 * PageSize()));
  Resume();
  ASSERT_TRUE(log_.WaitFor(2));
  ASSERT_TRUE(host_.WaitUntilIdle());
  // Both were refused before the first was reported.
  const std::vector<RequestReport> expected{{FileSource::kResultError, PageSize(), lists[0], 0},
                                            {kCancelled, 2 * PageSize(), lists[1], 0}};
  EXPECT_EQ(expected, log_.All());
  EXPECT_EQ(0U, host_.CountCancels());
}

// Inside callbacks.

TEST_F(AsyncHandlerCancelTest, InACallbackItCancelsTheSameFileInPlace) {
  AutoRelease<BufferList> list(NewPageList());
  AutoRelease<BufferList> second(NewPageList());
  AutoRelease<TestCallback> plain(new TestCallback(&log_));
  std::size_t before = 0;
  std::size_t after = 0;
  AutoRelease<TestCallback> callback(new TestCallback(&log_, [&](const RequestReport&) {
    before = log_.Count();
    handler_->Cancel(file_);
    after = log_.Count();
  }));
  ASSERT_EQ(kPending, Read(file_, list, callback));
  ASSERT_EQ(kPending, Read(file_, second, plain, PageSize()));
  ASSERT_TRUE(host_.WaitForIssued(2));
  host_.Complete(0);
  ASSERT_TRUE(log_.WaitFor(2));
  ASSERT_TRUE(host_.WaitUntilIdle());
  EXPECT_EQ(1U, before);
  EXPECT_EQ(2U, after);
  EXPECT_EQ((RequestReport{kCancelled, PageSize(), second, 0}), log_.All()[1]);
}

TEST_F(AsyncHandlerCancelTest, InACallbackItCancelsAnotherFileInPlace) {
  AutoRelease<BufferList> list(NewPageList());
  AutoRelease<BufferList> lists[] = {AutoRelease<BufferList>(NewPageList()),
                                     AutoRelease<BufferList>(NewPageList())};
  AutoRelease<TestCallback> plain(new TestCallback(&log_));
  std::size_t after = 0;
  AutoRelease<TestCallback> callback(new TestCallback(&log_, [&](const RequestReport&) {
    EXPECT_EQ(kPending, Read(other_, lists[1], plain));  // queued; the other one is in flight
    handler_->BeginClose(other_);
    handler_->Cancel(other_);
    after = log_.Count();
    EXPECT_EQ(FileSource::kResultNotSupported, Read(other_, lists[1], plain));
  }));
  ASSERT_EQ(kPending, Read(file_, list, callback));
  ASSERT_EQ(kPending, Read(other_, lists[0], plain));
  ASSERT_TRUE(host_.WaitForIssued(2));
  host_.Complete(0);
  ASSERT_TRUE(log_.WaitFor(3));
  ASSERT_TRUE(host_.WaitUntilIdle());
  EXPECT_EQ(3U, after);
  EXPECT_EQ(2U, host_.CountIssued());
}

TEST_F(AsyncHandlerCancelTest, AnInnerCancelLeavesNothingOfItsFileOutstanding) {
  constexpr std::uint64_t kRequests = 5;
  std::vector<std::unique_ptr<AutoRelease<BufferList>>> lists;
  std::vector<std::size_t> countsAfterInner;
  std::vector<bool> lockedAfterInner;
  AutoRelease<TestCallback> callback(new TestCallback(&log_, [&](const RequestReport&) {
    handler_->Cancel(file_);
    countsAfterInner.push_back(log_.Count());
    for (const auto& list : lists) lockedAfterInner.push_back(IsLocked(*list));
  }));
  for (std::uint64_t i = 0; i < kRequests; ++i) {
    lists.push_back(std::make_unique<AutoRelease<BufferList>>(NewPageList()));
    ASSERT_EQ(kPending, Read(file_, *lists.back(), callback, i * PageSize()));
  }
  ASSERT_TRUE(host_.WaitForIssued(kRequests));
  handler_->Cancel(file_);
  ASSERT_TRUE(host_.WaitUntilIdle());
  EXPECT_EQ(kRequests, log_.Count());
  EXPECT_EQ(std::vector<std::size_t>(kRequests, kRequests), countsAfterInner);
  EXPECT_EQ(std::vector<bool>(kRequests * kRequests, false), lockedAfterInner);
  for (const RequestReport& report : log_.All()) EXPECT_EQ(kCancelled, report.result);
}

TEST_F(AsyncHandlerCancelTest, AnInnerCancelOfAnotherFileDoesNotDisturbTheOuterOne) {
  AutoRelease<BufferList> lists[] = {
      AutoRelease<BufferList>(NewPageList()), AutoRelease<BufferList>(NewPageList()),
      AutoRelease<BufferList>(NewPageList()), AutoRelease<BufferList>(NewPageList())};
  AutoRelease<TestCallback> plain(new TestCallback(&log_));
  std::size_t after = 0;
  AutoRelease<TestCallback> callback(new TestCallback(&log_, [&](const RequestReport&) {
    handler_->Cancel(other_);
    after = log_.Count();
  }));
  ASSERT_EQ(kPending, Read(file_, lists[0], callback, 0));
  ASSERT_EQ(kPending, Read(file_, lists[1], plain, PageSize()));
  ASSERT_EQ(kPending, Read(other_, lists[2], plain, 2 * PageSize()));
  ASSERT_EQ(kPending, Read(other_, lists[3], plain, 3 * PageSize()));
  ASSERT_TRUE(host_.WaitForIssued(4));
  handler_->Cancel(file_);
  EXPECT_EQ(3U, after);
  ASSERT_EQ(4U, log_.Count());
  std::vector<std::uint64_t> offsets;
  for (const RequestReport& report : log_.All()) {
    EXPECT_EQ(kCancelled, report.result);
    offsets.push_back(report.offset / PageSize());
  }
  EXPECT_EQ((std::vector<std::uint64_t>{0, 2, 3, 1}), offsets);
}

TEST_F(AsyncHandlerCancelTest, ARequestMadeInTheReportOfACancelIsNotCancelledWithIt) {
  AutoRelease<BufferList> list(NewPageList());
  AutoRelease<BufferList> second(NewPageList());
  AutoRelease<TestCallback> plain(new TestCallback(&log_));
  AutoRelease<TestCallback> callback(new TestCallback(&log_, [&](const RequestReport& report) {
    EXPECT_EQ(kPending, Read(file_, report.list, plain, PageSize()));
  }));
  ASSERT_EQ(kPending, Read(file_, list, callback));
  ASSERT_EQ(kPending, Read(file_, second, callback));
  ASSERT_TRUE(host_.WaitForIssued(2));
  handler_->Cancel(file_);
  ASSERT_TRUE(host_.WaitForIssued(4));
  ASSERT_TRUE(host_.WaitUntilIdle());
  EXPECT_EQ(2U, log_.Count());
  host_.Complete(2);
  host_.Complete(3);
  ASSERT_TRUE(log_.WaitFor(4));
  EXPECT_EQ(FileSource::kResultOK, log_.All()[2].result);
  EXPECT_EQ(FileSource::kResultOK, log_.All()[3].result);
}

// What else happens while a cancel waits for the host.

TEST_F(AsyncHandlerCancelTest, CompletionsOfOtherFilesAreReportedMeanwhile) {
  host_.SetOnCancel(OnCancel::kStaysInFlight);
  AutoRelease<BufferList> lists[] = {AutoRelease<BufferList>(NewPageList()),
                                     AutoRelease<BufferList>(NewPageList()),
                                     AutoRelease<BufferList>(NewPageList())};
  AutoRelease<TestCallback> callback(new TestCallback(&log_));
  ASSERT_EQ(kPending, Read(file_, lists[0], callback));
  ASSERT_EQ(kPending, Read(other_, lists[1], callback, PageSize()));
  ASSERT_EQ(kPending, Read(other_, lists[2], callback, 2 * PageSize()));
  ASSERT_TRUE(host_.WaitForIssued(3));
  Background cancel([&] { handler_->Cancel(file_); });
  ASSERT_TRUE(host_.WaitForCancels(1));
  host_.Complete(2);
  host_.Complete(1, Outcome::kFailed);
  host_.Nudge();
  ASSERT_TRUE(host_.WaitUntilIdle());
  EXPECT_FALSE(cancel.IsDone());
  const std::vector<RequestReport> meanwhile{
      {FileSource::kResultOK, 2 * PageSize(), lists[2], PageSize()},
      {FileSource::kResultError, PageSize(), lists[1], 0}};
  EXPECT_EQ(meanwhile, log_.All());
  host_.Complete(0);
  EXPECT_TRUE(cancel.WaitUntilDone());
  ASSERT_EQ(3U, log_.Count());
  EXPECT_EQ((RequestReport{kCancelled, 0, lists[0], 0}), log_.All()[2]);
}

TEST_F(AsyncHandlerCancelTest, InsideACallbackCompletionsOfOtherFilesAreReportedAfterwardsOnce) {
  host_.SetOnCancel(OnCancel::kStaysInFlight);
  AutoRelease<BufferList> lists[] = {AutoRelease<BufferList>(NewPageList()),
                                     AutoRelease<BufferList>(NewPageList()),
                                     AutoRelease<BufferList>(NewPageList())};
  AutoRelease<TestCallback> plain(new TestCallback(&log_));
  AutoRelease<TestCallback> cancels(
      new TestCallback(&log_, [&](const RequestReport&) { handler_->Cancel(file_); }));
  ASSERT_EQ(kPending, Read(file_, lists[0], plain));
  ASSERT_EQ(kPending, Read(other_, lists[1], cancels, PageSize()));
  ASSERT_EQ(kPending, Read(other_, lists[2], plain, 2 * PageSize()));
  ASSERT_TRUE(host_.WaitForIssued(3));
  host_.Complete(1);
  ASSERT_TRUE(host_.WaitForCancels(1));
  host_.Complete(2);
  host_.Nudge();
  ASSERT_TRUE(host_.WaitUntilIdle());
  EXPECT_EQ(1U, log_.Count());
  host_.Complete(0);
  ASSERT_TRUE(log_.WaitFor(3));
  ASSERT_TRUE(host_.WaitUntilIdle());
  const std::vector<RequestReport> expected{
      {FileSource::kResultOK, PageSize(), lists[1], PageSize()},
      {kCancelled, 0, lists[0], 0},
      {FileSource::kResultOK, 2 * PageSize(), lists[2], PageSize()}};
  EXPECT_EQ(expected, log_.All());
}

TEST_F(AsyncHandlerCancelTest, ACompletionThatWasKeptForLaterCanBeCancelled) {
  host_.SetOnCancel(OnCancel::kStaysInFlight);
  AutoRelease<BufferList> first(NewPageList());
  AutoRelease<BufferList> list(NewPageList());
  AutoRelease<BufferList> second(NewPageList());
  AutoRelease<TestCallback> plain(new TestCallback(&log_));
  AutoRelease<TestCallback> cancelsOwn(
      new TestCallback(&log_, [&](const RequestReport&) { handler_->Cancel(file_); }));
  AutoRelease<TestCallback> cancelsOther(
      new TestCallback(&log_, [&](const RequestReport&) { handler_->Cancel(other_); }));
  ASSERT_EQ(kPending, Read(file_, first, cancelsOwn, 2 * PageSize()));
  ASSERT_EQ(kPending, Read(file_, list, cancelsOther));
  ASSERT_EQ(kPending, Read(other_, second, plain, PageSize()));
  ASSERT_TRUE(host_.WaitForIssued(3));
  host_.Complete(0);
  ASSERT_TRUE(host_.WaitForCancels(1));
  host_.Complete(2);  // kept, for the worker waits for the cancelled one
  ASSERT_TRUE(host_.WaitUntilIdle());
  host_.Complete(1);
  ASSERT_TRUE(log_.WaitFor(3));
  ASSERT_TRUE(host_.WaitUntilIdle());
  const std::vector<RequestReport> expected{
      {FileSource::kResultOK, 2 * PageSize(), first, PageSize()},
      {kCancelled, 0, list, 0},
      {kCancelled, PageSize(), second, 0}};
  EXPECT_EQ(expected, log_.All());
  EXPECT_EQ(1U, host_.CountCancels());
}

TEST_F(AsyncHandlerCancelTest, ALateCompletionDoesNotEndIt) {
  AutoRelease<BufferList> list(NewPageList());
  AutoRelease<TestCallback> callback(new TestCallback(&log_));
  ASSERT_EQ(kPending, Read(file_, list, callback));
  ASSERT_TRUE(host_.WaitForIssued(1));
  host_.Complete(0);
  ASSERT_TRUE(log_.WaitFor(1));
  ASSERT_TRUE(host_.WaitUntilIdle());
  host_.SetOnCancel(OnCancel::kStaysInFlight);
  ASSERT_EQ(kPending, Read(file_, list, callback));
  ASSERT_TRUE(host_.WaitForIssued(2));
  const FakeHost::Issued first = host_.GetIssued(0);
  ASSERT_EQ(first.slot, host_.GetIssued(1).slot);
  Background cancel([&] { handler_->Cancel(file_); });
  ASSERT_TRUE(host_.WaitForCancels(1));
  host_.Push({first.slot, first.generation, Outcome::kMoved, PageSize()});
  host_.Push({0xFFFFFFFF, 1, Outcome::kMoved, PageSize()});
  ASSERT_TRUE(host_.WaitUntilIdle());
  EXPECT_EQ(1U, log_.Count());
  EXPECT_FALSE(cancel.IsDone());
  EXPECT_TRUE(IsLocked(list));
  host_.Complete(1);
  EXPECT_TRUE(cancel.WaitUntilDone());
  EXPECT_EQ(2U, log_.Count());
}

TEST_F(AsyncHandlerCancelTest, RequestsMadeMeanwhileAreServedAndNotCancelled) {
  host_.SetOnCancel(OnCancel::kStaysInFlight);
  AutoRelease<BufferList> list(NewPageList());
  AutoRelease<BufferList> second(NewPageList());
  AutoRelease<BufferList> third(NewPageList());
  AutoRelease<TestCallback> callback(new TestCallback(&log_));
  ASSERT_EQ(kPending, Read(file_, list, callback));
  ASSERT_TRUE(host_.WaitForIssued(1));
  Background cancel([&] { handler_->Cancel(file_); });
  ASSERT_TRUE(host_.WaitForCancels(1));
  ASSERT_EQ(kPending, Read(file_, second, callback));
  ASSERT_EQ(kPending, Read(other_, third, callback));
  ASSERT_TRUE(host_.WaitForIssued(3));
  host_.Complete(1);
  host_.Complete(2);
  ASSERT_TRUE(log_.WaitFor(2));
  EXPECT_EQ(FileSource::kResultOK, log_.All()[0].result);
  EXPECT_EQ(FileSource::kResultOK, log_.All()[1].result);
  EXPECT_FALSE(cancel.IsDone());
  host_.Complete(0);
  EXPECT_TRUE(cancel.WaitUntilDone());
  EXPECT_EQ(3U, log_.Count());
  EXPECT_EQ(1U, host_.CountCancels());
}

TEST_F(AsyncHandlerCancelTest, SeveralThreadsCancelAtOnce) {
  constexpr std::size_t kRounds = 200;
  AutoRelease<TestCallback> callback(new TestCallback(&log_));
  const auto run = [&](HostFile* file) {
    AutoRelease<BufferList> list(NewPageList());
    for (std::size_t i = 0; i < kRounds; ++i) {
      EXPECT_EQ(kPending, Read(file, list, callback));
      handler_->Cancel(file);
      EXPECT_FALSE(IsLocked(list));
    }
  };
  {
    Background first([&] { run(file_); });
    Background second([&] { run(other_); });
  }
  EXPECT_EQ(2 * kRounds, log_.Count());
}

// A wake-up that is spent while a time-out waits for the host must not be lost.
// One request of the file is in flight and stays there; another one has waited too long in the
// queue, so the worker is about to cancel the first.
class AsyncHandlerTimeoutTest : public AsyncHandlerTest {
 protected:
  void SetUp() override {
    AsyncHandlerTest::SetUp();
    inFlight_.emplace(NewPageList());
    queued_.emplace(NewPageList());
    callback_.emplace(new TestCallback(&log_));
    host_.SetOnCancel(OnCancel::kStaysInFlight);
    ASSERT_EQ(kPending, Read(file_, *inFlight_, *callback_));
    ASSERT_TRUE(host_.WaitForIssued(1));
    ASSERT_NO_FATAL_FAILURE(Block());
    ASSERT_EQ(kPending, Read(file_, *queued_, *callback_));
    TestMTInterface::Get().ShiftClock(kTimeoutMicro);
    Resume();
    ASSERT_TRUE(host_.WaitForCancels(1));
    ASSERT_TRUE(host_.WaitUntilIdle());
    emptyWaits_ = host_.CountEmptyWaits();
  }
  void TearDown() override {
    inFlight_.reset();
    queued_.reset();
    callback_.reset();
    AsyncHandlerTest::TearDown();
  }

  // Has the worker spend the wake-up it was sent, then gives it what it waits for.
  void SpendWakeUpAndComplete() {
    EXPECT_TRUE(host_.WaitForEmptyWaits(emptyWaits_ + 1));
    host_.Complete(0);
    EXPECT_TRUE(log_.WaitFor(2));
  }

 private:
  std::optional<AutoRelease<BufferList>> inFlight_;
  std::optional<AutoRelease<BufferList>> queued_;
  std::optional<AutoRelease<TestCallback>> callback_;
  std::size_t emptyWaits_ = 0;
};

TEST_F(AsyncHandlerTimeoutTest, ACancelThatComesMeanwhileIsServed) {
  Background cancel([&] { handler_->Cancel(other_); });
  SpendWakeUpAndComplete();
  EXPECT_TRUE(cancel.WaitUntilDone());
  host_.Nudge();  // so that a failure ends
}

TEST_F(AsyncHandlerTimeoutTest, TheEndThatComesMeanwhileIsServed) {
  Background end([&] { handler_.reset(); });
  SpendWakeUpAndComplete();
  EXPECT_TRUE(end.WaitUntilDone());
  host_.Nudge();  // so that a failure ends
}

TEST_F(AsyncHandlerTimeoutTest, ARequestThatComesMeanwhileIsIssued) {
  AutoRelease<BufferList> list(NewPageList());
  ReportLog others;
  AutoRelease<TestCallback> callback(new TestCallback(&others));
  ASSERT_EQ(kPending, Read(other_, list, callback));
  SpendWakeUpAndComplete();
  ASSERT_TRUE(host_.WaitForIssued(3));
  host_.Complete(2);
  ASSERT_TRUE(others.WaitFor(1));
}

}  // namespace
}  // namespace Orvane
