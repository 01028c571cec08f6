// One request on its way through a cache: loading, ranges, copies, the end, who holds what.
#include "CacheTransaction.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cstring>
#include <functional>
#include <limits>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "Buffer.h"
#include "BufferList.h"
#include "Cache.h"
#include "Cache/TransactionInternals.h"
#include "OSServices/ReportScope.h"
#include "OrvaneTest.h"

namespace Orvane {
namespace {

using Internals = TransactionInternals;
using Result = CacheSource::Result_t;

constexpr std::uint64_t kTop = std::numeric_limits<std::uint64_t>::max();
constexpr std::uint64_t kNoLimit = kTop;
constexpr std::uint64_t kStart = 1000;  // of the transactions
constexpr std::uint64_t kSize = 100;
constexpr MTThread::MTPriority kNormal = MTThread::kPriorityNormal;

class TestSource : public CacheSource {
 public:
  TestSource() = default;
  bool CanGatherReads() override { return false; }

  std::vector<CacheTransaction*> read;
  std::vector<CacheTransaction*> preRead;

 protected:
  ~TestSource() override = default;
  Result_t ReadTransaction(CacheTransaction* transaction) override {
    read.push_back(transaction);
    return kResultBusy;
  }
  void CancelAllTransactions() override {}
  void PreReadTransaction(CacheTransaction* transaction) override {
    preRead.push_back(transaction);
  }
  bool SupportsPreReadTransactions() override { return true; }
};

struct Report {
  Result result;
  CacheTransaction* transaction;
  std::uint64_t bytes;

  bool operator==(const Report&) const = default;
};

// Notes what it is told, and does what a test asks for on being told.
class TestCallback : public CacheTransaction::StatusCallback {
 public:
  void Callback(Result result, CacheTransaction* transaction, std::uint64_t bytesDone) override {
    reports.push_back({result, transaction, bytesDone});
    if (onReport) onReport(transaction);
  }

  std::vector<Report> reports;
  std::function<void(CacheTransaction*)> onReport;
};

// A buffer whose copies end as commanded.
class UnwillingBuffer : public HeapBuffer {
 public:
  UnwillingBuffer(std::size_t size, BufferResult_t result, std::size_t moves)
      : HeapBuffer(size), result_(result), moves_(moves) {}
  BufferResult_t CopyInto(void* source, std::size_t count, std::size_t offset,
                          std::size_t* bytesMoved) override {
    if (moves_ > 0) HeapBuffer::CopyInto(source, std::min(moves_, count), offset, nullptr);
    *bytesMoved = moves_;
    return result_;
  }

 private:
  const BufferResult_t result_;
  const std::size_t moves_;
};

BufferList* NewList(const std::vector<std::size_t>& sizes) {
  auto* const list = new BufferList;
  for (const std::size_t size : sizes) {
    auto* const buffer = new HeapBuffer(size);
    std::memset(buffer->GetAddress(), '.', size);
    list->AddBuffer(buffer, /*adoptReference=*/true);
  }
  return list;
}

std::string Text(BufferList* list) {
  std::string text;
  for (std::size_t i = 0; i < list->GetNumberOfBuffers(); ++i) {
    Buffer* const buffer = list->GetBuffer(i);
    text.append(static_cast<const char*>(buffer->GetAddress()), buffer->GetSize());
  }
  return text;
}

class CacheTransactionTest : public OrvaneTest {
 protected:
  void TearDown() override {
    transaction_.Release();
    source_.Release();
    callback_.Release();
    list_.Release();
    cache_.Release();
    OrvaneTest::TearDown();
  }

  // A read of [1000, 1100) into three buffers.
  bool Load() {
    return transaction_->Setup(source_, kStart, list_, callback_, CacheSource::kDueASAP, kNormal);
  }
  std::uint32_t Generation() { return Internals::GetGeneration(transaction_); }
  Result CopyText(const std::string& text, std::uint64_t offset,
                  Result result = CacheSource::kResultOK) {
    std::string data = text;
    return transaction_->CopyInto(data.data(), offset, data.size(), result, nullptr, nullptr);
  }
  std::vector<Report> Reported(Result result, std::uint64_t bytes) {
    return {{result, transaction_, bytes}};
  }

