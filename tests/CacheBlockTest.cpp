#include "Cache/CacheBlock.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <future>
#include <thread>

#include "BlockFixture.h"
#include "Cache/TransactionInternals.h"

namespace Orvane {
namespace {

constexpr std::chrono::seconds kPatience{2};

// A block that belongs to no list.
class CacheBlockTest : public BlockFixture {
 protected:
  void TearDown() override {
    block_.reset();
    group_.reset();
    buffer_.Release();
    BlockFixture::TearDown();
  }

  // From the claim to the end of the read, with the bytes of the source.
  void Read(CacheTransaction* reader, std::uint64_t bytes, CacheSource::Result_t result) {
    ASSERT_TRUE(block_->LockForReadInto(reader));
    End(bytes, result);
  }
  void End(std::uint64_t bytes, CacheSource::Result_t result) {
    PutBytes(block_.get(), contents_);
    EXPECT_TRUE(block_->CompleteReadInto(bytes, result));
  }
  void Serve() { block_->ProcessPendingTransactions(nullptr); }
  // Valid and free, with the bytes of the second block of the source.
  void MakeValid(std::uint32_t dueTime = CacheSource::kDueASAP) {
    Reader reader(source_, kBlock, kBlock, dueTime);
    Read(reader, kBlock, CacheSource::kResultOK);
    Serve();
    ASSERT_EQ(0, block_->GetLockCount());
    ASSERT_EQ((Report{CacheSource::kResultOK, kBlock}), reader.GetReport());
  }
  // As MakeValid, but the data ends after `bytes`.
  void MakeShort(std::uint64_t bytes) {
    Reader reader(source_, kBlock, kBlock);
    Read(reader, bytes, CacheSource::kResultPartial);
    Serve();
    ASSERT_EQ((Report{CacheSource::kResultPartial, bytes}), reader.GetReport());
  }
  bool Attach(CacheTransaction* reader) {
    bool served = false;
    return block_->LockForCopyOutOf(reader, &served);
  }
  bool IsBufferLocked() { return buffer_->GetLockState() == Buffer::kBufferLocked; }
  void ExpectEmpty() {
    EXPECT_EQ(CacheSource::kInvalidKey, block_->GetSourceKey());
    EXPECT_EQ(0u, block_->GetValidBytes());
    EXPECT_EQ(0u, block_->GetStamp());
    EXPECT_EQ(0, block_->GetLockCount());
    EXPECT_FALSE(IsBufferLocked());
  }

