#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <random>
#include <thread>
#include <utility>

#include "BlockFixture.h"
#include "Cache/TransactionInternals.h"

namespace Orvane {
namespace {

constexpr unsigned kSeed = 20260411;

// Blocks that were claimed and wait for their source read.
class Fills {
 public:
  void Add(CacheBlock* block) {
    std::lock_guard lock(mutex_);
    waiting_.push_back(block);
    changed_.notify_one();
  }
  // Null when there are none and will be none.
  CacheBlock* Take() {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [this] { return isOver_ || !waiting_.empty(); });
    if (waiting_.empty()) return nullptr;
    CacheBlock* const block = waiting_.front();
    waiting_.pop_front();
    return block;
  }
  void End() {
    std::lock_guard lock(mutex_);
    isOver_ = true;
    changed_.notify_all();
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::deque<CacheBlock*> waiting_;
  bool isOver_ = false;
};

// Small hits of several threads share nothing but what they read.
TEST_F(BlockFixture, SmallHitsDoNotWaitForTheListsLock) {
  CacheBlockList* const list = MakeList(8);
  MemorySource* const source = MakeSource(MemorySource::Pattern(4 * kBlock));
  for (std::uint64_t k = 0; k < 4; ++k) ASSERT_NE(nullptr, Fill(source, k * kBlock));
  const std::uint32_t key = source->GetSourceKey();
  std::atomic<bool> isOver{false};
  std::thread reader;
  {
    CacheBlockList::Lock lock(list);
    reader = std::thread([&] {
      EXPECT_TRUE(list->HoldsResident(key, 10, 4 * kBlock - 10));
      CacheBlock* const block = list->FindBlock(key, kBlock);
      ASSERT_NE(nullptr, block);
      EXPECT_TRUE(block->CopyResident(key, kBlock, 20, CacheSource::kDueASAP,
                                      [](const char*) { return true; }));
      isOver = true;
    });
    EXPECT_TRUE(Eventually([&] { return isOver.load(); }));
  }
  reader.join();
}

// Runs code of the test in the middle of a claim, where its key is asked for.
class ClaimingSource : public MemorySource {
 public:
  using MemorySource::MemorySource;
  void OnNextKey(std::function<void()> hook) { hook_ = std::move(hook); }
  std::uint32_t GetSourceKey() override {
    if (const std::function<void()> hook = std::exchange(hook_, nullptr)) hook();
    return MemorySource::GetSourceKey();
  }

 protected:
  ~ClaimingSource() override = default;

 private:
  std::function<void()> hook_;
};

TEST_F(BlockFixture, AFreeBlockThatIsBeingClaimedGetsNoHolder) {
  CacheBlockList* const list = MakeList(1);
  MemorySource* const source = MakeSource(MemorySource::Pattern(kBlock));
  ASSERT_NE(nullptr, Fill(source, 0));
  const std::uint32_t key = source->GetSourceKey();
  AutoRelease<ClaimingSource> claiming(new ClaimingSource(MemorySource::Pattern(kBlock, 2)));
  Reader reader(claiming, 0, 10);
  std::size_t held = 0;
  std::atomic<bool> hasStarted{false};
  std::atomic<bool> isOver{false};
  std::thread holder;
  claiming->OnNextKey([&] {
    holder = std::thread([&] {
      hasStarted = true;
      CacheBlockList::ResidentPiece piece{};
      held = list->LockResident(key, 0, kBlock, &piece, 1);
      if (held > 0) piece.block->Unlock(CacheSource::kDueASAP);
      isOver = true;
    });
    EXPECT_TRUE(Eventually([&] { return hasStarted.load(); }));
    for (int k = 0; k < 100 && !isOver; ++k) MTInterface::Sleep(1);
  });
  CacheBlock* const block = list->FindBlockToReadInto(reader);
  ASSERT_TRUE(holder.joinable());
  holder.join();
  EXPECT_EQ(0u, held);
  ASSERT_NE(nullptr, block);
  block->CompleteReadInto(0, CacheSource::kResultFailed);
  EXPECT_EQ(CacheSource::kResultFailed, reader.GetReport().result);
}

// One list, and everybody who works on it in a cache, at once.
class CacheBlockListThreadsTest : public BlockFixture {
 protected:
  static constexpr std::size_t kPlaces = 24;
  static constexpr int kRounds = 1500;

