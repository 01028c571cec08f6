#include "Cache/PreReadTransactionList.h"

#include <limits>

#include "BlockFixture.h"
#include "Cache/TransactionInternals.h"

namespace Orvane {
namespace {

constexpr std::uint64_t kLast = std::numeric_limits<std::uint64_t>::max();

class PreReadTransactionListTest : public BlockFixture {
 protected:
  void TearDown() override {
    preReads_.Release();
    for (CacheTransaction* const transaction : made_) {
      transaction->DecRef("tests", "PreReadTransactionListTest", __LINE__);
    }
    made_.clear();
    BlockFixture::TearDown();
  }

  // A pre-read of one block. The test keeps a reference to the end.
  CacheTransaction* Make(CacheSource* source, std::uint64_t offset, std::uint32_t dueTime,
                         std::uint64_t size = kBlock) {
    made_.push_back(NewPreRead(source, offset, size, dueTime));
    return made_.back();
  }
  CacheTransaction* Add(CacheSource* source, std::uint64_t offset, std::uint32_t dueTime,
                        std::uint64_t size = kBlock) {
    CacheTransaction* const transaction = Make(source, offset, dueTime, size);
    EXPECT_TRUE(preReads_->AddPreReadTransaction(transaction));
    return transaction;
  }
  CacheTransaction* Find(CacheSource* source, std::uint64_t offset, std::uint64_t size = kBlock) {
    AutoRelease<CacheTransaction> asked(NewPreRead(source, offset, size));
    return preReads_->FindPendingPreRead(asked);
  }
  static bool IsListed(CacheTransaction* transaction) { return transaction->GetRefCount() == 2; }
  static CacheSource::Result_t ResultOf(CacheTransaction* transaction) {
    return transaction->GetResult(nullptr);
  }

