#include "OSServices/ScatterGatherManager.h"

#include "Buffer.h"
#include "BufferList.h"
#include "OrvaneTest.h"
#include "PhysMemInterface.h"

namespace Orvane {
namespace {

// A buffer at an address of the test's choice, with no memory behind it.
class PlacedBuffer : public HostBuffer {
 public:
  PlacedBuffer(std::uint64_t address, std::size_t size)
      : HostBuffer(reinterpret_cast<void*>(address), size) {}
  LockState_t Lock() override {
    ++lockCalls;
    if (throwOnLock) throw 1;
    const LockState_t state = HostBuffer::Lock();
    return refuseLock ? kBufferUnlocked : state;
  }
  LockState_t Unlock() override {
    ++unlockCalls;
    if (throwOnUnlock) throw 1;
    return HostBuffer::Unlock();
  }
  void* GetVirtualAddress() override {
    if (mappedWhileLocked && GetLockState() != kBufferLocked) return nullptr;
    return virtualAddress ? virtualAddress : HostBuffer::GetVirtualAddress();
  }

  bool refuseLock = false;
  bool throwOnLock = false;
  bool throwOnUnlock = false;
  bool mappedWhileLocked = false;
  void* virtualAddress = nullptr;
  int lockCalls = 0;
  int unlockCalls = 0;
};

// A buffer whose size is another one from the n-th look on.
class FickleBuffer : public PlacedBuffer {
 public:
  FickleBuffer(std::uint64_t address, std::size_t size, int looks, std::size_t later)
      : PlacedBuffer(address, size), looks_(looks), later_(later) {}
  std::size_t GetSize() override { return looks_-- > 0 ? PlacedBuffer::GetSize() : later_; }

 private:
  int looks_;
  const std::size_t later_;
};

class ScatterGatherManagerTest : public OrvaneTest {
 protected:
  const std::uint64_t page_ = PhysMemInterface::GetPageSize();
  AutoRelease<BufferList> list_{new BufferList};
  std::vector<PlacedBuffer*> buffers_;
  ScatterGatherManager manager_;
  std::uint64_t bytes_ = 77;
  std::size_t count_ = 77;

