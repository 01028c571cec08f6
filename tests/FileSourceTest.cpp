// How a file source turns its operations into one list operation, over sources of the test's own.
#include "FileSource.h"

#include <atomic>
#include <functional>
#include <limits>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "AsyncHandlerFixture.h"
#include "Cache.h"

namespace Orvane {
namespace {

using Result_t = FileSource::Result_t;

constexpr std::uint64_t kUnwritten = 0xDEAD;
constexpr Result_t kAllFailures[] = {FileSource::kResultBusy,       FileSource::kResultError,
                                     FileSource::kResultUnknown,    FileSource::kResultNotSupported,
                                     FileSource::kResultOutOfRange, FileSource::kResultFailed,
                                     FileSource::kResultNone,       FileSource::kResultOK,
                                     FileSource::kResultPartial,    FileSource::kResultLockFailed};

// Hands every list operation to the test.
class CustomSource : public FileSource {
 public:
  struct Call {
    bool write;
    std::uint64_t offset;
    BufferList* list;
    ResultCallbackBufferList* callback;
    std::uint32_t dueTime;
  };
  using Answer = std::function<Result_t(const Call&)>;

  explicit CustomSource(Answer answer) : answer_(std::move(answer)) {}

  bool CanGatherReads() override { return true; }
  Result_t ReadAsyncWithListNonCached(std::uint64_t offset, BufferList* list,
                                      ResultCallbackBufferList* callback,
                                      std::uint32_t dueTime) override {
    ++calls;
    return answer_({false, offset, list, callback, dueTime});
  }
  Result_t WriteAsyncWithListNonCached(std::uint64_t offset, BufferList* list,
                                       ResultCallbackBufferList* callback,
                                       std::uint32_t dueTime) override {
    ++calls;
    return answer_({true, offset, list, callback, dueTime});
  }
  void PreReadNonCached(std::uint64_t, std::uint64_t, std::uint32_t,
                        MTThread::MTPriority) override {
    ++preReads;
  }
  void CancelNonCached() override { ++cancels; }

  using FileSource::CancelAllTransactions;
  using FileSource::PreReadTransaction;
  using FileSource::ReadTransaction;
  using FileSource::SupportsPreReadTransactions;

  int calls = 0;
  int preReads = 0;
  int cancels = 0;

 protected:
  ~CustomSource() override = default;

 private:
  const Answer answer_;
};

class BufferCallback : public FileSource::ResultCallbackBuffer {
 public:
  struct BufferReport {
    Result_t result;
    std::uint64_t offset;
    Buffer* buffer;
    std::uint64_t bytes;

    bool operator==(const BufferReport&) const = default;
  };
  explicit BufferCallback(std::vector<BufferReport>* reports) : reports_(reports) {}

  void Callback(Result_t result, std::uint64_t offset, Buffer* buffer,
                std::uint64_t bytes) override {
    reports_->push_back({result, offset, buffer, bytes});
  }

 protected:
  ~BufferCallback() override = default;

