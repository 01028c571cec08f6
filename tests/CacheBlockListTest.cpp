#include "Cache/CacheBlockList.h"

#include <algorithm>
#include <limits>
#include <thread>

#include "BlockFixture.h"
#include "MTInterface.h"

namespace Orvane {
namespace {

constexpr std::size_t kLongBlock = OneBufferFactory::kSize;

class CacheBlockListTest : public BlockFixture {
 protected:
  // Everything that the list would do for a filled block of the source: what was free is told by
  // the order of the claims.
  std::vector<std::uint64_t> ReplacementOrder(MemorySource* source, std::size_t count) {
    std::vector<std::uint64_t> order;
    std::vector<CacheBlock*> claimed;
    Reader reader(other_, 0, count * kBlock);
    for (std::size_t k = 0; k < count; ++k) {
      std::vector<std::uint64_t> before;
      for (std::size_t b = 0; b < list_->GetBlockCount(); ++b) {
        before.push_back(list_->GetBlock(b)->GetSourceOffset());
      }
      CacheBlock* const block = list_->FindBlockToReadInto(reader);
      if (!block) break;
      for (std::size_t b = 0; b < before.size(); ++b) {
        if (list_->GetBlock(b) == block) order.push_back(before[b] / kBlock);
      }
      claimed.push_back(block);
    }
    for (CacheBlock* const block : claimed) {
      block->CompleteReadInto(0, CacheSource::kResultFailed);
    }
    EXPECT_NE(source, other_);
    return order;
  }
  static void EndFill(CacheBlock* block, std::uint64_t bytes, CacheSource::Result_t result) {
    block->CompleteReadInto(bytes, result);
    block->ProcessPendingTransactions(nullptr);
  }
  // A hit with a due time.
  void Use(std::uint64_t offset, std::uint32_t dueTime) {
    Reader reader(source_, offset, 10, dueTime);
    CacheBlock* const block = Attach(reader);
    ASSERT_NE(nullptr, block);
    block->ProcessPendingTransactions(nullptr);
    EXPECT_EQ(contents_.substr(offset, 10), reader.GetBytes(10));
  }
  bool Holds(std::uint64_t offset) {
    return list_->HoldsResident(source_->GetSourceKey(), offset, 1);
  }
  void ExpectAllFree() {
    for (std::size_t k = 0; k < list_->GetBlockCount(); ++k) {
      EXPECT_EQ(0, list_->GetBlock(k)->GetLockCount()) << k;
      EXPECT_EQ(0u, list_->GetBlock(k)->GetNumberOfPendingTransactions()) << k;
      EXPECT_EQ(Buffer::kBufferUnlocked, list_->GetBlock(k)->GetBuffer()->GetLockState()) << k;
    }
  }

