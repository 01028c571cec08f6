// What the tests of the asynchronous I/O handler share.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

#include "Buffer.h"
#include "BufferList.h"
#include "FakePort.h"
#include "OrvaneTest.h"
#include "PhysMemInterface.h"

namespace Orvane {

// Something that one thread announces and another waits for.
class Signal {
 public:
  void Raise() {
    const std::lock_guard<std::mutex> lock(mutex_);
    raised_ = true;
    changed_.notify_all();
  }
  // False after 20 seconds.
  bool Wait() { return WaitFor(std::chrono::seconds{20}); }
  bool WaitFor(std::chrono::milliseconds time) {
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, time, [this] { return raised_; });
  }
  bool IsRaised() { return WaitFor(std::chrono::milliseconds{0}); }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  bool raised_ = false;
};

// Work on a thread of its own; joined at the end.
class Background {
 public:
  explicit Background(std::function<void()> work)
      : thread_([this, work = std::move(work)] {
          work();
          done_.Raise();
        }) {}
  ~Background() { thread_.join(); }
  Background(const Background&) = delete;
  Background& operator=(const Background&) = delete;

  bool IsDone() { return done_.IsRaised(); }
  bool WaitUntilDone() { return done_.Wait(); }

 private:
  Signal done_;
  std::thread thread_;
};

struct RequestReport {
  FileSource::Result_t result;
  std::uint64_t offset;
  BufferList* list;
  std::uint64_t bytes;

  bool operator==(const RequestReport&) const = default;
};
inline void PrintTo(const RequestReport& report, std::ostream* out) {
  *out << "result " << report.result << " at " << report.offset << ", list " << report.list << ", "
       << report.bytes << " bytes";
}

// Reports in the order of their arrival.
class ReportLog {
 public:
  void Add(const RequestReport& report) {
    const std::lock_guard<std::mutex> lock(mutex_);
    reports_.push_back(report);
    changed_.notify_all();
  }
  std::vector<RequestReport> All() {
    const std::lock_guard<std::mutex> lock(mutex_);
    return reports_;
  }
  std::size_t Count() { return All().size(); }
  // False after 20 seconds.
  bool WaitFor(std::size_t count) {
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, std::chrono::seconds{20},
                             [&] { return reports_.size() >= count; });
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<RequestReport> reports_;
};

// Enters the report into the log, then does what the test wants done in the callback.
class TestCallback : public FileSource::ResultCallbackBufferList {
 public:
  using Action = std::function<void(const RequestReport&)>;

  explicit TestCallback(ReportLog* log, Action action = {})
      : log_(log), action_(std::move(action)) {}

  void Callback(FileSource::Result_t result, std::uint64_t offset, BufferList* list,
                std::uint64_t bytes) override {
    const RequestReport report{result, offset, list, bytes};
    log_->Add(report);
    if (action_) action_(report);
  }

 protected:
  ~TestCallback() override = default;

 private:
  ReportLog* const log_;
  const Action action_;
};

inline std::uint64_t PageSize() {
  return PhysMemInterface::GetPageSize();
}

// A list of one page-aligned buffer.
inline BufferList* NewPageList(std::size_t pages = 1) {
  return new BufferList(PhysMemInterface::Allocate(pages * PageSize()), /*adoptReference=*/true, 1);
}

// Whether every buffer of the list is locked; none may be locked where it answers false.
inline bool IsLocked(BufferList* list) {
  std::size_t locked = 0;
  for (std::size_t i = 0; i < list->GetNumberOfBuffers(); ++i) {
    if (list->GetBuffer(i)->GetLockState() == Buffer::kBufferLocked) ++locked;
  }
  EXPECT_TRUE(locked == 0 || locked == list->GetNumberOfBuffers());
  return locked != 0;
}

// A handler over a commanded host, two files, and one log for everything.
class AsyncHandlerTest : public OrvaneTest {
 protected:
  using Result_t = FileSource::Result_t;
  using Outcome = AsyncPort::Outcome;
  using Started = AsyncPort::Started;
  using OnCancel = FakeHost::OnCancel;

  static constexpr std::uint32_t kTimeoutMs = 10000;
  static constexpr std::uint64_t kTimeoutMicro = std::uint64_t{kTimeoutMs} * 1000;

  void SetUp() override {
    OrvaneTest::SetUp();
    file_ = new FakeFile;
    other_ = new FakeFile;
    handler_ = std::make_unique<AsyncHandler>(host_.Factory());
  }
  void TearDown() override {
    handler_.reset();
    blocker_.reset();
    EXPECT_EQ("", host_.GetViolations());
    EXPECT_EQ(0, file_->DecRef("tests", "TearDown", 0));
    EXPECT_EQ(0, other_->DecRef("tests", "TearDown", 0));
    OrvaneTest::TearDown();
  }

  Result_t Read(HostFile* file, BufferList* list, TestCallback* callback,
                std::uint64_t offset = 0) {
    return handler_->Submit(AsyncHandler::kRead, file, list, offset, kTimeoutMs, callback);
  }
  Result_t Write(HostFile* file, BufferList* list, TestCallback* callback,
                 std::uint64_t offset = 0) {
    return handler_->Submit(AsyncHandler::kWrite, file, list, offset, kTimeoutMs, callback);
  }

  // Keeps the worker in a callback of a third file until Resume; requests submitted meanwhile stay
  // queued. Takes the next place in the order of issues.
  void Block() {
    const std::size_t place = host_.CountIssued();
    blocker_ = std::make_unique<Blocker>();
    ASSERT_EQ(FileSource::kResultPending, Read(blocker_->file, blocker_->list, blocker_->callback));
    ASSERT_TRUE(host_.WaitForIssued(place + 1));
    host_.Complete(place);
    ASSERT_TRUE(blocker_->entered.Wait());
  }
  void Resume() { blocker_->resume.Raise(); }

  FakeHost host_;
  ReportLog log_;
  FakeFile* file_ = nullptr;
  FakeFile* other_ = nullptr;
  std::unique_ptr<AsyncHandler> handler_;

 private:
  struct Blocker {
    ReportLog log;
    Signal entered;
    Signal resume;
    AutoRelease<FakeFile> file{new FakeFile};
    AutoRelease<BufferList> list{NewPageList()};
    AutoRelease<TestCallback> callback{new TestCallback(&log, [this](const RequestReport&) {
      entered.Raise();
      EXPECT_TRUE(resume.Wait());
    })};
  };

  std::unique_ptr<Blocker> blocker_;
};

}  // namespace Orvane
