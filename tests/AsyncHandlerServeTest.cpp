// A callback that waits on the I/O thread, for the sake of which cancels of other threads go on.
#include "AsyncHandlerFixture.h"
#include "MTInterface.h"
#include "OSServices/LibraryThread.h"

namespace Orvane {
namespace {

constexpr FileSource::Result_t kPending = FileSource::kResultPending;
constexpr FileSource::Result_t kCancelled = FileSource::kResultFailed;

class AsyncHandlerServeTest : public AsyncHandlerTest {
 protected:
  // Inside a callback.
  void ServeUntilDone(Background* cancel) {
    for (int ms = 0; ms < 20000 && !cancel->IsDone(); ++ms) {
      WaitServant::OfThisThread()->ServeWhileWaiting();
      MTInterface::Sleep(1);
    }
    EXPECT_TRUE(cancel->IsDone());
    served_.Raise();
  }

  Signal served_;
};

TEST_F(AsyncHandlerServeTest, ACompletionThatAnotherCancelKeptForLaterEndsTheCancel) {
  host_.SetOnCancel(OnCancel::kStaysInFlight);
  std::unique_ptr<Background> cancel;
  AutoRelease<BufferList> lists[] = {AutoRelease<BufferList>(NewPageList()),
                                     AutoRelease<BufferList>(NewPageList()),
                                     AutoRelease<BufferList>(NewPageList())};
  ReportLog others;
  AutoRelease<TestCallback> awaited(new TestCallback(&others));
  AutoRelease<TestCallback> cancels(
      new TestCallback(&log_, [this](const RequestReport&) { handler_->Cancel(file_); }));
  AutoRelease<TestCallback> waits(
      new TestCallback(&log_, [&](const RequestReport&) { ServeUntilDone(cancel.get()); }));
  ASSERT_EQ(kPending, Read(other_, lists[0], awaited));
  ASSERT_EQ(kPending, Read(file_, lists[1], cancels));
  ASSERT_EQ(kPending, Read(file_, lists[2], waits));
  ASSERT_TRUE(host_.WaitForIssued(3));
  cancel = std::make_unique<Background>([this] { handler_->Cancel(other_); });
  ASSERT_TRUE(host_.WaitForCancels(1));
  ASSERT_TRUE(host_.WaitUntilIdle());
  host_.Complete(1);
  ASSERT_TRUE(host_.WaitForCancels(2));
  // It comes to the cancel in the callback, which has no use for it.
  host_.Complete(0, Outcome::kFailed);
  ASSERT_TRUE(host_.WaitUntilIdle());
  host_.Complete(2, Outcome::kFailed);
  ASSERT_TRUE(served_.Wait());
  ASSERT_TRUE(others.WaitFor(1));
  EXPECT_EQ(kCancelled, others.All()[0].result);
}

TEST_F(AsyncHandlerServeTest, AReportOfACancelMayWaitForTheSameCancel) {
  std::unique_ptr<Background> cancel;
  AutoRelease<BufferList> first(NewPageList());
  AutoRelease<BufferList> second(NewPageList());
  AutoRelease<TestCallback> waits(
      new TestCallback(&log_, [&](const RequestReport&) { ServeUntilDone(cancel.get()); }));
  AutoRelease<TestCallback> plain(new TestCallback(&log_));
  Block();
  ASSERT_EQ(kPending, Read(file_, first, waits));
  ASSERT_EQ(kPending, Read(file_, second, plain));
  const std::size_t wakes = host_.CountWakes();
  cancel = std::make_unique<Background>([this] { handler_->Cancel(file_); });
  ASSERT_TRUE(host_.WaitForWakes(wakes + 1));
  Resume();
  ASSERT_TRUE(served_.Wait());
  const RequestReport expected[] = {{kCancelled, 0, first, 0}, {kCancelled, 0, second, 0}};
  EXPECT_EQ(std::vector<RequestReport>(std::begin(expected), std::end(expected)), log_.All());
}

TEST_F(AsyncHandlerServeTest, AStaleCompletionDoesNotEndTheCancel) {
  host_.SetOnCancel(OnCancel::kStaysInFlight);
  Signal entered;
  Signal cancelled;
  std::unique_ptr<Background> cancel;
  AutoRelease<BufferList> first(NewPageList());
  AutoRelease<BufferList> second(NewPageList());
  ReportLog others;
  AutoRelease<TestCallback> awaited(new TestCallback(&others));
  AutoRelease<TestCallback> waits(new TestCallback(&log_, [&](const RequestReport&) {
    entered.Raise();
    EXPECT_TRUE(cancelled.Wait());
    ServeUntilDone(cancel.get());
  }));
  ASSERT_EQ(kPending, Read(other_, first, awaited));
  ASSERT_EQ(kPending, Read(file_, second, waits));
  ASSERT_TRUE(host_.WaitForIssued(2));
  host_.Complete(1);
  ASSERT_TRUE(entered.Wait());
  cancel = std::make_unique<Background>([this] { handler_->Cancel(other_); });
  cancelled.Raise();
  ASSERT_TRUE(host_.WaitForCancels(1));
  const FakeHost::Issued issued = host_.GetIssued(0);
  host_.Push({issued.slot, issued.generation + 1, Outcome::kMoved, PageSize()});
  EXPECT_FALSE(cancel->IsDone());
  host_.Complete(0, Outcome::kFailed);
  ASSERT_TRUE(served_.Wait());
  ASSERT_TRUE(others.WaitFor(1));
  const RequestReport expected{kCancelled, 0, first, 0};
  EXPECT_EQ(std::vector<RequestReport>{expected}, others.All());
}

}  // namespace
}  // namespace Orvane
