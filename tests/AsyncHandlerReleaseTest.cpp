// What the asynchronous I/O handler holds while a request is under way, and its release.
#include "AsyncHandlerFixture.h"
#include "OSServices/ReportScope.h"

namespace Orvane {
namespace {

class AsyncHandlerReleaseTest : public AsyncHandlerTest {};

class TrackedFile : public FakeFile {
 public:
  explicit TrackedFile(Signal* gone) : gone_(gone) {}

 protected:
  ~TrackedFile() override { gone_->Raise(); }

 private:
  Signal* const gone_;
};

TEST_F(AsyncHandlerReleaseTest, AFileThatItsOwnerReleasesStaysUntilTheReport) {
  Signal gone;
  bool goneAtReport = false;
  AutoRelease<TrackedFile> file(new TrackedFile(&gone));
  AutoRelease<BufferList> list(NewPageList());
  AutoRelease<TestCallback> callback(
      new TestCallback(&log_, [&](const RequestReport&) { goneAtReport = gone.IsRaised(); }));
  ASSERT_EQ(FileSource::kResultPending, Read(file, list, callback));
  ASSERT_TRUE(host_.WaitForIssued(1));
  EXPECT_EQ(1, file.Release());
  EXPECT_FALSE(gone.IsRaised());
  host_.Complete(0);
  ASSERT_TRUE(log_.WaitFor(1));
  EXPECT_TRUE(gone.Wait());
  EXPECT_FALSE(goneAtReport);
}

// Throws out of every release but the last.
class ThrowingWhenReleased : public TestCallback {
 public:
  using TestCallback::TestCallback;
  long DecRef(const char* file, const char* function, unsigned long line) override {
    const long count = TestCallback::DecRef(file, function, line);
    if (count > 0) throw 5;
    return count;
  }

 protected:
  ~ThrowingWhenReleased() override = default;
};

TEST_F(AsyncHandlerReleaseTest, AReleaseThatThrowsIsLoggedAndTheNextRequestWorks) {
  TestMTInterface::Get().TakeDebugText();
  AutoRelease<BufferList> list(NewPageList());
  AutoRelease<ThrowingWhenReleased> callback(new ThrowingWhenReleased(&log_));
  AutoRelease<TestCallback> good(new TestCallback(&log_));
  ASSERT_EQ(FileSource::kResultPending, Read(file_, list, callback));
  ASSERT_TRUE(host_.WaitForIssued(1));
  host_.Complete(0);
  ASSERT_TRUE(host_.WaitUntilIdle());
  EXPECT_EQ("Unhandled Exception On The I/O Thread\n", TestMTInterface::Get().TakeDebugText());
  ASSERT_EQ(FileSource::kResultPending, Read(file_, list, good));
  ASSERT_TRUE(host_.WaitForIssued(2));
  host_.Complete(1);
  ASSERT_TRUE(log_.WaitFor(2));
  EXPECT_EQ(FileSource::kResultOK, log_.All()[1].result);
}

// A cache that cancels inside a callback holds its locks meanwhile.
TEST_F(AsyncHandlerReleaseTest, WhatIsCancelledInsideAReportScopeIsReportedWhenItCloses) {
  AutoRelease<BufferList> list(NewPageList());
  AutoRelease<BufferList> trigger(NewPageList());
  AutoRelease<TestCallback> plain(new TestCallback(&log_));
  std::size_t insideTheScope = 0;
  std::size_t behindTheScope = 0;
  AutoRelease<TestCallback> cancelling(new TestCallback(&log_, [&](const RequestReport&) {
    {
      ReportScope scope;
      handler_->Cancel(file_);
      EXPECT_FALSE(IsLocked(list));
      insideTheScope = log_.Count();
    }
    behindTheScope = log_.Count();
  }));
  ASSERT_EQ(FileSource::kResultPending, Read(file_, list, plain));
  ASSERT_EQ(FileSource::kResultPending, Read(other_, trigger, cancelling));
  ASSERT_TRUE(host_.WaitForIssued(2));
  host_.Complete(1);
  ASSERT_TRUE(log_.WaitFor(2));
  ASSERT_TRUE(host_.WaitUntilIdle());
  EXPECT_EQ(1U, insideTheScope);
  EXPECT_EQ(2U, behindTheScope);
}

}  // namespace
}  // namespace Orvane
