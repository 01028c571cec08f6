#include "BufferFactory.h"

#include <algorithm>
#include <cstring>
#include <set>

#include "Buffer.h"
#include "MTInterface.h"
#include "OrvaneTest.h"
#include "PhysMemInterface.h"
#include "TestPhysMemInterface.h"

namespace Orvane {
namespace {

// The protected operations, for what they do on their own.
class OpenFactory : public BufferFactoryHeap {
 public:
  using BufferFactoryHeap::AddBuffer;
  using BufferFactoryHeap::InternalInit;
  using BufferFactoryHeap::Purge;
};

class BufferFactoryTest : public OrvaneTest {
 protected:
  AutoRelease<OpenFactory> factory_{new OpenFactory};

  void TearDown() override {
    factory_.Release();
    OrvaneTest::TearDown();
  }
  void ExpectCounts(std::size_t free, std::size_t inUse) {
    EXPECT_EQ(free, factory_->GetNumberOfBuffersFree());
    EXPECT_EQ(inUse, factory_->GetNumberOfBuffersInUse());
    EXPECT_EQ(free + inUse, factory_->GetTotalNumberOfBuffers());
  }
};

TEST_F(BufferFactoryTest, NoBuffersAtAllIsRefused) {
  EXPECT_FALSE(factory_->Initialize(4096, 0, 0, 0));
  EXPECT_EQ(0u, factory_->GetBufferSize());
  ExpectCounts(0, 0);
}

TEST_F(BufferFactoryTest, MakesTheDesiredNumber) {
  EXPECT_TRUE(factory_->Initialize(4096, 2, 8, 0));
  EXPECT_EQ(4096u, factory_->GetBufferSize());
  ExpectCounts(8, 0);
}

TEST_F(BufferFactoryTest, LargerOfTheTwoNumbersWins) {
  EXPECT_TRUE(factory_->Initialize(4096, 8, 2, 0));
  ExpectCounts(8, 0);
}

TEST_F(BufferFactoryTest, LendsEveryBufferOnceAndTakesItBack) {
  factory_->Initialize(4096, 2, 3, 0);
  std::set<Buffer*> lent;
  while (Buffer* const buffer = factory_->GetBufferFromFactory()) {
    EXPECT_EQ(4096u, buffer->GetSize());
    std::memset(buffer->GetAddress(), 1, 4096);
    EXPECT_TRUE(lent.insert(buffer).second);
  }
  ExpectCounts(0, 3);
  for (Buffer* const buffer : lent) EXPECT_TRUE(factory_->ReturnBufferToFactory(buffer));
  ExpectCounts(3, 0);
}

TEST_F(BufferFactoryTest, BufferThatWasNeverLentIsRefused) {
  factory_->Initialize(4096, 2, 2, 0);
  AutoRelease<HeapBuffer> foreign(new HeapBuffer(4096));
  EXPECT_FALSE(factory_->ReturnBufferToFactory(foreign));
  EXPECT_FALSE(factory_->ReturnBufferToFactory(nullptr));
  Buffer* const buffer = factory_->GetBufferFromFactory();
  EXPECT_TRUE(factory_->ReturnBufferToFactory(buffer));
  EXPECT_FALSE(factory_->ReturnBufferToFactory(buffer));
}

TEST_F(BufferFactoryTest, UninitialisedFactoryHasNothing) {
  EXPECT_EQ(nullptr, factory_->GetBufferFromFactory());
  EXPECT_FALSE(factory_->ReturnBufferToFactory(nullptr));
  AutoRelease<HeapBuffer> buffer(new HeapBuffer(10));
  EXPECT_FALSE(factory_->AddBuffer(buffer));
  factory_->Purge();
  ExpectCounts(0, 0);
}

TEST_F(BufferFactoryTest, InternalInitWorksOnce) {
  EXPECT_FALSE(factory_->InternalInit(0, 5));
  EXPECT_TRUE(factory_->InternalInit(10, 5));
  EXPECT_FALSE(factory_->InternalInit(10, 5));
  EXPECT_FALSE(factory_->InternalInit(20, 5));
  EXPECT_EQ(10u, factory_->GetBufferSize());
}

TEST_F(BufferFactoryTest, InternalInitThatFindsNoMemoryChangesNothing) {
  TestMTInterface::Get().FailCreation(1, TestMTInterface::kThrow);
  EXPECT_THROW(factory_->InternalInit(10, 5), std::bad_alloc);
  EXPECT_EQ(0u, factory_->GetBufferSize());
  EXPECT_TRUE(factory_->InternalInit(20, 5));
}

TEST_F(BufferFactoryTest, SecondInitializeWithAnotherSizeChangesNothing) {
  factory_->Initialize(4096, 2, 4, 0);
  EXPECT_FALSE(factory_->Initialize(8192, 1, 1, 0));
  EXPECT_FALSE(factory_->Initialize(0, 1, 1, 0));
  EXPECT_EQ(4096u, factory_->GetBufferSize());
  ExpectCounts(4, 0);
}

TEST_F(BufferFactoryTest, SecondInitializeWithTheSameSizeFillsThePoolUp) {
  factory_->Initialize(4096, 2, 4, 0);
  EXPECT_TRUE(factory_->Initialize(4096, 2, 4, 0));
  ExpectCounts(4, 0);
  factory_->Purge();
  ExpectCounts(0, 0);
  EXPECT_TRUE(factory_->Initialize(4096, 2, 10, 0));
  ExpectCounts(4, 0);
}

TEST_F(BufferFactoryTest, BuffersOfNoBytesAreMadeAndNotKept) {
  EXPECT_TRUE(factory_->Initialize(0, 1, 2, 0));
  ExpectCounts(0, 0);
}

// Fails at every counter in turn, and with that in every kind of object that is made.
TEST_F(BufferFactoryTest, ExceptionOutOfInitializeLeavesAFactoryThatCanBeInitialised) {
  TestMTInterface& mt = TestMTInterface::Get();
  for (long ordinal = 1;; ++ordinal) {
    AutoRelease<OpenFactory> factory(new OpenFactory);
    mt.FailCreation(ordinal, TestMTInterface::kThrow, TestMTInterface::kAtomicsOnly);
    try {
      EXPECT_TRUE(factory->Initialize(64, 3, 3, 0));
      EXPECT_FALSE(mt.StopFailing());
      break;
    } catch (const std::bad_alloc&) {
    }
    EXPECT_EQ(0u, factory->GetTotalNumberOfBuffers()) << ordinal;
    EXPECT_TRUE(factory->Initialize(64, 3, 3, 0));
    EXPECT_EQ(3u, factory->GetNumberOfBuffersFree());
  }
}

TEST_F(BufferFactoryTest, BufferLentOutAtPurgeBelongsToItsBorrower) {
  factory_->Initialize(4096, 2, 2, 0);
  Buffer* const buffer = factory_->GetBufferFromFactory();
  EXPECT_EQ(2, buffer->GetRefCount());
  factory_->Purge();
  ExpectCounts(0, 0);
  EXPECT_EQ(1, buffer->GetRefCount());
  EXPECT_FALSE(factory_->ReturnBufferToFactory(buffer));
  EXPECT_EQ(0, buffer->DecRef("tests", "", 0));
}

TEST_F(BufferFactoryTest, BufferLentOutAtDestructionBelongsToItsBorrower) {
  factory_->Initialize(4096, 2, 2, 0);
  Buffer* const buffer = factory_->GetBufferFromFactory();
  factory_.Release();
  std::memset(buffer->GetAddress(), 1, 4096);
  EXPECT_EQ(0, buffer->DecRef("tests", "", 0));
}

TEST_F(BufferFactoryTest, PurgeNamesItsCallSites) {
  CallSites sites;
  factory_->InternalInit(10, 1);
  factory_->AddBuffer(new Recording<HeapBuffer>(&sites, std::size_t{10}));
  factory_->Purge();
  const std::string list = "source/CoreClasses/SharedObjectList";
  EXPECT_EQ((std::vector<CallSite>{
                {list, "Orvane::SharedObjectList::GetAndRemove", 217},
                {"source/CoreClasses/BufferFactory", "Orvane::BufferFactoryCommon::Purge", 60},
                {list, "Orvane::SharedObjectList::GetAndRemove", 217}}),
            sites.released);
}

TEST_F(BufferFactoryTest, LendingAndReturningAllocateNothing) {
  factory_->Initialize(64, 100, 100, 0);
  std::vector<Buffer*> lent;
  lent.reserve(100);
  const std::size_t before = AllocationCounter::Count();
  for (int round = 0; round < 20; ++round) {
    lent.clear();
    while (Buffer* const buffer = factory_->GetBufferFromFactory()) lent.push_back(buffer);
    for (Buffer* const buffer : lent) factory_->ReturnBufferToFactory(buffer);
  }
  EXPECT_EQ(before, AllocationCounter::Count());
}

// Gets and returns buffers as fast as it can.
class Borrower : public MTThreadBody {
 public:
  explicit Borrower(BufferFactory* factory) : factory_(factory) {}