  const std::string contents_ = MemorySource::Pattern(4 * kBlock);
  MemorySource* source_ = MakeSource(contents_);
  AutoRelease<HeapBuffer> buffer_{new HeapBuffer(kBlock)};
  std::unique_ptr<BlockGroup> group_{new BlockGroup(nullptr, nullptr)};
  std::unique_ptr<CacheBlock> block_{new CacheBlock(group_.get(), buffer_)};
};

// The states.

TEST_F(CacheBlockTest, EmptyBlockHoldsNothing) {
  ExpectEmpty();
  EXPECT_EQ(kBlock, block_->GetCapacity());
  EXPECT_EQ(2, buffer_->GetRefCount());
  Reader reader(source_, 0, 10);
  EXPECT_FALSE(Attach(reader));
  EXPECT_FALSE(block_->CompleteReadInto(10, CacheSource::kResultOK));
  EXPECT_EQ(0u, block_->GetNumberOfPendingTransactions());
  ExpectEmpty();
}

TEST_F(CacheBlockTest, EmptyIsLeftForFillingByAClaim) {
  Reader reader(source_, kBlock + 100, 50);
  ASSERT_TRUE(block_->LockForReadInto(reader));
  EXPECT_TRUE(block_->HasReadingTransaction());
  EXPECT_EQ(CacheSource::kResultNone, block_->GetState());
  EXPECT_EQ(2, block_->GetLockCount());
  EXPECT_EQ(1u, block_->GetNumberOfPendingTransactions());
  EXPECT_EQ(source_->GetSourceKey(), block_->GetSourceKey());
  EXPECT_EQ(kBlock, block_->GetSourceOffset());
  EXPECT_EQ(kBlock, block_->GetValidBytes());
  EXPECT_TRUE(IsBufferLocked());
  EXPECT_EQ(3, reader->GetRefCount());
  EXPECT_FALSE(reader->StillRangesToComplete());
}

TEST_F(CacheBlockTest, FillingTakesNoSecondClaimAndGivesTheRangeBack) {
  Reader first(source_, 0, kBlock);
  Reader second(source_, kBlock, kBlock);
  ASSERT_TRUE(block_->LockForReadInto(first));
  EXPECT_FALSE(block_->LockForReadInto(second));
  std::uint64_t offset = 0;
  std::uint64_t size = 0;
  EXPECT_TRUE(second->GetRangeToComplete(offset, size, ~std::uint64_t{0}));
  EXPECT_EQ(kBlock, offset);
  EXPECT_EQ(kBlock, size);
  EXPECT_EQ(1, second->GetRefCount());
}

TEST_F(CacheBlockTest, ClaimTakesOnlyWhatTheBlockHoldsOfALongRead) {
  Reader reader(source_, 100, 2 * kBlock);
  ASSERT_TRUE(block_->LockForReadInto(reader));
  EXPECT_EQ(0u, block_->GetSourceOffset());
  std::uint64_t offset = 0;
  std::uint64_t size = 0;
  EXPECT_TRUE(reader->GetRangeToComplete(offset, size, ~std::uint64_t{0}));
  EXPECT_EQ(kBlock, offset);
  EXPECT_EQ(kBlock + 100, size);
}

TEST_F(CacheBlockTest, NothingIsServedWhileFilling) {
  Reader reader(source_, 0, kBlock);
  ASSERT_TRUE(block_->LockForReadInto(reader));
  bool becameFree = true;
  block_->ProcessPendingTransactions(&becameFree);
  EXPECT_FALSE(becameFree);
  EXPECT_FALSE(reader.IsOver());
  EXPECT_EQ(1u, block_->GetNumberOfPendingTransactions());
}

TEST_F(CacheBlockTest, FillingIsLeftForValidAndLockedByTheEndOfTheRead) {
  Reader reader(source_, 0, kBlock);
  Read(reader, kBlock, CacheSource::kResultOK);
  EXPECT_FALSE(block_->HasReadingTransaction());
  EXPECT_EQ(CacheSource::kResultOK, block_->GetState());
  EXPECT_EQ(1, block_->GetLockCount());
  EXPECT_TRUE(IsBufferLocked());
  EXPECT_EQ(2, reader->GetRefCount());
  EXPECT_FALSE(reader.IsOver());
  EXPECT_FALSE(block_->CompleteReadInto(0, CacheSource::kResultFailed));
}

TEST_F(CacheBlockTest, ValidAndLockedIsLeftForFreeByTheLastUnlock) {
  Reader reader(source_, 0, kBlock);
  Reader second(source_, 10, 20);
  Read(reader, kBlock, CacheSource::kResultOK);
  ASSERT_TRUE(Attach(second));
  EXPECT_EQ(2, block_->GetLockCount());
  Serve();
  EXPECT_EQ(0, block_->GetLockCount());
  EXPECT_FALSE(IsBufferLocked());
  EXPECT_NE(0u, block_->GetStamp());
  EXPECT_EQ(source_->GetSourceKey(), block_->GetSourceKey());
  EXPECT_EQ(kBlock, block_->GetValidBytes());
  EXPECT_EQ(contents_.substr(0, kBlock), reader.GetBytes(kBlock));
  EXPECT_EQ(contents_.substr(10, 20), second.GetBytes(20));
  EXPECT_EQ(1, reader->GetRefCount());
  EXPECT_EQ(1, second->GetRefCount());
}

TEST_F(CacheBlockTest, ValidAndFreeIsLockedByAHit) {
  MakeValid();
  Reader reader(source_, kBlock + 5, 10);
  bool served = true;
  ASSERT_TRUE(block_->LockForCopyOutOf(reader, &served));
  EXPECT_FALSE(served);
  EXPECT_EQ(1, block_->GetLockCount());
  EXPECT_TRUE(IsBufferLocked());
  Serve();
  EXPECT_EQ((Report{CacheSource::kResultOK, 10}), reader.GetReport());
  EXPECT_EQ(contents_.substr(kBlock + 5, 10), reader.GetBytes(10));
}

TEST_F(CacheBlockTest, ValidAndFreeIsLeftForFillingByEviction) {
  MakeValid();
  Reader reader(source_, 3 * kBlock, kBlock);
  ASSERT_TRUE(block_->LockForReadInto(reader));
  EXPECT_EQ(3 * kBlock, block_->GetSourceOffset());
  EXPECT_EQ(CacheSource::kResultNone, block_->GetState());
  End(kBlock, CacheSource::kResultOK);
  Serve();
  EXPECT_EQ(contents_.substr(3 * kBlock), reader.GetBytes(kBlock));
}

TEST_F(CacheBlockTest, ValidAndFreeIsLeftForEmptyByInvalidation) {
  MakeValid();
  block_->InvalidateByRange(source_, 0, kBlock);
  block_->InvalidateByRange(source_, 2 * kBlock, kBlock);
  MemorySource* const other = MakeSource(contents_);
  block_->InvalidateBySource(other);
  block_->InvalidateBySource(nullptr);
  EXPECT_EQ(kBlock, block_->GetValidBytes());
  block_->InvalidateByRange(source_, 2 * kBlock - 1, 1);
  ExpectEmpty();
  MakeValid();
  block_->InvalidateBySource(source_);
  ExpectEmpty();
}

TEST_F(CacheBlockTest, TheLastBlockOfAllOffsetsIsInvalidatedByItsRange) {
  constexpr std::uint64_t kLast = 0 - kBlock;
  Reader reader(source_, kLast, 50);
  ASSERT_TRUE(block_->LockForReadInto(reader));
  PutBytes(block_.get(), contents_.substr(0, kBlock));
  block_->CompleteReadInto(kBlock, CacheSource::kResultOK);
  block_->ProcessPendingTransactions(nullptr);
  block_->InvalidateByRange(source_, kLast - 10, 10);
  EXPECT_EQ(kBlock, block_->GetValidBytes());
  block_->InvalidateByRange(source_, kLast + 10, 1);
  ExpectEmpty();
}

TEST_F(CacheBlockTest, InvalidationFailsThoseThatWait) {
  MakeValid();
  Reader first(source_, kBlock, 10);
  Reader second(source_, kBlock + 10, 10);
  ASSERT_TRUE(Attach(first));
  ASSERT_TRUE(Attach(second));
  block_->InvalidateBySource(source_);
  EXPECT_EQ((Report{CacheSource::kResultFailed, 0}), first.GetReport());
  EXPECT_EQ((Report{CacheSource::kResultFailed, 0}), second.GetReport());
  EXPECT_EQ(1, first->GetRefCount());
  ExpectEmpty();
}

TEST_F(CacheBlockTest, DoomedServesItsHoldersTakesNobodyAndIsEmptyAtTheLastUnlock) {
  MakeValid();
  Reader holder(source_, kBlock, 10);
  ASSERT_TRUE(Attach(holder));
  block_->Doom();
  Reader late(source_, kBlock, 10);
  EXPECT_FALSE(Attach(late));
  EXPECT_EQ(nullptr, block_->LockForResidentRead(source_->GetSourceKey(), kBlock, 10));
  EXPECT_TRUE(late->StillRangesToComplete());
  Serve();
  EXPECT_EQ((Report{CacheSource::kResultOK, 10}), holder.GetReport());
  EXPECT_EQ(contents_.substr(kBlock, 10), holder.GetBytes(10));
  ExpectEmpty();
}

TEST_F(CacheBlockTest, FreeBlockIsEmptyAsSoonAsItIsDoomed) {
  MakeValid();
  block_->Doom();
  ExpectEmpty();
}

TEST_F(CacheBlockTest, AfterReleaseBufferEveryLockIsRefused) {
  MakeValid();
  block_->ReleaseBuffer();
  EXPECT_EQ(nullptr, block_->GetBuffer());
  EXPECT_EQ(1, buffer_->GetRefCount());
  Reader reader(source_, kBlock, kBlock);
  EXPECT_FALSE(block_->LockForReadInto(reader));
  EXPECT_FALSE(Attach(reader));
  EXPECT_EQ(nullptr, block_->LockForResidentRead(source_->GetSourceKey(), kBlock, 1));
  EXPECT_FALSE(block_->HoldsResident(source_->GetSourceKey(), kBlock, 1));
  EXPECT_FALSE(block_->CompleteReadInto(0, CacheSource::kResultOK));
  EXPECT_FALSE(block_->Unlock(CacheSource::kDueASAP));
  bool becameFree = true;
  block_->ProcessPendingTransactions(&becameFree);
  EXPECT_FALSE(becameFree);
  becameFree = true;
  block_->CancelPendingTransactions(&becameFree);
  EXPECT_FALSE(becameFree);
  block_->ReleaseBuffer();
  EXPECT_EQ(1, buffer_->GetRefCount());
  EXPECT_TRUE(reader->StillRangesToComplete());
}

TEST_F(CacheBlockTest, ReleaseOfALockedBufferUnlocksIt) {
  MakeValid();
  Reader reader(source_, kBlock, 10);
  ASSERT_TRUE(Attach(reader));
  ASSERT_TRUE(IsBufferLocked());
  block_->ReleaseBuffer();
  EXPECT_FALSE(IsBufferLocked());
  EXPECT_EQ(0, block_->GetLockCount());
}

TEST_F(CacheBlockTest, DestructionFailsThoseThatWaitAndReleasesThem) {
  Reader reader(source_, 0, kBlock);
  Reader second(source_, 0, 10);
  ASSERT_TRUE(block_->LockForReadInto(reader));
  ASSERT_TRUE(Attach(second));
  block_.reset();
  EXPECT_EQ((Report{CacheSource::kResultFailed, 0}), reader.GetReport());
  EXPECT_EQ((Report{CacheSource::kResultFailed, 0}), second.GetReport());
  EXPECT_EQ(1, reader->GetRefCount());
  EXPECT_EQ(1, second->GetRefCount());
  EXPECT_FALSE(IsBufferLocked());
  EXPECT_EQ(1, buffer_->GetRefCount());
}

TEST_F(CacheBlockTest, DestructionOfADeadBlockReleasesThoseThatWait) {
  Reader reader(source_, 0, kBlock);
  ASSERT_TRUE(block_->LockForReadInto(reader));
  block_->ReleaseBuffer();
  block_.reset();
  EXPECT_EQ((Report{CacheSource::kResultFailed, 0}), reader.GetReport());
  EXPECT_EQ(1, reader->GetRefCount());
}

// What is refused.

TEST_F(CacheBlockTest, RefusesTransactionsWithoutSourceOrSize) {
  AutoRelease<CacheTransaction> empty(new CacheTransaction);
  AutoRelease<CacheTransaction> noList(
      new CacheTransaction(source_, kBlock, nullptr, nullptr, CacheSource::kDueASAP));
  MakeValid();
  for (CacheTransaction* const transaction :
       {static_cast<CacheTransaction*>(nullptr), empty.Get(), noList.Get()}) {
    EXPECT_FALSE(block_->LockForReadInto(transaction));
    EXPECT_FALSE(Attach(transaction));
  }
  EXPECT_EQ(0, block_->GetLockCount());
}

TEST_F(CacheBlockTest, RefusesOtherSourcesOtherPlacesAndWhatIsTakenAlready) {
  MakeValid();
  MemorySource* const other = MakeSource(contents_);
  Reader ofOther(other, kBlock, 10);
  Reader before(source_, 0, kBlock);
  Reader behind(source_, 2 * kBlock, 10);
  Reader taken(source_, kBlock, 10);
  std::uint64_t offset = 0;
  std::uint64_t size = 0;
  ASSERT_TRUE(taken->GetRangeToComplete(offset, size, 10));
  EXPECT_FALSE(Attach(ofOther));
  EXPECT_FALSE(Attach(before));
  EXPECT_FALSE(Attach(behind));
  EXPECT_FALSE(Attach(taken));
  EXPECT_EQ(0, block_->GetLockCount());
  EXPECT_FALSE(IsBufferLocked());
}

TEST_F(CacheBlockTest, SecondCopyOutOfTheSameTransactionAttachesItOnce) {
  MakeValid();
  Reader reader(source_, kBlock, 10);
  EXPECT_TRUE(Attach(reader));
  EXPECT_FALSE(Attach(reader));
  EXPECT_EQ(1, block_->GetLockCount());
  EXPECT_EQ(1u, block_->GetNumberOfPendingTransactions());
  Serve();
  EXPECT_EQ(0, block_->GetLockCount());
}

TEST_F(CacheBlockTest, TheOneThatIsReadForIsNotAttachedAgain) {
  Reader reader(source_, 0, kBlock);
  ASSERT_TRUE(block_->LockForReadInto(reader));
  block_->CancelPendingTransactions(nullptr);
  reader->Setup(source_, 0, reader.GetTarget().GetList(), nullptr, 0, MTThread::kPriorityNormal);
  Reader second(source_, 0, kBlock);
  EXPECT_TRUE(Attach(second));
  // Loaded anew it is another request.
  EXPECT_TRUE(Attach(reader));
  EXPECT_FALSE(Attach(reader));
}

TEST_F(CacheBlockTest, TellsWhetherSomebodyServesTheQueueAlready) {
  Reader first(source_, 0, kBlock);
  Reader second(source_, 0, 10);
  Reader third(source_, 0, 10);
  ASSERT_TRUE(block_->LockForReadInto(first));
  bool served = false;
  ASSERT_TRUE(block_->LockForCopyOutOf(second, &served));
  EXPECT_TRUE(served);
  End(kBlock, CacheSource::kResultOK);
  served = false;
  ASSERT_TRUE(block_->LockForCopyOutOf(third, &served));
  EXPECT_TRUE(served);
  Serve();
  EXPECT_EQ(0, block_->GetLockCount());
  EXPECT_TRUE(first.IsOver() && second.IsOver() && third.IsOver());
}

TEST_F(CacheBlockTest, BlocksOfOneGroupShareALockAndNotThoseThatWait) {
  const AutoRelease<HeapBuffer> buffer(new HeapBuffer(kBlock));
  CacheBlock other(group_.get(), buffer);
  for (int round = 0; round < 2; ++round) {
    Reader first(source_, 0, kBlock);
    Reader second(source_, kBlock, kBlock);
    Reader third(source_, 10, 20);
    ASSERT_TRUE(block_->LockForReadInto(first));
    ASSERT_TRUE(other.LockForReadInto(second));
    ASSERT_TRUE(Attach(third));
    EXPECT_EQ(2u, block_->GetNumberOfPendingTransactions());
    EXPECT_EQ(1u, other.GetNumberOfPendingTransactions());
    End(kBlock, CacheSource::kResultOK);
    EXPECT_TRUE(other.HasReadingTransaction());
    Serve();
    EXPECT_EQ((Report{CacheSource::kResultOK, kBlock}), first.GetReport());
    EXPECT_EQ((Report{CacheSource::kResultOK, 20}), third.GetReport());
    EXPECT_FALSE(second.IsOver());
    PutBytes(&other, contents_);
    EXPECT_TRUE(other.CompleteReadInto(kBlock, CacheSource::kResultOK));
    other.ProcessPendingTransactions(nullptr);
    EXPECT_EQ((Report{CacheSource::kResultOK, kBlock}), second.GetReport());
    EXPECT_EQ(contents_.substr(kBlock, kBlock), second.GetBytes(kBlock));
  }
}

TEST_F(CacheBlockTest, AFreeBlockLeavesItsQueueToTheNextOfItsGroup) {
  const AutoRelease<HeapBuffer> buffer(new HeapBuffer(kBlock));
  CacheBlock other(group_.get(), buffer);
  MakeValid();
  Reader reader(source_, 0, kBlock);
  const std::size_t before = AllocationCounter::Count();
  ASSERT_TRUE(other.LockForReadInto(reader));
  EXPECT_EQ(before, AllocationCounter::Count());
  EXPECT_TRUE(other.CompleteReadInto(0, CacheSource::kResultFailed));
}

// Pre-reads.

TEST_F(CacheBlockTest, PreReadOfAValidBlockCompletesAtOnceAndLeavesTheLockCount) {
  MakeValid();
  Reader holder(source_, kBlock, 10);
  ASSERT_TRUE(Attach(holder));
  AutoRelease<CacheTransaction> preRead(NewPreRead(source_, kBlock, kBlock));
  EXPECT_TRUE(Attach(preRead));
  std::uint64_t bytes = 0;
  EXPECT_EQ(CacheSource::kResultOK, preRead->GetResult(&bytes));
  EXPECT_EQ(kBlock, bytes);
  EXPECT_EQ(1, block_->GetLockCount());
  EXPECT_EQ(1u, block_->GetNumberOfPendingTransactions());
  EXPECT_EQ(1, preRead->GetRefCount());
}

TEST_F(CacheBlockTest, PreReadCannotEvictABlockWantedLaterAnOrdinaryReadCan) {
  MakeValid(FromNow(60000));
  AutoRelease<CacheTransaction> preRead(NewPreRead(source_, 0, kBlock));
  EXPECT_FALSE(block_->LockForReadInto(preRead));
  EXPECT_TRUE(preRead->StillRangesToComplete());
  Reader reader(source_, 0, kBlock);
  EXPECT_TRUE(block_->LockForReadInto(reader));
}

TEST_F(CacheBlockTest, PreReadMayEvictABlockWhoseTimeHasPassed) {
  MakeValid(FromNow(-10));
  AutoRelease<CacheTransaction> preRead(NewPreRead(source_, 0, kBlock));
  EXPECT_TRUE(block_->LockForReadInto(preRead));
  End(kBlock, CacheSource::kResultOK);
  Serve();
  EXPECT_EQ(CacheSource::kResultOK, preRead->GetResult(nullptr));
  EXPECT_EQ(1, preRead->GetRefCount());
  EXPECT_EQ(0, block_->GetLockCount());
}

// The ends of reads.

TEST_F(CacheBlockTest, ShortReadLeavesTheStateAtItsResult) {
  Reader reader(source_, 0, kBlock);
  Read(reader, kBlock - 1, CacheSource::kResultPartial);
  EXPECT_EQ(CacheSource::kResultPartial, block_->GetState());
  EXPECT_EQ(kBlock - 1, block_->GetValidBytes());
  Serve();
  EXPECT_EQ((Report{CacheSource::kResultPartial, kBlock - 1}), reader.GetReport());
  EXPECT_TRUE(reader.GetTarget().IsUntouchedFrom(kBlock - 1));
}

TEST_F(CacheBlockTest, PartialReadThatFilledTheBlockMakesItGood) {
  Reader reader(source_, 0, kBlock);
  Read(reader, kBlock, CacheSource::kResultPartial);
  EXPECT_EQ(CacheSource::kResultOK, block_->GetState());
  Serve();
  EXPECT_EQ((Report{CacheSource::kResultOK, kBlock}), reader.GetReport());
}

TEST_F(CacheBlockTest, MoreBytesThanTheBlockHasAreNotBelieved) {
  Reader reader(source_, 0, kBlock);
  Read(reader, 10 * kBlock, CacheSource::kResultOK);
  EXPECT_EQ(kBlock, block_->GetValidBytes());
  Serve();
  EXPECT_EQ((Report{CacheSource::kResultOK, kBlock}), reader.GetReport());
}

TEST_F(CacheBlockTest, FailedFillPassesItsOwnResultToAllThatWaitAndIsForgotten) {
  const std::array<std::pair<CacheSource::Result_t, CacheSource::Result_t>, 5> cases{{
      {CacheSource::kResultError, CacheSource::kResultError},
      {CacheSource::kResultFailed, CacheSource::kResultFailed},
      {CacheSource::kResultOutOfRange, CacheSource::kResultOutOfRange},
      {CacheSource::kResultNotSupported, CacheSource::kResultError},
      {CacheSource::kResultLockFailed, CacheSource::kResultError},
  }};
  for (const auto& [fill, told] : cases) {
    SCOPED_TRACE(fill);
    Reader reader(source_, 0, kBlock);
    Reader second(source_, 100, 10);
    ASSERT_TRUE(block_->LockForReadInto(reader));
    ASSERT_TRUE(Attach(second));
    End(0, fill);
    Reader late(source_, 0, kBlock);
    EXPECT_FALSE(Attach(late));
    Serve();
    EXPECT_EQ((Report{told, 0}), reader.GetReport());
    EXPECT_EQ((Report{told, 0}), second.GetReport());
    EXPECT_TRUE(reader.GetTarget().IsUntouchedFrom(0));
    ExpectEmpty();
  }
}

TEST_F(CacheBlockTest, FailedFillIsNeverTakenForTheEndOfTheDataByALongRead) {
  // The first block is there already; what fails lies behind it.
  Reader reader(source_, 0, 2 * kBlock);
  std::uint64_t offset = 0;
  std::uint64_t size = 0;
  ASSERT_TRUE(reader->GetRangeToComplete(offset, size, kBlock));
  reader->Complete(offset, size, CacheSource::kResultOK);
  Read(reader, 0, CacheSource::kResultError);
  Serve();
  EXPECT_EQ((Report{CacheSource::kResultError, 0}), reader.GetReport());
}

TEST_F(CacheBlockTest, FillWithoutBytesIsForgottenWhenFree) {
  Reader reader(source_, 0, kBlock);
  Read(reader, 0, CacheSource::kResultPartial);
  Serve();
  EXPECT_EQ((Report{CacheSource::kResultOutOfRange, 0}), reader.GetReport());
  ExpectEmpty();
}

TEST_F(CacheBlockTest, InvalidatedFillServesNobodyWhateverItBrings) {
  Reader reader(source_, 0, kBlock);
  ASSERT_TRUE(block_->LockForReadInto(reader));
  block_->InvalidateBySource(source_);
  EXPECT_EQ((Report{CacheSource::kResultFailed, 0}), reader.GetReport());
  EXPECT_EQ(1, block_->GetLockCount());
  EXPECT_TRUE(IsBufferLocked());
  Reader late(source_, 0, kBlock);
  EXPECT_FALSE(Attach(late));
  EXPECT_FALSE(block_->LockForReadInto(late));
  EXPECT_TRUE(block_->CompleteReadInto(kBlock, CacheSource::kResultOK));
  ExpectEmpty();
}

// The end of the data inside of a block.

TEST_F(CacheBlockTest, ReadInsideTheValidBytesOfAShortBlockIsOK) {
  MakeShort(100);
  Reader reader(source_, kBlock + 10, 90);
  ASSERT_TRUE(Attach(reader));
  Serve();
  EXPECT_EQ((Report{CacheSource::kResultOK, 90}), reader.GetReport());
  EXPECT_EQ(contents_.substr(kBlock + 10, 90), reader.GetBytes(90));
}

TEST_F(CacheBlockTest, ReadAcrossTheValidBytesOfAShortBlockIsPartial) {
  MakeShort(100);
  Reader reader(source_, kBlock + 10, 91);
  ASSERT_TRUE(Attach(reader));
  Serve();
  EXPECT_EQ((Report{CacheSource::kResultPartial, 90}), reader.GetReport());
  EXPECT_EQ(contents_.substr(kBlock + 10, 90), reader.GetBytes(90));
  EXPECT_TRUE(reader.GetTarget().IsUntouchedFrom(90));
}

TEST_F(CacheBlockTest, ReadBehindTheValidBytesOfAShortBlockIsOutOfRange) {
  MakeShort(100);
  for (const std::uint64_t at : {std::uint64_t{100}, std::uint64_t{200}, kBlock - 1}) {
    Reader reader(source_, kBlock + at, 1);
    ASSERT_TRUE(Attach(reader));
    Serve();
    EXPECT_EQ((Report{CacheSource::kResultOutOfRange, 0}), reader.GetReport()) << at;
    EXPECT_TRUE(reader.GetTarget().IsUntouchedFrom(0));
  }
}

TEST_F(CacheBlockTest, EndOfTheDataIsToldTheSameInWhateverOrderBlocksFinish) {
  constexpr std::uint64_t kThere = kBlock + 100;
  struct Fate {
    std::uint64_t bytes;
    CacheSource::Result_t result;
  };
  const std::array<Fate, 3> fates{{{kBlock, CacheSource::kResultOK},
                                   {100, CacheSource::kResultPartial},
                                   {0, CacheSource::kResultOutOfRange}}};
  std::array<std::size_t, 3> order{0, 1, 2};
  do {
    SCOPED_TRACE(std::to_string(order[0]) + std::to_string(order[1]) + std::to_string(order[2]));
    Reader reader(source_, 10, 3 * kBlock - 10);
    std::array<std::unique_ptr<CacheBlock>, 3> blocks;
    std::array<std::unique_ptr<AutoRelease<HeapBuffer>>, 3> buffers;
    for (std::size_t k = 0; k < 3; ++k) {
      buffers[k] = std::make_unique<AutoRelease<HeapBuffer>>(new HeapBuffer(kBlock));
      blocks[k] = std::make_unique<CacheBlock>(group_.get(), *buffers[k]);
      ASSERT_TRUE(blocks[k]->LockForReadInto(reader));
      PutBytes(blocks[k].get(), contents_);
    }
    for (const std::size_t k : order) {
      blocks[k]->CompleteReadInto(fates[k].bytes, fates[k].result);
      blocks[k]->ProcessPendingTransactions(nullptr);
    }
    EXPECT_EQ((Report{CacheSource::kResultPartial, kThere - 10}), reader.GetReport());
    EXPECT_EQ(contents_.substr(10, kThere - 10), reader.GetBytes(kThere - 10));
    EXPECT_TRUE(reader.GetTarget().IsUntouchedFrom(kThere - 10));
  } while (std::next_permutation(order.begin(), order.end()));
}

// Service.

TEST_F(CacheBlockTest, ThoseThatWaitAreServedFirstInFirstOut) {
  class Noting : public CacheTransaction::StatusCallback {
   public:
    explicit Noting(std::vector<std::uint64_t>* order) : order_(order) {}
    void Callback(CacheSource::Result_t, CacheTransaction* transaction, std::uint64_t) override {
      order_->push_back(transaction->GetOffset() % kBlock);
    }

   private:
    std::vector<std::uint64_t>* const order_;
  };
  MakeValid();
  std::vector<std::uint64_t> order;
  AutoRelease<Noting> noting(new Noting(&order));
  Target target(1);
  std::vector<std::unique_ptr<AutoRelease<CacheTransaction>>> waiting;
  for (const std::uint64_t at : {7u, 3u, 9u, 1u, 8u}) {
    waiting.push_back(std::make_unique<AutoRelease<CacheTransaction>>(
        new CacheTransaction(source_, kBlock + at, target.GetList(), noting, 0)));
    ASSERT_TRUE(Attach(*waiting.back()));
  }
  EXPECT_EQ(5, block_->GetLockCount());
  Serve();
  EXPECT_EQ((std::vector<std::uint64_t>{7, 3, 9, 1, 8}), order);
}

TEST_F(CacheBlockTest, CancelFailsThoseThatWaitAndTellsWhetherItFreedTheBlock) {
  MakeValid();
  bool becameFree = true;
  block_->CancelPendingTransactions(&becameFree);
  EXPECT_FALSE(becameFree);
  const std::uint64_t stamp = block_->GetStamp();
  Reader reader(source_, kBlock, 10);
  ASSERT_TRUE(Attach(reader));
  block_->CancelPendingTransactions(&becameFree);
  EXPECT_TRUE(becameFree);
  EXPECT_EQ((Report{CacheSource::kResultFailed, 0}), reader.GetReport());
  EXPECT_EQ(1, reader->GetRefCount());
  // The data stays, and nobody has used it.
  EXPECT_EQ(kBlock, block_->GetValidBytes());
  EXPECT_EQ(stamp, block_->GetStamp());
}

TEST_F(CacheBlockTest, CancelDuringAFillLeavesTheFillGoing) {
  Reader reader(source_, 0, kBlock);
  ASSERT_TRUE(block_->LockForReadInto(reader));
  bool becameFree = true;
  block_->CancelPendingTransactions(&becameFree);
  EXPECT_FALSE(becameFree);
  EXPECT_EQ(1, block_->GetLockCount());
  Reader second(source_, 0, 10);
  ASSERT_TRUE(Attach(second));
  End(kBlock, CacheSource::kResultOK);
  Serve();
  EXPECT_EQ((Report{CacheSource::kResultOK, 10}), second.GetReport());
}

// Memory that cannot be locked.
class StubbornBuffer : public HeapBuffer {
 public:
  explicit StubbornBuffer(std::size_t size) : HeapBuffer(size) {}
  LockState_t Lock() override { return kBufferUnlocked; }

