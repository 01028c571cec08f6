#include "Cache/WorkTracker.h"

#include <algorithm>
#include <array>
#include <functional>
#include <iterator>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "MTInterface.h"
#include "OrvaneTest.h"

namespace Orvane {
namespace {

constexpr std::uint64_t kTop = ByteRange::kLargestOffset;

using Report = std::pair<WorkCode, std::uint64_t>;

// Notes what it is told, and does what a test asks for on being told.
class Recorder : public WorkTracker::WorkResultCallback {
 public:
  void OnWorkResult(WorkCode code, WorkTracker* tracker, std::uint64_t bytesDone) override {
    reports.emplace_back(code, bytesDone);
    if (onReport) onReport(tracker);
  }

  std::vector<Report> reports;
  std::function<void(WorkTracker*)> onReport;
};

// A tracker of 100 with its reports.
class WorkTrackerTest : public OrvaneTest {
 protected:
  void SetUp() override {
    OrvaneTest::SetUp();
    Start(100);
  }
  void TearDown() override {
    tracker_.reset();
    OrvaneTest::TearDown();
  }
  void Start(std::uint64_t total) {
    tracker_ = std::make_unique<WorkTracker>(total);
    tracker_->SetResultCallback(&recorder_);
    recorder_.reports.clear();
  }
  // The one report, or nothing; also that GetResult says the same.
  std::vector<Report> Outcome() {
    std::uint64_t bytes = 0;
    const WorkCode code = tracker_->GetResult(&bytes);
    EXPECT_EQ(recorder_.reports.empty(), code == kWorkPending);
    if (!recorder_.reports.empty()) {
      EXPECT_EQ(recorder_.reports.back(), Report(code, bytes));
    }
    return recorder_.reports;
  }
  // All pending ranges; takes them.
  std::vector<ByteRange> TakePending() {
    std::vector<ByteRange> ranges;
    ByteRange range;
    while (tracker_->GetNextRange(range.offset, range.size, WorkTracker::kNoLimit)) {
      ranges.push_back(range);
    }
    return ranges;
  }
  std::uint64_t Reserved(std::uint64_t offset, std::uint64_t most) {
    std::uint64_t size = 77;
    const bool reserved = tracker_->Reserve(offset, size, most);
    EXPECT_EQ(reserved, size > 0);
    return size;
  }