  AutoRelease<Cache> cache_{new Cache(nullptr)};
  AutoRelease<TestSource> source_{new TestSource};
  AutoRelease<TestCallback> callback_{new TestCallback};
  AutoRelease<BufferList> list_{NewList({40, 20, 40})};
  AutoRelease<CacheTransaction> transaction_{new CacheTransaction};
};

TEST_F(CacheTransactionTest, ANewOneIsEmpty) {
  EXPECT_EQ(nullptr, transaction_->GetSource());
  EXPECT_EQ(nullptr, transaction_->GetBufferList());
  EXPECT_EQ(0u, transaction_->GetOffset());
  EXPECT_EQ(0u, transaction_->GetSize());
  EXPECT_EQ(CacheSource::kDueASAP, transaction_->GetDueTime());
  EXPECT_EQ(kNormal, transaction_->GetPriority());
  EXPECT_FALSE(transaction_->IsPreReadTransaction());
  EXPECT_FALSE(transaction_->StillRangesToComplete());
  std::uint64_t offset = 7;
  std::uint64_t size = 7;
  EXPECT_FALSE(transaction_->Reserve(offset, size));
  EXPECT_FALSE(transaction_->GetRangeToComplete(offset, size, kNoLimit));
  EXPECT_EQ(0u, offset + size);
  transaction_->ReturnRangeToComplete(0, 10);
  transaction_->Complete(0, 10, CacheSource::kResultOK);
  transaction_->SetResult(CacheSource::kResultFailed);
  EXPECT_EQ(CacheSource::kResultOutOfRange, CopyText("text", 0));
  EXPECT_TRUE(transaction_->Cleanup());
}

TEST_F(CacheTransactionTest, ANewOneHasTheResultError) {
  std::uint64_t bytes = 7;
  EXPECT_EQ(CacheSource::kResultError, transaction_->GetResult(&bytes));
  EXPECT_EQ(0u, bytes);
  EXPECT_EQ(CacheSource::kResultError, transaction_->GetResult(nullptr));
}

TEST_F(CacheTransactionTest, SetupLoadsEverything) {
  EXPECT_TRUE(
      transaction_->Setup(source_, kStart, list_, callback_, 77, MTThread::kPriorityAboveNormal));
  EXPECT_EQ(source_.Get(), transaction_->GetSource());
  EXPECT_EQ(list_.Get(), transaction_->GetBufferList());
  EXPECT_EQ(kStart, transaction_->GetOffset());
  EXPECT_EQ(kSize, transaction_->GetSize());
  EXPECT_EQ(77u, transaction_->GetDueTime());
  EXPECT_EQ(MTThread::kPriorityAboveNormal, transaction_->GetPriority());
  EXPECT_FALSE(transaction_->IsPreReadTransaction());
  EXPECT_TRUE(transaction_->StillRangesToComplete());
  EXPECT_EQ(CacheSource::kResultPending, transaction_->GetResult(nullptr));
}

TEST_F(CacheTransactionTest, TheLongConstructorLoads) {
  AutoRelease<CacheTransaction> made(new CacheTransaction(source_, kStart, list_, callback_, 55));
  EXPECT_EQ(list_.Get(), made->GetBufferList());
  EXPECT_EQ(55u, made->GetDueTime());
  EXPECT_EQ(kNormal, made->GetPriority());
  EXPECT_EQ(CacheSource::kResultPending, made->GetResult(nullptr));
}

TEST_F(CacheTransactionTest, SetupWhileACacheHoldsItChangesNothing) {
  ASSERT_TRUE(Load());
  const std::uint32_t generation = Generation();
  ASSERT_TRUE(Internals::SetCacheInUseBy(transaction_, cache_));
  EXPECT_FALSE(transaction_->Setup(nullptr, 1, nullptr, nullptr, 5, MTThread::kPriorityLowest));
  EXPECT_FALSE(Internals::SetupForPreRead(transaction_, source_, 1, 1, 5, kNormal));
  EXPECT_FALSE(transaction_->Cleanup());
  EXPECT_EQ(source_.Get(), transaction_->GetSource());
  EXPECT_EQ(list_.Get(), transaction_->GetBufferList());
  EXPECT_EQ(kStart, transaction_->GetOffset());
  EXPECT_EQ(CacheSource::kDueASAP, transaction_->GetDueTime());
  EXPECT_EQ(2, source_->GetRefCount());
  EXPECT_EQ(generation, Generation());
  Internals::ClearCacheInUseBy(transaction_, cache_);
  EXPECT_TRUE(transaction_->Cleanup());
}

TEST_F(CacheTransactionTest, CleanupEmptiesIt) {
  ASSERT_TRUE(Load());
  EXPECT_TRUE(transaction_->Cleanup());
  EXPECT_EQ(nullptr, transaction_->GetSource());
  EXPECT_EQ(nullptr, transaction_->GetBufferList());
  EXPECT_EQ(0u, transaction_->GetOffset());
  EXPECT_EQ(1, source_->GetRefCount());
  EXPECT_EQ(1, list_->GetRefCount());
  EXPECT_EQ(1, callback_->GetRefCount());
}

TEST_F(CacheTransactionTest, ReferencesNameTheirCallSites) {
  const std::string file = "source/Cache/CacheTransaction";
  const std::string setup = "Orvane::CacheTransaction::Setup";
  const std::string cleanup = "Orvane::CacheTransaction::Cleanup";
  std::array<CallSites, 3> sites;
  AutoRelease<TestSource> source(new Recording<TestSource>(&sites[0]));
  AutoRelease<BufferList> list(new Recording<BufferList>(&sites[1]));
  AutoRelease<TestCallback> callback(new Recording<TestCallback>(&sites[2]));
  const auto load = [&] {
    return transaction_->Setup(source, 0, list, callback, CacheSource::kDueASAP, kNormal);
  };
  EXPECT_TRUE(load());
  EXPECT_TRUE(load());  // the same again: no references
  EXPECT_TRUE(Load());
  EXPECT_TRUE(load());
  EXPECT_TRUE(transaction_->Cleanup());
  constexpr std::array<unsigned long, 3> kTaken{170, 172, 174};
  constexpr std::array<unsigned long, 3> kReplaced{161, 163, 165};
  constexpr std::array<unsigned long, 3> kCleaned{236, 237, 238};
  for (std::size_t i = 0; i < sites.size(); ++i) {
    EXPECT_EQ((std::vector<CallSite>{{file, setup, kTaken[i]}, {file, setup, kTaken[i]}}),
              sites[i].added);
    EXPECT_EQ((std::vector<CallSite>{{file, setup, kReplaced[i]}, {file, cleanup, kCleaned[i]}}),
              sites[i].released);
  }
}

TEST_F(CacheTransactionTest, APreReadDropsListAndCallback) {
  const std::string setup = "Orvane::CacheTransaction::Setup";
  CallSites sites;
  AutoRelease<TestSource> source(new Recording<TestSource>(&sites));
  ASSERT_TRUE(Load());
  EXPECT_TRUE(Internals::SetupForPreRead(transaction_, source, 50, 30, 9, kNormal));
  EXPECT_EQ(1, list_->GetRefCount());
  EXPECT_EQ(1, callback_->GetRefCount());
  EXPECT_TRUE(transaction_->IsPreReadTransaction());
  EXPECT_EQ(30u, transaction_->GetSize());
  EXPECT_EQ(nullptr, transaction_->GetBufferList());
  EXPECT_EQ((std::vector<CallSite>{{"source/Cache/CacheTransaction", setup, 170}}), sites.added);
  transaction_.Release();
  EXPECT_EQ((std::vector<CallSite>{
                {"source/Cache/CacheTransaction", "Orvane::CacheTransaction::Cleanup", 236}}),
            sites.released);
}

TEST_F(CacheTransactionTest, APreReadOfNothingIsRefused) {
  ASSERT_TRUE(Load());
  EXPECT_FALSE(Internals::SetupForPreRead(transaction_, source_, 0, 0, 0, kNormal));
  EXPECT_EQ(list_.Get(), transaction_->GetBufferList());
}

TEST_F(CacheTransactionTest, SetupWithoutASourceLeavesNothingBehind) {
  ASSERT_TRUE(Load());
  AutoRelease<BufferList> other(NewList({8}));
  EXPECT_FALSE(transaction_->Setup(nullptr, 5, list_, callback_, 0, kNormal));
  EXPECT_EQ(nullptr, transaction_->GetSource());
  EXPECT_EQ(nullptr, transaction_->GetBufferList());
  EXPECT_EQ(0u, transaction_->GetSize());
  EXPECT_EQ(1, source_->GetRefCount());
  EXPECT_EQ(1, list_->GetRefCount());
  EXPECT_EQ(1, callback_->GetRefCount());
  EXPECT_FALSE(transaction_->Setup(nullptr, 5, other, nullptr, 0, kNormal));
  EXPECT_FALSE(Internals::SetupForPreRead(transaction_, nullptr, 0, 10, 0, kNormal));
  EXPECT_FALSE(transaction_->IsPreReadTransaction());
  EXPECT_EQ(1, other->GetRefCount());
  EXPECT_TRUE(transaction_->Cleanup());
}

// Holds an object that the transaction is loaded with next.
class Holder : public TestCallback {
 public:
  explicit Holder(SharedObject* object) : object_(object) {}

