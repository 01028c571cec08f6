// One source read for blocks that follow each other: what it reads, what becomes of its blocks
// however it ends, and what is left of it when its cache goes first.
#include "Cache/DispatchedReadCallback.h"

#include <algorithm>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "Cache/BatchRegistry.h"
#include "Cache/CacheBlock.h"
#include "Cache/CacheCommands.h"
#include "Cache/CommandProcessor.h"
#include "CacheTestTools.h"
#include "MTInterface.h"

namespace Orvane {
namespace {

constexpr std::size_t kBlock = 4096;

// The parts of a cache that a batch works with, and blocks without a list.
class DispatchedReadTest : public OrvaneTest {
 protected:
  DispatchedReadTest() {
    registry_ = std::make_unique<BatchRegistry>();
    factory_ = NewHeapFactory(kBlocks, kBlock);
    source_ = new HookedSource(contents_);
    const std::uint32_t read = kCommandDispatchedRead;
    const std::uint32_t copy = kCommandDispatchedCopy;
    reads_ = std::make_unique<CommandProcessor>(&read, 1, MTThread::kPriorityNormal,
                                                LockClass::kDispatchedReadSection);
    copies_ = std::make_unique<CommandProcessor>(&copy, 1, MTThread::kPriorityNormal,
                                                 LockClass::kCopySection);
    context_ = {nullptr, reads_.get(), copies_.get(), factory_, registry_.get()};
  }

  void TearDown() override {
    reads_.reset();
    copies_.reset();
    registry_.reset();
    for (Place& place : places_) {
      place.block.reset();
      if (place.isLent) factory_->ReturnBufferToFactory(place.buffer);
    }
    places_.clear();
    group_.reset();
    requests_.clear();
    if (source_) source_->DecRef("tests", "Orvane::DispatchedReadTest::TearDown", 0);
    EXPECT_EQ(0u, factory_->GetNumberOfBuffersInUse());
    factory_->DecRef("tests", "Orvane::DispatchedReadTest::TearDown", 0);
    OrvaneTest::TearDown();
  }

  // A block that is being filled for a transaction over one block at `offset`.
  CacheBlock* Fill(std::uint64_t offset) {
    return FillBuffer(factory_->GetBufferFromFactory(), offset, /*isLent=*/true);
  }
  CacheBlock* FillBuffer(Buffer* buffer, std::uint64_t offset, bool isLent) {
    places_.push_back({std::make_unique<CacheBlock>(group_.get(), buffer), buffer, isLent});
    CacheBlock* const block = places_.back().block.get();
    requests_.push_back(std::make_unique<TransactionRequest>(kBlock));
    EXPECT_TRUE(requests_.back()->Setup(source_, offset));
    EXPECT_TRUE(block->LockForReadInto(requests_.back()->GetTransaction()));
    return block;
  }
  DispatchedReadCallback* NewBatch() {
    return new DispatchedReadCallback(context_, source_, CacheSource::kDueASAP);
  }
  // A batch of blocks from 0 on, dispatched.
  void DispatchBatch(std::size_t blocks) {
    DispatchedReadCallback* const batch = NewBatch();
    for (std::size_t k = 0; k < blocks; ++k) ASSERT_TRUE(batch->Append(Fill(k * kBlock)));
    batch->Dispatch();
  }
  void ReleaseBatch(DispatchedReadCallback* batch) {
    batch->DecRef("tests", "Orvane::DispatchedReadTest::ReleaseBatch", 0);
  }
  CacheBlock* Block(std::size_t index) { return places_[index].block.get(); }
  TransactionRequest& Request(std::size_t index) { return *requests_[index]; }
  // Also: whoever freed it is done with it.
  bool IsEverythingFree() {
    if (!HasNoHolders()) return false;
    for (CommandProcessor* const processor : {reads_.get(), copies_.get()}) {
      const ProcessorHold untilItsCommandHasEnded(processor);
    }
    return true;
  }
  bool HasNoHolders() {
    return std::all_of(places_.begin(), places_.end(),
                       [](const Place& place) { return place.block->GetLockCount() == 0; });
  }
  static bool Eventually(const std::function<bool()>& condition) {
    for (int k = 0; k < 5000 && !condition(); ++k) MTInterface::Sleep(1);
    return condition();
  }