  MemorySource* source_ = MakeSource("");
  MemorySource* other_ = MakeSource("");
  AutoRelease<PreReadTransactionList> preReads_{new PreReadTransactionList(kBlock)};
  std::vector<CacheTransaction*> made_;
};

// Alignment.

TEST_F(PreReadTransactionListTest, AlignsRangesOutwardToWholeBlocks) {
  struct Case {
    std::uint64_t offset, size, alignedOffset, alignedSize;
  };
  for (const Case& c : {Case{0, 0, 0, 0}, Case{0, 1, 0, kBlock}, Case{0, kBlock, 0, kBlock},
                        Case{10, kBlock, 0, 2 * kBlock}, Case{kBlock, 1, kBlock, kBlock},
                        Case{kBlock - 1, 2, 0, 2 * kBlock}, Case{kBlock + 1, 0, kBlock, kBlock},
                        Case{3 * kBlock + 7, 5 * kBlock, 3 * kBlock, 6 * kBlock}}) {
    std::uint64_t offset = c.offset;
    std::uint64_t size = c.size;
    preReads_->AlignRange(offset, size);
    EXPECT_EQ(c.alignedOffset, offset) << c.offset << ", " << c.size;
    EXPECT_EQ(c.alignedSize, size) << c.offset << ", " << c.size;
  }
}

TEST_F(PreReadTransactionListTest, BlocksOfNothingOrOneByteAlignNothing) {
  for (const std::uint64_t blockSize : {std::uint64_t{0}, std::uint64_t{1}}) {
    AutoRelease<PreReadTransactionList> list(new PreReadTransactionList(blockSize));
    std::uint64_t offset = 123;
    std::uint64_t size = 45;
    list->AlignRange(offset, size);
    EXPECT_EQ(123u, offset);
    EXPECT_EQ(45u, size);
  }
}

TEST_F(PreReadTransactionListTest, RangesThatPassTheLastOffsetAreCutToWholeBlocks) {
  const std::uint64_t lastBlock = kLast - (kBlock - 1);
  std::uint64_t offset = lastBlock - kBlock + 5;
  std::uint64_t size = kLast;
  preReads_->AlignRange(offset, size);
  EXPECT_EQ(lastBlock - kBlock, offset);
  EXPECT_EQ(kBlock, size);
  offset = kLast;
  size = kLast;
  preReads_->AlignRange(offset, size);
  EXPECT_EQ(lastBlock, offset);
  EXPECT_EQ(0u, size);
}

// Entries.

TEST_F(PreReadTransactionListTest, HoldsAReferenceOfWhatItLists) {
  CacheTransaction* const preRead = Add(source_, 0, FromNow(1000));
  EXPECT_TRUE(IsListed(preRead));
  EXPECT_EQ(preRead, Find(source_, 0));
  EXPECT_EQ(CacheSource::kResultPending, ResultOf(preRead));
  EXPECT_EQ(1u, preReads_->GetCount());
  preReads_.Release();
  EXPECT_FALSE(IsListed(preRead));
}

TEST_F(PreReadTransactionListTest, FindsOnlyTheVerySameRangeOfTheSameSource) {
  Add(source_, kBlock, FromNow(1000));
  EXPECT_EQ(nullptr, Find(source_, 0));
  EXPECT_EQ(nullptr, Find(source_, 2 * kBlock));
  EXPECT_EQ(nullptr, Find(source_, kBlock, 2 * kBlock));
  EXPECT_EQ(nullptr, Find(source_, kBlock, kBlock - 1));
  EXPECT_EQ(nullptr, Find(other_, kBlock));
  EXPECT_NE(nullptr, Find(source_, kBlock));
}

TEST_F(PreReadTransactionListTest, TransactionsWithoutASourceAreNotListed) {
  AutoRelease<CacheTransaction> empty(new CacheTransaction);
  EXPECT_FALSE(preReads_->AddPreReadTransaction(empty));
  EXPECT_EQ(nullptr, preReads_->FindPendingPreRead(empty));
  preReads_->CompletePreReadsForRange(empty);
  EXPECT_EQ(1, empty->GetRefCount());
  // One that is listed has given its source up.
  CacheTransaction* const preRead = Add(source_, 0, FromNow(1000));
  EXPECT_FALSE(preReads_->AddPreReadTransaction(preRead));
  EXPECT_TRUE(IsListed(preRead));
}

TEST_F(PreReadTransactionListTest, ListedPreReadGivesUpItsSource) {
  const long before = source_->GetRefCount();
  CacheTransaction* const preRead = Make(source_, 0, FromNow(1000));
  EXPECT_EQ(before + 1, source_->GetRefCount());
  EXPECT_TRUE(preReads_->AddPreReadTransaction(preRead));
  EXPECT_EQ(before, source_->GetRefCount());
  EXPECT_EQ(nullptr, preRead->GetSource());
  EXPECT_EQ(preRead, Find(source_, 0));
}

TEST_F(PreReadTransactionListTest, ReplacedEntryIsReleased) {
  CacheTransaction* const first = Add(source_, 0, FromNow(1000));
  CacheTransaction* const second = Add(source_, 0, FromNow(5000));
  EXPECT_FALSE(IsListed(first));
  EXPECT_TRUE(IsListed(second));
  EXPECT_EQ(1u, preReads_->GetCount());
  EXPECT_EQ(second, Find(source_, 0));
  EXPECT_EQ(CacheSource::kResultPending, ResultOf(first));
}

TEST_F(PreReadTransactionListTest, ReplacedEntryDoesNotExpireItsSuccessor) {
  Add(source_, 0, FromNow(-1000));
  CacheTransaction* const second = Add(source_, 0, FromNow(60000));
  TestMTInterface::Get().ShiftClock(std::uint64_t{2000} * 1000);
  EXPECT_EQ(second, Find(source_, 0));
  EXPECT_EQ(CacheSource::kResultPending, ResultOf(second));
}

TEST_F(PreReadTransactionListTest, AddingWithoutMemoryChangesNothing) {
  for (std::size_t ordinal = 1;; ++ordinal) {
    CacheTransaction* const preRead = Make(source_, 0, FromNow(1000));
    bool failed = false;
    try {
      AllocationFailure failure(ordinal);
      preReads_->AddPreReadTransaction(preRead);
    } catch (const std::bad_alloc&) {
      failed = true;
    }
    if (!failed) break;
    EXPECT_FALSE(IsListed(preRead));
    EXPECT_EQ(source_, preRead->GetSource());
    EXPECT_EQ(0u, preReads_->GetCount());
  }
  EXPECT_EQ(1u, preReads_->GetCount());
}

// Expiry.

TEST_F(PreReadTransactionListTest, PreReadMoreThanTwoSecondsPastItsDueTimeEndsAtTheNextLookUp) {
  CacheTransaction* const late = Add(source_, 0, FromNow(-2100));
  CacheTransaction* const fresh = Add(source_, kBlock, FromNow(-1000));
  // Adding others looks at nothing.
  EXPECT_TRUE(IsListed(late));
  EXPECT_EQ(nullptr, Find(other_, 0));
  EXPECT_FALSE(IsListed(late));
  EXPECT_EQ(CacheSource::kResultOK, ResultOf(late));
  EXPECT_TRUE(IsListed(fresh));
  EXPECT_EQ(CacheSource::kResultPending, ResultOf(fresh));
  EXPECT_EQ(nullptr, Find(source_, 0));
}

TEST_F(PreReadTransactionListTest, ExpiredPreReadIsCompleteOverAllOfItsRange) {
  CacheTransaction* const late = Add(source_, 0, FromNow(-5000), 3 * kBlock);
  EXPECT_EQ(nullptr, Find(source_, 0, 3 * kBlock));
  std::uint64_t bytes = 0;
  EXPECT_EQ(CacheSource::kResultOK, late->GetResult(&bytes));
  EXPECT_EQ(3 * kBlock, bytes);
}

TEST_F(PreReadTransactionListTest, DueTimeOfNothingExpiresAsSoonAsTheClockHasPassedTwoSeconds) {
  TestMTInterface::Get().ShiftClock(std::uint64_t{2001} * 1000);
  CacheTransaction* const preRead = Add(source_, 0, CacheSource::kDueASAP);
  EXPECT_EQ(nullptr, Find(source_, 0));
  EXPECT_EQ(CacheSource::kResultOK, ResultOf(preRead));
}

TEST_F(PreReadTransactionListTest, ExpiryFollowsTheClockAcrossItsWrap) {
  TestMTInterface& mt = TestMTInterface::Get();
  const std::uint32_t untilWrap = 0u - FromNow(0);
  mt.ShiftClock((std::uint64_t{untilWrap} - 3000) * 1000);
  CacheTransaction* const before = Add(source_, 0, FromNow(1000));
  const std::uint32_t behindTheWrap = FromNow(60000);
  ASSERT_LT(behindTheWrap, 60000u);
  CacheTransaction* const behind = Add(source_, kBlock, behindTheWrap);
  EXPECT_EQ(before, Find(source_, 0));
  EXPECT_EQ(behind, Find(source_, kBlock));
  mt.ShiftClock(std::uint64_t{10000} * 1000);
  ASSERT_LT(FromNow(0), 10000u);
  EXPECT_EQ(nullptr, Find(source_, 0));
  EXPECT_EQ(CacheSource::kResultOK, ResultOf(before));
  EXPECT_EQ(behind, Find(source_, kBlock));
  mt.ShiftClock(std::uint64_t{60000} * 1000);
  EXPECT_EQ(nullptr, Find(source_, kBlock));
  EXPECT_EQ(CacheSource::kResultOK, ResultOf(behind));
}

// Completion by a read.

TEST_F(PreReadTransactionListTest, OrdinaryReadThatCoversTwoPendingPreReadsCompletesBoth) {
  CacheTransaction* const before = Add(source_, 0, FromNow(1000));
  CacheTransaction* const first = Add(source_, kBlock, FromNow(1000));
  CacheTransaction* const second = Add(source_, 2 * kBlock, FromNow(1000));
  CacheTransaction* const behind = Add(source_, 3 * kBlock, FromNow(1000));
  CacheTransaction* const elsewhere = Add(other_, kBlock, FromNow(1000));
  Reader reader(source_, kBlock + 10, kBlock);
  preReads_->CompletePreReadsForRange(reader);
  for (CacheTransaction* const preRead : {first, second}) {
    EXPECT_EQ(CacheSource::kResultOK, ResultOf(preRead));
    EXPECT_FALSE(IsListed(preRead));
  }
  for (CacheTransaction* const preRead : {before, behind, elsewhere}) {
    EXPECT_EQ(CacheSource::kResultPending, ResultOf(preRead));
    EXPECT_TRUE(IsListed(preRead));
  }
  EXPECT_FALSE(reader.IsOver());
  EXPECT_EQ(3u, preReads_->GetCount());
}

TEST_F(PreReadTransactionListTest, OrdinaryReadCompletesOnlyPreReadsOfOneWholeBlock) {
  CacheTransaction* const twoBlocks = Add(source_, 0, FromNow(1000), 2 * kBlock);
  CacheTransaction* const crooked = Add(source_, 10, FromNow(1000));
  Reader reader(source_, 0, 2 * kBlock);
  preReads_->CompletePreReadsForRange(reader);
  EXPECT_EQ(CacheSource::kResultPending, ResultOf(twoBlocks));
  EXPECT_EQ(CacheSource::kResultPending, ResultOf(crooked));
}

TEST_F(PreReadTransactionListTest, OrdinaryReadAtTheVeryEndOfAllOffsetsCompletesWhatIsThere) {
  const std::uint64_t place = kLast - (2 * kBlock - 1);
  CacheTransaction* const preRead = Add(source_, place, FromNow(1000));
  Reader reader(source_, place + 1, 100);
  preReads_->CompletePreReadsForRange(reader);
  EXPECT_EQ(CacheSource::kResultOK, ResultOf(preRead));
}

// A source that goes.

TEST_F(PreReadTransactionListTest, RemovingASourceFailsAndReleasesItsPreReadsOnly) {
  CacheTransaction* const first = Add(source_, 0, FromNow(1000));
  CacheTransaction* const second = Add(source_, 7 * kBlock, FromNow(1000));
  CacheTransaction* const elsewhere = Add(other_, 0, FromNow(1000));
  preReads_->RemoveSource(source_);
  for (CacheTransaction* const preRead : {first, second}) {
    EXPECT_EQ(CacheSource::kResultFailed, ResultOf(preRead));
    EXPECT_FALSE(IsListed(preRead));
  }
  EXPECT_TRUE(IsListed(elsewhere));
  EXPECT_EQ(nullptr, Find(source_, 0));
  EXPECT_EQ(elsewhere, Find(other_, 0));
  EXPECT_EQ(1u, preReads_->GetCount());
}

TEST_F(PreReadTransactionListTest, ManyPreReadsExpireInLinearTime) {
  const auto work = [this](std::size_t count) {
    AutoRelease<PreReadTransactionList> list(new PreReadTransactionList(kBlock));
    AutoRelease<CacheTransaction> asked(NewPreRead(other_, 0, kBlock));
    for (std::size_t k = 0; k < count; ++k) {
      AutoRelease<CacheTransaction> preRead(
          NewPreRead(source_, k * kBlock, kBlock, FromNow(60000)));
      ASSERT_TRUE(list->AddPreReadTransaction(preRead));
      ASSERT_EQ(nullptr, list->FindPendingPreRead(asked));
    }
    ASSERT_EQ(count, list->GetCount());
  };
  EXPECT_TRUE(GrowsLinearly(work, 16384));
}

// The list at work in a cache, with a source that pre-reads for itself.
class PreReadTransactionListInCacheTest : public CacheFixture {
 protected:
  static std::uint32_t Soon() { return MTInterface::GetCurrentTimeMilli() + 60000; }
  static void PreRead(MemorySource* source, std::uint64_t offset, std::uint64_t size,
                      std::uint32_t dueTime) {
    source->PreRead(offset, size, dueTime, MTThread::kPriorityNormal);
  }
  MemorySource* MakePreReadingSource() {
    MemorySource* const source = MakeSource(MemorySource::Pattern(4 * kBlock));
    source->SetSupportsPreReads(true);
    return source;
  }
};

TEST_F(PreReadTransactionListInCacheTest, SecondPreReadOfABlockFindsTheFirstPendingAndIsOver) {
  MakeCache(4);
  MemorySource* const source = MakePreReadingSource();
  PreRead(source, 0, 10, Soon());
  PreRead(source, 5, 10, Soon());
  // Behind them in the queue.
  PreRead(source, kBlock, 10, Soon() + 1);
  ASSERT_TRUE(Eventually([&] { return source->GetPreReads().size() >= 2; }));
  const std::vector<MemorySource::Request> asked = source->GetPreReads();
  ASSERT_EQ(2u, asked.size());
  EXPECT_EQ(0u, asked[0].offset);
  EXPECT_EQ(kBlock, asked[1].offset);
}

TEST_F(PreReadTransactionListInCacheTest, ListedPreReadsDoNotKeepSourceAndCacheAlive) {
  MakeCache(4);
  MemorySource* const source = MakePreReadingSource();
  PreRead(source, 0, kBlock, Soon());
  ASSERT_TRUE(Eventually([&] { return source->GetPreReads().size() == 1; }));
  // That of the test is the last one once the processor is done with the command. The fixture finds
  // what is left behind.
  EXPECT_TRUE(Eventually([&] { return source->GetRefCount() == 1; }));
}

TEST_F(PreReadTransactionListInCacheTest, CancelAndPurgeForgetThePreReadsOfTheSource) {
  MakeCache(4);
  MemorySource* const source = MakePreReadingSource();
  for (const bool purge : {false, true, false}) {
    source->ClearRequests();
    PreRead(source, 0, kBlock, Soon());
    ASSERT_TRUE(Eventually([&] { return source->GetPreReads().size() == 1; })) << purge;
    ASSERT_TRUE(Eventually([&] { return source->GetRefCount() == 1; }));
    purge ? cache_->Purge(source) : cache_->Cancel(source);
  }
}

TEST_F(PreReadTransactionListInCacheTest, ReadEndsThePendingPreReadSoThatTheNextOneAsksAgain) {
  MakeCache(1);
  MemorySource* const source = MakePreReadingSource();
  PreRead(source, 0, kBlock, Soon());
  ASSERT_TRUE(Eventually([&] { return source->GetPreReads().size() == 1; }));
  ASSERT_TRUE(Eventually([&] { return source->GetRefCount() == 1; }));
  Read(source, 0, kBlock);
  // Another block, so that the first is not there any more.
  Read(source, kBlock, kBlock);
  PreRead(source, 0, kBlock, Soon());
  EXPECT_TRUE(Eventually([&] { return source->GetPreReads().size() == 2; }));
}

}  // namespace
}  // namespace Orvane