 private:
  std::vector<BufferReport>* const reports_;
};

class FileSourceTest : public OrvaneTest {
 protected:
  static CustomSource::Answer Always(Result_t result) {
    return [result](const CustomSource::Call&) { return result; };
  }
  // Completes before the start has returned.
  static CustomSource::Answer Inline(Result_t result, std::uint64_t bytes) {
    return [=](const CustomSource::Call& call) {
      if (call.callback) call.callback->Callback(result, call.offset, call.list, bytes);
      return FileSource::kResultPending;
    };
  }
};

// Synchronous operations.

TEST_F(FileSourceTest, ASourceThatCompletesBeforeItReturnsIsServed) {
  AutoRelease<Buffer> buffer(new HeapBuffer(100));
  AutoRelease<BufferList> list(NewPageList());
  AutoRelease<CustomSource> source(new CustomSource(Inline(FileSource::kResultPartial, 42)));
  std::uint64_t bytes = kUnwritten;
  EXPECT_EQ(FileSource::kResultPartial, source->Read(7, buffer, &bytes));
  EXPECT_EQ(42U, bytes);
  EXPECT_EQ(FileSource::kResultPartial, source->Write(7, buffer, &bytes));
  EXPECT_EQ(FileSource::kResultPartial, source->ReadWithList(7, list, &bytes));
  EXPECT_EQ(FileSource::kResultPartial, source->WriteWithList(7, list, nullptr));
  EXPECT_EQ(4, source->calls);
  EXPECT_EQ(1, buffer->GetRefCount());
  EXPECT_EQ(1, list->GetRefCount());
}

TEST_F(FileSourceTest, ASynchronousCallWaitsForItsCompletion) {
  AutoRelease<Buffer> buffer(new HeapBuffer(100));
  std::unique_ptr<Background> completion;
  AutoRelease<CustomSource> source(new CustomSource([&](const CustomSource::Call& call) {
    call.callback->AddRef("tests", "start", 0);
    completion = std::make_unique<Background>([call] {
      MTInterface::Sleep(20);
      call.callback->Callback(FileSource::kResultOK, call.offset, call.list, 100);
      call.callback->DecRef("tests", "completion", 0);
    });
    return FileSource::kResultPending;
  }));
  std::uint64_t bytes = kUnwritten;
  EXPECT_EQ(FileSource::kResultOK, source->Read(0, buffer, &bytes));
  EXPECT_EQ(100U, bytes);
  completion.reset();
  EXPECT_EQ(1, buffer->GetRefCount());
}

TEST_F(FileSourceTest, ASynchronousCallPassesOnItsArgumentsAsOneList) {
  AutoRelease<Buffer> buffer(new HeapBuffer(100));
  std::vector<CustomSource::Call> calls;
  Buffer* inList = nullptr;
  std::size_t buffersInList = 0;
  AutoRelease<CustomSource> source(new CustomSource([&](const CustomSource::Call& call) {
    calls.push_back(call);
    inList = call.list->GetBuffer(0);
    buffersInList = call.list->GetNumberOfBuffers();
    return FileSource::kResultBusy;
  }));
  source->Read(0x123456789, buffer, nullptr);
  source->Write(std::numeric_limits<std::uint64_t>::max(), buffer, nullptr);
  ASSERT_EQ(2U, calls.size());
  EXPECT_FALSE(calls[0].write);
  EXPECT_EQ(0x123456789U, calls[0].offset);
  EXPECT_EQ(FileSource::kDueASAP, calls[0].dueTime);
  EXPECT_TRUE(calls[1].write);
  EXPECT_EQ(std::numeric_limits<std::uint64_t>::max(), calls[1].offset);
  EXPECT_EQ(buffer.Get(), inList);
  EXPECT_EQ(1U, buffersInList);
}

TEST_F(FileSourceTest, ASynchronousCallThatFailsAtOnceLeavesTheByteCountAlone) {
  AutoRelease<Buffer> buffer(new HeapBuffer(100));
  AutoRelease<BufferList> list(NewPageList());
  for (const Result_t failure : kAllFailures) {
    AutoRelease<CustomSource> source(new CustomSource(Always(failure)));
    std::uint64_t bytes = kUnwritten;
    EXPECT_EQ(failure, source->Read(0, buffer, &bytes));
    EXPECT_EQ(failure, source->Write(0, buffer, &bytes));
    EXPECT_EQ(failure, source->ReadWithList(0, list, &bytes));
    EXPECT_EQ(failure, source->WriteWithList(0, list, &bytes));
    EXPECT_EQ(kUnwritten, bytes);
    EXPECT_EQ(1, buffer->GetRefCount());
    EXPECT_EQ(1, list->GetRefCount());
  }
}

TEST_F(FileSourceTest, AFinalPendingBecomesAnError) {
  AutoRelease<Buffer> buffer(new HeapBuffer(100));
  AutoRelease<CustomSource> source(new CustomSource(Inline(FileSource::kResultPending, 5)));
  std::uint64_t bytes = kUnwritten;
  EXPECT_EQ(FileSource::kResultError, source->Read(0, buffer, &bytes));
  EXPECT_EQ(5U, bytes);
}

TEST_F(FileSourceTest, ASynchronousCallWithoutASemaphoreIsAnErrorAndStartsNothing) {
  AutoRelease<Buffer> buffer(new HeapBuffer(100));
  AutoRelease<CustomSource> source(new CustomSource(Inline(FileSource::kResultOK, 100)));
  std::uint64_t bytes = kUnwritten;
  // The reference count and the lock of the shared object, then the semaphore.
  TestMTInterface::Get().FailCreation(3, TestMTInterface::kNull);
  EXPECT_EQ(FileSource::kResultError, source->Read(0, buffer, &bytes));
  TestMTInterface::Get().FailCreation(0, TestMTInterface::kNull);
  EXPECT_EQ(0, source->calls);
  EXPECT_EQ(1, buffer->GetRefCount());
}

// Null arguments.

TEST_F(FileSourceTest, WithoutABufferOrListNothingIsStarted) {
  AutoRelease<CustomSource> source(new CustomSource(Inline(FileSource::kResultOK, 100)));
  ReportLog log;
  AutoRelease<TestCallback> callback(new TestCallback(&log));
  std::uint64_t bytes = kUnwritten;
  EXPECT_EQ(FileSource::kResultError, source->Read(0, nullptr, &bytes));
  EXPECT_EQ(FileSource::kResultError, source->Write(0, nullptr, &bytes));
  EXPECT_EQ(FileSource::kResultError, source->ReadWithList(0, nullptr, &bytes));
  EXPECT_EQ(FileSource::kResultError, source->WriteWithList(0, nullptr, &bytes));
  EXPECT_EQ(FileSource::kResultError, source->ReadAsync(0, nullptr, nullptr, 0));
  EXPECT_EQ(FileSource::kResultError, source->WriteAsync(0, nullptr, nullptr, 0));
  EXPECT_EQ(FileSource::kResultError, source->ReadAsyncWithList(0, nullptr, callback, 0));
  EXPECT_EQ(FileSource::kResultError, source->WriteAsyncWithList(0, nullptr, callback, 0));
  EXPECT_EQ(0, source->calls);
  EXPECT_EQ(kUnwritten, bytes);
  EXPECT_EQ(1, callback->GetRefCount());
  EXPECT_EQ(0U, log.Count());
}

TEST_F(FileSourceTest, WithoutABufferTheCallbackIsReleasedAsWithAnyFailure) {
  AutoRelease<CustomSource> source(new CustomSource(Inline(FileSource::kResultOK, 100)));
  std::vector<BufferCallback::BufferReport> reports;
  AutoRelease<BufferCallback> callback(new BufferCallback(&reports));
  callback->AddRef("tests", "handed over", 0);
  EXPECT_EQ(FileSource::kResultError, source->ReadAsync(0, nullptr, callback, 0));
  EXPECT_EQ(1, callback->GetRefCount());
  callback->AddRef("tests", "handed over", 0);
  EXPECT_EQ(FileSource::kResultError, source->WriteAsync(0, nullptr, callback, 0));
  EXPECT_EQ(1, callback->GetRefCount());
  EXPECT_TRUE(reports.empty());
}

// Asynchronous operations.

TEST_F(FileSourceTest, AReportOfOneBufferNamesTheBuffer) {
  AutoRelease<Buffer> buffer(new HeapBuffer(100));
  AutoRelease<CustomSource> source(new CustomSource(Inline(FileSource::kResultPartial, 42)));
  std::vector<BufferCallback::BufferReport> reports;
  AutoRelease<BufferCallback> callback(new BufferCallback(&reports));
  EXPECT_EQ(FileSource::kResultPending, source->ReadAsync(7, buffer, callback, 0));
  EXPECT_EQ(FileSource::kResultPending, source->WriteAsync(8, buffer, callback, 0));
  const std::vector<BufferCallback::BufferReport> expected{
      {FileSource::kResultPartial, 7, buffer, 42}, {FileSource::kResultPartial, 8, buffer, 42}};
  EXPECT_EQ(expected, reports);
  EXPECT_EQ(1, callback->GetRefCount());
  EXPECT_EQ(1, buffer->GetRefCount());
}

TEST_F(FileSourceTest, TheDueTimeIsPassedOn) {
  AutoRelease<Buffer> buffer(new HeapBuffer(100));
  AutoRelease<BufferList> list(NewPageList());
  std::vector<std::uint32_t> dueTimes;
  AutoRelease<CustomSource> source(new CustomSource([&](const CustomSource::Call& call) {
    dueTimes.push_back(call.dueTime);
    return FileSource::kResultBusy;
  }));
  source->ReadAsync(0, buffer, nullptr, 1);
  source->WriteAsync(0, buffer, nullptr, 2);
  source->ReadAsyncWithList(0, list, nullptr, 3);
  source->WriteAsyncWithList(0, list, nullptr, 0xFFFFFFFF);
  EXPECT_EQ((std::vector<std::uint32_t>{1, 2, 3, 0xFFFFFFFF}), dueTimes);
}

TEST_F(FileSourceTest, AStartThatFailsReleasesTheCallersCallbackOnce) {
  AutoRelease<Buffer> buffer(new HeapBuffer(100));
  for (const Result_t failure : kAllFailures) {
    AutoRelease<CustomSource> source(new CustomSource(Always(failure)));
    std::vector<BufferCallback::BufferReport> reports;
    AutoRelease<BufferCallback> callback(new BufferCallback(&reports));
    callback->AddRef("tests", "handed over", 0);
    EXPECT_EQ(failure, source->ReadAsync(0, buffer, callback, 0));
    EXPECT_EQ(1, callback->GetRefCount());
    callback->AddRef("tests", "handed over", 0);
    EXPECT_EQ(failure, source->WriteAsync(0, buffer, callback, 0));
    EXPECT_EQ(1, callback->GetRefCount());
    EXPECT_EQ(1, buffer->GetRefCount());
    EXPECT_TRUE(reports.empty());
  }
}

TEST_F(FileSourceTest, ACallbackWhoseOnlyReferenceIsHandedOverGoesWithTheFailure) {
  AutoRelease<Buffer> buffer(new HeapBuffer(100));
  AutoRelease<CustomSource> source(new CustomSource(Always(FileSource::kResultBusy)));
  std::vector<BufferCallback::BufferReport> reports;
  EXPECT_EQ(FileSource::kResultBusy, source->ReadAsync(0, buffer, new BufferCallback(&reports), 0));
  EXPECT_EQ(1, buffer->GetRefCount());
}

TEST_F(FileSourceTest, ListOperationsThatFailReleaseNothing) {
  AutoRelease<BufferList> list(NewPageList());
  ReportLog log;
  AutoRelease<TestCallback> callback(new TestCallback(&log));
  for (const Result_t failure : kAllFailures) {
    AutoRelease<CustomSource> source(new CustomSource(Always(failure)));
    EXPECT_EQ(failure, source->ReadAsyncWithList(0, list, callback, 0));
    EXPECT_EQ(failure, source->WriteAsyncWithList(0, list, callback, 0));
  }
  EXPECT_EQ(1, callback->GetRefCount());
  EXPECT_EQ(1, list->GetRefCount());
  EXPECT_EQ(0U, log.Count());
}

TEST_F(FileSourceTest, WithoutACallbackAnAsynchronousCallLeavesNothing) {
  AutoRelease<Buffer> buffer(new HeapBuffer(100));
  AutoRelease<CustomSource> completing(new CustomSource(Inline(FileSource::kResultOK, 100)));
  AutoRelease<CustomSource> failing(new CustomSource(Always(FileSource::kResultBusy)));
  EXPECT_EQ(FileSource::kResultPending, completing->ReadAsync(0, buffer, nullptr, 0));
  EXPECT_EQ(FileSource::kResultPending, completing->WriteAsync(0, buffer, nullptr, 0));
  EXPECT_EQ(FileSource::kResultBusy, failing->ReadAsync(0, buffer, nullptr, 0));
  EXPECT_EQ(FileSource::kResultBusy, failing->WriteAsync(0, buffer, nullptr, 0));
  EXPECT_EQ(1, buffer->GetRefCount());
}

TEST_F(FileSourceTest, ACallbackThatThrowsLeavesNothing) {
  class Throwing : public FileSource::ResultCallbackBuffer {
   public:
    void Callback(Result_t, std::uint64_t, Buffer*, std::uint64_t) override { throw 5; }

   protected:
    ~Throwing() override = default;
  };
  AutoRelease<Buffer> buffer(new HeapBuffer(100));
  AutoRelease<CustomSource> source(new CustomSource(Inline(FileSource::kResultOK, 100)));
  AutoRelease<Throwing> callback(new Throwing);
  TestMTInterface::Get().TakeDebugText();
  EXPECT_EQ(FileSource::kResultPending, source->ReadAsync(0, buffer, callback, 0));
  EXPECT_NE(std::string::npos, TestMTInterface::Get().TakeDebugText().find("Exception"));
  EXPECT_EQ(1, callback->GetRefCount());
  EXPECT_EQ(1, buffer->GetRefCount());
}

TEST_F(FileSourceTest, ASourceThatThrowsLeavesNothing) {
  AutoRelease<Buffer> buffer(new HeapBuffer(100));
  AutoRelease<CustomSource> source(
      new CustomSource([](const CustomSource::Call&) -> FileSource::Result_t { throw 5; }));
  std::vector<BufferCallback::BufferReport> reports;
  AutoRelease<BufferCallback> callback(new BufferCallback(&reports));
  EXPECT_THROW(source->ReadAsync(0, buffer, callback, 0), int);
  EXPECT_THROW(source->WriteAsync(0, buffer, callback, 0), int);
  EXPECT_EQ(1, callback->GetRefCount());
  EXPECT_EQ(1, buffer->GetRefCount());
  EXPECT_TRUE(reports.empty());
}

// Other operations.

TEST_F(FileSourceTest, CancelReachesTheSource) {
  AutoRelease<CustomSource> source(new CustomSource(Always(FileSource::kResultBusy)));
  source->Cancel();
  EXPECT_EQ(1, source->cancels);
  source->CancelAllTransactions();
  EXPECT_EQ(2, source->cancels);
}

TEST_F(FileSourceTest, WithoutACachePreReadsGoToTheSource) {
  AutoRelease<CustomSource> source(new CustomSource(Always(FileSource::kResultBusy)));
  source->PreRead(0, 100, 0, MTThread::kPriorityNormal);
  EXPECT_EQ(1, source->preReads);
  EXPECT_FALSE(source->SupportsPreReads());
  EXPECT_FALSE(source->SupportsPreReadTransactions());
  source->PreReadTransaction(nullptr);
  EXPECT_EQ(1, source->preReads);
}

TEST_F(FileSourceTest, ASourceWithoutTransactionsRefusesThem) {
  AutoRelease<CustomSource> source(new CustomSource(Always(FileSource::kResultBusy)));
  EXPECT_EQ(FileSource::kResultNotSupported, source->ReadTransaction(nullptr));
}

// With a cache, which accepts no read.

class FileSourceWithCacheTest : public FileSourceTest {
 protected:
  void SetUp() override {
    FileSourceTest::SetUp();
    cache_ = new Cache(nullptr);
    source_ = new CustomSource(Inline(FileSource::kResultOK, 100));
    ASSERT_TRUE(source_->UseCache(cache_));
  }
  void TearDown() override {
    EXPECT_EQ(0, source_->DecRef("tests", "TearDown", 0));
    EXPECT_EQ(0, cache_->DecRef("tests", "TearDown", 0));
    FileSourceTest::TearDown();
  }

