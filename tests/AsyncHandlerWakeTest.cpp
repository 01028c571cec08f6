// A wake-up that is spent inside the issue pass, in the report of a request that waited too long,
// must not leave anybody waiting for the worker.
#include <memory>
#include <optional>

#include "AsyncHandlerFixture.h"

namespace Orvane {
namespace {

constexpr FileSource::Result_t kPending = FileSource::kResultPending;

// A request of the other file is in flight and stays there. One of the file has waited too long,
// and its report cancels the other file in place: the worker waits for the first request there.
class AsyncHandlerWakeTest : public AsyncHandlerTest {
 protected:
  void SetUp() override {
    AsyncHandlerTest::SetUp();
    third_.emplace(new FakeFile);
    inFlight_.emplace(NewPageList());
    queued_.emplace(NewPageList());
    plain_.emplace(new TestCallback(&log_));
    AsyncHandler* const handler = handler_.get();
    cancelling_.emplace(new TestCallback(
        &log_, [this, handler](const RequestReport&) { handler->Cancel(other_); }));
    host_.SetOnCancel(OnCancel::kStaysInFlight);
    ASSERT_EQ(kPending, Read(other_, *inFlight_, *plain_));
    ASSERT_TRUE(host_.WaitForIssued(1));
  }
  void TearDown() override {
    third_.reset();
    inFlight_.reset();
    queued_.reset();
    plain_.reset();
    cancelling_.reset();
    AsyncHandlerTest::TearDown();
  }

  void WaitTooLong() {
    const std::size_t cancels = host_.CountCancels();
    ASSERT_NO_FATAL_FAILURE(Block());
    ASSERT_EQ(kPending, Read(file_, *queued_, *cancelling_));
    TestMTInterface::Get().ShiftClock(kTimeoutMicro);
    Resume();
    ASSERT_TRUE(log_.WaitFor(1));
    ASSERT_TRUE(host_.WaitForCancels(cancels + 1));
    ASSERT_TRUE(host_.WaitUntilIdle());
  }
  // Has the worker spend the wake-up it was sent, then gives it what it waits for.
  void SpendWakeUpAndComplete(std::size_t emptyWaits) {
    EXPECT_TRUE(host_.WaitForEmptyWaits(emptyWaits + 1));
    host_.Complete(0);
    EXPECT_TRUE(log_.WaitFor(2));
  }

  std::optional<AutoRelease<FakeFile>> third_;

 private:
  std::optional<AutoRelease<BufferList>> inFlight_;
  std::optional<AutoRelease<BufferList>> queued_;
  std::optional<AutoRelease<TestCallback>> plain_;
  std::optional<AutoRelease<TestCallback>> cancelling_;
};

TEST_F(AsyncHandlerWakeTest, ACancelIsServed) {
  ASSERT_NO_FATAL_FAILURE(WaitTooLong());
  const std::size_t emptyWaits = host_.CountEmptyWaits();
  Background cancel([&] { handler_->Cancel(*third_); });
  SpendWakeUpAndComplete(emptyWaits);
  EXPECT_TRUE(cancel.WaitUntilDone());
  host_.Nudge();  // so that a failure ends
}

TEST_F(AsyncHandlerWakeTest, TheEndIsServed) {
  ASSERT_NO_FATAL_FAILURE(WaitTooLong());
  const std::size_t emptyWaits = host_.CountEmptyWaits();
  Background end([&] { handler_.reset(); });
  SpendWakeUpAndComplete(emptyWaits);
  EXPECT_TRUE(end.WaitUntilDone());
  host_.Nudge();  // so that a failure ends
}

TEST_F(AsyncHandlerWakeTest, ACancelEndsWhoseRequestIsCollectedThere) {
  Background cancel([&] { handler_->Cancel(other_); });
  EXPECT_TRUE(host_.WaitForCancels(1));
  EXPECT_TRUE(host_.WaitUntilIdle());
  WaitTooLong();
  host_.Complete(0);
  EXPECT_TRUE(log_.WaitFor(2));
  EXPECT_TRUE(cancel.WaitUntilDone());
  host_.Nudge();  // so that a failure ends
}

}  // namespace
}  // namespace Orvane