  Recorder recorder_;
  std::unique_ptr<WorkTracker> tracker_;
};

using Ranges = std::vector<ByteRange>;
const std::vector<Report> kNoReport;
std::vector<Report> Once(WorkCode code, std::uint64_t bytes) {
  return {{code, bytes}};
}

TEST_F(WorkTrackerTest, EveryResultHasAWorkCode) {
  const std::vector<std::pair<int, WorkCode>> table{
      {-100, kWorkError}, {-6, kWorkError},      {-5, kWorkError},  {-4, kWorkError},
      {-3, kWorkError},   {-2, kWorkOutOfRange}, {-1, kWorkFailed}, {0, kWorkPending},
      {1, kWorkDone},     {2, kWorkPartial},     {3, kWorkPending}, {4, kWorkError},
      {5, kWorkError},    {100, kWorkError}};
  for (const auto& [result, code] : table) {
    EXPECT_EQ(code, ToWorkCode(static_cast<CacheSource::Result_t>(result))) << result;
  }
}

TEST_F(WorkTrackerTest, EveryWorkCodeHasAResult) {
  EXPECT_EQ(CacheSource::kResultPending, ToResult(kWorkPending));
  EXPECT_EQ(CacheSource::kResultOK, ToResult(kWorkDone));
  EXPECT_EQ(CacheSource::kResultPartial, ToResult(kWorkPartial));
  EXPECT_EQ(CacheSource::kResultFailed, ToResult(kWorkFailed));
  EXPECT_EQ(CacheSource::kResultOutOfRange, ToResult(kWorkOutOfRange));
  EXPECT_EQ(CacheSource::kResultError, ToResult(kWorkError));
  EXPECT_EQ(0, kWorkPending);
  EXPECT_EQ(5, kWorkError);
}

TEST_F(WorkTrackerTest, AReturnedRangeMergesWithWhatIsPending) {
  EXPECT_EQ(40u, Reserved(0, 40));
  std::uint64_t offset = 0;
  std::uint64_t size = 0;
  ASSERT_TRUE(tracker_->PeekRange(0, &offset, &size));
  EXPECT_EQ((ByteRange{40, 60}), (ByteRange{offset, size}));
  tracker_->ReturnRange(0, 40);
  EXPECT_EQ(1u, tracker_->GetReturnCount());
  EXPECT_EQ((Ranges{{0, 100}}), TakePending());
}

TEST_F(WorkTrackerTest, CompletionOfEverythingFinishes) {
  tracker_->Complete(0, 100, kWorkDone);
  EXPECT_EQ(Once(kWorkDone, 100), Outcome());
}

TEST_F(WorkTrackerTest, APartialStartFinishesAtOnce) {
  tracker_->Complete(0, 30, kWorkPartial);
  EXPECT_EQ(Once(kWorkPartial, 30), Outcome());
}

TEST_F(WorkTrackerTest, CompletionBehindTheStartAloneDoesNotFinish) {
  tracker_->Complete(30, 70, kWorkDone);
  EXPECT_EQ(kNoReport, Outcome());
  tracker_->Complete(0, 30, kWorkDone);
  EXPECT_EQ(Once(kWorkDone, 100), Outcome());
}

TEST_F(WorkTrackerTest, OutOfRangeAtTheStartOfAFreshTrackerFinishes) {
  tracker_->Complete(0, 0, kWorkOutOfRange);
  EXPECT_EQ(Once(kWorkOutOfRange, 0), Outcome());
}

TEST_F(WorkTrackerTest, OutOfRangeAfterASuccessWaitsForThePrefix) {
  tracker_->Complete(30, 70, kWorkDone);
  tracker_->Complete(0, 0, kWorkOutOfRange);
  EXPECT_EQ(kNoReport, Outcome());
  tracker_->Complete(0, 30, kWorkDone);
  EXPECT_EQ(Once(kWorkOutOfRange, 0), Outcome());
}

// Otherwise nothing would ever end it: whoever had byte 0 is the one who speaks.
TEST_F(WorkTrackerTest, OutOfRangeAtAStartThatWasHandedOutFinishesAfterASuccess) {
  EXPECT_EQ(30u, Reserved(0, 30));
  EXPECT_EQ(70u, Reserved(30, 70));
  tracker_->Complete(30, 70, kWorkDone);
  tracker_->Complete(0, 0, kWorkOutOfRange);
  EXPECT_EQ(Once(kWorkOutOfRange, 0), Outcome());
}

TEST_F(WorkTrackerTest, OutOfRangeBehindTheStartOfAFreshTrackerWaitsForWhatIsBefore) {
  tracker_->Complete(40, 60, kWorkOutOfRange);
  EXPECT_EQ(kNoReport, Outcome());
  tracker_->Complete(0, 40, kWorkDone);
  EXPECT_EQ(Once(kWorkPartial, 40), Outcome());
}

TEST_F(WorkTrackerTest, OperationsAfterTheEndChangeNothing) {
  tracker_->Complete(0, 30, kWorkPartial);
  tracker_->Complete(0, 100, kWorkDone);
  tracker_->Complete(0, 0, kWorkFailed);
  tracker_->ReturnRange(0, 100);
  std::uint64_t offset = 7;
  std::uint64_t size = 7;
  EXPECT_FALSE(tracker_->GetNextRange(offset, size, 10));
  EXPECT_EQ((ByteRange{}), (ByteRange{offset, size}));
  offset = size = 7;
  EXPECT_FALSE(tracker_->PeekRange(0, &offset, &size));
  EXPECT_EQ((ByteRange{}), (ByteRange{offset, size}));
  EXPECT_EQ(0u, Reserved(30, 10));
  EXPECT_FALSE(tracker_->HasRangesToComplete());
  EXPECT_EQ(Once(kWorkPartial, 30), Outcome());
}

TEST_F(WorkTrackerTest, BeforeTheEndTheResultIsPendingWithNoBytes) {
  std::uint64_t bytes = 7;
  tracker_->Complete(0, 50, kWorkDone);
  EXPECT_EQ(kWorkPending, tracker_->GetResult(&bytes));
  EXPECT_EQ(0u, bytes);
  EXPECT_EQ(kWorkPending, tracker_->GetResult(nullptr));
}

TEST_F(WorkTrackerTest, ATrackerOfNothingIsNotFinishedByRanges) {
  Start(0);
  EXPECT_FALSE(tracker_->HasRangesToComplete());
  tracker_->Complete(0, 0, kWorkDone);
  tracker_->Complete(0, 10, kWorkDone);
  tracker_->Complete(0, 10, kWorkPartial);
  tracker_->ReturnRange(0, 10);
  EXPECT_EQ(kNoReport, Outcome());
  EXPECT_FALSE(tracker_->HasRangesToComplete());
  tracker_->Complete(0, 0, kWorkOutOfRange);
  EXPECT_EQ(Once(kWorkOutOfRange, 0), Outcome());
}

TEST_F(WorkTrackerTest, FailuresFinishAtOnceWithNoBytes) {
  for (const WorkCode code : {kWorkFailed, kWorkError}) {
    Start(100);
    tracker_->Complete(0, 50, kWorkDone);
    tracker_->Complete(0, 0, code);
    EXPECT_EQ(Once(code, 0), Outcome());
  }
}

TEST_F(WorkTrackerTest, PendingAndUnknownCodesChangeNothing) {
  tracker_->Complete(0, 100, kWorkPending);
  tracker_->Complete(0, 100, static_cast<WorkCode>(6));
  EXPECT_EQ(kNoReport, Outcome());
  EXPECT_EQ((Ranges{{0, 100}}), TakePending());
}

TEST_F(WorkTrackerTest, CompletionTakesTheRangeOutOfWhatIsPending) {
  tracker_->Complete(20, 30, kWorkDone);
  tracker_->Complete(70, 30, kWorkPartial);
  EXPECT_EQ((Ranges{{0, 20}, {50, 20}}), TakePending());
}

TEST_F(WorkTrackerTest, RangesAreHandedOutInOrderUpToTheLimit) {
  std::uint64_t offset = 7;
  std::uint64_t size = 7;
  EXPECT_TRUE(tracker_->GetNextRange(offset, size, 60));
  EXPECT_EQ((ByteRange{0, 60}), (ByteRange{offset, size}));
  EXPECT_TRUE(tracker_->GetNextRange(offset, size, 60));
  EXPECT_EQ((ByteRange{60, 40}), (ByteRange{offset, size}));
  EXPECT_FALSE(tracker_->GetNextRange(offset, size, 60));
  EXPECT_EQ((ByteRange{}), (ByteRange{offset, size}));
}

// KEPT.
TEST_F(WorkTrackerTest, ALimitOfNothingTakesNothing) {
  std::uint64_t offset = 7;
  std::uint64_t size = 7;
  EXPECT_TRUE(tracker_->GetNextRange(offset, size, 0));
  EXPECT_EQ((ByteRange{}), (ByteRange{offset, size}));
  EXPECT_EQ((Ranges{{0, 100}}), TakePending());
}

TEST_F(WorkTrackerTest, ReservationsShrinkToWhatIsPending) {
  EXPECT_EQ(100u, Reserved(0, WorkTracker::kNoLimit));
  EXPECT_EQ(0u, Reserved(0, 10));
  tracker_->ReturnRange(20, 30);
  EXPECT_EQ(20u, Reserved(30, 100));
  EXPECT_EQ(10u, Reserved(0, 30));
}

TEST_F(WorkTrackerTest, WhatLiesBehindTheTotalIsNotTracked) {
  TakePending();
  tracker_->ReturnRange(90, 100);
  tracker_->ReturnRange(100, 10);
  EXPECT_EQ((Ranges{{90, 10}}), TakePending());
  tracker_->Complete(150, 10, kWorkPartial);
  tracker_->Complete(100, 0, kWorkOutOfRange);
  tracker_->Complete(kTop, kTop, kWorkDone);
  tracker_->Complete(0, kTop, kWorkDone);
  EXPECT_EQ(Once(kWorkDone, 100), Outcome());
}

TEST_F(WorkTrackerTest, APartialCompletionOfEverythingIsPartial) {
  tracker_->Complete(0, kTop, kWorkPartial);
  EXPECT_EQ(Once(kWorkPartial, 100), Outcome());
}

TEST_F(WorkTrackerTest, PeekShowsWhatLiesBehindAnOffset) {
  EXPECT_EQ(10u, Reserved(50, 10));
  std::uint64_t offset = 0;
  std::uint64_t size = 0;
  EXPECT_TRUE(tracker_->PeekRange(20, &offset, &size));
  EXPECT_EQ((ByteRange{20, 30}), (ByteRange{offset, size}));
  EXPECT_TRUE(tracker_->PeekRange(50, &offset, &size));
  EXPECT_EQ((ByteRange{60, 40}), (ByteRange{offset, size}));
  EXPECT_FALSE(tracker_->PeekRange(100, &offset, &size));
  EXPECT_EQ((ByteRange{}), (ByteRange{offset, size}));
  EXPECT_EQ((Ranges{{0, 50}, {60, 40}}), TakePending());
}

TEST_F(WorkTrackerTest, ResetStartsAnew) {
  tracker_->Complete(0, 30, kWorkPartial);
  tracker_->Reset(50);
  EXPECT_EQ(kWorkPending, tracker_->GetResult(nullptr));
  tracker_->Complete(0, 50, kWorkDone);
  EXPECT_EQ((std::vector<Report>{{kWorkPartial, 30}, {kWorkDone, 50}}), Outcome());
}

TEST_F(WorkTrackerTest, TheReportMayResetTheTracker) {
  recorder_.onReport = [](WorkTracker* tracker) { tracker->Reset(10); };
  tracker_->Complete(0, 100, kWorkDone);
  EXPECT_EQ(kWorkPending, tracker_->GetResult(nullptr));
  EXPECT_EQ((Ranges{{0, 10}}), TakePending());
}

// Whoever comes meanwhile is let in behind the report.
TEST_F(WorkTrackerTest, TheReportRunsInsideTheLock) {
  for (int round = 0; round < 50; ++round) {
    Start(100);
    std::thread other;
    bool reported = false;
    bool reportedBefore = false;
    const std::unique_ptr<MTSemaphore> started(MTInterface::NewSemaphore(1, 0));
    recorder_.onReport = [&](WorkTracker* tracker) {
      other = std::thread([&, tracker] {
        started->Release(1);
        tracker->HasRangesToComplete();
        reportedBefore = reported;
      });
      started->Wait(0xFFFFFFFF, 1);
      reported = true;
    };
    tracker_->Complete(0, 100, kWorkDone);
    other.join();
    ASSERT_TRUE(reportedBefore);
  }
}

// One block of a request of three: what it completes.
struct Completion {
  std::uint64_t offset;
  std::uint64_t size;
  WorkCode code;
};
struct Mix {
  const char* name;
  std::array<Completion, 3> blocks;
  Report outcome;
};

void PrintTo(const Mix& mix, std::ostream* out) {
  *out << mix.name;
}

class WorkTrackerOrderTest : public WorkTrackerTest, public ::testing::WithParamInterface<Mix> {};

TEST_P(WorkTrackerOrderTest, TheOrderOfTheBlocksDoesNotMatter) {
  std::array<std::size_t, 3> order{0, 1, 2};
  do {
    Start(90);
    for (const std::uint64_t offset : {0u, 30u, 60u}) EXPECT_EQ(30u, Reserved(offset, 30));
    for (const std::size_t i : order) {
      const Completion& block = GetParam().blocks[i];
      tracker_->Complete(block.offset, block.size, block.code);
    }
    EXPECT_EQ(std::vector<Report>{GetParam().outcome}, Outcome())
        << order[0] << order[1] << order[2];
  } while (std::next_permutation(order.begin(), order.end()));
}

constexpr WorkCode kDone = kWorkDone;
constexpr WorkCode kPart = kWorkPartial;
constexpr WorkCode kOut = kWorkOutOfRange;

INSTANTIATE_TEST_SUITE_P(
    Mixes, WorkTrackerOrderTest,
    ::testing::Values(
        Mix{"AllDone", {{{0, 30, kDone}, {30, 30, kDone}, {60, 30, kDone}}}, {kDone, 90}},
        Mix{"LastEmpty", {{{0, 30, kDone}, {30, 30, kDone}, {60, 0, kPart}}}, {kPart, 60}},
        Mix{"LastOut", {{{0, 30, kDone}, {30, 30, kDone}, {60, 30, kOut}}}, {kPart, 60}},
        Mix{"LastShort", {{{0, 30, kDone}, {30, 30, kDone}, {60, 9, kPart}}}, {kPart, 69}},
        Mix{"LastFullPartial", {{{0, 30, kDone}, {30, 30, kDone}, {60, 30, kPart}}}, {kPart, 90}},
        Mix{"MiddleShort", {{{0, 30, kDone}, {30, 5, kPart}, {60, 0, kPart}}}, {kPart, 35}},
        Mix{"MiddleShortLastOut", {{{0, 30, kDone}, {30, 5, kPart}, {60, 0, kOut}}}, {kPart, 35}},
        Mix{"MiddleOutLastEmpty", {{{0, 30, kDone}, {30, 0, kOut}, {60, 0, kPart}}}, {kPart, 30}},
        Mix{"StaleMiddle", {{{0, 30, kDone}, {30, 0, kPart}, {60, 30, kDone}}}, {kPart, 30}},
        Mix{"StaleMiddleShort", {{{0, 30, kDone}, {30, 5, kPart}, {60, 30, kDone}}}, {kPart, 35}},
        Mix{"StaleMiddleOut", {{{0, 30, kDone}, {30, 0, kOut}, {60, 30, kDone}}}, {kPart, 30}},
        Mix{"FirstShort", {{{0, 7, kPart}, {30, 0, kPart}, {60, 0, kPart}}}, {kPart, 7}},
        Mix{"FirstShortRestOut", {{{0, 7, kPart}, {30, 0, kOut}, {60, 0, kOut}}}, {kPart, 7}},
        Mix{"NothingThere", {{{0, 0, kOut}, {30, 0, kPart}, {60, 0, kPart}}}, {kOut, 0}},
        Mix{"NothingThereAllOut", {{{0, 0, kOut}, {30, 0, kOut}, {60, 0, kOut}}}, {kOut, 0}},
        Mix{"NothingAtTheStart", {{{0, 0, kPart}, {30, 0, kOut}, {60, 0, kOut}}}, {kPart, 0}},
        Mix{"StaleStart", {{{0, 0, kOut}, {30, 30, kDone}, {60, 30, kDone}}}, {kOut, 0}},
        Mix{"StaleStartShort", {{{0, 0, kOut}, {30, 30, kDone}, {60, 3, kPart}}}, {kOut, 0}}),
    [](const auto& param) { return std::string(param.param.name); });

TEST_F(WorkTrackerTest, PartialDecidesWhenBothNameTheSameEnd) {
  for (const bool partialFirst : {false, true}) {
    Start(100);
    EXPECT_EQ(100u, Reserved(0, 100));
    tracker_->Complete(50, 50, kWorkDone);
    EXPECT_EQ(kNoReport, Outcome());
    tracker_->ReturnRange(0, 1);  // keeps it open
    tracker_->Complete(0, 0, partialFirst ? kWorkPartial : kWorkOutOfRange);
    tracker_->Complete(0, 0, partialFirst ? kWorkOutOfRange : kWorkPartial);
    EXPECT_EQ(kNoReport, Outcome());
    tracker_->Complete(0, 1, kWorkDone);
    EXPECT_EQ(Once(kWorkPartial, 0), Outcome());
  }
}

TEST_F(WorkTrackerTest, DoneRangesBehindTheEndOfTheDataAreNotCounted) {
  tracker_->Complete(0, 80, kWorkDone);
  tracker_->Complete(50, 0, kWorkPartial);
  EXPECT_EQ(Once(kWorkPartial, 50), Outcome());
}

class WorkTrackerBorrowTest : public WorkTrackerTest {
 protected:
  bool Borrow() { return tracker_->Borrow(&generation_, generation_); }