  void TearDown() override {
    manager_.StopUsingBufferList();
    list_.Release();
    OrvaneTest::TearDown();
  }
  std::uint64_t Page(std::uint64_t number) const { return number * page_; }
  PlacedBuffer* AddTo(BufferList* list, std::uint64_t firstPage, std::uint64_t pages) {
    auto* const buffer = new PlacedBuffer(Page(firstPage), static_cast<std::size_t>(pages * page_));
    EXPECT_TRUE(list->AddBuffer(buffer, /*adoptReference=*/true));
    return buffer;
  }
  PlacedBuffer* Add(std::uint64_t firstPage, std::uint64_t pages) {
    buffers_.push_back(AddTo(list_, firstPage, pages));
    return buffers_.back();
  }
  PlacedBuffer* AddBytes(std::uint64_t address, std::size_t size) {
    buffers_.push_back(new PlacedBuffer(address, size));
    list_->AddBuffer(buffers_.back(), /*adoptReference=*/true);
    return buffers_.back();
  }
  std::vector<std::uint64_t> Segments() {
    const std::uint64_t* entry = manager_.GetSegmentArray(&bytes_);
    std::vector<std::uint64_t> pages;
    while (*entry != 0) pages.push_back(*entry++ / page_);
    return pages;
  }
  // Runs as (address, length) in pages.
  std::vector<std::pair<std::uint64_t, std::uint64_t>> Runs() {
    const MemoryRun* const runs = manager_.GetRuns(&count_);
    std::vector<std::pair<std::uint64_t, std::uint64_t>> result;
    for (std::size_t i = 0; i < count_; ++i) {
      result.emplace_back(reinterpret_cast<std::uintptr_t>(runs[i].address) / page_,
                          runs[i].length / page_);
    }
    return result;
  }
  void ExpectIdle() {
    EXPECT_EQ(1, list_->GetRefCount());
    for (PlacedBuffer* const buffer : buffers_) {
      EXPECT_EQ(Buffer::kBufferUnlocked, buffer->GetLockState());
      EXPECT_EQ(buffer->lockCalls, buffer->unlockCalls);
    }
    EXPECT_EQ(nullptr, manager_.GetSegmentArray(&bytes_));
    EXPECT_EQ(0u, bytes_);
    EXPECT_EQ(nullptr, manager_.GetContiguousRange(&bytes_));
    EXPECT_EQ(0u, bytes_);
    EXPECT_EQ(nullptr, manager_.GetRuns(&count_));
    EXPECT_EQ(0u, count_);
  }
};

using Pages = std::vector<std::uint64_t>;
using RunsInPages = std::vector<std::pair<std::uint64_t, std::uint64_t>>;

TEST_F(ScatterGatherManagerTest, EveryPageHasItsEntryAndAZeroFollows) {
  Add(20, 1);
  Add(10, 1);
  EXPECT_TRUE(manager_.StartUsingBufferList(list_));
  EXPECT_EQ((Pages{20, 10}), Segments());
  EXPECT_EQ(2 * page_, bytes_);
  EXPECT_EQ(nullptr, manager_.GetContiguousRange(&bytes_));
  EXPECT_EQ(0u, bytes_);
}

TEST_F(ScatterGatherManagerTest, BuffersOfSeveralPagesAreSpreadOut) {
  Add(20, 3);
  Add(10, 2);
  EXPECT_TRUE(manager_.StartUsingBufferList(list_));
  EXPECT_EQ((Pages{20, 21, 22, 10, 11}), Segments());
  EXPECT_EQ(5 * page_, bytes_);
}

TEST_F(ScatterGatherManagerTest, BufferOfNoBytesIsRefused) {
  AddBytes(Page(10), 0);
  EXPECT_EQ(0u,
            PhysMemInterface::GetNumberOfValidPagesForBuffer(reinterpret_cast<void*>(Page(10)), 0));
  EXPECT_FALSE(manager_.StartUsingBufferList(list_));
  ExpectIdle();
}

TEST_F(ScatterGatherManagerTest, BufferOfOneAndAHalfPagesIsRefused) {
  Add(10, 1);
  AddBytes(Page(20), static_cast<std::size_t>(page_ + page_ / 2));
  EXPECT_FALSE(manager_.StartUsingBufferList(list_));
  ExpectIdle();
}

TEST_F(ScatterGatherManagerTest, SecondStartIsRefusedAndLeavesTheFirstInUse) {
  Add(10, 1);
  EXPECT_TRUE(manager_.StartUsingBufferList(list_));
  AutoRelease<BufferList> other(new BufferList);
  AddTo(other, 50, 1);
  EXPECT_FALSE(manager_.StartUsingBufferList(other));
  EXPECT_FALSE(manager_.StartUsingBufferList(list_));
  EXPECT_EQ((Pages{10}), Segments());
  EXPECT_EQ(2, list_->GetRefCount());
  EXPECT_EQ(1, other->GetRefCount());
}

TEST_F(ScatterGatherManagerTest, NullAndAnEmptyListAreRefused) {
  EXPECT_FALSE(manager_.StartUsingBufferList(nullptr));
  EXPECT_FALSE(manager_.StartUsingBufferList(list_));
  ExpectIdle();
}

TEST_F(ScatterGatherManagerTest, NoBufferIsLockedBeforeAllHaveBeenExamined) {
  Add(10, 1);
  AddBytes(Page(20) + 1, static_cast<std::size_t>(page_));
  Add(30, 1);
  EXPECT_FALSE(manager_.StartUsingBufferList(list_));
  for (PlacedBuffer* const buffer : buffers_) {
    EXPECT_EQ(0, buffer->lockCalls);
    EXPECT_EQ(0, buffer->unlockCalls);
  }
}

TEST_F(ScatterGatherManagerTest, VirtualAddressMustBeMadeOfPagesToo) {
  Add(10, 1)->virtualAddress = reinterpret_cast<void*>(Page(30) + 8);
  EXPECT_FALSE(manager_.StartUsingBufferList(list_));
  // It was locked for a look at most.
  EXPECT_EQ(buffers_[0]->lockCalls, buffers_[0]->unlockCalls);
  ExpectIdle();
}

TEST_F(ScatterGatherManagerTest, BufferThatIsMappedOnlyWhileLockedIsTaken) {
  Add(10, 1);
  Add(20, 1)->mappedWhileLocked = true;
  EXPECT_TRUE(manager_.StartUsingBufferList(list_));
  manager_.StopUsingBufferList();
  EXPECT_EQ(buffers_[1]->lockCalls, buffers_[1]->unlockCalls);
}

TEST_F(ScatterGatherManagerTest, BufferThatThrowsWhenLockedIsRefused) {
  Add(10, 1)->throwOnLock = true;
  EXPECT_FALSE(manager_.StartUsingBufferList(list_));
  EXPECT_NE(std::string::npos, TestMTInterface::Get().TakeDebugText().find("Locking A Buffer"));
  EXPECT_EQ(nullptr, manager_.GetSegmentArray(&bytes_));
  EXPECT_EQ(1, list_->GetRefCount());
}

TEST_F(ScatterGatherManagerTest, BufferThatThrowsWhenUnlockedLeavesTheManagerIdle) {
  PlacedBuffer* const buffer = Add(10, 1);
  ASSERT_TRUE(manager_.StartUsingBufferList(list_));
  buffer->throwOnUnlock = true;
  EXPECT_TRUE(manager_.StopUsingBufferList());
  EXPECT_NE(std::string::npos, TestMTInterface::Get().TakeDebugText().find("Unlocking A Buffer"));
  EXPECT_EQ(nullptr, manager_.GetSegmentArray(&bytes_));
  EXPECT_EQ(1, list_->GetRefCount());
  buffer->throwOnUnlock = false;
  EXPECT_TRUE(manager_.StartUsingBufferList(list_));
}

TEST_F(ScatterGatherManagerTest, BufferThatDoesNotLockIsRefused) {
  Add(10, 1);
  Add(20, 1)->refuseLock = true;
  EXPECT_FALSE(manager_.StartUsingBufferList(list_));
  ExpectIdle();
}

TEST_F(ScatterGatherManagerTest, StopUnlocksAndReleasesAndIsAlwaysTrue) {
  EXPECT_TRUE(manager_.StopUsingBufferList());
  Add(10, 1);
  EXPECT_TRUE(manager_.StartUsingBufferList(list_));
  EXPECT_EQ(Buffer::kBufferLocked, buffers_[0]->GetLockState());
  EXPECT_EQ(2, list_->GetRefCount());
  EXPECT_TRUE(manager_.StopUsingBufferList());
  ExpectIdle();
  EXPECT_TRUE(manager_.StopUsingBufferList());
}

TEST_F(ScatterGatherManagerTest, DestructionStops) {
  Add(10, 1);
  {
    ScatterGatherManager manager;
    EXPECT_TRUE(manager.StartUsingBufferList(list_));
  }
  ExpectIdle();
}

TEST_F(ScatterGatherManagerTest, ListThatIsOneStretchIsOneRange) {
  Add(10, 2);
  Add(12, 1);
  EXPECT_TRUE(manager_.StartUsingBufferList(list_));
  EXPECT_EQ(buffers_[0]->GetAddress(), manager_.GetContiguousRange(&bytes_));
  EXPECT_EQ(3 * page_, bytes_);
  EXPECT_EQ(buffers_[0]->GetAddress(), manager_.GetContiguousRange(nullptr));
  EXPECT_NE(nullptr, manager_.GetSegmentArray(nullptr));
}

TEST_F(ScatterGatherManagerTest, NeighboursAreMergedIntoRuns) {
  Add(10, 2);
  Add(12, 1);
  Add(20, 1);
  Add(19, 1);
  Add(20 + 1, 3);
  EXPECT_TRUE(manager_.StartUsingBufferList(list_));
  EXPECT_EQ((RunsInPages{{10, 3}, {20, 1}, {19, 1}, {21, 3}}), Runs());
  EXPECT_NE(nullptr, manager_.GetRuns(nullptr));
}

TEST_F(ScatterGatherManagerTest, ProgressMovesForwardAndBack) {
  Add(10, 4);
  Add(20, 2);
  Add(30, 1);
  EXPECT_TRUE(manager_.StartUsingBufferList(list_));
  const RunsInPages all{{10, 4}, {20, 2}, {30, 1}};
  const auto runsAt = [this](std::uint64_t pages) {
    manager_.SetProgress(pages * page_);
    return Runs();
  };
  EXPECT_EQ((RunsInPages{{11, 3}, {20, 2}, {30, 1}}), runsAt(1));
  EXPECT_EQ((RunsInPages{{20, 2}, {30, 1}}), runsAt(4));
  EXPECT_EQ((RunsInPages{{21, 1}, {30, 1}}), runsAt(5));
  EXPECT_EQ((RunsInPages{{12, 2}, {20, 2}, {30, 1}}), runsAt(2));
  EXPECT_EQ((RunsInPages{{30, 1}}), runsAt(6));
  EXPECT_EQ(all, runsAt(0));
  EXPECT_EQ((RunsInPages{}), runsAt(7));
  EXPECT_EQ(nullptr, manager_.GetRuns(&count_));
  EXPECT_EQ((RunsInPages{{21, 1}, {30, 1}}), runsAt(5));
  EXPECT_EQ((RunsInPages{}), runsAt(1000));
  EXPECT_EQ(all, runsAt(0));
  EXPECT_EQ((Pages{10, 11, 12, 13, 20, 21, 30}), Segments());
}

TEST_F(ScatterGatherManagerTest, ProgressIsCountedInBytes) {
  Add(10, 1);
  Add(20, 1);
  EXPECT_TRUE(manager_.StartUsingBufferList(list_));
  manager_.SetProgress(page_ + 5);
  const MemoryRun* const runs = manager_.GetRuns(&count_);
  ASSERT_EQ(1u, count_);
  EXPECT_EQ(reinterpret_cast<void*>(Page(20) + 5), runs[0].address);
  EXPECT_EQ(page_ - 5, runs[0].length);
}

TEST_F(ScatterGatherManagerTest, NextUseBeginsWithoutProgress) {
  Add(10, 1);
  Add(20, 1);
  manager_.SetProgress(5);
  EXPECT_TRUE(manager_.StartUsingBufferList(list_));
  manager_.SetProgress(page_ + 5);
  manager_.StopUsingBufferList();
  EXPECT_TRUE(manager_.StartUsingBufferList(list_));
  EXPECT_EQ((RunsInPages{{10, 1}, {20, 1}}), Runs());
  EXPECT_EQ(2 * page_, manager_.GetSegmentArray(&bytes_) ? bytes_ : 0);
}

TEST_F(ScatterGatherManagerTest, SteadyUseAllocatesNothing) {
  for (std::uint64_t i = 0; i < 30; ++i) Add(10 + 3 * i, 2);
  AutoRelease<BufferList> small(new BufferList);
  AddTo(small, 500, 3);
  EXPECT_TRUE(manager_.StartUsingBufferList(list_));
  manager_.StopUsingBufferList();
  const std::size_t before = AllocationCounter::Count();
  for (int i = 0; i < 10; ++i) {
    EXPECT_TRUE(manager_.StartUsingBufferList(i % 2 ? list_ : small));
    manager_.SetProgress(page_);
    manager_.StopUsingBufferList();
  }
  EXPECT_EQ(before, AllocationCounter::Count());
}

TEST_F(ScatterGatherManagerTest, MemoryShortageLeavesEverythingAsItWas) {
  AutoRelease<BufferList> small(new BufferList);
  AddTo(small, 500, 2);
  EXPECT_TRUE(manager_.StartUsingBufferList(small));
  const std::uint64_t* const segments = manager_.GetSegmentArray(nullptr);
  manager_.StopUsingBufferList();

  for (std::uint64_t i = 0; i < 5; ++i) Add(10 + 3 * i, 2);
  for (std::size_t ordinal = 1; ordinal <= 2; ++ordinal) {
    const AllocationFailure failure(ordinal);
    EXPECT_FALSE(manager_.StartUsingBufferList(list_));
    EXPECT_TRUE(failure.HasHappened());
    ExpectIdle();
    EXPECT_TRUE(manager_.StartUsingBufferList(small));
    EXPECT_EQ(segments, manager_.GetSegmentArray(nullptr));
    manager_.StopUsingBufferList();
  }
  EXPECT_TRUE(manager_.StartUsingBufferList(list_));
  EXPECT_EQ(10u, Segments().size());
}

TEST_F(ScatterGatherManagerTest, NamesItsCallSites) {
  CallSites sites;
  AutoRelease<Recording<BufferList>> list(new Recording<BufferList>(&sites));
  AddTo(list, 10, 1);
  EXPECT_TRUE(manager_.StartUsingBufferList(list));
  manager_.StopUsingBufferList();
  const std::string file = "source/OSServices/Win/ScatterGatherManager";
  const std::string name = "Orvane::ScatterGatherManager::";
  EXPECT_EQ((std::vector<CallSite>{{file, name + "StartUsingBufferList", 47}}), sites.added);
  EXPECT_EQ((std::vector<CallSite>{{file, name + "StopUsingBufferList", 116}}), sites.released);
}

// One run after another, as a transfer in small pieces does, and from the end back.
TEST_F(ScatterGatherManagerTest, ProgressOverManyRunsIsLinear) {
  const auto work = [this](std::size_t count) {
    AutoRelease<BufferList> list(new BufferList(count));
    for (std::size_t i = 0; i < count; ++i) AddTo(list, 10 + 2 * i, 1);
    ScatterGatherManager manager;
    ASSERT_TRUE(manager.StartUsingBufferList(list));
    for (std::uint64_t i = 0; i < 2 * count; ++i) manager.SetProgress(i * page_ / 2);
    for (std::uint64_t i = 2 * count; i > 0; --i) manager.SetProgress(i * page_ / 2);
  };
  EXPECT_TRUE(GrowsLinearly(work, 100000));
}

TEST_F(ScatterGatherManagerTest, BufferThatDoesNotLockForALookIsRefused) {
  PlacedBuffer* const buffer = Add(10, 1);
  buffer->virtualAddress = reinterpret_cast<void*>(Page(30));
  buffer->refuseLock = true;
  EXPECT_FALSE(manager_.StartUsingBufferList(list_));
  EXPECT_EQ(1, list_->GetRefCount());
  EXPECT_EQ(nullptr, manager_.GetSegmentArray(&bytes_));
}

// Whenever it changes, the list is described as it is or refused as a whole.
TEST_F(ScatterGatherManagerTest, BufferThatChangesItsSizeMeanwhileIsRefused) {
  const auto page = static_cast<std::size_t>(page_);
  for (const std::size_t later : {std::size_t{0}, page + 1, 64 * page}) {
    int refused = 0;
    for (int looks = 2; looks < 8; ++looks) {
      AutoRelease<FickleBuffer> buffer(new FickleBuffer(Page(10), page, looks, later));
      AutoRelease<BufferList> list(new BufferList(buffer, /*adoptReference=*/false, 1));
      ScatterGatherManager manager;
      if (manager.StartUsingBufferList(list)) {
        EXPECT_NE(nullptr, manager.GetSegmentArray(&bytes_));
        EXPECT_EQ(0u, bytes_ % page_);
        EXPECT_TRUE(manager.StopUsingBufferList());
      } else {
        ++refused;
        EXPECT_EQ(nullptr, manager.GetSegmentArray(&bytes_));
      }
      EXPECT_EQ(1, list->GetRefCount());
      EXPECT_EQ(Buffer::kBufferUnlocked, buffer->GetLockState());
    }
    EXPECT_LE(1, refused) << later;
  }
}

}  // namespace
}  // namespace Orvane