  static constexpr std::size_t kBlocks = 8;
  struct Place {
    std::unique_ptr<CacheBlock> block;
    Buffer* buffer;
    bool isLent;
  };

  const std::string contents_ = MemorySource::Pattern(kBlocks * kBlock);
  BufferFactoryHeap* factory_ = nullptr;
  HookedSource* source_ = nullptr;
  std::unique_ptr<BatchRegistry> registry_;
  BatchContext context_{};
  std::unique_ptr<CommandProcessor> reads_;
  std::unique_ptr<CommandProcessor> copies_;
  std::unique_ptr<BlockGroup> group_{new BlockGroup(nullptr, nullptr)};
  std::vector<Place> places_;
  std::vector<std::unique_ptr<TransactionRequest>> requests_;
};

TEST_F(DispatchedReadTest, TakesBlocksThatFollowEachOtherAndNoOthers) {
  DispatchedReadCallback* const batch = NewBatch();
  EXPECT_EQ(~std::uint64_t{0}, batch->GetEnd());
  EXPECT_TRUE(batch->Append(Fill(2 * kBlock)));
  EXPECT_EQ(3 * kBlock, batch->GetEnd());
  EXPECT_FALSE(batch->Append(Fill(4 * kBlock)));
  EXPECT_FALSE(batch->Append(Fill(kBlock)));
  EXPECT_FALSE(batch->Append(Block(0)));
  EXPECT_TRUE(batch->Append(Fill(3 * kBlock)));
  EXPECT_EQ(4 * kBlock, batch->GetEnd());
  EXPECT_EQ(2 * kBlock, batch->GetSize());
  ReleaseBatch(batch);
  for (const Place& place : places_) {
    place.block->CompleteReadInto(0, CacheSource::kResultFailed);
  }
}

TEST_F(DispatchedReadTest, AnEmptyBatchReadsNothing) {
  NewBatch()->Dispatch();
  EXPECT_TRUE(registry_->IsEmpty());
  EXPECT_TRUE(source_->GetRequests().empty());
}

TEST_F(DispatchedReadTest, ReadsAllItsBlocksAtOnceAndServesThoseThatWait) {
  DispatchBatch(6);
  for (std::size_t k = 0; k < 6; ++k) {
    EXPECT_EQ((Report{CacheSource::kResultOK, kBlock}), Request(k).GetReport());
    EXPECT_EQ(contents_.substr(k * kBlock, kBlock), Request(k).GetBytes(kBlock));
    EXPECT_EQ(CacheSource::kResultOK, Block(k)->GetState());
  }
  EXPECT_EQ((std::vector<MemorySource::Request>{{false, 0, 6 * kBlock, 0}}),
            source_->GetRequests());
  EXPECT_TRUE(Eventually([this] { return registry_->IsEmpty(); }));
}

TEST_F(DispatchedReadTest, IsRegisteredUntilItsReadEnds) {
  source_->HoldRequests(true);
  DispatchBatch(2);
  ASSERT_TRUE(source_->WaitForHeld(1));
  EXPECT_FALSE(registry_->IsEmpty());
  source_->Complete();
  EXPECT_TRUE(registry_->IsEmpty());
  EXPECT_EQ((Report{CacheSource::kResultOK, kBlock}), Request(1).GetReport());
}

TEST_F(DispatchedReadTest, SharesAShortReadOutFromTheFront) {
  source_->SetContents(contents_.substr(0, kBlock + 100));
  DispatchBatch(3);
  EXPECT_EQ((Report{CacheSource::kResultOK, kBlock}), Request(0).GetReport());
  EXPECT_EQ((Report{CacheSource::kResultPartial, 100}), Request(1).GetReport());
  EXPECT_EQ((Report{CacheSource::kResultOutOfRange, 0}), Request(2).GetReport());
  EXPECT_EQ(CacheSource::kResultOK, Block(0)->GetState());
  EXPECT_EQ(CacheSource::kResultPartial, Block(1)->GetState());
  EXPECT_EQ(100u, Block(1)->GetValidBytes());
  EXPECT_TRUE(Eventually([this] { return IsEverythingFree(); }));
  EXPECT_EQ(CacheSource::kInvalidKey, Block(2)->GetSourceKey());
}

TEST_F(DispatchedReadTest, ABusySourceIsAskedAgain) {
  source_->AnswerNext(CacheSource::kResultBusy, 5);
  std::atomic<int> starts{0};
  source_->OnStart([&starts](const MemorySource::Request&) { ++starts; });
  DispatchBatch(2);
  EXPECT_EQ((Report{CacheSource::kResultOK, kBlock}), Request(0).GetReport());
  EXPECT_EQ((Report{CacheSource::kResultOK, kBlock}), Request(1).GetReport());
  EXPECT_EQ(6, starts);
}

TEST_F(DispatchedReadTest, ABusySourceIsNotAskedWithoutAPause) {
  source_->AnswerNext(CacheSource::kResultBusy, 100000);
  std::atomic<std::size_t> starts{0};
  source_->OnStart([&starts](const MemorySource::Request&) { ++starts; });
  DispatchBatch(1);
  ASSERT_TRUE(Eventually([&starts] { return starts > 1; }));
  const std::uint32_t from = MTInterface::GetCurrentTimeMilli();
  const std::size_t before = starts;
  MTInterface::Sleep(100);
  const std::size_t asked = starts - before;
  EXPECT_GE(MTInterface::GetCurrentTimeMilli() - from + 3, asked);
  reads_->RemoveAll();
  EXPECT_EQ((Report{CacheSource::kResultFailed, 0}), Request(0).GetReport());
}

TEST_F(DispatchedReadTest, EveryOtherAnswerEndsTheBatch) {
  const std::pair<CacheSource::Result_t, CacheSource::Result_t> kAnswers[] = {
      {CacheSource::kResultError, CacheSource::kResultError},
      {CacheSource::kResultUnknown, CacheSource::kResultError},
      {CacheSource::kResultNotSupported, CacheSource::kResultError},
      {CacheSource::kResultOutOfRange, CacheSource::kResultOutOfRange},
      {CacheSource::kResultFailed, CacheSource::kResultFailed},
      {CacheSource::kResultNone, CacheSource::kResultError},
      {CacheSource::kResultOK, CacheSource::kResultOK},
      {CacheSource::kResultPartial, CacheSource::kResultError},
      {CacheSource::kResultLockFailed, CacheSource::kResultError},
  };
  for (const auto& [answer, result] : kAnswers) {
    source_->AnswerNext(answer);
    DispatchedReadCallback* const batch = NewBatch();
    const std::size_t first = places_.size();
    if (factory_->GetNumberOfBuffersFree() < 1) break;
    ASSERT_TRUE(batch->Append(Fill(0)));
    batch->Dispatch();
    const std::uint64_t bytes = result == CacheSource::kResultOK ? kBlock : 0;
    EXPECT_EQ((Report{result, bytes}), Request(first).GetReport()) << answer;
    EXPECT_TRUE(Eventually([this] { return IsEverythingFree() && registry_->IsEmpty(); }))
        << answer;
    places_.back().block.reset();
    factory_->ReturnBufferToFactory(places_.back().buffer);
    places_.pop_back();
    requests_.pop_back();
  }
  EXPECT_TRUE(source_->GetRequests().empty());
}

TEST_F(DispatchedReadTest, RemovedFromTheQueueItFailsThoseThatWait) {
  reads_->Hold();
  DispatchBatch(2);
  CacheCommandFinder finder(source_);
  reads_->Remove(&finder);
  EXPECT_EQ((Report{CacheSource::kResultFailed, 0}), Request(0).GetReport());
  EXPECT_EQ((Report{CacheSource::kResultFailed, 0}), Request(1).GetReport());
  reads_->Release();
  EXPECT_TRUE(source_->GetRequests().empty());
  EXPECT_TRUE(IsEverythingFree());
  EXPECT_TRUE(registry_->IsEmpty());
}

TEST_F(DispatchedReadTest, FailedBlocksAreForgottenBeforeTheyAreFree) {
  AutoRelease<HookedBuffer> buffer(new HookedBuffer(kBlock));
  CacheBlock* block = nullptr;
  std::vector<std::uint32_t> keysWhenFreed;
  // The last unlock is the moment from which on the block may be claimed.
  buffer->OnUnlock([&] {
    if (block) keysWhenFreed.push_back(block->GetSourceKey());
  });
  source_->HoldRequests(true);
  DispatchedReadCallback* const batch = NewBatch();
  CacheBlock* const filled = FillBuffer(buffer, 0, /*isLent=*/false);
  ASSERT_TRUE(batch->Append(filled));
  batch->Dispatch();
  ASSERT_TRUE(source_->WaitForHeld(1));
  block = filled;
  source_->CompleteWith(0, CacheSource::kResultFailed, 0);
  EXPECT_EQ((Report{CacheSource::kResultFailed, 0}), Request(0).GetReport());
  EXPECT_EQ(std::vector<std::uint32_t>{CacheSource::kInvalidKey}, keysWhenFreed);
  block = nullptr;
  places_.clear();
}

TEST_F(DispatchedReadTest, OrphanedItFailsThoseThatWaitAndKeepsItsBuffers) {
  source_->HoldRequests(true);
  DispatchBatch(2);
  ASSERT_TRUE(source_->WaitForHeld(1));
  const long references = factory_->GetRefCount();
  registry_->OrphanAll();
  EXPECT_EQ((Report{CacheSource::kResultFailed, 0}), Request(0).GetReport());
  EXPECT_EQ((Report{CacheSource::kResultFailed, 0}), Request(1).GetReport());
  EXPECT_TRUE(registry_->IsEmpty());
  EXPECT_EQ(references + 1, factory_->GetRefCount());
  EXPECT_EQ(nullptr, Block(0)->GetBuffer());
  EXPECT_EQ(nullptr, Block(1)->GetBuffer());
  // What it worked with is gone by the time the read ends.
  places_.clear();
  reads_.reset();
  copies_.reset();
  EXPECT_EQ(2u, factory_->GetNumberOfBuffersInUse());
  source_->Complete();
  EXPECT_EQ(0u, factory_->GetNumberOfBuffersInUse());
  EXPECT_EQ(references, factory_->GetRefCount());
}

TEST_F(DispatchedReadTest, OrphaningWhatHasEndedDoesNothing) {
  DispatchBatch(1);
  EXPECT_EQ((Report{CacheSource::kResultOK, kBlock}), Request(0).GetReport());
  ASSERT_TRUE(Eventually([this] { return registry_->IsEmpty() && IsEverythingFree(); }));
  registry_->OrphanAll();
  EXPECT_NE(nullptr, Block(0)->GetBuffer());
  EXPECT_EQ(1u, factory_->GetNumberOfBuffersInUse());
}

TEST_F(DispatchedReadTest, EveryOpenBatchIsOrphaned) {
  source_->HoldRequests(true);
  DispatchBatch(1);
  DispatchBatch(1);
  DispatchBatch(1);
  ASSERT_TRUE(source_->WaitForHeld(3));
  source_->Complete(1);
  EXPECT_EQ(CacheSource::kResultOK, Request(1).GetReport().result);
  registry_->OrphanAll();
  EXPECT_EQ(CacheSource::kResultFailed, Request(0).GetReport().result);
  EXPECT_EQ(CacheSource::kResultFailed, Request(2).GetReport().result);
  EXPECT_TRUE(registry_->IsEmpty());
  ASSERT_TRUE(Eventually([this] { return IsEverythingFree(); }));
  places_[0].isLent = places_[2].isLent = false;
  source_->CompleteAll();
  EXPECT_EQ(1u, factory_->GetNumberOfBuffersInUse());
}

TEST_F(DispatchedReadTest, WithoutMemoryToDispatchItsBlocksFail) {
  bool happened = true;
  for (std::size_t ordinal = 1; happened; ++ordinal) {
    ASSERT_GT(100u, ordinal);
    DispatchedReadCallback* const batch = NewBatch();
    ASSERT_TRUE(batch->Append(Fill(0)));
    {
      AllocationFailure failure(ordinal);
      batch->Dispatch();
      happened = failure.HasHappened();
    }
    const Report report = Request(0).GetReport();
    EXPECT_EQ(happened ? CacheSource::kResultError : CacheSource::kResultOK, report.result)
        << ordinal;
    EXPECT_TRUE(Eventually([this] { return IsEverythingFree() && registry_->IsEmpty(); }))
        << ordinal;
    places_.back().block.reset();
    factory_->ReturnBufferToFactory(places_.back().buffer);
    places_.pop_back();
    requests_.pop_back();
  }
}

TEST_F(DispatchedReadTest, WithoutMemoryForTheCopiesThoseThatWaitAreServedAtOnce) {
  source_->HoldRequests(true);
  bool happened = true;
  for (std::size_t ordinal = 1; happened; ++ordinal) {
    ASSERT_GT(100u, ordinal);
    DispatchBatch(2);
    ASSERT_TRUE(source_->WaitForHeld(1));
    {
      AllocationFailure failure(ordinal);
      source_->Complete();
      happened = failure.HasHappened();
    }
    for (std::size_t k = 0; k < 2; ++k) {
      const Report report = Request(k).GetReport();
      EXPECT_TRUE(report == (Report{CacheSource::kResultOK, kBlock}) ||
                  report == (Report{CacheSource::kResultError, 0}))
          << ordinal;
    }
    EXPECT_TRUE(Eventually([this] { return IsEverythingFree() && registry_->IsEmpty(); }))
        << ordinal;
    for (const Place& place : places_) factory_->ReturnBufferToFactory(place.buffer);
    places_.clear();
    requests_.clear();
  }
}

TEST_F(DispatchedReadTest, AppendingWithoutMemoryChangesNothing) {
  std::size_t refusals = 0;
  bool happened = true;
  for (std::size_t ordinal = 1; happened; ++ordinal) {
    ASSERT_GT(100u, ordinal);
    DispatchedReadCallback* const batch = NewBatch();
    for (std::size_t k = 0; k < 5; ++k) {
      CacheBlock* const block = Fill(k * kBlock);
      const std::uint64_t end = batch->GetEnd();
      AllocationFailure failure(ordinal);
      try {
        ASSERT_TRUE(batch->Append(block));
      } catch (const std::bad_alloc&) {
        ++refusals;
        EXPECT_EQ(end, batch->GetEnd());
        block->CompleteReadInto(0, CacheSource::kResultFailed);
      }
      happened = failure.HasHappened();
      if (happened) break;
    }
    // What it has it reads.
    batch->Dispatch();
    EXPECT_TRUE(Eventually([this] { return IsEverythingFree() && registry_->IsEmpty(); }));
    for (const Place& place : places_) factory_->ReturnBufferToFactory(place.buffer);
    places_.clear();
    for (const auto& request : requests_) EXPECT_EQ(1u, request->GetReports().size());
    requests_.clear();
  }
  EXPECT_LT(0u, refusals);
}

TEST_F(DispatchedReadTest, TheLastBlockOfAllIsReadByItselfAndNothingFollowsIt) {
  constexpr std::uint64_t kLast = ~std::uint64_t{0} - (kBlock - 1);
  const auto fillLast = [this] {
    CacheBlock* const block = FillBuffer(factory_->GetBufferFromFactory(), kLast - kBlock, true);
    return block;
  };
  CacheBlock* const before = fillLast();
  Buffer* const buffer = factory_->GetBufferFromFactory();
  places_.push_back({std::make_unique<CacheBlock>(group_.get(), buffer), buffer, true});
  CacheBlock* const last = places_.back().block.get();
  requests_.push_back(std::make_unique<TransactionRequest>(10));
  ASSERT_TRUE(requests_.back()->Setup(source_, kLast + 5));
  ASSERT_TRUE(last->LockForReadInto(requests_.back()->GetTransaction()));
  ASSERT_EQ(kLast, last->GetSourceOffset());

  DispatchedReadCallback* const batch = NewBatch();
  EXPECT_TRUE(batch->Append(before));
  EXPECT_FALSE(batch->Append(last));
  DispatchedReadCallback* const alone = NewBatch();
  EXPECT_TRUE(alone->Append(last));
  EXPECT_FALSE(alone->Append(Fill(0))) << "the end of all is not the beginning";
  ReleaseBatch(batch);
  ReleaseBatch(alone);
}

TEST_F(DispatchedReadTest, OfATransactionThatIsOverTheSourceHearsNothing) {
  TransactionRequest request(kBlock);
  ASSERT_TRUE(request.Setup(source_, 0));
  auto* const command = new DispatchedReadCommand(nullptr, request.GetTransaction());
  request.GetTransaction()->SetResult(CacheSource::kResultFailed);
  EXPECT_TRUE(command->Execute());
  EXPECT_TRUE(source_->GetRequests().empty());
  command->Finish(/*cancelled=*/false);
  EXPECT_EQ(1u, request.GetReports().size());
}

}  // namespace
}  // namespace Orvane