  // As the read processor does: borrowed, hits first, then claims.
  void StartRead(CacheTransaction* transaction) {
    TransactionBorrow borrow(transaction, TransactionInternals::GetGeneration(transaction));
    ASSERT_TRUE(borrow.IsHeld());
    std::uint64_t cursor = 0;
    bool served = false;
    while (CacheBlock* const block = list_->FindBlockToCopyOutOf(transaction, &served, &cursor)) {
      if (!served) block->ProcessPendingTransactions(nullptr);
    }
    while (CacheBlock* const block = list_->FindBlockToReadInto(transaction)) fills_.Add(block);
    // No block was free for the rest.
    if (transaction->StillRangesToComplete()) transaction->SetResult(CacheSource::kResultError);
  }
  void ReadAtRandom(unsigned seed) {
    std::mt19937 random(seed);
    for (int round = 0; round < kRounds; ++round) {
      const std::uint64_t offset = random() % (kPlaces * kBlock);
      const std::uint64_t size =
          std::min<std::uint64_t>(1 + random() % (2 * kBlock), kPlaces * kBlock - offset);
      Reader reader(source_, offset, size);
      StartRead(reader);
      const Report report = reader.GetReport();
      if (report.result == CacheSource::kResultOK) {
        ++served_;
        EXPECT_EQ(size, report.bytes);
        EXPECT_TRUE(contents_.compare(offset, size, reader.GetBytes(size)) == 0) << offset;
      } else {
        EXPECT_EQ(0u, report.bytes);
      }
    }
  }
  void ReadResidentAtRandom(unsigned seed) {
    std::mt19937 random(seed);
    while (!isOver_) {
      const std::uint64_t offset = random() % (kPlaces * kBlock);
      CacheBlockList::ResidentPiece piece{};
      if (list_->LockResident(source_->GetSourceKey(), offset, kBlock, &piece, 1) == 0) continue;
      EXPECT_TRUE(contents_.compare(offset, piece.bytes, piece.address, piece.bytes) == 0)
          << offset;
      piece.block->Unlock(CacheSource::kDueASAP);
    }
  }
  // Some end as the file would, some fail, some are short.
  void EndFills(unsigned seed) {
    std::mt19937 random(seed);
    while (CacheBlock* const block = fills_.Take()) {
      PutPlace(block);
      const unsigned fate = random() % 16;
      if (fate == 0) {
        block->InvalidateBySource(source_);
        block->CompleteReadInto(0, CacheSource::kResultFailed);
        continue;
      }
      if (fate == 1) {
        block->CompleteReadInto(0, CacheSource::kResultError);
      } else {
        block->CompleteReadInto(kBlock, CacheSource::kResultOK);
      }
      block->ProcessPendingTransactions(nullptr);
    }
  }
  // The block may have been invalidated: then nobody looks at the bytes.
  void PutPlace(CacheBlock* block) {
    const std::uint64_t offset = block->GetSourceOffset();
    std::string bytes = contents_.substr(offset, kBlock);
    std::size_t moved = 0;
    block->GetBuffer()->CopyInto(bytes.data(), bytes.size(), 0, &moved);
  }
  void ForgetAtRandom(unsigned seed) {
    std::mt19937 random(seed);
    while (!isOver_) {
      const std::uint64_t offset = random() % (kPlaces * kBlock);
      switch (random() % 8) {
        case 0:
          list_->CancelSource(source_);
          break;
        case 1:
          list_->PurgeSource(source_);
          break;
        case 2:
          list_->Dump();
          break;
        case 3:
        case 4:
          list_->InvalidateRange(source_, offset, kBlock);
          break;
        default:
          list_->InvalidateWritten(source_, offset, kBlock);
          break;
      }
      std::this_thread::yield();
    }
  }