  const std::string contents_ = MemorySource::Pattern(16 * kBlock);
  MemorySource* source_ = MakeSource(contents_);
  MemorySource* other_ = MakeSource(MemorySource::Pattern(16 * kBlock, 2));
};

// The making.

TEST_F(CacheBlockListTest, FactoryWithoutFreeBuffersGivesAListWithoutBlocks) {
  ASSERT_TRUE(factory_->Initialize(kBlock, 1, 1, 0));
  Buffer* const taken = factory_->GetBufferFromFactory();
  AutoRelease<BufferFactoryHeap> fresh(new BufferFactoryHeap);
  for (BufferFactory* const factory : {factory_.Get(), fresh.Get()}) {
    list_ = std::make_unique<CacheBlockList>(nullptr, factory);
    EXPECT_EQ(0u, list_->GetBlockCount());
    EXPECT_EQ(factory->GetBufferSize(), list_->GetBlockSize());
    Reader reader(source_, 0, 10);
    EXPECT_EQ(nullptr, Attach(reader));
    EXPECT_EQ(nullptr, list_->FindBlockToReadInto(reader));
    EXPECT_TRUE(reader->StillRangesToComplete());
    list_->CancelSource(source_);
    list_->PurgeSource(source_);
    list_->InvalidateRange(source_, 0, kBlock);
    list_->InvalidateWritten(source_, 0, kBlock);
    list_->Dump();
    EXPECT_FALSE(reader.IsOver());
  }
  list_.reset();
  EXPECT_TRUE(factory_->ReturnBufferToFactory(taken));
}

TEST_F(CacheBlockListTest, TakesEveryFreeBufferAndGivesAllBack) {
  MakeList(5);
  EXPECT_EQ(5u, list_->GetBlockCount());
  EXPECT_EQ(kBlock, list_->GetBlockSize());
  EXPECT_EQ(0u, factory_->GetNumberOfBuffersFree());
  EXPECT_EQ(2, factory_->GetRefCount());
  list_.reset();
  EXPECT_EQ(5u, factory_->GetNumberOfBuffersFree());
  EXPECT_EQ(1, factory_->GetRefCount());
}

TEST_F(CacheBlockListTest, SecondListOnAFactoryHasWhatIsLeft) {
  ASSERT_TRUE(factory_->Initialize(kBlock, 3, 3, 0));
  Buffer* const taken = factory_->GetBufferFromFactory();
  CacheBlockList first(nullptr, factory_);
  EXPECT_EQ(2u, first.GetBlockCount());
  ASSERT_TRUE(factory_->ReturnBufferToFactory(taken));
  CacheBlockList second(nullptr, factory_);
  EXPECT_EQ(1u, second.GetBlockCount());
  CacheBlockList third(nullptr, factory_);
  EXPECT_EQ(0u, third.GetBlockCount());
  Reader reader(source_, 0, kBlock);
  CacheBlock* const block = second.FindBlockToReadInto(reader);
  EXPECT_EQ(second.GetBlock(0), block);
  EXPECT_EQ(nullptr, third.FindBlockToReadInto(reader));
}

TEST_F(CacheBlockListTest, MemoryShortageWhileBlocksAreMadeLeavesFewerAndNoLeak) {
  constexpr std::size_t kBlocks = 4;
  ASSERT_TRUE(factory_->Initialize(kBlock, kBlocks, kBlocks, 0));
  std::size_t most = 0;
  bool happened = true;
  for (std::size_t ordinal = 2; happened; ++ordinal) {  // the first is the list's own lock
    {
      AllocationFailure failure(ordinal);
      try {
        list_ = std::make_unique<CacheBlockList>(nullptr, factory_);
      } catch (const std::bad_alloc&) {
        list_.reset();
      }
      happened = failure.HasHappened();
    }
    const std::size_t blocks = list_ ? list_->GetBlockCount() : 0;
    EXPECT_EQ(kBlocks - blocks, factory_->GetNumberOfBuffersFree()) << ordinal;
    EXPECT_EQ(happened, blocks < kBlocks) << ordinal;
    EXPECT_LE(most, blocks) << ordinal;
    most = blocks;
    if (blocks > 0) {
      CacheBlock* const block = Fill(source_, 0);
      EXPECT_NE(nullptr, block);
      EXPECT_TRUE(IsHit(source_, 10, 20, contents_.substr(10, 20)));
    }
    list_.reset();
    EXPECT_EQ(kBlocks, factory_->GetNumberOfBuffersFree()) << ordinal;
    EXPECT_EQ(1, factory_->GetRefCount()) << ordinal;
  }
  EXPECT_EQ(kBlocks, most);
}

TEST_F(CacheBlockListTest, ShortageOfLocksWhileBlocksAreMadeLeavesFewerAndNoLeak) {
  ASSERT_TRUE(factory_->Initialize(kBlock, 4, 4, 0));
  // The list has two of its own, its index one, and each block its lock.
  TestMTInterface::Get().FailCreation(6, TestMTInterface::kThrow);
  list_ = std::make_unique<CacheBlockList>(nullptr, factory_);
  EXPECT_TRUE(TestMTInterface::Get().StopFailing());
  EXPECT_EQ(2u, list_->GetBlockCount());
  EXPECT_EQ(2u, factory_->GetNumberOfBuffersFree());
}

TEST_F(CacheBlockListTest, ManyBlocksAreMadeWithFewAllocationsEach) {
  const auto allocationsOf = [this](std::size_t blocks) {
    AutoRelease<OneBufferFactory> factory(new OneBufferFactory(blocks));
    const std::size_t before = AllocationCounter::Count();
    list_ = std::make_unique<CacheBlockList>(nullptr, factory);
    const std::size_t allocations = AllocationCounter::Count() - before;
    EXPECT_EQ(blocks, list_->GetBlockCount());
    list_.reset();
    return allocations;
  };
  const std::size_t lock = [] {
    const std::size_t before = AllocationCounter::Count();
    delete MTInterface::NewCritSec();
    return AllocationCounter::Count() - before;
  }();
  // The locks that all share, and the blocks by the handful.
  const std::size_t few = allocationsOf(1024);
  EXPECT_LE(few, 256 * (1 + lock) + 256 * lock + 1024 / 4 + 32);
  EXPECT_LE(allocationsOf(262144), few + (262144 - 1024) / 4 + 32);
}

TEST_F(CacheBlockListTest, BlocksTakeAtMost224BytesEachBesideTheirBuffers) {
  constexpr std::size_t kBlocks = 65536;
  constexpr std::size_t kAllocatorsOwn = 16;
  const auto now = [] {
    return AllocationCounter::Bytes() + kAllocatorsOwn * AllocationCounter::Count();
  };
  AutoRelease<OneBufferFactory> factory(new OneBufferFactory(kBlocks));
  const std::size_t before = now();
  list_ = std::make_unique<CacheBlockList>(nullptr, factory);
  const std::size_t each = (now() - before) / kBlocks;
  RecordProperty("BytesPerBlock", static_cast<int>(each));
  EXPECT_LE(each, 224u);
  EXPECT_GE(each, sizeof(CacheBlock));
}

// Finding.

TEST_F(CacheBlockListTest, FindsTheBlocksOfAReadInTheOrderOfTheirOffsets) {
  MakeList(8);
  for (const std::uint64_t place : {3u, 0u, 2u, 1u}) Fill(source_, place * kBlock);
  Fill(other_, 0);
  Reader reader(source_, kBlock + 10, 2 * kBlock);
  std::uint64_t cursor = 0;
  bool served = false;
  std::vector<std::uint64_t> found;
  while (CacheBlock* const block = list_->FindBlockToCopyOutOf(reader, &served, &cursor)) {
    found.push_back(block->GetSourceOffset() / kBlock);
    block->ProcessPendingTransactions(nullptr);
  }
  EXPECT_EQ((std::vector<std::uint64_t>{1, 2, 3}), found);
  EXPECT_EQ((Report{CacheSource::kResultOK, 2 * kBlock}), reader.GetReport());
  EXPECT_EQ(contents_.substr(kBlock + 10, 2 * kBlock), reader.GetBytes(2 * kBlock));
}

TEST_F(CacheBlockListTest, LooksUpNothingForNoTransactionOrNoSource) {
  MakeList(1);
  AutoRelease<CacheTransaction> empty(new CacheTransaction);
  EXPECT_EQ(nullptr, Attach(nullptr));
  EXPECT_EQ(nullptr, Attach(empty));
  EXPECT_EQ(nullptr, list_->FindBlockToReadInto(nullptr));
  EXPECT_EQ(nullptr, list_->FindBlockToReadInto(empty));
}

TEST_F(CacheBlockListTest, BlockBeingFilledIsFoundAndWaitedFor) {
  MakeList(2);
  Reader first(source_, 0, kBlock);
  CacheBlock* const block = list_->FindBlockToReadInto(first);
  Reader second(source_, 100, 10);
  bool served = false;
  EXPECT_EQ(block, Attach(second, &served));
  EXPECT_TRUE(served);
  PutBytes(block, contents_);
  EndFill(block, kBlock, CacheSource::kResultOK);
  EXPECT_EQ((Report{CacheSource::kResultOK, 10}), second.GetReport());
  EXPECT_EQ(contents_.substr(100, 10), second.GetBytes(10));
}

TEST_F(CacheBlockListTest, BlocksAtTheVeryEndOfAllOffsetsAreFound) {
  MakeList(2);
  const std::uint64_t place = std::numeric_limits<std::uint64_t>::max() - (2 * kBlock - 1);
  Reader first(source_, place, kBlock);
  CacheBlock* const block = list_->FindBlockToReadInto(first);
  ASSERT_NE(nullptr, block);
  EndFill(block, kBlock, CacheSource::kResultOK);
  Reader reader(source_, place + 5, kBlock);
  std::uint64_t cursor = 0;
  bool served = false;
  EXPECT_EQ(block, list_->FindBlockToCopyOutOf(reader, &served, &cursor));
  EXPECT_EQ(nullptr, list_->FindBlockToCopyOutOf(reader, &served, &cursor));
  list_->InvalidateRange(source_, place, 2 * kBlock - 1);
  EXPECT_EQ((Report{CacheSource::kResultFailed, 0}), reader.GetReport());
  EXPECT_EQ(nullptr, Attach(first));
}

TEST_F(CacheBlockListTest, ResidentBlocksAreHeldAndTold) {
  MakeList(4);
  Fill(source_, 0);
  Fill(source_, kBlock);
  const std::uint32_t key = source_->GetSourceKey();
  EXPECT_TRUE(list_->HoldsResident(key, 10, 2 * kBlock - 10));
  EXPECT_FALSE(list_->HoldsResident(key, 10, 2 * kBlock - 9));
  EXPECT_FALSE(list_->HoldsResident(other_->GetSourceKey(), 0, 1));
  CacheBlockList::ResidentPiece pieces[3];
  ASSERT_EQ(2u, list_->LockResident(key, kBlock - 10, 20, pieces, 3));
  for (std::size_t k = 0; k < 2; ++k) {
    EXPECT_EQ(10u, pieces[k].bytes);
    EXPECT_EQ(contents_.substr(kBlock - 10 + 10 * k, 10), std::string(pieces[k].address, 10));
    EXPECT_EQ(1, pieces[k].block->GetLockCount());
    EXPECT_TRUE(pieces[k].block->Unlock(CacheSource::kDueASAP));
  }
  ASSERT_EQ(1u, list_->LockResident(key, kBlock - 10, 20, pieces, 1));
  pieces[0].block->Unlock(CacheSource::kDueASAP);
  // The last piece is missing: nothing stays held.
  EXPECT_EQ(0u, list_->LockResident(key, 0, 2 * kBlock + 1, pieces, 3));
  EXPECT_EQ(0u, list_->LockResident(key, 2 * kBlock, 1, pieces, 3));
  EXPECT_EQ(0, pieces[0].block->GetLockCount());
}

// A transaction whose ranges were taken apart may come again for more of a block it waits for.
TEST_F(CacheBlockListTest, SecondBlockOfOnePlaceTakesOverFromTheFirst) {
  MakeList(2);
  Reader reader(source_, 0, kBlock);
  CacheBlock* const first = list_->FindBlockToReadInto(reader);
  reader->ReturnRangeToComplete(100, 10);
  EXPECT_EQ(nullptr, Attach(reader));
  CacheBlock* const second = list_->FindBlockToReadInto(reader);
  ASSERT_NE(nullptr, second);
  ASSERT_NE(first, second);
  PutBytes(first, contents_);
  PutBytes(second, contents_);
  EndFill(first, kBlock, CacheSource::kResultOK);
  EndFill(second, kBlock, CacheSource::kResultOK);
  EXPECT_EQ((Report{CacheSource::kResultOK, kBlock}), reader.GetReport());
  EXPECT_EQ(CacheSource::kInvalidKey, first->GetSourceKey());
  Reader hit(source_, 0, 10);
  EXPECT_EQ(second, Attach(hit));
}

// Replacement.

TEST_F(CacheBlockListTest, OldestStampIsReplacedFirst) {
  MakeList(4);
  const std::uint32_t now = FromNow(0);
  Fill(source_, 0 * kBlock, now + 30000);
  Fill(source_, 1 * kBlock, now + 10000);
  Fill(source_, 2 * kBlock, now + 40000);
  Fill(source_, 3 * kBlock, now + 20000);
  EXPECT_EQ((std::vector<std::uint64_t>{1, 3, 0, 2}), ReplacementOrder(source_, 4));
}

TEST_F(CacheBlockListTest, EmptyBlocksAreTakenBeforeAnyOther) {
  MakeList(3);
  Fill(source_, 0);
  CacheBlock* const block = Fill(source_, kBlock);
  Fill(source_, 2 * kBlock);
  list_->InvalidateRange(source_, kBlock, 1);
  EXPECT_EQ(block, TakeOldest(other_, 0));
  EXPECT_TRUE(Holds(0));
  EXPECT_TRUE(Holds(2 * kBlock));
}

TEST_F(CacheBlockListTest, HitMakesABlockYounger) {
  MakeList(3);
  const std::uint32_t now = FromNow(0);
  for (std::uint32_t k = 0; k < 3; ++k) Fill(source_, k * kBlock, now + 1000 * k + 1);
  Use(0, now + 5000);
  EXPECT_EQ((std::vector<std::uint64_t>{1, 2, 0}), ReplacementOrder(source_, 3));
}

TEST_F(CacheBlockListTest, HitThatTakesAFarStampBackMakesABlockOlder) {
  MakeList(3);
  const std::uint32_t now = FromNow(0);
  Fill(source_, 0, now + 10000);
  Fill(source_, kBlock, now + 20000);
  Fill(source_, 2 * kBlock, now + 3 * kHourMs);
  Use(2 * kBlock, now + 5000);
  EXPECT_EQ((std::vector<std::uint64_t>{2, 0, 1}), ReplacementOrder(source_, 3));
}

TEST_F(CacheBlockListTest, EqualStampsKeepTheOrderInWhichTheyWereSet) {
  MakeList(5);
  const std::uint32_t due = FromNow(5000);
  for (const std::uint64_t place : {2u, 4u, 0u, 3u, 1u}) {
    Fill(source_, place * kBlock, due);
    // The clock must tell them apart.
    TestMTInterface::Get().ShiftClock(1);
  }
  // A stamp that stays is no news.
  Use(4 * kBlock, due);
  EXPECT_EQ((std::vector<std::uint64_t>{2, 4, 0, 3, 1}), ReplacementOrder(source_, 5));
}

TEST_F(CacheBlockListTest, HitsThatCameToOneStampKeepTheirOrder) {
  MakeList(3);
  const std::uint32_t due = FromNow(5000);
  for (std::uint32_t k = 0; k < 3; ++k) Fill(source_, k * kBlock, due - 1000 + k);
  for (const std::uint64_t place : {1u, 2u, 0u}) {
    TestMTInterface::Get().ShiftClock(1);
    Use(place * kBlock, due);
  }
  EXPECT_EQ((std::vector<std::uint64_t>{1, 2, 0}), ReplacementOrder(source_, 3));
}

TEST_F(CacheBlockListTest, PreReadPassesOverBlocksWantedLater) {
  MakeList(3);
  const std::uint32_t now = FromNow(0);
  Fill(source_, 0, now + 60000);
  Fill(source_, kBlock, now - 5000);
  Fill(source_, 2 * kBlock, now + 70000);
  AutoRelease<CacheTransaction> first(NewPreRead(other_, 0, kBlock, now + 90000));
  CacheBlock* const block = list_->FindBlockToReadInto(first);
  ASSERT_NE(nullptr, block);
  EXPECT_FALSE(Holds(kBlock));
  EXPECT_TRUE(Holds(0));
  AutoRelease<CacheTransaction> second(NewPreRead(other_, kBlock, kBlock, now + 90000));
  EXPECT_EQ(nullptr, list_->FindBlockToReadInto(second));
  EXPECT_TRUE(second->StillRangesToComplete());
  Reader reader(other_, 2 * kBlock, kBlock);
  EXPECT_NE(nullptr, list_->FindBlockToReadInto(reader));
  EXPECT_FALSE(Holds(0));
  EXPECT_TRUE(Holds(2 * kBlock));
}

TEST_F(CacheBlockListTest, BusyBlocksArePassedOverAndComeBack) {
  MakeList(3);
  const std::uint32_t now = FromNow(0);
  for (std::uint32_t k = 0; k < 3; ++k) Fill(source_, k * kBlock, now + 10000 * (k + 1));
  Reader holder(source_, 0, 10, now + 10000);
  CacheBlock* const held = Attach(holder);
  for (int round = 0; round < 3; ++round) {
    Reader reader(other_, 0, 3 * kBlock);
    CacheBlock* const first = list_->FindBlockToReadInto(reader);
    CacheBlock* const second = list_->FindBlockToReadInto(reader);
    EXPECT_NE(held, first);
    EXPECT_NE(held, second);
    EXPECT_EQ(nullptr, list_->FindBlockToReadInto(reader));
    ASSERT_TRUE(first && second);
    first->CompleteReadInto(0, CacheSource::kResultFailed);
    second->CompleteReadInto(0, CacheSource::kResultFailed);
  }
  held->ProcessPendingTransactions(nullptr);
  EXPECT_EQ(contents_.substr(0, 10), holder.GetBytes(10));
  // The others are empty by now and go first.
  Reader reader(other_, 0, 3 * kBlock);
  EXPECT_NE(held, list_->FindBlockToReadInto(reader));
  EXPECT_NE(held, list_->FindBlockToReadInto(reader));
  EXPECT_EQ(held, list_->FindBlockToReadInto(reader));
}

TEST_F(CacheBlockListTest, BusyBlockComesBackToThePlaceOfItsStamp) {
  MakeList(3);
  const std::uint32_t now = FromNow(0);
  for (std::uint32_t k = 0; k < 3; ++k) Fill(source_, k * kBlock, now + 10000 * (k + 1));
  Reader holder(source_, 0, 10, now + 10000);
  CacheBlock* const held = Attach(holder);
  // Claims the second, and finds the first busy on the way.
  Reader reader(source_, 5 * kBlock, kBlock, now + 50000);
  CacheBlock* const block = list_->FindBlockToReadInto(reader);
  EndFill(block, kBlock, CacheSource::kResultOK);
  held->ProcessPendingTransactions(nullptr);
  EXPECT_EQ((std::vector<std::uint64_t>{0, 2, 5}), ReplacementOrder(source_, 3));
}

TEST_F(CacheBlockListTest, NothingIsFoundWhileAllAreBusy) {
  MakeList(2);
  Reader reader(source_, 0, 3 * kBlock);
  CacheBlock* const first = list_->FindBlockToReadInto(reader);
  CacheBlock* const second = list_->FindBlockToReadInto(reader);
  EXPECT_EQ(nullptr, list_->FindBlockToReadInto(reader));
  EXPECT_TRUE(reader->StillRangesToComplete());
  first->CompleteReadInto(kBlock, CacheSource::kResultOK);
  EXPECT_EQ(nullptr, list_->FindBlockToReadInto(reader));
  first->ProcessPendingTransactions(nullptr);
  EXPECT_EQ(first, list_->FindBlockToReadInto(reader));
  EXPECT_FALSE(reader->StillRangesToComplete());
  EXPECT_NE(nullptr, second);
}

TEST_F(CacheBlockListTest, ReplacementFollowsTheClockAcrossItsWrap) {
  MakeList(4);
  TestMTInterface& mt = TestMTInterface::Get();
  const std::uint32_t untilWrap = 0u - FromNow(0);
  mt.ShiftClock((std::uint64_t{untilWrap} - 5000) * 1000);
  Fill(source_, 0, FromNow(2000));
  Fill(source_, kBlock, FromNow(1000));
  ASSERT_LT(FromNow(20000), 20000u);
  Fill(source_, 2 * kBlock, FromNow(20000));
  mt.ShiftClock(std::uint64_t{10000} * 1000);
  ASSERT_LT(FromNow(0), 10000u);
  Fill(source_, 3 * kBlock, FromNow(1000));
  EXPECT_EQ((std::vector<std::uint64_t>{1, 0, 3, 2}), ReplacementOrder(source_, 4));
}

TEST_F(CacheBlockListTest, PreReadsMayReplaceBlocksFromBeforeTheWrapOfTheClock) {
  MakeList(1);
  TestMTInterface& mt = TestMTInterface::Get();
  const std::uint32_t untilWrap = 0u - FromNow(0);
  mt.ShiftClock((std::uint64_t{untilWrap} - 5000) * 1000);
  Fill(source_, 0, FromNow(2000));
  mt.ShiftClock(std::uint64_t{10000} * 1000);
  AutoRelease<CacheTransaction> preRead(NewPreRead(other_, 0, kBlock));
  EXPECT_NE(nullptr, list_->FindBlockToReadInto(preRead));
}

// Forgetting.

TEST_F(CacheBlockListTest, CancelFailsThoseThatWaitAndKeepsTheData) {
  MakeList(3);
  Fill(source_, 0);
  Fill(other_, 0);
  Reader mine(source_, 0, 10);
  Reader theirs(other_, 0, 10);
  CacheBlock* const other = (Attach(mine), Attach(theirs));
  list_->CancelSource(source_);
  EXPECT_EQ((Report{CacheSource::kResultFailed, 0}), mine.GetReport());
  EXPECT_FALSE(theirs.IsOver());
  EXPECT_TRUE(Holds(0));
  other->ProcessPendingTransactions(nullptr);
  ExpectAllFree();
}

TEST_F(CacheBlockListTest, PurgeFailsThoseThatWaitAndForgetsAllOfTheSource) {
  MakeList(3);
  Fill(source_, 0);
  Fill(source_, 5 * kBlock);
  Fill(other_, 0);
  Reader mine(source_, 0, 10);
  Attach(mine);
  list_->PurgeSource(source_);
  EXPECT_EQ((Report{CacheSource::kResultFailed, 0}), mine.GetReport());
  EXPECT_FALSE(Holds(0));
  EXPECT_FALSE(Holds(5 * kBlock));
  EXPECT_TRUE(list_->HoldsResident(other_->GetSourceKey(), 0, kBlock));
  ExpectAllFree();
}

TEST_F(CacheBlockListTest, InvalidationForgetsTheBlocksThatMeetTheRange) {
  struct Case {
    std::uint64_t offset, size;
    bool stay[4];
  };
  const std::uint64_t most = std::numeric_limits<std::uint64_t>::max();
  MakeList(4);
  for (const Case& c :
       {Case{kBlock, 1, {true, false, true, true}}, Case{kBlock - 1, 2, {false, false, true, true}},
        Case{kBlock, kBlock, {true, false, true, true}}, Case{kBlock, 0, {true, true, true, true}},
        Case{4 * kBlock, most, {true, true, true, true}},
        Case{2 * kBlock + 9, most - 3 * kBlock, {true, true, false, false}},
        Case{0, most, {false, false, false, false}}}) {
    for (std::uint64_t k = 0; k < 4; ++k) {
      if (!Holds(k * kBlock)) Fill(source_, k * kBlock);
    }
    list_->InvalidateRange(other_, c.offset, c.size);
    for (std::uint64_t k = 0; k < 4; ++k) EXPECT_TRUE(Holds(k * kBlock));
    list_->InvalidateRange(source_, c.offset, c.size);
    for (std::uint64_t k = 0; k < 4; ++k) {
      EXPECT_EQ(c.stay[k], Holds(k * kBlock)) << c.offset << ", " << c.size << ": " << k;
    }
  }
}

TEST_F(CacheBlockListTest, WriteServesThoseAttachedRefusesOthersAndForgetsTheBlockWhenFree) {
  MakeList(2);
  CacheBlock* const block = Fill(source_, 0);
  Reader attached(source_, 0, 10);
  ASSERT_EQ(block, Attach(attached));
  list_->InvalidateWritten(source_, 0, kBlock);
  EXPECT_FALSE(attached.IsOver());
  Reader late(source_, 0, 10);
  EXPECT_EQ(nullptr, Attach(late));
  EXPECT_FALSE(Holds(0));
  // A late reader has the place read anew, beside the old one.
  CacheBlock* const fresh = list_->FindBlockToReadInto(late);
  ASSERT_NE(nullptr, fresh);
  ASSERT_NE(block, fresh);
  block->ProcessPendingTransactions(nullptr);
  EXPECT_EQ((Report{CacheSource::kResultOK, 10}), attached.GetReport());
  EXPECT_EQ(contents_.substr(0, 10), attached.GetBytes(10));
  EXPECT_EQ(CacheSource::kInvalidKey, block->GetSourceKey());
  EXPECT_EQ(0u, block->GetStamp());
  EndFill(fresh, kBlock, CacheSource::kResultOK);
  EXPECT_TRUE(Holds(0));
  ExpectAllFree();
}

TEST_F(CacheBlockListTest, WriteForgetsFreeBlocksAtOnceAndLeavesWholeOnesElsewhere) {
  MakeList(4);
  for (std::uint64_t k = 0; k < 4; ++k) Fill(source_, k * kBlock);
  list_->InvalidateWritten(source_, kBlock + 5, kBlock);
  EXPECT_TRUE(Holds(0));
  EXPECT_FALSE(Holds(kBlock));
  EXPECT_FALSE(Holds(2 * kBlock));
  EXPECT_TRUE(Holds(3 * kBlock));
  list_->InvalidateWritten(source_, 0, std::numeric_limits<std::uint64_t>::max());
  EXPECT_FALSE(Holds(0));
  EXPECT_FALSE(Holds(3 * kBlock));
}

TEST_F(CacheBlockListTest, FillThatAWriteMetServesItsReadersAndIsForgotten) {
  MakeList(2);
  Reader reader(source_, 0, kBlock);
  CacheBlock* const block = list_->FindBlockToReadInto(reader);
  list_->InvalidateWritten(source_, 100, 1);
  PutBytes(block, contents_);
  EndFill(block, kBlock, CacheSource::kResultOK);
  EXPECT_EQ((Report{CacheSource::kResultOK, kBlock}), reader.GetReport());
  EXPECT_FALSE(Holds(0));
  ExpectAllFree();
}

TEST_F(CacheBlockListTest, WriteAnywhereForgetsTheShortBlocksOfItsSource) {
  source_->SetContents(contents_.substr(0, kBlock + 100));
  other_->SetContents(contents_.substr(0, 50));
  MakeList(4);
  Fill(source_, 0);
  Fill(source_, kBlock);
  Fill(other_, 0);
  ASSERT_TRUE(Holds(kBlock));
  list_->InvalidateWritten(source_, 8 * kBlock, 10);
  EXPECT_TRUE(Holds(0));
  EXPECT_FALSE(Holds(kBlock));
  EXPECT_TRUE(list_->HoldsResident(other_->GetSourceKey(), 0, 50));
  list_->InvalidateWritten(other_, kBlock, 1);
  EXPECT_FALSE(list_->HoldsResident(other_->GetSourceKey(), 0, 50));
}

TEST_F(CacheBlockListTest, ShortFillThatAWriteElsewhereOvertookIsForgotten) {
  MakeList(2);
  Reader reader(source_, 0, kBlock);
  CacheBlock* const block = list_->FindBlockToReadInto(reader);
  list_->InvalidateWritten(source_, 8 * kBlock, 10);
  PutBytes(block, contents_);
  EndFill(block, 100, CacheSource::kResultPartial);
  EXPECT_EQ((Report{CacheSource::kResultPartial, 100}), reader.GetReport());
  EXPECT_FALSE(Holds(0));
  // A whole one does not tell where the data ends.
  Reader second(source_, 0, kBlock);
  CacheBlock* const whole = list_->FindBlockToReadInto(second);
  list_->InvalidateWritten(source_, 8 * kBlock, 10);
  EndFill(whole, kBlock, CacheSource::kResultOK);
  EXPECT_TRUE(Holds(0));
}

TEST_F(CacheBlockListTest, FailedAndEmptyFillsAreAskedForAgain) {
  struct Case {
    std::uint64_t bytes;
    CacheSource::Result_t result;
  };
  MakeList(2);
  for (const Case& c : {Case{0, CacheSource::kResultError}, Case{0, CacheSource::kResultOutOfRange},
                        Case{0, CacheSource::kResultPartial}, Case{100, CacheSource::kResultError},
                        Case{0, CacheSource::kResultFailed}, Case{0, CacheSource::kResultOK}}) {
    Reader reader(source_, 0, kBlock);
    CacheBlock* const block = list_->FindBlockToReadInto(reader);
    ASSERT_NE(nullptr, block);
    Reader holder(source_, 0, 10);
    ASSERT_EQ(block, Attach(holder));
    block->CompleteReadInto(c.bytes, c.result);
    Reader late(source_, 0, 10);
    EXPECT_EQ(nullptr, Attach(late)) << c.result;
    block->ProcessPendingTransactions(nullptr);
    EXPECT_TRUE(reader.IsOver() && holder.IsOver());
    EXPECT_EQ(CacheSource::kInvalidKey, block->GetSourceKey());
    EXPECT_EQ(0u, block->GetStamp());
  }
  ExpectAllFree();
}

TEST_F(CacheBlockListTest, ShortBlockThatCannotBeNotedIsForgotten) {
  MakeList(1);
  Reader reader(source_, 0, kBlock);
  CacheBlock* const block = list_->FindBlockToReadInto(reader);
  {
    AllocationFailure failure(1);
    block->CompleteReadInto(100, CacheSource::kResultPartial);
    EXPECT_TRUE(failure.HasHappened());
  }
  block->ProcessPendingTransactions(nullptr);
  EXPECT_EQ((Report{CacheSource::kResultPartial, 100}), reader.GetReport());
  EXPECT_FALSE(Holds(0));
  ExpectAllFree();
}

// The last holder of a doomed block leaves, and before it comes to settle the block somebody else
// claims it: what that one fills in is not doomed.
TEST_F(CacheBlockListTest, BlockClaimedBeforeItIsSettledIsAsGoodAsAnyOther) {
  MakeList(1);
  CacheBlock* const block = Fill(source_, 0);
  CacheBlockList::ResidentPiece piece{};
  ASSERT_EQ(1u, list_->LockResident(source_->GetSourceKey(), 0, 1, &piece, 1));
  ASSERT_EQ(block, piece.block);
  list_->InvalidateWritten(source_, 0, 1);
  Reader reader(source_, kBlock, kBlock);
  std::thread last;
  {
    CacheBlockList::Lock lock(list_.get());
    last = std::thread([block] { block->Unlock(CacheSource::kDueASAP); });
    ASSERT_TRUE(Eventually([block] { return block->GetLockCount() == 0; }));
    EXPECT_EQ(block, list_->FindBlockToReadInto(reader));
  }
  last.join();
  Reader second(source_, kBlock, 10);
  EXPECT_EQ(block, Attach(second));
  PutBytes(block, contents_);
  EndFill(block, kBlock, CacheSource::kResultOK);
  EXPECT_EQ((Report{CacheSource::kResultOK, kBlock}), reader.GetReport());
  EXPECT_EQ((Report{CacheSource::kResultOK, 10}), second.GetReport());
  EXPECT_TRUE(Holds(kBlock));
}

TEST_F(CacheBlockListTest, FailedBatchInvalidatesBeforeItReleases) {
  MakeList(1);
  Reader reader(source_, 0, kBlock);
  CacheBlock* const block = list_->FindBlockToReadInto(reader);
  block->InvalidateBySource(source_);
  // Not released yet: nobody can claim it and be invalidated for it.
  Reader next(source_, kBlock, kBlock);
  EXPECT_EQ(nullptr, list_->FindBlockToReadInto(next));
  block->CompleteReadInto(0, CacheSource::kResultFailed);
  EXPECT_EQ(block, list_->FindBlockToReadInto(next));
  EndFill(block, kBlock, CacheSource::kResultOK);
  EXPECT_EQ((Report{CacheSource::kResultFailed, 0}), reader.GetReport());
  EXPECT_EQ((Report{CacheSource::kResultOK, kBlock}), next.GetReport());
}

TEST_F(CacheBlockListTest, DumpChangesNothing) {
  MakeList(2);
  Reader reader(source_, 0, kBlock);
  CacheBlock* const block = list_->FindBlockToReadInto(reader);
  list_->Dump();
  EXPECT_EQ(2, block->GetLockCount());
  EXPECT_EQ(1u, block->GetNumberOfPendingTransactions());
  EndFill(block, kBlock, CacheSource::kResultOK);
  EXPECT_TRUE(reader.IsOver());
}

// Growth.

class CacheBlockListGrowthTest : public CacheBlockListTest {
 protected:
  static constexpr std::size_t kMost = 32768;
};

TEST_F(CacheBlockListGrowthTest, FreeBlockIsFoundAtOnceWhileAllOthersAreBusy) {
  const auto work = [this](std::size_t count) {
    MakeLongList(count);
    Reader busy(source_, 0, (count - 1) * kLongBlock);
    std::size_t claimed = 0;
    while (busy->StillRangesToComplete() && list_->FindBlockToReadInto(busy)) ++claimed;
    ASSERT_EQ(count - 1, claimed);
    for (std::size_t k = 0; k < count; ++k) {
      Reader reader(other_, k * kLongBlock, kLongBlock);
      CacheBlock* const block = list_->FindBlockToReadInto(reader);
      ASSERT_NE(nullptr, block);
      EndFill(block, kLongBlock, CacheSource::kResultOK);
    }
    list_->PurgeSource(source_);
    for (std::size_t k = 0; k < count; ++k) {
      list_->GetBlock(k)->CompleteReadInto(0, CacheSource::kResultFailed);
    }
    list_.reset();
  };
  EXPECT_TRUE(GrowsLinearly(work, kMost));
}

TEST_F(CacheBlockListGrowthTest, HitsAndMissesDoNotSlowDownWithTheNumberOfBlocks) {
  const auto work = [this](std::size_t count) {
    MakeLongList(count);
    for (std::size_t k = 0; k < 2 * count; ++k) {
      Reader reader(source_, k * kLongBlock, kLongBlock);
      CacheBlock* const block = list_->FindBlockToReadInto(reader);
      ASSERT_NE(nullptr, block);
      EndFill(block, kLongBlock, CacheSource::kResultOK);
    }
    for (std::size_t k = 0; k < count; ++k) {
      Reader reader(source_, (2 * count - 1 - k) * kLongBlock, 1);
      CacheBlock* const block = Attach(reader);
      ASSERT_NE(nullptr, block);
      block->ProcessPendingTransactions(nullptr);
    }
    list_.reset();
  };
  EXPECT_TRUE(GrowsLinearly(work, kMost));
}

// The last blocks of many small files.
TEST_F(CacheBlockListGrowthTest, ShortBlocksComeAndGoAtOnce) {
  const auto work = [this](std::size_t count) {
    MakeLongList(count);
    for (std::size_t k = 0; k < 2 * count; ++k) {
      Reader reader(source_, k * kLongBlock, kLongBlock);
      CacheBlock* const block = list_->FindBlockToReadInto(reader);
      ASSERT_NE(nullptr, block);
      EndFill(block, kLongBlock - 1, CacheSource::kResultPartial);
      // Of another source: it has none of them.
      list_->InvalidateWritten(other_, 0, 1);
    }
    list_.reset();
  };
  EXPECT_TRUE(GrowsLinearly(work, kMost));
}

// All others may use the list meanwhile.
TEST_F(CacheBlockListGrowthTest, ASearchThatHasManyBlocksToPlaceAnewFindsTheOldestOne) {
  constexpr std::size_t kCount = 400;
  MakeLongList(kCount);
  MemorySource* const source = MakeSource(MemorySource::Pattern(kCount * kLongBlock));
  for (std::size_t k = 0; k < kCount; ++k) ASSERT_NE(nullptr, Fill(source, k * kLongBlock));
  CacheBlock* oldest = nullptr;
  // Used in another order than they were filled in.
  for (std::size_t k = kCount; k > 0; --k) {
    TestMTInterface::Get().ShiftClock(1000);
    CacheBlockList::ResidentPiece piece{};
    ASSERT_EQ(1u, list_->LockResident(source->GetSourceKey(), (k - 1) * kLongBlock, 1, &piece, 1));
    piece.block->Unlock(CacheSource::kDueASAP);
    if (!oldest) oldest = piece.block;
  }
  EXPECT_EQ(oldest, TakeOldest(other_, 0));
}

// A long transaction comes back for what is far behind: what it misses in front is read first.
TEST_F(CacheBlockListGrowthTest, AHitFarBehindWhatIsMissingIsLeftForLater) {
  constexpr std::uint64_t kFar = 400 * kLongBlock;
  MakeLongList(8);
  MemorySource* const source = MakeSource(MemorySource::Pattern(kFar + kLongBlock));
  CacheBlock* const block = Fill(source, kFar);
  ASSERT_NE(nullptr, block);
  Reader far(source, 0, kFar + kLongBlock);
  EXPECT_EQ(nullptr, Attach(far));
  EXPECT_EQ(0u, block->GetNumberOfPendingTransactions());
  Reader near(source, kFar / 2, kFar / 2 + kLongBlock);
  EXPECT_EQ(block, Attach(near));
  block->CancelPendingTransactions(nullptr);
}

TEST_F(CacheBlockListGrowthTest, InvalidationOfNothingForgetsNothing) {
  MakeLongList(2);
  MemorySource* const source = MakeSource(MemorySource::Pattern(kLongBlock));
  ASSERT_NE(nullptr, Fill(source, 0));
  list_->InvalidateRange(source, 5, 0);
  EXPECT_TRUE(list_->HoldsResident(source->GetSourceKey(), 0, kLongBlock));
  list_->InvalidateRange(source, 5, 1);
  EXPECT_FALSE(list_->HoldsResident(source->GetSourceKey(), 0, 1));
}

}  // namespace
}  // namespace Orvane