 protected:
  void ThreadMain(MTThread*) override {
    for (int i = 0; i < 2000; ++i) {
      Buffer* const buffer = factory_->GetBufferFromFactory();
      if (!buffer) continue;
      std::memset(buffer->GetAddress(), i, buffer->GetSize());
      factory_->ReturnBufferToFactory(buffer);
    }
  }

 private:
  BufferFactory* const factory_;
};

TEST_F(BufferFactoryTest, BorrowersOnSeveralThreadsNeverShareABuffer) {
  factory_->Initialize(64, 2, 2, 0);
  Borrower body(factory_);
  std::vector<MTThread*> threads;
  for (int i = 0; i < 4; ++i) {
    threads.push_back(
        MTInterface::NewThread(&body, MTThread::kPriorityNormal, MTThread::kProcessorAny));
  }
  for (MTThread* const thread : threads) {
    EXPECT_TRUE(thread->Terminate(60000));
    delete thread;
  }
  ExpectCounts(2, 0);
}

class BufferFactoryGrowthTest : public OrvaneTest {};

TEST_F(BufferFactoryGrowthTest, MakingAndLendingManyBuffersIsLinear) {
  const auto work = [](std::size_t count) {
    AutoRelease<BufferFactoryHeap> factory(new BufferFactoryHeap);
    ASSERT_TRUE(factory->Initialize(16, count, count, 0));
    std::vector<Buffer*> lent;
    while (Buffer* const buffer = factory->GetBufferFromFactory()) lent.push_back(buffer);
    ASSERT_EQ(count, lent.size());
    for (Buffer* const buffer : lent) ASSERT_TRUE(factory->ReturnBufferToFactory(buffer));
  };
  EXPECT_TRUE(GrowsLinearly(work, 262144));
}

class BufferFactoryPhysMemTest : public OrvaneTest {
 protected:
  const std::size_t page_ = PhysMemInterface::GetPageSize();
  AutoRelease<BufferFactoryPhysMem> factory_{new BufferFactoryPhysMem};