  const std::string contents_ = MemorySource::Pattern(kPlaces * kBlock);
  MemorySource* source_ = MakeSource(contents_);
  Fills fills_;
  std::atomic<bool> isOver_{false};
  std::atomic<std::size_t> served_{0};
};

TEST_F(CacheBlockListThreadsTest, AtTheEndOfAllWorkNobodyHoldsABlock) {
  MakeList(8);
  std::vector<std::thread> readers;
  std::vector<std::thread> fillers;
  std::vector<std::thread> others;
  for (unsigned k = 0; k < 3; ++k) readers.emplace_back([this, k] { ReadAtRandom(kSeed + k); });
  for (unsigned k = 0; k < 2; ++k) fillers.emplace_back([this, k] { EndFills(kSeed + 10 + k); });
  others.emplace_back([this] { ReadResidentAtRandom(kSeed + 20); });
  others.emplace_back([this] { ForgetAtRandom(kSeed + 21); });
  for (std::thread& thread : readers) thread.join();
  isOver_ = true;
  for (std::thread& thread : others) thread.join();
  fills_.End();
  for (std::thread& thread : fillers) thread.join();

  EXPECT_LT(0u, served_) << "seed " << kSeed;
  for (std::size_t k = 0; k < list_->GetBlockCount(); ++k) {
    CacheBlock* const block = list_->GetBlock(k);
    EXPECT_EQ(0, block->GetLockCount()) << k;
    EXPECT_EQ(0u, block->GetNumberOfPendingTransactions()) << k;
    EXPECT_FALSE(block->HasReadingTransaction()) << k;
    EXPECT_EQ(Buffer::kBufferUnlocked, block->GetBuffer()->GetLockState()) << k;
  }
  // All of them can be claimed, and serve.
  list_->PurgeSource(source_);
  for (std::size_t k = 0; k < list_->GetBlockCount(); ++k) {
    ASSERT_NE(nullptr, Fill(source_, k * kBlock));
  }
  EXPECT_TRUE(list_->HoldsResident(source_->GetSourceKey(), 0, list_->GetBlockCount() * kBlock));
}

// The blocks under a whole cache.

// Gives up in its callback, in every way.
class GivesUp : public FileSource::ResultCallbackBufferList {
 public:
  explicit GivesUp(std::function<void()> giveUp) : giveUp_(std::move(giveUp)) {}
  void Callback(CacheSource::Result_t result, std::uint64_t, BufferList*, std::uint64_t) override {
    EXPECT_EQ(CacheSource::kResultFailed, result);
    giveUp_();
    ++calls_;
  }
  int GetCalls() const { return calls_; }

 protected:
  ~GivesUp() override = default;