 protected:
  ~Holder() override { object_->DecRef("tests", "Holder", 0); }

 private:
  SharedObject* const object_;
};

TEST_F(CacheTransactionTest, NewReferencesAreTakenBeforeOldOnesGo) {
  auto* const list = NewList({8});
  {
    AutoRelease<Holder> holder(new Holder(list));
    ASSERT_TRUE(transaction_->Setup(source_, 0, list_, holder, 0, kNormal));
  }
  EXPECT_TRUE(transaction_->Setup(source_, 0, list, nullptr, 0, kNormal));
  EXPECT_EQ(1, list->GetRefCount());
  EXPECT_EQ(8u, transaction_->GetSize());
}

TEST_F(CacheTransactionTest, AReadReportsAfterAPreReadHasMadeTheTracker) {
  ASSERT_TRUE(Internals::SetupForPreRead(transaction_, source_, 0, 10, 0, kNormal));
  ASSERT_TRUE(Load());
  transaction_->Complete(kStart, kSize, CacheSource::kResultOK);
  EXPECT_EQ(Reported(CacheSource::kResultOK, kSize), callback_->reports);
}

TEST_F(CacheTransactionTest, SetupWithoutAListPutsTheOldTrackerAside) {
  ASSERT_TRUE(Load());
  transaction_->Complete(kStart, kSize, CacheSource::kResultOK);
  callback_->reports.clear();
  EXPECT_TRUE(transaction_->Setup(source_, kStart, nullptr, callback_, 0, kNormal));
  std::uint64_t bytes = 7;
  EXPECT_EQ(CacheSource::kResultError, transaction_->GetResult(&bytes));
  EXPECT_EQ(0u, bytes);
  EXPECT_FALSE(transaction_->StillRangesToComplete());
  EXPECT_EQ(std::vector<Report>{}, callback_->reports);
  EXPECT_TRUE(Load());
  EXPECT_EQ(CacheSource::kResultPending, transaction_->GetResult(nullptr));
}

TEST_F(CacheTransactionTest, ARangeThatWrapsIsRefused) {
  EXPECT_FALSE(transaction_->Setup(source_, kTop - 50, list_, callback_, 0, kNormal));
  EXPECT_FALSE(Internals::SetupForPreRead(transaction_, source_, 2, kTop, 0, kNormal));
  EXPECT_EQ(nullptr, transaction_->GetSource());
  EXPECT_EQ(1, source_->GetRefCount());
  EXPECT_TRUE(transaction_->Setup(source_, kTop - kSize, list_, callback_, 0, kNormal));
  transaction_->Complete(kTop - kSize, kTop, CacheSource::kResultOK);
  EXPECT_EQ(Reported(CacheSource::kResultOK, kSize), callback_->reports);
}

TEST_F(CacheTransactionTest, RequestsThatWrapAreCutAtTheTop) {
  ASSERT_TRUE(Load());
  std::uint64_t offset = kStart + 10;
  std::uint64_t size = kTop;
  EXPECT_TRUE(transaction_->Reserve(offset, size));
  EXPECT_EQ(kStart + 10, offset);
  EXPECT_EQ(90u, size);
  offset = 5;
  size = kTop;
  EXPECT_TRUE(transaction_->Reserve(offset, size));
  EXPECT_EQ(kStart, offset);
  EXPECT_EQ(10u, size);
  std::string data(200, 'x');
  EXPECT_EQ(
      CacheSource::kResultOK,
      transaction_->CopyInto(data.data(), kStart, kTop, CacheSource::kResultOK, nullptr, nullptr));
}

TEST_F(CacheTransactionTest, SetupThatFindsNoMemoryChangesNothing) {
  AutoRelease<CacheTransaction> transaction(new CacheTransaction);
  for (std::size_t ordinal = 1;; ++ordinal) {
    const AllocationFailure failure(ordinal);
    if (transaction->Setup(source_, kStart, list_, callback_, 0, kNormal)) break;
    EXPECT_TRUE(failure.HasHappened());
    EXPECT_EQ(nullptr, transaction->GetSource());
    EXPECT_EQ(1, source_->GetRefCount());
    EXPECT_EQ(1, list_->GetRefCount());
  }
  EXPECT_EQ(CacheSource::kResultPending, transaction->GetResult(nullptr));
}

TEST_F(CacheTransactionTest, OnlyOneCacheUsesIt) {
  AutoRelease<Cache> other(new Cache(nullptr));
  EXPECT_FALSE(Internals::SetCacheInUseBy(transaction_, nullptr));
  EXPECT_TRUE(Internals::SetCacheInUseBy(transaction_, cache_));
  EXPECT_FALSE(Internals::SetCacheInUseBy(transaction_, other));
  EXPECT_FALSE(Internals::SetCacheInUseBy(transaction_, cache_));
  Internals::ClearCacheInUseBy(transaction_, other);
  Internals::ClearCacheInUseBy(transaction_, nullptr);
  EXPECT_FALSE(transaction_->Cleanup());
  Internals::ClearCacheInUseBy(transaction_, cache_);
  EXPECT_TRUE(Internals::SetCacheInUseBy(transaction_, other));
  Internals::ClearCacheInUseBy(transaction_, other);
}

// The exchange of pointers takes a multiple of 4 GiB for null.
TEST_F(CacheTransactionTest, ACacheAtAMultipleOfFourGiBIsSeen) {
  Cache* const far = reinterpret_cast<Cache*>(std::uintptr_t{1} << 33);  // NOLINT
  EXPECT_TRUE(Internals::SetCacheInUseBy(transaction_, far));
  EXPECT_FALSE(Internals::SetCacheInUseBy(transaction_, cache_));
  EXPECT_FALSE(Internals::SetCacheInUseBy(transaction_, far));
  EXPECT_FALSE(transaction_->Cleanup());
  Internals::ClearCacheInUseBy(transaction_, far);
  EXPECT_TRUE(transaction_->Cleanup());
}

TEST_F(CacheTransactionTest, BuffersAreFoundByOffsetsOfTheSource) {
  std::uint64_t inBuffer = 7;
  std::uint64_t there = 7;
  EXPECT_EQ(nullptr, transaction_->GetBufferAtOffset(0, &inBuffer, &there));
  ASSERT_TRUE(Load());
  EXPECT_EQ(nullptr, transaction_->GetBufferAtOffset(kStart - 1, &inBuffer, &there));
  EXPECT_EQ(nullptr, transaction_->GetBufferAtOffset(kStart + kSize, &inBuffer, &there));
  EXPECT_EQ(7u, inBuffer);
  EXPECT_EQ(7u, there);
  EXPECT_EQ(list_->GetBuffer(1), transaction_->GetBufferAtOffset(kStart + 45, &inBuffer, &there));
  EXPECT_EQ(5u, inBuffer);
  EXPECT_EQ(15u, there);
  EXPECT_EQ(list_->GetBuffer(0), transaction_->GetBufferAtOffset(kStart, nullptr, nullptr));
}

TEST_F(CacheTransactionTest, RangesAreHandedOutAndReturnedByOffsetsOfTheSource) {
  ASSERT_TRUE(Load());
  std::uint64_t offset = kStart - 10;
  std::uint64_t size = 40;
  EXPECT_TRUE(transaction_->Reserve(offset, size));
  EXPECT_EQ(kStart, offset);
  EXPECT_EQ(30u, size);
  offset = kStart + kSize;
  size = 10;
  EXPECT_FALSE(transaction_->Reserve(offset, size));
  EXPECT_TRUE(transaction_->GetRangeToComplete(offset, size, 50));
  EXPECT_EQ(kStart + 30, offset);
  EXPECT_EQ(50u, size);
  EXPECT_TRUE(transaction_->GetRangeToComplete(offset, size, kNoLimit));
  EXPECT_EQ(kStart + 80, offset);
  EXPECT_EQ(20u, size);
  EXPECT_FALSE(transaction_->StillRangesToComplete());
  EXPECT_FALSE(transaction_->GetRangeToComplete(offset, size, kNoLimit));
  transaction_->ReturnRangeToComplete(0, 10);
  EXPECT_FALSE(transaction_->StillRangesToComplete());
  transaction_->ReturnRangeToComplete(kStart + 20, 10);
  EXPECT_TRUE(transaction_->GetRangeToComplete(offset, size, kNoLimit));
  EXPECT_EQ(kStart + 20, offset);
  EXPECT_EQ(10u, size);
}

TEST_F(CacheTransactionTest, PeekTakesNothing) {
  std::uint64_t offset = 7;
  std::uint64_t size = 7;
  EXPECT_FALSE(Internals::PeekRange(transaction_, 0, &offset, &size));
  EXPECT_EQ(0u, offset + size);
  ASSERT_TRUE(Load());
  EXPECT_TRUE(Internals::PeekRange(transaction_, 0, &offset, &size));
  EXPECT_EQ(kStart, offset);
  EXPECT_EQ(kSize, size);
  EXPECT_TRUE(Internals::PeekRange(transaction_, kStart + 60, &offset, &size));
  EXPECT_EQ(kStart + 60, offset);
  EXPECT_EQ(40u, size);
  EXPECT_FALSE(Internals::PeekRange(transaction_, kStart + kSize, &offset, &size));
  EXPECT_EQ(0u, offset + size);
}

TEST_F(CacheTransactionTest, AFailureEndsItAtOnceWithNoBytes) {
  ASSERT_TRUE(Load());
  transaction_->Complete(kStart, 50, CacheSource::kResultOK);
  transaction_->SetResult(CacheSource::kResultFailed);
  EXPECT_EQ(Reported(CacheSource::kResultFailed, 0), callback_->reports);
  std::uint64_t bytes = 7;
  EXPECT_EQ(CacheSource::kResultFailed, transaction_->GetResult(&bytes));
  EXPECT_EQ(0u, bytes);
}

TEST_F(CacheTransactionTest, OtherFailuresComeBackAsError) {
  for (const Result result : {CacheSource::kResultBusy, CacheSource::kResultNotSupported,
                              CacheSource::kResultLockFailed}) {
    ASSERT_TRUE(Load());
    callback_->reports.clear();
    transaction_->SetResult(result);
    EXPECT_EQ(Reported(CacheSource::kResultError, 0), callback_->reports);
  }
}

TEST_F(CacheTransactionTest, CompletionsBeforeItAreIgnored) {
  ASSERT_TRUE(Load());
  transaction_->Complete(kStart - 1, kSize + 1, CacheSource::kResultOK);
  EXPECT_EQ(CacheSource::kResultPending, transaction_->GetResult(nullptr));
}

TEST_F(CacheTransactionTest, TheEndOfTheDataDoesNotDependOnTheOrder) {
  const std::array<std::pair<std::uint64_t, Result>, 3> blocks{{{40, CacheSource::kResultOK},
                                                                {20, CacheSource::kResultOK},
                                                                {0, CacheSource::kResultPartial}}};
  std::array<std::size_t, 3> order{0, 1, 2};
  do {
    ASSERT_TRUE(Load());
    callback_->reports.clear();
    for (const std::size_t i : order) {
      transaction_->Complete(kStart + (i == 0   ? 0
                                       : i == 1 ? 40
                                                : 60),
                             blocks[i].first, blocks[i].second);
    }
    EXPECT_EQ(Reported(CacheSource::kResultPartial, 60), callback_->reports);
  } while (std::next_permutation(order.begin(), order.end()));
}

TEST_F(CacheTransactionTest, CopyFillsTheBuffers) {
  ASSERT_TRUE(Load());
  EXPECT_EQ(CacheSource::kResultPending, CopyText(std::string(50, 'b'), kStart + 30));
  EXPECT_EQ(CacheSource::kResultPending, CopyText(std::string(20, 'c'), kStart + 80));
  EXPECT_EQ(CacheSource::kResultOK, CopyText(std::string(30, 'a'), kStart));
  EXPECT_EQ(std::string(30, 'a') + std::string(50, 'b') + std::string(20, 'c'), Text(list_));
  EXPECT_EQ(Reported(CacheSource::kResultOK, kSize), callback_->reports);
}

TEST_F(CacheTransactionTest, CopyFromBeforeTheStartIsClipped) {
  ASSERT_TRUE(Load());
  std::string data = "0123456789";
  std::uint64_t copiedOffset = 0;
  std::uint64_t copiedSize = 0;
  EXPECT_EQ(CacheSource::kResultPending,
            transaction_->CopyInto(data.data(), kStart - 6, 10, CacheSource::kResultOK,
                                   &copiedOffset, &copiedSize));
  EXPECT_EQ(kStart, copiedOffset);
  EXPECT_EQ(4u, copiedSize);
  EXPECT_EQ("6789" + std::string(96, '.'), Text(list_));
  std::uint64_t offset = 0;
  std::uint64_t size = 0;
  EXPECT_TRUE(Internals::PeekRange(transaction_, 0, &offset, &size));
  EXPECT_EQ(kStart + 4, offset);
}

TEST_F(CacheTransactionTest, CopyPastTheEndIsClipped) {
  ASSERT_TRUE(Load());
  std::uint64_t copiedOffset = 0;
  std::uint64_t copiedSize = 0;
  std::string data = "0123456789";
  EXPECT_EQ(CacheSource::kResultPending,
            transaction_->CopyInto(data.data(), kStart + 93, 10, CacheSource::kResultPartial,
                                   &copiedOffset, &copiedSize));
  EXPECT_EQ(kStart + 93, copiedOffset);
  EXPECT_EQ(7u, copiedSize);
  EXPECT_EQ(std::string(93, '.') + "0123456", Text(list_));
}

TEST_F(CacheTransactionTest, CopyThatDoesNotMeetItIsOutOfRange) {
  ASSERT_TRUE(Load());
  std::uint64_t copiedOffset = 7;
  std::uint64_t copiedSize = 7;
  std::string data = "0123456789";
  for (const std::uint64_t offset : {kStart + kSize, kStart + kSize + 50, kStart - 10, kTop}) {
    EXPECT_EQ(CacheSource::kResultOutOfRange,
              transaction_->CopyInto(data.data(), offset, 10, CacheSource::kResultOK, &copiedOffset,
                                     &copiedSize));
  }
  EXPECT_EQ(7u, copiedOffset);
  EXPECT_EQ(7u, copiedSize);
  EXPECT_EQ(CacheSource::kResultPending, transaction_->GetResult(nullptr));
  EXPECT_EQ(std::string(100, '.'), Text(list_));
}

TEST_F(CacheTransactionTest, CopyOfNothingCompletesWithTheResultThatItHas) {
  ASSERT_TRUE(Load());
  EXPECT_EQ(CacheSource::kResultPartial, CopyText("", kStart + 50, CacheSource::kResultPartial));
  EXPECT_EQ(CacheSource::kResultPending, transaction_->GetResult(nullptr));
  transaction_->Complete(kStart, 50, CacheSource::kResultOK);
  EXPECT_EQ(Reported(CacheSource::kResultPartial, 50), callback_->reports);
}

// A list whose first buffer takes everything and whose second takes what it wants.
class CacheTransactionCopyTest : public CacheTransactionTest {
 protected:
  void LoadUnwilling(Buffer::BufferResult_t result, std::size_t moves, std::size_t willing = 0) {
    AutoRelease<BufferList> list(willing > 0 ? NewList({willing}) : new BufferList);
    list->AddBuffer(new UnwillingBuffer(10, result, moves), /*adoptReference=*/true);
    ASSERT_TRUE(transaction_->Setup(source_, 0, list, callback_, 0, kNormal));
  }
};

TEST_F(CacheTransactionCopyTest, ABufferThatDoesNotLockIsTold) {
  LoadUnwilling(Buffer::kBufferLockFailed, 0);
  EXPECT_EQ(CacheSource::kResultLockFailed, CopyText("0123456789", 0));
  EXPECT_EQ(CacheSource::kResultPending, transaction_->GetResult(nullptr));
}

TEST_F(CacheTransactionCopyTest, AnyOtherRefusalIsAnError) {
  LoadUnwilling(Buffer::kBufferNoAddress, 0);
  EXPECT_EQ(CacheSource::kResultError, CopyText("0123456789", 0));
  LoadUnwilling(Buffer::kBufferOK, 0);
  EXPECT_EQ(CacheSource::kResultError, CopyText("0123456789", 0));
  EXPECT_EQ(CacheSource::kResultPending, transaction_->GetResult(nullptr));
}

TEST_F(CacheTransactionCopyTest, WhatWasCopiedBeforeARefusalIsCompleted) {
  LoadUnwilling(Buffer::kBufferLockFailed, 0, 6);
  std::string data = "0123456789";
  std::uint64_t copiedOffset = 7;
  std::uint64_t copiedSize = 7;
  EXPECT_EQ(CacheSource::kResultLockFailed,
            transaction_->CopyInto(data.data(), 0, 10, CacheSource::kResultOK, &copiedOffset,
                                   &copiedSize));
  EXPECT_EQ(0u, copiedOffset);
  EXPECT_EQ(6u, copiedSize);
  std::uint64_t offset = 0;
  std::uint64_t size = 0;
  EXPECT_TRUE(transaction_->GetRangeToComplete(offset, size, kNoLimit));
  EXPECT_EQ(6u, offset);
}

TEST_F(CacheTransactionCopyTest, BytesMovedWithoutAcknowledgementCount) {
  LoadUnwilling(Buffer::kBufferAcknowledgeFailed, 10);
  EXPECT_EQ(CacheSource::kResultError, CopyText("0123456789", 0));
  EXPECT_EQ(Reported(CacheSource::kResultOK, 10), callback_->reports);
}

TEST_F(CacheTransactionCopyTest, ABufferThatTakesLittleAtATimeIsFilled) {
  LoadUnwilling(Buffer::kBufferOK, 3);
  EXPECT_EQ(CacheSource::kResultOK, CopyText("0123456789", 0));
  EXPECT_EQ("0123456789", Text(transaction_->GetBufferList()));
}

TEST_F(CacheTransactionTest, ACopyIntoAPreReadCompletesTheRange) {
  ASSERT_TRUE(Internals::SetupForPreRead(transaction_, source_, kStart, kSize, 0, kNormal));
  EXPECT_EQ(CacheSource::kResultOK,
            transaction_->CopyInto(nullptr, kStart - 10, 60, CacheSource::kResultPartial, nullptr,
                                   nullptr));
  EXPECT_EQ(
      CacheSource::kResultOK,
      transaction_->CopyInto(nullptr, kStart - 10, 5, CacheSource::kResultOK, nullptr, nullptr));
  EXPECT_EQ(CacheSource::kResultPending, transaction_->GetResult(nullptr));
  EXPECT_EQ(
      CacheSource::kResultOK,
      transaction_->CopyInto(nullptr, kStart + 50, 60, CacheSource::kResultOK, nullptr, nullptr));
  std::uint64_t bytes = 0;
  EXPECT_EQ(CacheSource::kResultOK, transaction_->GetResult(&bytes));
  EXPECT_EQ(kSize, bytes);
}

TEST_F(CacheTransactionTest, TheSourceIsAskedDirectly) {
  EXPECT_EQ(CacheSource::kResultNotSupported, transaction_->ReadDirect());
  transaction_->PreReadDirect();
  EXPECT_FALSE(transaction_->SupportsPreReads());
  ASSERT_TRUE(Load());
  EXPECT_EQ(CacheSource::kResultBusy, transaction_->ReadDirect());
  transaction_->PreReadDirect();
  EXPECT_TRUE(transaction_->SupportsPreReads());
  EXPECT_EQ(std::vector<CacheTransaction*>{transaction_}, source_->read);
  EXPECT_EQ(std::vector<CacheTransaction*>{transaction_}, source_->preRead);
}

TEST_F(CacheTransactionTest, ExceptionsOfTheCallbackAreSwallowed) {
  TestMTInterface::Get().TakeDebugText();
  ASSERT_TRUE(Load());
  callback_->onReport = [](CacheTransaction*) { throw std::runtime_error("of the caller"); };
  transaction_->Complete(kStart, kSize, CacheSource::kResultOK);
  EXPECT_EQ(Reported(CacheSource::kResultOK, kSize), callback_->reports);
  EXPECT_EQ(2, callback_->GetRefCount());
  EXPECT_NE("", TestMTInterface::Get().TakeDebugText());
}

TEST_F(CacheTransactionTest, TheCallbackIsHeldDuringItsCall) {
  CallSites sites;
  AutoRelease<TestCallback> callback(new Recording<TestCallback>(&sites));
  ASSERT_TRUE(transaction_->Setup(source_, 0, list_, callback, 0, kNormal));
  callback->onReport = [](CacheTransaction* transaction) { transaction->Cleanup(); };
  sites = {};
  transaction_->SetResult(CacheSource::kResultFailed);
  const std::string file = "public_include/SharedObject";
  const std::string name = "Orvane::SharedObjectAutoRef::";
  EXPECT_EQ((std::vector<CallSite>{{file, name + "SharedObjectAutoRef", 65}}), sites.added);
  ASSERT_EQ(2u, sites.released.size());
  EXPECT_EQ((CallSite{file, name + "~SharedObjectAutoRef", 70}), sites.released[1]);
}

TEST_F(CacheTransactionTest, TheCacheIsOutBeforeTheReport) {
  for (const bool reuse : {false, true}) {
    ASSERT_TRUE(Load());
    ASSERT_TRUE(Internals::SetCacheInUseBy(transaction_, cache_));
    bool answer = false;
    callback_->onReport = [this, reuse, &answer](CacheTransaction* transaction) {
      answer = reuse ? Load() : transaction->Cleanup();
    };
    transaction_->Complete(kStart, kSize, CacheSource::kResultOK);
    EXPECT_TRUE(answer);
    callback_->onReport = {};
    EXPECT_EQ(reuse ? CacheSource::kResultPending : CacheSource::kResultOK,
              transaction_->GetResult(nullptr));
  }
}

// The last reference goes inside the callback; the lock around it must still be there.
TEST_F(CacheTransactionTest, ItOutlivesItsOwnReport) {
  std::string data(kSize, 'x');
  const std::vector<std::function<void(CacheTransaction*)>> ways{
      [](CacheTransaction* transaction) { transaction->SetResult(CacheSource::kResultFailed); },
      [](CacheTransaction* transaction) {
        transaction->Complete(kStart, kSize, CacheSource::kResultOK);
      },
      [&data](CacheTransaction* transaction) {
        transaction->CopyInto(data.data(), kStart, kSize, CacheSource::kResultOK, nullptr, nullptr);
      },
      [](CacheTransaction* transaction) { Internals::FinishWithoutData(transaction); }};
  for (const auto& finish : ways) {
    auto* const transaction = new CacheTransaction(source_, kStart, list_, callback_, 0);
    long left = -1;
    callback_->onReport = [&left](CacheTransaction* reported) {
      left = reported->DecRef("tests", "report", 0);
    };
    finish(transaction);
    EXPECT_GE(left, 1);
    EXPECT_EQ(1, list_->GetRefCount());
  }
}

TEST_F(CacheTransactionTest, TheSourceGoesWhenTheOpenScopeCloses) {
  {
    ReportScope scope;
    ASSERT_TRUE(Load());
    ASSERT_TRUE(transaction_->Cleanup());
    EXPECT_EQ(2, source_->GetRefCount());
    AutoRelease<CacheTransaction> second(new CacheTransaction(source_, 0, list_, nullptr, 0));
    second.Release();
    EXPECT_EQ(3, source_->GetRefCount());
    EXPECT_EQ(1, list_->GetRefCount());
  }
  EXPECT_EQ(1, source_->GetRefCount());
}

TEST_F(CacheTransactionTest, TheSourceCanGoEarly) {
  ASSERT_TRUE(Load());
  Internals::ReleaseSource(transaction_);
  EXPECT_EQ(1, source_->GetRefCount());
  EXPECT_EQ(nullptr, transaction_->GetSource());
  EXPECT_EQ(list_.Get(), transaction_->GetBufferList());
  EXPECT_EQ(kStart, transaction_->GetOffset());
  Internals::ReleaseSource(transaction_);
  EXPECT_EQ(CacheSource::kResultNotSupported, transaction_->ReadDirect());
}

TEST_F(CacheTransactionTest, ABorrowKeepsTheReportBack) {
  ASSERT_TRUE(Load());
  ASSERT_TRUE(Internals::SetCacheInUseBy(transaction_, cache_));
  {
    TransactionBorrow first(transaction_, Generation());
    ASSERT_TRUE(first.IsHeld());
    {
      TransactionBorrow second(transaction_, Generation());
      EXPECT_TRUE(second.IsHeld());
      transaction_->SetResult(CacheSource::kResultFailed);
      EXPECT_TRUE(Internals::IsOver(transaction_, Generation()));
    }
    EXPECT_EQ(std::vector<Report>{}, callback_->reports);
    EXPECT_FALSE(TransactionBorrow(transaction_, Generation()).IsHeld());
    EXPECT_FALSE(transaction_->Cleanup());
  }
  EXPECT_EQ(Reported(CacheSource::kResultFailed, 0), callback_->reports);
}

// Whoever borrows looks at the fields, in use by a cache or not.
TEST_F(CacheTransactionTest, WhileBorrowedItIsNotLoadedAnew) {
  ASSERT_TRUE(Load());
  {
    const TransactionBorrow borrow(transaction_, Generation());
    EXPECT_FALSE(Load());
    EXPECT_FALSE(transaction_->Cleanup());
    EXPECT_FALSE(Internals::SetupForPreRead(transaction_, source_, 0, 10, 0, kNormal));
    EXPECT_EQ(list_.Get(), transaction_->GetBufferList());
  }
  EXPECT_TRUE(transaction_->Cleanup());
}

TEST_F(CacheTransactionTest, ALoadOfBeforeIsNotLent) {
  ASSERT_TRUE(Load());
  const auto isLent = [this](std::uint32_t generation) {
    const bool lent = TransactionBorrow(transaction_, generation).IsHeld();
    EXPECT_EQ(!lent, Internals::IsOver(transaction_, generation));
    return lent;
  };
  std::uint32_t generation = Generation();
  EXPECT_TRUE(isLent(generation));
  ASSERT_TRUE(Load());
  EXPECT_FALSE(isLent(generation));
  generation = Generation();
  EXPECT_TRUE(isLent(generation));
  ASSERT_TRUE(transaction_->Cleanup());
  EXPECT_FALSE(isLent(generation));
  ASSERT_TRUE(Internals::SetupForPreRead(transaction_, source_, 0, 10, 0, kNormal));
  EXPECT_FALSE(isLent(generation));
  generation = Generation();
  ASSERT_TRUE(Internals::SetupForPreRead(transaction_, source_, 0, 10, 0, kNormal));
  EXPECT_FALSE(isLent(generation));
  generation = Generation();
  EXPECT_FALSE(transaction_->Setup(nullptr, 0, nullptr, nullptr, 0, kNormal));
  EXPECT_FALSE(isLent(generation));
}

TEST_F(CacheTransactionTest, AnEmptyOneIsNotLent) {
  EXPECT_FALSE(TransactionBorrow(transaction_, Generation()).IsHeld());
  EXPECT_FALSE(Internals::IsOver(transaction_, Generation()));
  EXPECT_TRUE(Internals::IsOver(transaction_, Generation() + 1));
}

TEST_F(CacheTransactionTest, OneWithoutDataEndsOutOfRange) {
  AutoRelease<BufferList> empty(new BufferList);
  const std::array<BufferList*, 2> lists{nullptr, empty.Get()};
  for (const bool used : {false, true}) {
    for (BufferList* const list : lists) {
      AutoRelease<CacheTransaction> transaction(new CacheTransaction);
      if (used) {
        ASSERT_TRUE(transaction->Setup(source_, 0, list_, nullptr, 0, kNormal));
        transaction->SetResult(CacheSource::kResultFailed);
      }
      ASSERT_TRUE(transaction->Setup(source_, 0, list, callback_, 0, kNormal));
      ASSERT_TRUE(Internals::SetCacheInUseBy(transaction, cache_));
      Internals::FinishWithoutData(transaction);
      EXPECT_EQ((std::vector<Report>{{CacheSource::kResultOutOfRange, transaction, 0}}),
                callback_->reports);
      EXPECT_EQ(CacheSource::kResultOutOfRange, transaction->GetResult(nullptr));
      callback_->reports.clear();
      EXPECT_TRUE(transaction->Cleanup());
    }
  }
}

TEST_F(CacheTransactionTest, OneWithoutDataEndsWithoutMemoryToo) {
  ASSERT_TRUE(transaction_->Setup(source_, 0, nullptr, callback_, 0, kNormal));
  callback_->reports.reserve(1);
  {
    const AllocationFailure failure(1);
    Internals::FinishWithoutData(transaction_);
    EXPECT_TRUE(failure.HasHappened());
  }
  EXPECT_EQ(Reported(CacheSource::kResultOutOfRange, 0), callback_->reports);
}

// Four ranges fit without memory.
class CacheTransactionMemoryTest : public CacheTransactionTest {
 protected:
  void ExpectError(const std::function<void()>& work) {
    ASSERT_TRUE(Load());
    callback_->reports.clear();
    callback_->reports.reserve(1);
    for (std::uint64_t i = 0; i < 3; ++i) {
      std::uint64_t offset = kStart + 10 + 20 * i;
      std::uint64_t size = 10;
      ASSERT_TRUE(transaction_->Reserve(offset, size));
    }
    {
      const AllocationFailure failure(1);
      work();
      EXPECT_TRUE(failure.HasHappened());
    }
    EXPECT_EQ(Reported(CacheSource::kResultError, 0), callback_->reports);
  }
};

TEST_F(CacheTransactionMemoryTest, AReservationWithoutMemoryEndsIt) {
  ExpectError([this] {
    std::uint64_t offset = kStart + 92;
    std::uint64_t size = 2;
    EXPECT_FALSE(transaction_->Reserve(offset, size));
  });
}

TEST_F(CacheTransactionMemoryTest, AReturnWithoutMemoryEndsIt) {
  ExpectError([this] { transaction_->ReturnRangeToComplete(kStart + 12, 2); });
}

TEST_F(CacheTransactionMemoryTest, ACompletionWithoutMemoryEndsIt) {
  ExpectError([this] { transaction_->Complete(kStart + 92, 2, CacheSource::kResultOK); });
}

// Workers reserve, copy and return at once, one of them fails the request in some rounds. The
// caller frees and poisons his memory in the report: nobody may touch it from then on.
class CacheTransactionThreadsTest : public CacheTransactionTest {
 protected:
  static constexpr std::size_t kThreads = 4;
  static constexpr std::uint64_t kBlock = 10;

