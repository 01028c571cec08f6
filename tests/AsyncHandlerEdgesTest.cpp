// What the asynchronous I/O handler meets seldom: hosts that refuse in the middle of a write, files
// on their way out, and code of the application that throws where none is expected.
#include <atomic>
#include <string>

#include "AsyncHandlerFixture.h"

namespace Orvane {
namespace {

class AsyncHandlerEdgesTest : public AsyncHandlerTest {};

// The page that was cut comes just as short again; then the host is asked for exactly the rest, and
// moves whole blocks only. A read is at the end of the data then; a write knows no such end.
TEST_F(AsyncHandlerEdgesTest, ARestThatIsRefusedEndsAReadAndFailsAWrite) {
  AutoRelease<BufferList> list(NewPageList(2));
  AutoRelease<TestCallback> callback(new TestCallback(&log_));
  std::size_t issued = 0;
  const auto cutTwiceAndRefuse = [&] {
    ASSERT_TRUE(host_.WaitForIssued(issued + 1));
    host_.Complete(issued, 100);
    ASSERT_TRUE(host_.WaitForIssued(issued + 2));
    host_.Complete(issued + 1, 100);
    ASSERT_TRUE(host_.WaitForIssued(issued + 3));
    ASSERT_EQ(100U, host_.GetIssued(issued + 2).offset);
    host_.Complete(issued + 2, Outcome::kRefused);
    issued += 3;
  };
  ASSERT_EQ(FileSource::kResultPending, Read(file_, list, callback));
  cutTwiceAndRefuse();
  ASSERT_TRUE(log_.WaitFor(1));
  ASSERT_EQ(FileSource::kResultPending, Write(file_, list, callback));
  cutTwiceAndRefuse();
  ASSERT_TRUE(log_.WaitFor(2));
  const std::vector<RequestReport> expected = {{FileSource::kResultPartial, 0, list, 100},
                                               {FileSource::kResultError, 0, list, 100}};
  EXPECT_EQ(expected, log_.All());
}

TEST_F(AsyncHandlerEdgesTest, AFileThatIsBeingClosedAcceptsNothingWithoutACallbackEither) {
  AutoRelease<BufferList> list(NewPageList());
  handler_->BeginClose(file_);
  EXPECT_EQ(FileSource::kResultNotSupported, Read(file_, list, nullptr));
  EXPECT_EQ(1, file_->GetRefCount());
  EXPECT_EQ(1, list->GetRefCount());
  EXPECT_FALSE(IsLocked(list));
  EXPECT_EQ(0U, handler_->GetNumberOfSlotsInUse());
}

// Throws, once, in the release that follows the report.
class ThrowingRelease : public TestCallback {
 public:
  using TestCallback::TestCallback;
  void Callback(FileSource::Result_t result, std::uint64_t offset, BufferList* list,
                std::uint64_t bytes) override {
    TestCallback::Callback(result, offset, list, bytes);
    throws_ = true;
  }
  long DecRef(const char* file, const char* function, unsigned long line) override {
    const bool throws = throws_.exchange(false);
    const long count = TestCallback::DecRef(file, function, line);
    if (throws) throw 1;
    return count;
  }

 protected:
  ~ThrowingRelease() override = default;

 private:
  std::atomic<bool> throws_{false};
};

TEST_F(AsyncHandlerEdgesTest, AReleaseThatThrowsIsLoggedAndTheNextRequestWorks) {
  AutoRelease<BufferList> list(NewPageList());
  AutoRelease<ThrowingRelease> throwing(new ThrowingRelease(&log_));
  AutoRelease<TestCallback> callback(new TestCallback(&log_));
  ASSERT_EQ(FileSource::kResultPending, Read(file_, list, throwing));
  ASSERT_TRUE(host_.WaitForIssued(1));
  host_.Complete(0);
  ASSERT_TRUE(log_.WaitFor(1));
  ASSERT_TRUE(host_.WaitUntilIdle());
  EXPECT_NE(std::string::npos, TestMTInterface::Get().TakeDebugText().find("On The I/O Thread"));
  ASSERT_EQ(FileSource::kResultPending, Read(file_, list, callback));
  ASSERT_TRUE(host_.WaitForIssued(2));
  host_.Complete(1);
  ASSERT_TRUE(log_.WaitFor(2));
  ASSERT_TRUE(host_.WaitUntilIdle());
  EXPECT_EQ(1, throwing->GetRefCount());
  EXPECT_EQ(1, list->GetRefCount());
  EXPECT_EQ(0U, handler_->GetNumberOfSlotsInUse());
}

}  // namespace
}  // namespace Orvane