  void TearDown() override {
    factory_.Release();
    OrvaneTest::TearDown();
  }
};

TEST_F(BufferFactoryPhysMemTest, CarvesBuffersOutOfOneChunk) {
  EXPECT_TRUE(factory_->Initialize(2 * page_, 2, 8, 0));
  EXPECT_EQ(8u, factory_->GetNumberOfBuffersFree());
  std::set<char*> addresses;
  std::vector<Buffer*> lent;
  while (Buffer* const buffer = factory_->GetBufferFromFactory()) {
    lent.push_back(buffer);
    addresses.insert(static_cast<char*>(buffer->GetAddress()));
    EXPECT_EQ(2u, PhysMemInterface::GetNumberOfValidPagesForBuffer(buffer->GetAddress(),
                                                                   buffer->GetSize()));
  }
  ASSERT_EQ(8u, addresses.size());
  EXPECT_EQ(*addresses.begin() + 14 * page_, *addresses.rbegin());
  for (Buffer* const buffer : lent) factory_->ReturnBufferToFactory(buffer);
}

TEST_F(BufferFactoryPhysMemTest, ChunkLivesUntilItsLastViewIsReleased) {
  factory_->Initialize(page_, 2, 2, 0);
  Buffer* const buffer = factory_->GetBufferFromFactory();
  factory_.Release();
  std::memset(buffer->GetAddress(), 1, page_);
  EXPECT_EQ(0, buffer->DecRef("tests", "", 0));
}

TEST_F(BufferFactoryPhysMemTest, NoBuffersAtAllAreEnoughForAMinimumOfNone) {
  EXPECT_TRUE(factory_->Initialize(page_, 0, 0, 0));
  EXPECT_EQ(0u, factory_->GetTotalNumberOfBuffers());
}

TEST_F(BufferFactoryPhysMemTest, BuffersOfNoBytesCannotBeMade) {
  EXPECT_FALSE(factory_->Initialize(0, 1, 1, 0));
  EXPECT_TRUE(factory_->Initialize(page_, 1, 1, 0));
}

TEST_F(BufferFactoryPhysMemTest, MoreBytesThanThereAreAddressesAreRefused) {
  EXPECT_FALSE(factory_->Initialize(~std::size_t{0} / 2, 3, 3, 0));
  EXPECT_EQ(0u, factory_->GetTotalNumberOfBuffers());
}

TEST_F(BufferFactoryPhysMemTest, SecondInitializeWithAnotherSizeChangesNothing) {
  factory_->Initialize(page_, 2, 2, 0);
  EXPECT_FALSE(factory_->Initialize(2 * page_, 2, 2, 0));
  EXPECT_EQ(2u, factory_->GetNumberOfBuffersFree());
}

TEST_F(BufferFactoryPhysMemTest, SecondInitializeThatFindsThePoolFullPurges) {
  factory_->Initialize(page_, 2, 2, 0);
  EXPECT_FALSE(factory_->Initialize(page_, 2, 2, 0));
  EXPECT_EQ(0u, factory_->GetTotalNumberOfBuffers());
}

TEST_F(BufferFactoryPhysMemTest, FailureInsideInitializeLeavesAFactoryThatCanBeInitialised) {
  TestMTInterface& mt = TestMTInterface::Get();
  for (long ordinal = 1;; ++ordinal) {
    AutoRelease<BufferFactoryPhysMem> factory(new BufferFactoryPhysMem);
    mt.FailCreation(ordinal, TestMTInterface::kThrow, TestMTInterface::kAtomicsOnly);
    bool made = false;
    try {
      made = factory->Initialize(page_, 3, 3, 0);
    } catch (const std::bad_alloc&) {
    }
    if (!mt.StopFailing()) break;
    if (made) continue;
    EXPECT_EQ(0u, factory->GetTotalNumberOfBuffers()) << ordinal;
    EXPECT_TRUE(factory->Initialize(page_, 3, 3, 0));
    EXPECT_EQ(3u, factory->GetNumberOfBuffersFree());
  }
}

// Grants less than is asked for, at most three buffers at once.
TEST_F(BufferFactoryPhysMemTest, GoesOnWithSmallerChunksWhileTheMinimumRemainsToBeMade) {
  std::vector<std::uint64_t> requests;
  TestPhysMemInterface::Get().SetAllocator([&](std::uint64_t size) {
    requests.push_back(size / page_);
    return TestPhysMemInterface::Get().AllocateFromHost(std::min<std::uint64_t>(size, 3 * page_));
  });
  EXPECT_TRUE(factory_->Initialize(page_, 4, 10, 0));
  EXPECT_EQ((std::vector<std::uint64_t>{10, 7, 4}), requests);
  EXPECT_EQ(9u, factory_->GetNumberOfBuffersFree());
}

TEST_F(BufferFactoryPhysMemTest, RefusedRequestIsRepeatedOneBufferSmaller) {
  std::vector<std::uint64_t> requests;
  TestPhysMemInterface::Get().SetAllocator([&](std::uint64_t size) -> Buffer* {
    requests.push_back(size / page_);
    if (size > 3 * page_) return nullptr;
    return TestPhysMemInterface::Get().AllocateFromHost(size);
  });
  EXPECT_TRUE(factory_->Initialize(page_, 2, 5, 0));
  EXPECT_EQ((std::vector<std::uint64_t>{5, 4, 3, 2}), requests);
  EXPECT_EQ(5u, factory_->GetNumberOfBuffersFree());
}

TEST_F(BufferFactoryPhysMemTest, StopsWhenFewerThanTheMinimumRemainToBeMade) {
  TestPhysMemInterface::Get().SetAllocator(
      [&](std::uint64_t) { return TestPhysMemInterface::Get().AllocateFromHost(3 * page_); });
  EXPECT_TRUE(factory_->Initialize(page_, 3, 5, 0));
  EXPECT_EQ(3u, factory_->GetNumberOfBuffersFree());
}

TEST_F(BufferFactoryPhysMemTest, TooFewBuffersAreGivenUp) {
  int grants = 1;
  TestPhysMemInterface::Get().SetAllocator([&](std::uint64_t) -> Buffer* {
    return grants-- > 0 ? TestPhysMemInterface::Get().AllocateFromHost(2 * page_) : nullptr;
  });
  EXPECT_FALSE(factory_->Initialize(page_, 4, 6, 0));
  EXPECT_EQ(0u, factory_->GetTotalNumberOfBuffers());
}

// Refuses to be locked.
class StubbornBuffer : public HostBuffer {
 public:
  StubbornBuffer() : HostBuffer(nullptr, 1 << 20) {}
  LockState_t Lock() override { return kBufferUnlocked; }
};

TEST_F(BufferFactoryPhysMemTest, ChunksThatAreTooSmallOrDoNotLockAreReleased) {
  CallSites sites;
  std::vector<Buffer*> chunks{new Recording<StubbornBuffer>(&sites),
                              new Recording<HeapBuffer>(&sites, std::size_t{10})};
  TestPhysMemInterface::Get().SetAllocator([&](std::uint64_t size) -> Buffer* {
    if (chunks.empty()) return TestPhysMemInterface::Get().AllocateFromHost(size);
    Buffer* const chunk = chunks.back();
    chunks.pop_back();
    return chunk;
  });
  EXPECT_TRUE(factory_->Initialize(page_, 1, 5, 0));
  const std::string file = "source/CoreClasses/BufferFactory";
  const std::string function = "Orvane::BufferFactoryPhysMem::Initialize";
  EXPECT_EQ((std::vector<CallSite>{{file, function, 186}, {file, function, 192}}), sites.released);
  EXPECT_EQ(5u, factory_->GetNumberOfBuffersFree());
}

TEST_F(BufferFactoryPhysMemTest, ChunkStaysLockedAndBelongsToListAndViews) {
  CallSites sites;
  Buffer* chunk = nullptr;
  TestPhysMemInterface::Get().SetAllocator([&](std::uint64_t size) -> Buffer* {
    chunk = new Recording<HeapBuffer>(&sites, static_cast<std::size_t>(size));
    return chunk;
  });
  EXPECT_TRUE(factory_->Initialize(100, 2, 2, 0));
  EXPECT_EQ(Buffer::kBufferLocked, chunk->GetLockState());
  EXPECT_EQ(3, chunk->GetRefCount());
  EXPECT_EQ((CallSite{"source/CoreClasses/BufferFactory",
                      "Orvane::BufferFactoryPhysMem::Initialize", 168}),
            sites.released.front());
  factory_.Release();
}

TEST_F(BufferFactoryPhysMemTest, ChunkThatComesTwiceIsAnError) {
  AutoRelease<HeapBuffer> chunk(new HeapBuffer(100));
  TestPhysMemInterface::Get().SetAllocator([&](std::uint64_t) -> Buffer* {
    chunk->AddRef("tests", "", 0);
    return chunk;
  });
  EXPECT_FALSE(factory_->Initialize(100, 1, 3, 0));
  EXPECT_EQ(0u, factory_->GetTotalNumberOfBuffers());
  EXPECT_EQ(1, chunk->GetRefCount());
}

}  // namespace
}  // namespace Orvane