  void Work(std::size_t thread, std::uint32_t generation, bool fails) {
    std::string data(kBlock, 'd');
    for (std::size_t pass = 0; pass < kSize / kBlock; ++pass) {
      const TransactionBorrow borrow(transaction_, generation);
      if (!borrow.IsHeld()) return;
      if (fails && thread == 0 && pass == 1) transaction_->SetResult(CacheSource::kResultFailed);
      std::uint64_t offset = kStart + kBlock * ((pass + 3 * thread) % (kSize / kBlock));
      std::uint64_t size = kBlock;
      if (!transaction_->Reserve(offset, size)) continue;
      if ((pass + thread) % 5 == 0) {
        transaction_->ReturnRangeToComplete(offset, size);
        if (!transaction_->GetRangeToComplete(offset, size, kBlock)) continue;
      }
      transaction_->CopyInto(data.data(), offset, size, CacheSource::kResultOK, nullptr, nullptr);
    }
    // What was returned and that nobody has met again.
    for (;;) {
      const TransactionBorrow borrow(transaction_, generation);
      std::uint64_t offset = 0;
      std::uint64_t size = 0;
      if (!borrow.IsHeld() || !transaction_->GetRangeToComplete(offset, size, kBlock)) return;
      transaction_->CopyInto(data.data(), offset, size, CacheSource::kResultOK, nullptr, nullptr);
    }
  }
};

TEST_F(CacheTransactionThreadsTest, NothingIsTouchedAfterTheReport) {
  const std::string full(kSize, 'd');
  for (int round = 0; round < 300; ++round) {
    const bool fails = round % 3 == 0;
    std::string seen;
    bool cleaned = false;
    callback_->reports.clear();
    callback_->onReport = [&, this](CacheTransaction* transaction) {
      seen = Text(list_);
      for (std::size_t i = 0; i < list_->GetNumberOfBuffers(); ++i) {
        Buffer* const buffer = list_->GetBuffer(i);
        std::memset(buffer->GetAddress(), '#', buffer->GetSize());
      }
      cleaned = transaction->Cleanup();
    };
    ASSERT_TRUE(Load());
    ASSERT_TRUE(Internals::SetCacheInUseBy(transaction_, cache_));
    const std::uint32_t generation = Generation();
    std::vector<std::thread> threads;
    for (std::size_t i = 0; i < kThreads; ++i) {
      threads.emplace_back([this, i, generation, fails] { Work(i, generation, fails); });
    }
    for (std::thread& thread : threads) thread.join();
    ASSERT_EQ(1u, callback_->reports.size());
    if (callback_->reports[0].result == CacheSource::kResultOK) {
      ASSERT_EQ(kSize, callback_->reports[0].bytes);
      ASSERT_EQ(full, seen);
    } else {
      ASSERT_TRUE(fails);
    }
    ASSERT_TRUE(cleaned);
    ASSERT_EQ(std::string(kSize, '#'), Text(list_));
  }
}

}  // namespace
}  // namespace Orvane
