// What goes wrong at the edges: sources that are busy for ever, buffers that refuse, memory that
// runs out, transactions that are over.
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>

#include "AllocationCounter.h"
#include "BlockFixture.h"
#include "CacheFixture.h"
#include "MTInterface.h"

namespace Orvane {
namespace {

class CacheEdgesTest : public CacheFixture {};
class BlockEdgesTest : public BlockFixture {};

TEST_F(CacheEdgesTest, ASourceThatIsBusyForEverDoesNotStarveAnother) {
  MakeCache(8);
  MemorySource* const busy = MakeSource(MemorySource::Pattern(kBlock));
  MemorySource* const other = MakeSource(MemorySource::Pattern(kBlock, 2));
  busy->AnswerNext(CacheSource::kResultBusy, 1000000);
  other->AnswerNext(CacheSource::kResultBusy, 1);
  Target first(10);
  Target second(10);
  AutoRelease<ReportRecorder> firstReport(new ReportRecorder);
  AutoRelease<ReportRecorder> secondReport(new ReportRecorder);
  ASSERT_EQ(CacheSource::kResultPending,
            busy->ReadAsyncWithList(0, first.GetList(), firstReport, CacheSource::kDueASAP));
  ASSERT_EQ(CacheSource::kResultPending,
            other->ReadAsyncWithList(0, second.GetList(), secondReport,
                                     MTInterface::GetCurrentTimeMilli() + 10));
  EXPECT_EQ((Report{CacheSource::kResultOK, 10}), secondReport->GetOne());
  busy->Cancel();
  EXPECT_EQ((Report{CacheSource::kResultFailed, 0}), firstReport->GetOne());
}

class RefusingBuffer : public HeapBuffer {
 public:
  RefusingBuffer() : HeapBuffer(10) {}
  BufferResult_t CopyInto(void*, std::size_t, std::size_t, std::size_t* moved) override {
    *moved = 0;
    return kBufferLockFailed;
  }

 protected:
  ~RefusingBuffer() override = default;
};

TEST_F(CacheEdgesTest, ABufferThatDoesNotLockIsNoEndOfTheData) {
  MakeCache(4);
  MemorySource* const source = MakeSource(MemorySource::Pattern(25));
  Target first(10);
  Target last(10);
  AutoRelease<RefusingBuffer> refusing(new RefusingBuffer);
  AutoRelease<BufferList> list(new BufferList(3));
  list->AddBuffer(first.GetBuffer(), false);
  list->AddBuffer(refusing, false);
  list->AddBuffer(last.GetBuffer(), false);
  AutoRelease<ReportRecorder> report(new ReportRecorder);
  ASSERT_EQ(CacheSource::kResultPending, source->ReadAsyncWithList(0, list, report, 0));
  EXPECT_EQ((Report{CacheSource::kResultError, 0}), report->GetOne());
}

TEST_F(CacheEdgesTest, ATransactionThatIsOverIsRefusedUntilItIsSetUpAgain) {
  MakeCache(4);
  MemorySource* const source = MakeSource(MemorySource::Pattern(kBlock));
  Target target(10);
  AutoRelease<StatusRecorder> status(new StatusRecorder);
  AutoRelease<CacheTransaction> transaction(
      new CacheTransaction(source, 0, target.GetList(), status, 0));
  ASSERT_EQ(CacheSource::kResultPending, cache_->Read(transaction));
  ASSERT_TRUE(status->WaitFor(1));
  EXPECT_EQ(CacheSource::kResultError, cache_->Read(transaction));
  EXPECT_EQ(1u, status->GetReports().size());
  // It is not in use for that.
  EXPECT_TRUE(
      transaction->Setup(source, 10, target.GetList(), status, 0, MTThread::kPriorityNormal));
  EXPECT_EQ(CacheSource::kResultPending, cache_->Read(transaction));
  EXPECT_TRUE(status->WaitFor(2));
  EXPECT_TRUE(transaction->Cleanup());
}

// Lets memory run out when the second of several pre-reads is looked at.
class ArmingSource : public MemorySource {
 public:
  ArmingSource(const std::string& contents, long ordinal)
      : MemorySource(contents), ordinal_(static_cast<std::size_t>(ordinal)) {}
  bool SupportsPreReads() override {
    ++asked_;
    if (asked_ == 2) {
      failure_ = std::make_unique<AllocationFailure>(ordinal_);
    } else {
      failure_.reset();
    }
    return false;
  }

 protected:
  ~ArmingSource() override = default;

