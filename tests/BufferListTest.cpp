#include "BufferList.h"

#include <memory>
#include <stdexcept>

#include "Buffer.h"
#include "MTInterface.h"
#include "OrvaneTest.h"
#include "PhysMemInterface.h"

namespace Orvane {
namespace {

// Any address and size, no memory behind it; counts what is done to its lock.
class FakeBuffer : public HostBuffer {
 public:
  explicit FakeBuffer(std::size_t size, void* address = nullptr) : HostBuffer(address, size) {}

  LockState_t Lock() override {
    ++lockCalls;
    const LockState_t state = HostBuffer::Lock();
    return refuseLock ? kBufferUnlocked : state;
  }
  LockState_t Unlock() override {
    ++unlockCalls;
    if (unlockOrder) unlockOrder->push_back(this);
    return HostBuffer::Unlock();
  }
  std::size_t GetSize() override {
    ++sizeCalls;
    return HostBuffer::GetSize();
  }
  void SetSize(std::size_t size) { SetAddressAndSize(GetAddress(), size); }

  bool refuseLock = false;
  int lockCalls = 0;
  int unlockCalls = 0;
  int sizeCalls = 0;
  std::vector<Buffer*>* unlockOrder = nullptr;
};

void* Address(std::uintptr_t number) {
  return reinterpret_cast<void*>(number);
}

class BufferListTest : public OrvaneTest {
 protected:
  AutoRelease<BufferList> list_{new BufferList};
  std::size_t offsetInBuffer_ = 77;
  std::size_t bytesLeft_ = 77;
  std::size_t pages_ = 77;
  std::size_t contiguous_ = 77;