 protected:
  ~StubbornBuffer() override = default;
};

TEST_F(CacheBlockTest, ReaderWhoseMemoryDoesNotLockFailsAndLetsGoOfTheBlock) {
  MakeValid();
  AutoRelease<StubbornBuffer> buffer(new StubbornBuffer(10));
  AutoRelease<BufferList> list(new BufferList(buffer, /*adoptReference=*/false, 1));
  AutoRelease<StatusRecorder> status(new StatusRecorder);
  AutoRelease<CacheTransaction> reader(new CacheTransaction(source_, kBlock, list, status, 0));
  ASSERT_TRUE(Attach(reader));
  Serve();
  EXPECT_EQ((Report{CacheSource::kResultError, 0}), status->GetOne());
  EXPECT_EQ(0, block_->GetLockCount());
  EXPECT_EQ(1, reader->GetRefCount());
  EXPECT_EQ(kBlock, block_->GetValidBytes());
}

TEST_F(CacheBlockTest, BlockWhoseMemoryDoesNotLockFailsItsReaders) {
  AutoRelease<StubbornBuffer> buffer(new StubbornBuffer(kBlock));
  CacheBlock block(group_.get(), buffer);
  Reader reader(source_, 0, kBlock);
  ASSERT_TRUE(block.LockForReadInto(reader));
  EXPECT_TRUE(block.CompleteReadInto(kBlock, CacheSource::kResultOK));
  EXPECT_EQ(nullptr, block.LockForResidentRead(source_->GetSourceKey(), 0, 1));
  block.ProcessPendingTransactions(nullptr);
  EXPECT_EQ((Report{CacheSource::kResultError, 0}), reader.GetReport());
  EXPECT_EQ(0, block.GetLockCount());
}

TEST_F(CacheBlockTest, OneThatWasReportedMeanwhileIsLeftAlone) {
  MakeValid();
  Reader reader(source_, kBlock, 10);
  ASSERT_TRUE(Attach(reader));
  reader->SetResult(CacheSource::kResultFailed);
  Target other(10);
  ASSERT_TRUE(
      reader->Setup(source_, kBlock, other.GetList(), nullptr, 0, MTThread::kPriorityNormal));
  Serve();
  EXPECT_TRUE(other.IsUntouchedFrom(0));
  EXPECT_TRUE(reader.GetTarget().IsUntouchedFrom(0));
  EXPECT_TRUE(reader->StillRangesToComplete());
  EXPECT_EQ(CacheSource::kResultPending, reader->GetResult(nullptr));
  EXPECT_EQ(1, reader->GetRefCount());
  EXPECT_EQ(0, block_->GetLockCount());
}

TEST_F(CacheBlockTest, ResidentReadersHoldTheBlock) {
  MakeValid();
  EXPECT_TRUE(block_->HoldsResident(source_->GetSourceKey(), kBlock + 10, kBlock - 10));
  EXPECT_FALSE(block_->HoldsResident(source_->GetSourceKey(), kBlock + 10, kBlock - 9));
  const char* const bytes = block_->LockForResidentRead(source_->GetSourceKey(), kBlock + 10, 20);
  ASSERT_NE(nullptr, bytes);
  EXPECT_EQ(contents_.substr(kBlock + 10, 20), std::string(bytes, 20));
  EXPECT_EQ(1, block_->GetLockCount());
  EXPECT_TRUE(IsBufferLocked());
  EXPECT_TRUE(block_->Unlock(CacheSource::kDueASAP));
  EXPECT_EQ(0, block_->GetLockCount());
  EXPECT_FALSE(IsBufferLocked());
}

TEST_F(CacheBlockTest, ASmallCopyIsAUseWithoutAHold) {
  MakeValid();
  std::string copied;
  const auto copy = [&](const char* data) {
    copied.assign(data, 20);
    EXPECT_EQ(0, block_->GetLockCount());
    return true;
  };
  const std::uint32_t due = MTInterface::GetCurrentTimeMilli() + 1000;
  EXPECT_TRUE(block_->CopyResident(source_->GetSourceKey(), kBlock + 10, 20, due, copy));
  EXPECT_EQ(contents_.substr(kBlock + 10, 20), copied);
  EXPECT_EQ(due, static_cast<std::uint32_t>(block_->GetStamp()));
  EXPECT_FALSE(IsBufferLocked());
}

TEST_F(CacheBlockTest, ACopyIsOfWhatTheBlockHoldsNow) {
  MakeValid();
  const auto never = [](const char*) {
    ADD_FAILURE() << "copied";
    return true;
  };
  const std::uint32_t key = source_->GetSourceKey();
  EXPECT_FALSE(block_->CopyResident(key + 1, kBlock, 20, 0, never));
  EXPECT_FALSE(block_->CopyResident(key, 0, 20, 0, never));
  EXPECT_FALSE(block_->CopyResident(key, 2 * kBlock, 20, 0, never));
  EXPECT_FALSE(block_->CopyResident(key, kBlock, kBlock + 1, 0, never));
  EXPECT_EQ(nullptr, block_->LockForResidentRead(key + 1, kBlock, 20));
  EXPECT_EQ(nullptr, block_->LockForResidentRead(key, 0, 20));
  EXPECT_EQ(nullptr, block_->LockForResidentRead(key, 2 * kBlock, 20));
  EXPECT_EQ(0, block_->GetLockCount());
  block_->ReleaseBuffer();
  EXPECT_FALSE(block_->CopyResident(key, kBlock, 20, 0, never));
}

TEST_F(CacheBlockTest, ACopyThatFailsIsNoUse) {
  MakeValid();
  const std::uint64_t stamp = block_->GetStamp();
  const std::uint32_t due = MTInterface::GetCurrentTimeMilli() + 1000;
  EXPECT_FALSE(block_->CopyResident(source_->GetSourceKey(), kBlock, 20, due,
                                    [](const char*) { return false; }));
  EXPECT_EQ(stamp, block_->GetStamp());
}

TEST_F(CacheBlockTest, ResidentReadersWaitForNoFill) {
  Reader reader(source_, 0, kBlock);
  ASSERT_TRUE(block_->LockForReadInto(reader));
  EXPECT_EQ(nullptr, block_->LockForResidentRead(source_->GetSourceKey(), 0, 1));
  EXPECT_FALSE(block_->HoldsResident(source_->GetSourceKey(), 0, 1));
  EXPECT_EQ(2, block_->GetLockCount());
}

// Stamps.

TEST_F(CacheBlockTest, DueTimeBecomesTheStamp) {
  const std::uint32_t due = FromNow(5000);
  MakeValid(due);
  EXPECT_EQ(due, static_cast<std::uint32_t>(block_->GetStamp()));
}

TEST_F(CacheBlockTest, NoDueTimeIsNow) {
  const std::uint32_t before = FromNow(0);
  MakeValid(CacheSource::kDueASAP);
  const auto stamp = static_cast<std::uint32_t>(block_->GetStamp());
  EXPECT_LE(before, stamp);
  EXPECT_GE(FromNow(0), stamp);
}

TEST_F(CacheBlockTest, StampTenMillisecondsLaterIsKeptTwoHoursLaterIsReplaced) {
  const std::uint32_t due = FromNow(10000);
  MakeValid(due + 10);
  ASSERT_NE(nullptr, block_->LockForResidentRead(source_->GetSourceKey(), kBlock, 1));
  EXPECT_TRUE(block_->Unlock(due));
  EXPECT_EQ(due + 10, static_cast<std::uint32_t>(block_->GetStamp()));
  block_->InvalidateBySource(source_);
  MakeValid(due + 2 * kHourMs);
  ASSERT_NE(nullptr, block_->LockForResidentRead(source_->GetSourceKey(), kBlock, 1));
  EXPECT_TRUE(block_->Unlock(due));
  EXPECT_EQ(due, static_cast<std::uint32_t>(block_->GetStamp()));
}

TEST_F(CacheBlockTest, StampLaterByExactlyOneHourIsKept) {
  const std::uint32_t due = FromNow(10000);
  MakeValid(due + kHourMs);
  ASSERT_NE(nullptr, block_->LockForResidentRead(source_->GetSourceKey(), kBlock, 1));
  block_->Unlock(due);
  EXPECT_EQ(due + kHourMs, static_cast<std::uint32_t>(block_->GetStamp()));
  ASSERT_NE(nullptr, block_->LockForResidentRead(source_->GetSourceKey(), kBlock, 1));
  block_->Unlock(due - 1);
  EXPECT_EQ(due - 1, static_cast<std::uint32_t>(block_->GetStamp()));
}

TEST_F(CacheBlockTest, LaterDueTimeReplacesTheStamp) {
  const std::uint32_t due = FromNow(10000);
  MakeValid(due);
  ASSERT_NE(nullptr, block_->LockForResidentRead(source_->GetSourceKey(), kBlock, 1));
  block_->Unlock(due + 1);
  EXPECT_EQ(due + 1, static_cast<std::uint32_t>(block_->GetStamp()));
}

TEST_F(CacheBlockTest, OnlyTheLastHolderStamps) {
  MakeValid(FromNow(1000));
  const std::uint64_t stamp = block_->GetStamp();
  ASSERT_NE(nullptr, block_->LockForResidentRead(source_->GetSourceKey(), kBlock, 1));
  ASSERT_NE(nullptr, block_->LockForResidentRead(source_->GetSourceKey(), kBlock, 1));
  EXPECT_FALSE(block_->Unlock(FromNow(9000)));
  EXPECT_EQ(stamp, block_->GetStamp());
  EXPECT_TRUE(block_->Unlock(FromNow(5000)));
  EXPECT_LT(stamp, block_->GetStamp());
}

TEST_F(CacheBlockTest, StampsGoOnWhenTheMillisecondClockWraps) {
  const std::uint32_t untilWrap = 0u - FromNow(0);
  TestMTInterface::Get().ShiftClock((std::uint64_t{untilWrap} - 2000) * 1000);
  MakeValid(FromNow(500));
  const std::uint64_t before = block_->GetStamp();
  // Due behind the wrap: a small number, but later.
  const std::uint32_t due = FromNow(60000);
  ASSERT_LT(due, 60000u);
  ASSERT_NE(nullptr, block_->LockForResidentRead(source_->GetSourceKey(), kBlock, 1));
  block_->Unlock(due);
  EXPECT_NEAR(59500.0, static_cast<double>(block_->GetStamp() - before), 1000.0);
  AutoRelease<CacheTransaction> preRead(NewPreRead(source_, 0, kBlock));
  EXPECT_FALSE(block_->LockForReadInto(preRead));
  // Kept by a due time before the wrap.
  ASSERT_NE(nullptr, block_->LockForResidentRead(source_->GetSourceKey(), kBlock, 1));
  block_->Unlock(FromNow(0));
  EXPECT_EQ(due, static_cast<std::uint32_t>(block_->GetStamp()));
  TestMTInterface::Get().ShiftClock(std::uint64_t{70000} * 1000);
  ASSERT_LT(FromNow(0), 70000u);
  EXPECT_TRUE(block_->LockForReadInto(preRead));
}

// Memory shortage.

TEST_F(CacheBlockTest, ClaimWithoutMemoryChangesNothing) {
  Reader reader(source_, 0, kBlock);
  {
    AllocationFailure failure(1);
    EXPECT_THROW(block_->LockForReadInto(reader), std::bad_alloc);
  }
  ExpectEmpty();
  EXPECT_TRUE(reader->StillRangesToComplete());
  EXPECT_EQ(1, reader->GetRefCount());
  EXPECT_TRUE(block_->LockForReadInto(reader));
}

TEST_F(CacheBlockTest, AttachingWithoutMemoryChangesNothing) {
  MakeValid();
  Reader first(source_, kBlock, 10);
  Reader second(source_, kBlock, 10);
  Reader third(source_, kBlock, 10);
  ASSERT_TRUE(Attach(first));
  ASSERT_TRUE(Attach(second));
  {
    AllocationFailure failure(1);
    EXPECT_THROW(Attach(third), std::bad_alloc);
  }
  EXPECT_EQ(2, block_->GetLockCount());
  EXPECT_EQ(1, third->GetRefCount());
  EXPECT_TRUE(third->StillRangesToComplete());
  EXPECT_TRUE(Attach(third));
  Serve();
  EXPECT_EQ((Report{CacheSource::kResultOK, 10}), third.GetReport());
}

// Callbacks.

// Whether another thread gets the locks of a block and of its list while the callback runs.
class LockProbe : public CacheTransaction::StatusCallback {
 public:
  LockProbe(CacheBlockList* list, CacheBlock* block) : list_(list), block_(block) {}