  Cache* cache_ = nullptr;
  CustomSource* source_ = nullptr;
};

TEST_F(FileSourceWithCacheTest, AReadIsNotSupportedAndTheCallbackIsNotCalled) {
  AutoRelease<BufferList> list(NewPageList());
  ReportLog log;
  AutoRelease<TestCallback> callback(new TestCallback(&log));
  EXPECT_EQ(FileSource::kResultNotSupported, source_->ReadAsyncWithList(0, list, callback, 0));
  EXPECT_EQ(0, source_->calls);
  EXPECT_EQ(0U, log.Count());
  EXPECT_EQ(1, callback->GetRefCount());
  EXPECT_EQ(1, list->GetRefCount());
}

TEST_F(FileSourceWithCacheTest, AReadWithoutACallbackIsNotSupported) {
  AutoRelease<BufferList> list(NewPageList());
  EXPECT_EQ(FileSource::kResultNotSupported, source_->ReadAsyncWithList(0, list, nullptr, 0));
}

TEST_F(FileSourceWithCacheTest, EveryOtherReadIsNotSupportedEither) {
  AutoRelease<Buffer> buffer(new HeapBuffer(100));
  AutoRelease<BufferList> list(NewPageList());
  std::vector<BufferCallback::BufferReport> reports;
  AutoRelease<BufferCallback> callback(new BufferCallback(&reports));
  callback->AddRef("tests", "handed over", 0);
  std::uint64_t bytes = kUnwritten;
  EXPECT_EQ(FileSource::kResultNotSupported, source_->Read(0, buffer, &bytes));
  EXPECT_EQ(FileSource::kResultNotSupported, source_->ReadWithList(0, list, &bytes));
  EXPECT_EQ(FileSource::kResultNotSupported, source_->ReadAsync(0, buffer, callback, 0));
  EXPECT_EQ(kUnwritten, bytes);
  EXPECT_EQ(1, callback->GetRefCount());
  EXPECT_EQ(1, buffer->GetRefCount());
  EXPECT_EQ(0, source_->calls);
  EXPECT_TRUE(reports.empty());
}

TEST_F(FileSourceWithCacheTest, WritesAndCancelsWorkAsWithoutOne) {
  AutoRelease<Buffer> buffer(new HeapBuffer(100));
  std::uint64_t bytes = kUnwritten;
  EXPECT_EQ(FileSource::kResultOK, source_->Write(0, buffer, &bytes));
  EXPECT_EQ(100U, bytes);
  source_->Cancel();
  EXPECT_EQ(1, source_->cancels);
  source_->PreRead(0, 100, 0, MTThread::kPriorityNormal);
  EXPECT_EQ(0, source_->preReads);
}

// Synchronous calls over the asynchronous handler.

class HandlerSource : public FileSource {
 public:
  HandlerSource(AsyncHandler* handler, HostFile* file) : handler_(handler), file_(file) {}