  void TearDown() override {
    list_.Release();
    OrvaneTest::TearDown();
  }
  FakeBuffer* Add(std::size_t size, void* address = nullptr) {
    FakeBuffer* const buffer = new FakeBuffer(size, address);
    EXPECT_TRUE(list_->AddBuffer(buffer, /*adoptReference=*/true));
    return buffer;
  }
  Buffer* Look(std::size_t offset) {
    offsetInBuffer_ = bytesLeft_ = 77;
    return list_->GetBufferAtOffset(offset, &offsetInBuffer_, &bytesLeft_);
  }
  void* Lock(bool countPages) { return list_->LockAllBuffers(countPages, &pages_, &contiguous_); }
};

TEST_F(BufferListTest, OffsetIsFoundInTheBufferThatHoldsIt) {
  Add(100);
  Buffer* const second = Add(50);
  Buffer* const third = Add(200);
  EXPECT_EQ(350u, list_->GetTotalSizeOfBuffers());
  EXPECT_EQ(second, Look(149));
  EXPECT_EQ(49u, offsetInBuffer_);
  EXPECT_EQ(1u, bytesLeft_);
  EXPECT_EQ(third, Look(150));
  EXPECT_EQ(0u, offsetInBuffer_);
  EXPECT_EQ(200u, bytesLeft_);
  EXPECT_EQ(nullptr, Look(350));
  EXPECT_EQ(77u, offsetInBuffer_);
  EXPECT_EQ(77u, bytesLeft_);
  EXPECT_EQ(third, list_->GetBufferAtOffset(150, nullptr, nullptr));
}

TEST_F(BufferListTest, SecondAddOfTheSameBufferIsRefused) {
  FakeBuffer* const buffer = Add(10);
  EXPECT_FALSE(list_->AddBuffer(buffer, /*adoptReference=*/false));
  EXPECT_EQ(1, buffer->GetRefCount());
  EXPECT_EQ(1u, list_->GetNumberOfBuffers());
  EXPECT_EQ(10u, list_->GetTotalSizeOfBuffers());
  EXPECT_FALSE(list_->AddBuffer(nullptr, /*adoptReference=*/false));
}

TEST_F(BufferListTest, RefusedAdoptionLeavesTheReferenceWithTheCaller) {
  AutoRelease<FakeBuffer> buffer(new FakeBuffer(10));
  EXPECT_TRUE(list_->AddBuffer(buffer, /*adoptReference=*/false));
  EXPECT_FALSE(list_->AddBuffer(buffer, /*adoptReference=*/true));
  EXPECT_EQ(2, buffer->GetRefCount());
}

TEST_F(BufferListTest, AdoptedReferenceIsReleasedWithTheList) {
  AutoRelease<FakeBuffer> buffer(new FakeBuffer(10));
  buffer->AddRef("tests", "", 0);
  EXPECT_EQ(2, buffer->GetRefCount());
  EXPECT_TRUE(list_->AddBuffer(buffer, /*adoptReference=*/true));
  EXPECT_EQ(2, buffer->GetRefCount());
  list_.Release();
  EXPECT_EQ(1, buffer->GetRefCount());
}

TEST_F(BufferListTest, ConstructorTakesTheFirstBuffer) {
  AutoRelease<FakeBuffer> buffer(new FakeBuffer(10));
  AutoRelease<BufferList> list(new BufferList(buffer, /*adoptReference=*/false, 0));
  EXPECT_EQ(buffer.Get(), list->GetBuffer(0));
  EXPECT_EQ(nullptr, list->GetBuffer(1));
  EXPECT_EQ(2, buffer->GetRefCount());
}

TEST_F(BufferListTest, BackToBackBuffersAreOneStretch) {
  AutoRelease<HeapBuffer> block(new HeapBuffer(300));
  char* const start = static_cast<char*>(block->GetAddress());
  list_->AddBuffer(new BufferPartOfBuffer(start, 100, block), /*adoptReference=*/true);
  list_->AddBuffer(new BufferPartOfBuffer(start + 100, 200, block), /*adoptReference=*/true);
  void* const token = Lock(false);
  EXPECT_EQ(start, token);
  EXPECT_EQ(300u, contiguous_);
  EXPECT_EQ(0u, pages_);
  list_->UnlockAllBuffers(token);
  list_.Release();
}

TEST_F(BufferListTest, SeparateBuffersAreLockedWithoutAStretch) {
  FakeBuffer* const first = Add(100, Address(0x1000));
  Add(100, Address(0x2000));
  Add(100, Address(0x2064));
  void* const token = Lock(false);
  EXPECT_EQ(first->GetAddress(), token);
  EXPECT_EQ(0u, contiguous_);
  list_->UnlockAllBuffers(token);
}

TEST_F(BufferListTest, UnlockWithAnythingButTheTokenDoesNothing) {
  FakeBuffer* const buffer = Add(100, Address(0x1000));
  list_->UnlockAllBuffers(nullptr);
  void* const token = Lock(false);
  list_->UnlockAllBuffers(nullptr);
  list_->UnlockAllBuffers(Address(0x1001));
  EXPECT_EQ(Buffer::kBufferLocked, buffer->GetLockState());
  list_->UnlockAllBuffers(token);
  EXPECT_EQ(Buffer::kBufferUnlocked, buffer->GetLockState());
  list_->UnlockAllBuffers(token);
  EXPECT_EQ(1, buffer->unlockCalls);
}

TEST_F(BufferListTest, EmptyListDoesNotLock) {
  EXPECT_EQ(nullptr, Lock(true));
  EXPECT_EQ(0u, pages_);
  EXPECT_EQ(0u, contiguous_);
  EXPECT_EQ(nullptr, list_->LockAllBuffers(true, nullptr, nullptr));
  EXPECT_EQ(nullptr, Look(0));
  EXPECT_EQ(0u, list_->GetTotalSizeOfBuffers());
}

TEST_F(BufferListTest, UnlockGoesFromTheLastBufferToTheFirst) {
  std::vector<Buffer*> order;
  FakeBuffer* const first = Add(100, Address(0x1000));
  FakeBuffer* const second = Add(100, Address(0x2000));
  first->unlockOrder = second->unlockOrder = &order;
  list_->UnlockAllBuffers(Lock(false));
  EXPECT_EQ((std::vector<Buffer*>{second, first}), order);
}

TEST_F(BufferListTest, PagesAreCountedOnlyWhenAskedFor) {
  const std::size_t page = PhysMemInterface::GetPageSize();
  Add(page, Address(16 * page));
  Add(3 * page, Address(32 * page));
  void* const token = Lock(true);
  EXPECT_EQ(4u, pages_);
  list_->UnlockAllBuffers(token);
  list_->UnlockAllBuffers(Lock(false));
  EXPECT_EQ(0u, pages_);
}

TEST_F(BufferListTest, BufferThatIsNotMadeOfPagesFailsTheLockWhenPagesAreCounted) {
  FakeBuffer* const buffer = Add(100, Address(0x1000));
  EXPECT_EQ(nullptr, Lock(true));
  EXPECT_EQ(1, buffer->unlockCalls);
  EXPECT_EQ(Buffer::kBufferUnlocked, buffer->GetLockState());
}

TEST_F(BufferListTest, RollBackIncludesTheBufferThatRefusedTheLock) {
  FakeBuffer* const first = Add(100, Address(0x1000));
  FakeBuffer* const second = Add(100, Address(0x2000));
  FakeBuffer* const third = Add(100, Address(0x3000));
  second->refuseLock = true;
  EXPECT_EQ(nullptr, Lock(false));
  EXPECT_EQ(0u, pages_);
  EXPECT_EQ(0u, contiguous_);
  EXPECT_EQ(1, first->unlockCalls);
  EXPECT_EQ(1, second->unlockCalls);
  EXPECT_EQ(0, third->lockCalls);
  EXPECT_EQ(0, third->unlockCalls);
}

TEST_F(BufferListTest, RollBackIncludesTheBufferBehindTheOneThatFailedACheck) {
  FakeBuffer* const first = Add(100, nullptr);
  FakeBuffer* const second = Add(100, Address(0x2000));
  FakeBuffer* const third = Add(100, Address(0x3000));
  EXPECT_EQ(nullptr, Lock(false));
  EXPECT_EQ(1, first->unlockCalls);
  EXPECT_EQ(0, second->lockCalls);
  EXPECT_EQ(1, second->unlockCalls);
  EXPECT_EQ(0, third->unlockCalls);
}

TEST_F(BufferListTest, RollBackSkipsTheIndexPastTheEnd) {
  FakeBuffer* const first = Add(100, Address(0x1000));
  FakeBuffer* const last = Add(0, Address(0x2000));
  EXPECT_EQ(nullptr, Lock(false));
  EXPECT_EQ(1, first->unlockCalls);
  EXPECT_EQ(1, last->unlockCalls);
}

TEST_F(BufferListTest, FailedLockKeepsTheTokenOfAnEarlierOne) {
  FakeBuffer* const first = Add(100, Address(0x1000));
  void* const token = Lock(false);
  FakeBuffer* const second = Add(100, Address(0x2000));
  second->refuseLock = true;
  EXPECT_EQ(nullptr, Lock(false));
  list_->UnlockAllBuffers(token);
  EXPECT_EQ(2, first->unlockCalls);
  EXPECT_EQ(2, second->unlockCalls);
}

TEST_F(BufferListTest, SecondLockCanBeUndoneOnlyOnce) {
  FakeBuffer* const buffer = Add(100, Address(0x1000));
  void* const token = Lock(false);
  EXPECT_EQ(token, Lock(false));
  list_->UnlockAllBuffers(token);
  list_->UnlockAllBuffers(token);
  EXPECT_EQ(Buffer::kBufferLocked, buffer->GetLockState());
}

TEST_F(BufferListTest, BufferOfNoBytesIsNeverChosen) {
  Add(0);
  Buffer* const second = Add(10);
  Add(0);
  Add(0);
  Buffer* const fifth = Add(10);
  Add(0);
  EXPECT_EQ(second, Look(0));
  EXPECT_EQ(second, Look(9));
  EXPECT_EQ(fifth, Look(10));
  EXPECT_EQ(0u, offsetInBuffer_);
  EXPECT_EQ(10u, bytesLeft_);
  EXPECT_EQ(fifth, Look(19));
  EXPECT_EQ(nullptr, Look(20));
}

TEST_F(BufferListTest, TotalIsKnownWithoutAskingTheBuffersAgain) {
  FakeBuffer* const buffer = Add(100);
  const int calls = buffer->sizeCalls;
  EXPECT_EQ(100u, list_->GetTotalSizeOfBuffers());
  EXPECT_EQ(buffer, Look(50));
  EXPECT_EQ(calls, buffer->sizeCalls);
}

TEST_F(BufferListTest, ListOfNoBytesAsksItsBuffersOnEveryCall) {
  FakeBuffer* const first = Add(0);
  FakeBuffer* const second = Add(0);
  EXPECT_EQ(0u, list_->GetTotalSizeOfBuffers());
  first->SetSize(5);
  second->SetSize(7);
  EXPECT_EQ(12u, list_->GetTotalSizeOfBuffers());
  EXPECT_EQ(second, Look(5));
  EXPECT_EQ(0u, offsetInBuffer_);
  EXPECT_EQ(7u, bytesLeft_);
  first->SetSize(0);
  second->SetSize(0);
  EXPECT_EQ(0u, list_->GetTotalSizeOfBuffers());
}

TEST_F(BufferListTest, SumThatOverflowsIsSearchedFromTheFront) {
  constexpr std::size_t kHalf = ~std::size_t{0} / 2 + 1;
  Buffer* const first = Add(kHalf);
  Add(kHalf);
  Add(100);
  EXPECT_EQ(100u, list_->GetTotalSizeOfBuffers());
  EXPECT_EQ(first, Look(99));
  EXPECT_EQ(kHalf - 99, bytesLeft_);
  EXPECT_EQ(nullptr, Look(100));
}

TEST_F(BufferListTest, ExcessiveCapacityIsALengthError) {
  try {
    new BufferList(std::size_t{0x2000000000000000});
    ADD_FAILURE() << "no exception";
  } catch (const std::length_error& error) {
    EXPECT_STREQ("vector too long", error.what());
  }
  EXPECT_THROW(new BufferList(std::size_t{0x1FFFFFFFFFFFFFFF}), std::bad_alloc);
  EXPECT_THROW(new BufferList(std::size_t{0x0800000000000000}), std::bad_alloc);
}

TEST_F(BufferListTest, AddThatFindsNoMemoryChangesNothing) {
  std::size_t total = 0;
  for (std::size_t i = 1; i <= 100; ++i) {
    AutoRelease<FakeBuffer> buffer(new FakeBuffer(i));
    for (std::size_t ordinal = 1;; ++ordinal) {
      const AllocationFailure failure(ordinal);
      try {
        ASSERT_TRUE(list_->AddBuffer(buffer, /*adoptReference=*/false));
        break;
      } catch (const std::bad_alloc&) {
        EXPECT_EQ(1, buffer->GetRefCount());
        EXPECT_EQ(total, list_->GetTotalSizeOfBuffers());
        EXPECT_EQ(i - 1, list_->GetNumberOfBuffers());
      }
    }
    total += i;
  }
}

TEST_F(BufferListTest, OneBufferNeedsFewAllocations) {
  AutoRelease<FakeBuffer> buffer(new FakeBuffer(10));
  const std::size_t empty = AllocationCounter::Count();
  AutoRelease<HostBuffer> plainObject(new HostBuffer(nullptr, 0));
  const std::size_t plain = AllocationCounter::Count() - empty;
  const std::size_t start = AllocationCounter::Count();
  AutoRelease<BufferList> list(new BufferList(buffer, /*adoptReference=*/false, 1));
  // No more than a buffer, which has one counter more but no array.
  EXPECT_LE(AllocationCounter::Count() - start, plain);
}

TEST_F(BufferListTest, NamesItsCallSites) {
  CallSites sites;
  AutoRelease<Recording<HeapBuffer>> buffer(new Recording<HeapBuffer>(&sites, std::size_t{10}));
  list_->AddBuffer(buffer, /*adoptReference=*/false);
  list_.Release();
  const std::string file = "source/CoreClasses/BufferList";
  EXPECT_EQ((std::vector<CallSite>{{file, "Orvane::BufferList::AddBuffer", 93}}), sites.added);
  EXPECT_EQ((std::vector<CallSite>{{file, "Orvane::BufferArray::~BufferArray", 33}}),
            sites.released);
}

// Looks at a list as several threads may do at once.
class Reader : public MTThreadBody {
 public:
  explicit Reader(BufferList* list) : list_(list) {}
  std::size_t found = 0;