 private:
  const std::function<void()> giveUp_;
  std::atomic<int> calls_{0};
};

class CacheBlockListInCacheTest : public CacheFixture {
 protected:
  static constexpr std::size_t kReads = 6;
  // Reads that wait for their fills are ended by `first`; their callbacks do the same and more.
  void GiveUpBy(const std::function<void(MemorySource*)>& first) {
    MakeCache(4);
    const std::string contents = MemorySource::Pattern(8 * kBlock);
    MemorySource* const source = MakeSource(contents);
    source->HoldRequests(true);
    AutoRelease<GivesUp> givesUp(new GivesUp([&] {
      cache_->Cancel(source);
      cache_->Invalidate(source, 0, 8 * kBlock);
      cache_->Purge(source);
      first(source);
    }));
    std::vector<std::unique_ptr<Target>> targets;
    for (std::size_t k = 0; k < kReads; ++k) {
      // Two of each block; the last two find none free.
      targets.push_back(std::make_unique<Target>(kBlock));
      ASSERT_EQ(CacheSource::kResultPending,
                source->ReadAsyncWithList(k / 2 * 2 * kBlock, targets.back()->GetList(), givesUp,
                                          CacheSource::kDueASAP));
    }
    ASSERT_TRUE(source->WaitForHeld(3));
    first(source);
    EXPECT_TRUE(Eventually([&] { return givesUp->GetCalls() == static_cast<int>(kReads); }));
    source->HoldRequests(false);
    source->CompleteAll();
    EXPECT_EQ(contents.substr(5, 2 * kBlock), Read(source, 5, 2 * kBlock));
    EXPECT_EQ(static_cast<int>(kReads), givesUp->GetCalls());
  }
};

TEST_F(CacheBlockListInCacheTest, CancelsNestInCallbacks) {
  GiveUpBy([this](MemorySource* source) { cache_->Cancel(source); });
}

TEST_F(CacheBlockListInCacheTest, PurgesNestInCallbacks) {
  GiveUpBy([this](MemorySource* source) { cache_->Purge(source); });
}

// The one block is wanted again as soon as it is released: what is read then must not suffer for
// what failed before.
TEST_F(CacheBlockListInCacheTest, ReadThatTakesOverTheBlockOfAFailedOneSucceeds) {
  MakeCache(1);
  const std::string contents = MemorySource::Pattern(2 * kBlock);
  MemorySource* const source = MakeSource(contents);
  for (int round = 0; round < 100; ++round) {
    source->HoldRequests(true);
    AutoRelease<ReportRecorder> failed(new ReportRecorder);
    AutoRelease<ReportRecorder> next(new ReportRecorder);
    Target failedTarget(kBlock);
    Target nextTarget(kBlock);
    const std::uint64_t offset = round % 2 == 0 ? 0 : kBlock;
    source->ReadAsyncWithList(offset, failedTarget.GetList(), failed, CacheSource::kDueASAP);
    ASSERT_TRUE(source->WaitForHeld(1));
    source->ReadAsyncWithList(kBlock - offset, nextTarget.GetList(), next, CacheSource::kDueASAP);
    source->HoldRequests(false);
    source->CompleteWith(0, CacheSource::kResultFailed, 0);
    EXPECT_EQ((Report{CacheSource::kResultFailed, 0}), failed->GetOne()) << round;
    EXPECT_EQ((Report{CacheSource::kResultOK, kBlock}), next->GetOne()) << round;
    EXPECT_EQ(contents.substr(kBlock - offset, kBlock), nextTarget.GetBytes(kBlock)) << round;
    cache_->Purge(source);
  }
}

TEST_F(CacheBlockListInCacheTest, AppendAfterAReadAtTheEndOfTheFileIsRead) {
  MakeCache(4);
  MemorySource* const source = MakeSource(MemorySource::Pattern(100));
  Report report{};
  Read(source, 0, 200, &report);
  EXPECT_EQ((Report{CacheSource::kResultPartial, 100}), report);
  Read(source, kBlock, 10, &report);
  EXPECT_EQ((Report{CacheSource::kResultOutOfRange, 0}), report);
  Target bytes(kBlock);
  EXPECT_EQ(CacheSource::kResultOK, source->WriteWithList(kBlock, bytes.GetList(), nullptr));
  const std::string now = source->GetContents();
  EXPECT_EQ(now.substr(0, 200), Read(source, 0, 200));
  EXPECT_EQ(now.substr(kBlock, 10), Read(source, kBlock, 10));
}

TEST_F(CacheBlockListInCacheTest, FillThatAWriteOvertookIsNotKept) {
  MakeCache(4);
  MemorySource* const source = MakeSource(MemorySource::Pattern(kBlock));
  source->HoldRequests(true);
  AutoRelease<ReportRecorder> written(new ReportRecorder);
  AutoRelease<ReportRecorder> read(new ReportRecorder);
  Target bytes(kBlock);
  Target target(kBlock);
  ASSERT_EQ(CacheSource::kResultPending,
            source->WriteAsyncWithList(0, bytes.GetList(), written, CacheSource::kDueASAP));
  ASSERT_EQ(CacheSource::kResultPending,
            source->ReadAsyncWithList(0, target.GetList(), read, CacheSource::kDueASAP));
  ASSERT_TRUE(source->WaitForHeld(2));
  // What the fill brings is from before the write.
  source->Complete(1);
  EXPECT_EQ((Report{CacheSource::kResultOK, kBlock}), read->GetOne());
  source->Complete(0);
  EXPECT_EQ((Report{CacheSource::kResultOK, kBlock}), written->GetOne());
  source->HoldRequests(false);
  EXPECT_EQ(bytes.GetBytes(kBlock), Read(source, 0, kBlock));
}

}  // namespace
}  // namespace Orvane