 private:
  const std::size_t ordinal_;
  int asked_ = 0;
  std::unique_ptr<AllocationFailure> failure_;
};

TEST_F(CacheEdgesTest, PreReadsThatFindNoMemoryLeaveNothing) {
  for (long ordinal = 1; ordinal < 8; ++ordinal) {
    MakeCache(8);
    AutoRelease<ArmingSource> source(new ArmingSource(MemorySource::Pattern(8 * kBlock), ordinal));
    ASSERT_TRUE(source->UseCache(cache_));
    source->PreRead(0, 4 * kBlock, CacheSource::kDueASAP, MTThread::kPriorityNormal);
    EXPECT_TRUE(Eventually([&] { return source->GetRefCount() == 1; })) << ordinal;
  }
}

// Holds up the thread that tells it.
class Gate : public CacheTransaction::StatusCallback {
 public:
  void Callback(CacheSource::Result_t, CacheTransaction*, std::uint64_t) override {
    std::unique_lock lock(mutex_);
    entered_ = true;
    changed_.notify_all();
    changed_.wait(lock, [this] { return open_; });
  }
  void WaitUntilEntered() {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [this] { return entered_; });
  }
  void Open() {
    std::lock_guard lock(mutex_);
    open_ = true;
    changed_.notify_all();
  }

 protected:
  ~Gate() override = default;

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  bool entered_ = false;
  bool open_ = false;
};

TEST_F(CacheEdgesTest, ACancelWaitsForTheReportsOfAnInvalidation) {
  MakeCache(4);
  MemorySource* const source = MakeSource(MemorySource::Pattern(kBlock));
  source->HoldRequests(true);
  cache_->CollectCacheStats(true);
  Target held(10);
  Target target(10);
  AutoRelease<Gate> gate(new Gate);
  AutoRelease<CacheTransaction> transaction(
      new CacheTransaction(source, 0, held.GetList(), gate, 0));
  ASSERT_EQ(CacheSource::kResultPending, cache_->Read(transaction));
  ASSERT_TRUE(source->WaitForHeld(1));
  AutoRelease<ReportRecorder> report(new ReportRecorder);
  source->ReadAsyncWithList(0, target.GetList(), report, 0);
  ASSERT_TRUE(Eventually([this] { return cache_->GetCacheHits() == 1; }));
  std::thread invalidation([&] { cache_->Invalidate(source, 0, 10); });
  gate->WaitUntilEntered();
  // It has taken both out of the block, and not failed the second one yet.
  std::size_t reportsSeen = 0;
  std::thread cancel([&] {
    source->Cancel();
    reportsSeen = report->GetReports().size();
  });
  ASSERT_TRUE(Eventually([&] { return source->GetCancelCount() > 0; }));
  gate->Open();
  cancel.join();
  invalidation.join();
  EXPECT_EQ(1u, reportsSeen);
}

// Attaches the next one whenever one is served: the queue never runs empty.
class Chain : public CacheTransaction::StatusCallback {
 public:
  void SetNext(std::function<void()> next) { next_ = std::move(next); }
  void Callback(CacheSource::Result_t, CacheTransaction*, std::uint64_t) override { next_(); }

 protected:
  ~Chain() override = default;

 private:
  std::function<void()> next_;
};

TEST_F(BlockEdgesTest, AQueueThatNeverRunsEmptyTakesNoMoreRoom) {
  constexpr std::size_t kTransactions = 2000;
  MakeList(2);
  MemorySource* const source = MakeSource(MemorySource::Pattern(kBlock));
  CacheBlock* const block = Fill(source, 0);
  ASSERT_NE(nullptr, block);
  Target target(4);
  AutoRelease<Chain> chain(new Chain);
  std::vector<CacheTransaction*> transactions;
  for (std::size_t k = 0; k < kTransactions; ++k) {
    transactions.push_back(new CacheTransaction(source, 0, target.GetList(), chain, 0));
  }
  std::size_t next = 0;
  std::size_t allocations = 0;
  const auto attach = [&] {
    if (next == kTransactions) return;
    // On another thread: the callback runs inside the lock of a transaction.
    std::thread([&] {
      CacheTransaction* const transaction = transactions[next++];
      bool alreadyServed = false;
      std::uint64_t cursor = 0;
      const std::size_t before = AllocationCounter::Count();
      EXPECT_EQ(block, list_->FindBlockToCopyOutOf(transaction, &alreadyServed, &cursor));
      allocations += AllocationCounter::Count() - before;
    }).join();
  };
  chain->SetNext(attach);
  for (int k = 0; k < 3; ++k) attach();
  block->ProcessPendingTransactions(nullptr);
  EXPECT_EQ(kTransactions, next);
  EXPECT_LT(allocations, 10u);
  for (CacheTransaction* const transaction : transactions) {
    transaction->Cleanup();
    transaction->DecRef("tests", "AQueueThatNeverRunsEmptyTakesNoMoreRoom", 0);
  }
}

}  // namespace
}  // namespace Orvane