 protected:
  void ThreadMain(MTThread*) override {
    for (std::size_t offset = 0; offset < list_->GetTotalSizeOfBuffers(); ++offset) {
      if (list_->GetBufferAtOffset(offset, nullptr, nullptr)) ++found;
    }
  }

 private:
  BufferList* const list_;
};

TEST_F(BufferListTest, SeveralThreadsMayLookAtOnce) {
  for (int i = 0; i < 40; ++i) Add(50);
  Reader first(list_);
  Reader second(list_);
  MTThread* const threads[] = {
      MTInterface::NewThread(&first, MTThread::kPriorityNormal, MTThread::kProcessorAny),
      MTInterface::NewThread(&second, MTThread::kPriorityNormal, MTThread::kProcessorAny)};
  for (MTThread* const thread : threads) {
    EXPECT_TRUE(thread->Terminate(60000));
    delete thread;
  }
  EXPECT_EQ(2000u, first.found);
  EXPECT_EQ(2000u, second.found);
}

class BufferListGrowthTest : public OrvaneTest {};

TEST_F(BufferListGrowthTest, BuildingAndSearchingALongListAreQuick) {
  constexpr std::size_t kMany = 100000;
  std::vector<std::unique_ptr<AutoRelease<HostBuffer>>> buffers;
  for (std::size_t i = 0; i < kMany; ++i) {
    buffers.push_back(std::make_unique<AutoRelease<HostBuffer>>(new HostBuffer(nullptr, 3)));
  }
  const auto work = [&](std::size_t count) {
    AutoRelease<BufferList> list(new BufferList);
    for (std::size_t i = 0; i < count; ++i) {
      ASSERT_TRUE(list->AddBuffer(*buffers[i], /*adoptReference=*/false));
    }
    for (std::size_t i = 0; i < count; ++i) {
      ASSERT_FALSE(list->AddBuffer(*buffers[i], /*adoptReference=*/false));
      ASSERT_EQ(buffers[i]->Get(), list->GetBufferAtOffset(3 * i + 1, nullptr, nullptr));
    }
  };
  EXPECT_TRUE(GrowsLinearly(work, kMany));
}

}  // namespace
}  // namespace Orvane