  std::uint32_t generation_ = 4;
};

TEST_F(WorkTrackerBorrowTest, AFinishIsReportedByTheLastReturn) {
  EXPECT_TRUE(Borrow());
  EXPECT_TRUE(Borrow());
  EXPECT_TRUE(tracker_->IsBorrowed());
  tracker_->Complete(0, 60, kWorkPartial);
  EXPECT_EQ(kWorkPartial, tracker_->GetResult(nullptr));
  EXPECT_EQ(kNoReport, recorder_.reports);
  tracker_->Complete(0, 0, kWorkFailed);
  tracker_->Return();
  EXPECT_EQ(kNoReport, recorder_.reports);
  tracker_->Return();
  EXPECT_EQ(Once(kWorkPartial, 60), Outcome());
  EXPECT_FALSE(tracker_->IsBorrowed());
}

TEST_F(WorkTrackerBorrowTest, AReturnWithoutAFinishReportsNothing) {
  EXPECT_TRUE(Borrow());
  tracker_->Return();
  EXPECT_EQ(kNoReport, Outcome());
  tracker_->Complete(0, 100, kWorkDone);
  EXPECT_EQ(Once(kWorkDone, 100), Outcome());
}

TEST_F(WorkTrackerBorrowTest, AFinishedTrackerIsNotLent) {
  EXPECT_TRUE(Borrow());
  tracker_->Complete(0, 0, kWorkFailed);
  EXPECT_FALSE(Borrow());
  tracker_->Return();
  EXPECT_FALSE(Borrow());
  EXPECT_EQ(Once(kWorkFailed, 0), Outcome());
}

TEST_F(WorkTrackerBorrowTest, AnotherGenerationIsNotServed) {
  EXPECT_FALSE(tracker_->Borrow(&generation_, 3));
  EXPECT_FALSE(tracker_->IsBorrowed());
  ++generation_;
  EXPECT_FALSE(tracker_->Borrow(&generation_, 4));
  EXPECT_TRUE(tracker_->Borrow(&generation_, 5));
  tracker_->Return();
}

TEST_F(WorkTrackerBorrowTest, AResetReportsAFinishThatWaitsOnceOnly) {
  EXPECT_TRUE(Borrow());
  tracker_->Complete(0, 0, kWorkFailed);
  tracker_->Reset(100);
  EXPECT_EQ(Once(kWorkFailed, 0), recorder_.reports);
  tracker_->Return();
  EXPECT_EQ(Once(kWorkFailed, 0), recorder_.reports);
  EXPECT_EQ(kWorkPending, tracker_->GetResult(nullptr));
}

// Four ranges fit without memory; the fifth is refused.
TEST_F(WorkTrackerTest, ACompletionThatFindsNoMemoryChangesNothing) {
  Start(1000);
  for (std::uint64_t i = 0; i < 4; ++i) tracker_->Complete(200 * i, 10, kWorkDone);
  TakePending();
  tracker_->ReturnRange(800, 100);
  {
    const AllocationFailure failure(1);
    EXPECT_THROW(tracker_->Complete(810, 10, kWorkPartial), std::bad_alloc);
  }
  EXPECT_EQ((Ranges{{800, 100}}), TakePending());
  tracker_->Complete(0, 810, kWorkDone);
  EXPECT_EQ(kNoReport, Outcome());
  tracker_->Complete(810, 190, kWorkDone);
  EXPECT_EQ(Once(kWorkDone, 1000), Outcome());
}

TEST_F(WorkTrackerTest, ATransactionOfFewRangesAllocatesNothing) {
  recorder_.reports.reserve(1);
  const std::size_t before = AllocationCounter::Count();
  tracker_->Complete(50, 10, kWorkDone);
  tracker_->Complete(30, 10, kWorkDone);
  tracker_->Complete(10, 10, kWorkDone);
  tracker_->Complete(0, 100, kWorkDone);
  EXPECT_EQ(before, AllocationCounter::Count());
  EXPECT_EQ(Once(kWorkDone, 100), Outcome());
}

}  // namespace
}  // namespace Orvane