  void Callback(CacheSource::Result_t, CacheTransaction*, std::uint64_t) override {
    std::packaged_task<void()> task([this] {
      CacheBlockList::Lock lock(list_);
      block_->GetLockCount();
    });
    std::future<void> done = task.get_future();
    thread_ = std::thread(std::move(task));
    wereFree_ = done.wait_for(kPatience) == std::future_status::ready;
    ++calls_;
  }
  bool WereFree() {
    if (thread_.joinable()) thread_.join();
    return calls_ == 1 && wereFree_;
  }

 private:
  CacheBlockList* const list_;
  CacheBlock* const block_;
  std::thread thread_;
  bool wereFree_ = false;
  int calls_ = 0;
};

// Every way in which a block finishes a transaction.
class CacheBlockCallbackTest : public BlockFixture {
 protected:
  // Fills the block for a reader whose callback is the probe, then does `finish`.
  template <typename Finish>
  bool WereLocksFree(Finish finish) {
    MemorySource* const source = MakeSource(MemorySource::Pattern(kBlock));
    MakeList(1);
    CacheBlock* const block = list_->GetBlock(0);
    AutoRelease<LockProbe> probe(new LockProbe(list_.get(), block));
    Target target(kBlock);
    AutoRelease<CacheTransaction> reader(
        new CacheTransaction(source, 0, target.GetList(), probe, 0));
    EXPECT_EQ(block, list_->FindBlockToReadInto(reader));
    finish(block, source);
    return probe->WereFree();
  }
};

TEST_F(CacheBlockCallbackTest, EndOfAFailedFillCallsBackWithoutLocks) {
  EXPECT_TRUE(WereLocksFree([](CacheBlock* block, MemorySource*) {
    block->CompleteReadInto(0, CacheSource::kResultFailed);
  }));
}

TEST_F(CacheBlockCallbackTest, ServiceCallsBackWithoutLocks) {
  EXPECT_TRUE(WereLocksFree([](CacheBlock* block, MemorySource*) {
    block->CompleteReadInto(kBlock, CacheSource::kResultOK);
    block->ProcessPendingTransactions(nullptr);
  }));
}

TEST_F(CacheBlockCallbackTest, CancelOfTheSourceCallsBackWithoutLocks) {
  EXPECT_TRUE(WereLocksFree([this](CacheBlock* block, MemorySource* source) {
    list_->CancelSource(source);
    block->CompleteReadInto(0, CacheSource::kResultFailed);
  }));
}

TEST_F(CacheBlockCallbackTest, PurgeOfTheSourceCallsBackWithoutLocks) {
  EXPECT_TRUE(WereLocksFree([this](CacheBlock* block, MemorySource* source) {
    list_->PurgeSource(source);
    block->CompleteReadInto(0, CacheSource::kResultFailed);
  }));
}

TEST_F(CacheBlockCallbackTest, InvalidationOfTheRangeCallsBackWithoutLocks) {
  EXPECT_TRUE(WereLocksFree([this](CacheBlock* block, MemorySource* source) {
    list_->InvalidateRange(source, 0, 1);
    block->CompleteReadInto(0, CacheSource::kResultFailed);
  }));
}

}  // namespace
}  // namespace Orvane