  bool CanGatherReads() override { return true; }
  Result_t ReadAsyncWithListNonCached(std::uint64_t offset, BufferList* list,
                                      ResultCallbackBufferList* callback, std::uint32_t) override {
    return handler_->Submit(AsyncHandler::kRead, file_, list, offset, 10000, callback);
  }
  Result_t WriteAsyncWithListNonCached(std::uint64_t offset, BufferList* list,
                                       ResultCallbackBufferList* callback, std::uint32_t) override {
    return handler_->Submit(AsyncHandler::kWrite, file_, list, offset, 10000, callback);
  }
  void CancelNonCached() override { handler_->Cancel(file_); }

 protected:
  ~HandlerSource() override = default;

 private:
  AsyncHandler* const handler_;
  HostFile* const file_;
};

// A list whose references the I/O thread gives back slowly: it waits a while for the caller to
// return, who must not. The rest of the report has the same chance to be late.
class SlowList : public BufferList {
 public:
  SlowList(Buffer* buffer, Signal* returned, std::atomic<bool>* overtaken)
      : BufferList(buffer, /*adoptReference=*/false, 1),
        returned_(returned),
        overtaken_(overtaken),
        caller_(MTInterface::GetCurrentThreadID()) {}

  long DecRef(const char* file, const char* function, unsigned long line) override {
    if (MTInterface::GetCurrentThreadID() != caller_ &&
        returned_->WaitFor(std::chrono::milliseconds(50))) {
      *overtaken_ = true;
    }
    return BufferList::DecRef(file, function, line);
  }

 protected:
  ~SlowList() override = default;

 private:
  Signal* const returned_;
  std::atomic<bool>* const overtaken_;
  const std::int64_t caller_;
};

class SynchronousCallTest : public AsyncHandlerTest {};

TEST_F(SynchronousCallTest, NothingIsLeftWhenTheCallReturns) {
  constexpr int kRounds = 10000;
  const unsigned seed = std::random_device{}();
  RecordProperty("seed", std::to_string(seed));
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::minstd_rand workerRandom(seed);
  std::minstd_rand callerRandom(seed + 1);
  const auto dawdle = [](std::minstd_rand* random) {
    const auto turns = (*random)() % 8;
    for (unsigned i = 0; i < turns; ++i) std::this_thread::yield();
  };
  host_.CompleteEverything([&] { dawdle(&workerRandom); });
  AutoRelease<HandlerSource> source(new HandlerSource(handler_.get(), file_));
  AutoRelease<BufferList> list(NewPageList());
  Buffer* const buffer = list->GetBuffer(0);
  const auto look = [&](Result_t result, std::uint64_t bytes) {
    EXPECT_EQ(FileSource::kResultOK, result);
    EXPECT_EQ(PageSize(), bytes);
    EXPECT_EQ(Buffer::kBufferUnlocked, buffer->GetLockState());
    EXPECT_EQ(1, buffer->GetRefCount());
    EXPECT_EQ(1, list->GetRefCount());
    EXPECT_EQ(1, file_->GetRefCount());
    EXPECT_EQ(0U, handler_->GetNumberOfSlotsInUse());
  };
  for (int i = 0; i < kRounds && !HasFailure(); ++i) {
    std::uint64_t bytes = 0;
    const Result_t read = source->Read(0, buffer, &bytes);
    look(read, bytes);
    dawdle(&callerRandom);
    const Result_t written = source->WriteWithList(0, list, &bytes);
    look(written, bytes);
  }
}

TEST_F(SynchronousCallTest, TheCallerIsWokenWhenTheReportIsOver) {
  AutoRelease<Buffer> buffer(PhysMemInterface::Allocate(PageSize()));
  AutoRelease<HandlerSource> source(new HandlerSource(handler_.get(), file_));
  host_.CompleteEverything();
  Signal returned;
  std::atomic<bool> overtaken{false};
  AutoRelease<SlowList> list(new SlowList(buffer, &returned, &overtaken));
  EXPECT_EQ(FileSource::kResultOK, source->ReadWithList(0, list, nullptr));
  returned.Raise();
  ASSERT_TRUE(host_.WaitUntilIdle());
  EXPECT_FALSE(overtaken);
}

TEST_F(SynchronousCallTest, ACancelEndsTheCall) {
  AutoRelease<HandlerSource> source(new HandlerSource(handler_.get(), file_));
  AutoRelease<Buffer> buffer(PhysMemInterface::Allocate(PageSize()));
  Result_t result = FileSource::kResultNone;
  std::uint64_t bytes = kUnwritten;
  {
    Background reader([&] { result = source->Read(0, buffer, &bytes); });
    EXPECT_TRUE(host_.WaitForIssued(1));
    source->Cancel();
  }
  EXPECT_EQ(FileSource::kResultFailed, result);
  EXPECT_EQ(0U, bytes);
  EXPECT_EQ(1, buffer->GetRefCount());
  EXPECT_EQ(Buffer::kBufferUnlocked, buffer->GetLockState());
}

TEST_F(SynchronousCallTest, OnTheIoThreadItIsAnErrorAtOnce) {
  AutoRelease<HandlerSource> source(new HandlerSource(handler_.get(), other_));
  AutoRelease<Buffer> buffer(PhysMemInterface::Allocate(PageSize()));
  AutoRelease<BufferList> second(NewPageList());
  AutoRelease<BufferList> list(NewPageList());
  std::vector<Result_t> results;
  std::uint64_t bytes = kUnwritten;
  AutoRelease<TestCallback> callback(new TestCallback(&log_, [&](const RequestReport&) {
    results.push_back(source->Read(0, buffer, &bytes));
    results.push_back(source->Write(0, buffer, &bytes));
    results.push_back(source->ReadWithList(0, second, &bytes));
    results.push_back(source->WriteWithList(0, second, &bytes));
  }));
  ASSERT_EQ(FileSource::kResultPending, Read(file_, list, callback));
  ASSERT_TRUE(host_.WaitForIssued(1));
  host_.Complete(0);
  ASSERT_TRUE(log_.WaitFor(1));
  ASSERT_TRUE(host_.WaitUntilIdle());
  EXPECT_EQ(std::vector<Result_t>(4, FileSource::kResultError), results);
  EXPECT_EQ(kUnwritten, bytes);
  EXPECT_EQ(1U, host_.CountIssued());
}

TEST_F(SynchronousCallTest, AnAsynchronousCallIsPassedOnWithItsBuffer) {
  AutoRelease<HandlerSource> source(new HandlerSource(handler_.get(), file_));
  AutoRelease<Buffer> buffer(PhysMemInterface::Allocate(PageSize()));
  std::vector<BufferCallback::BufferReport> reports;
  AutoRelease<BufferCallback> callback(new BufferCallback(&reports));
  ASSERT_EQ(FileSource::kResultPending, source->ReadAsync(PageSize(), buffer, callback, 0));
  ASSERT_TRUE(host_.WaitForIssued(1));
  host_.Complete(0);
  ASSERT_TRUE(host_.WaitUntilIdle());
  const BufferCallback::BufferReport expected{FileSource::kResultOK, PageSize(), buffer,
                                              PageSize()};
  EXPECT_EQ(std::vector<BufferCallback::BufferReport>{expected}, reports);
  EXPECT_EQ(1, callback->GetRefCount());
  EXPECT_EQ(1, buffer->GetRefCount());
}

}  // namespace
}  // namespace Orvane
