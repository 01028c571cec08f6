// The threading facade over the installed implementation.
#include "MTInterface.h"

#include <algorithm>
#include <memory>
#include <new>
#include <string>
#include <thread>
#include <vector>

#include "OrvaneTest.h"

namespace Orvane {
namespace {

class MTInterfaceTest : public OrvaneTest {};

TEST_F(MTInterfaceTest, ItForwardsToTheInstalledImplementation) {
  const LiveCounts before = TestMTInterface::Get().GetLiveCounts();
  const std::unique_ptr<MTCritSec> section(MTInterface::NewCritSec());
  const std::unique_ptr<MTSemaphore> semaphore(MTInterface::NewSemaphore(1, 0));
  const std::unique_ptr<MTAtomicUnsigned32> narrow(MTInterface::NewAtomicUnsigned32(3));
  const std::unique_ptr<MTAtomicUnsigned64> wide(MTInterface::NewAtomicUnsigned64(4));
  const LiveCounts after = TestMTInterface::Get().GetLiveCounts();
  EXPECT_EQ(before.critSecs + 1, after.critSecs);
  EXPECT_EQ(before.semaphores + 1, after.semaphores);
  EXPECT_EQ(before.atomics + 2, after.atomics);
  EXPECT_EQ(3U, narrow->Get());
  EXPECT_EQ(4U, wide->Get());
}

TEST_F(MTInterfaceTest, DebugTextReachesTheImplementation) {
  TestMTInterface::Get().TakeDebugText();
  MTInterface::DebugString("one, ");
  MTInterface::DebugString("two");
  EXPECT_EQ("one, two", TestMTInterface::Get().TakeDebugText());
}

TEST_F(MTInterfaceTest, MillisecondsAreTheLowHalfOfMicrosecondsByThousand) {
  // Here, and where the count of milliseconds has more than 32 bits.
  for (const std::uint64_t shift : {std::uint64_t{0}, std::uint64_t{5000000000} * 1000}) {
    TestMTInterface::Get().ShiftClock(shift);
    const auto before = static_cast<std::uint32_t>(MTInterface::GetCurrentTimeMicro() / 1000);
    const std::uint32_t milli = MTInterface::GetCurrentTimeMilli();
    const auto after = static_cast<std::uint32_t>(MTInterface::GetCurrentTimeMicro() / 1000);
    EXPECT_LE(milli - before, after - before);
  }
}

TEST_F(MTInterfaceTest, MillisecondsWrap) {
  const std::uint32_t now = MTInterface::GetCurrentTimeMilli();
  const std::uint64_t toWrap = std::uint64_t{0U - now} * 1000;
  TestMTInterface::Get().ShiftClock(toWrap);
  EXPECT_LT(MTInterface::GetCurrentTimeMilli(), 600000U);
  EXPECT_GT(MTInterface::GetCurrentTimeMicro() / 1000, 0xFFFFFFFFU);
}

TEST_F(MTInterfaceTest, SleepLastsAsLongAsAsked) {
  const std::uint64_t start = MTInterface::GetCurrentTimeMicro();
  MTInterface::Sleep(30);
  EXPECT_GE(MTInterface::GetCurrentTimeMicro() - start, 29000U);
  MTInterface::Sleep(0);
}

TEST_F(MTInterfaceTest, SleepersDoNotDisturbOneAnother) {
  constexpr std::uint32_t kSleepers = 6;
  std::vector<std::thread> threads;
  std::vector<std::uint64_t> slept(kSleepers);
  for (std::uint32_t i = 0; i < kSleepers; ++i) {
    threads.emplace_back([&slept, i] {
      const std::uint64_t start = MTInterface::GetCurrentTimeMicro();
      MTInterface::Sleep(10 * (i + 1));
      slept[i] = MTInterface::GetCurrentTimeMicro() - start;
    });
  }
  for (std::thread& thread : threads) thread.join();
  for (std::uint32_t i = 0; i < kSleepers; ++i) EXPECT_GE(slept[i], 10000U * (i + 1) - 1000U);
}

TEST_F(MTInterfaceTest, TheProcessorsAreThoseOfTheInstallation) {
  EXPECT_EQ(TestMTInterface::Get().GetCPUCount(), MTInterface::GetCPUCount());
}

TEST_F(MTInterfaceTest, TheCurrentThreadIsTheImplementations) {
  EXPECT_EQ(TestMTInterface::Get().GetCurrentThreadID(), MTInterface::GetCurrentThreadID());
}

TEST_F(MTInterfaceTest, UniqueIDsFollowOneAnother) {
  const std::uint32_t first = MTInterface::GetProcessUniqueID();
  EXPECT_EQ(first + 1, MTInterface::GetProcessUniqueID());
  EXPECT_EQ(first + 2, MTInterface::GetProcessUniqueID());
}

TEST_F(MTInterfaceTest, NoUniqueIDIsHandedOutTwice) {
  constexpr std::size_t kEach = 5000;
  std::vector<std::uint32_t> ids(4 * kEach);
  std::vector<std::thread> threads;
  for (std::size_t t = 0; t < 4; ++t) {
    threads.emplace_back([&ids, t] {
      for (std::size_t i = 0; i < kEach; ++i)
        ids[t * kEach + i] = MTInterface::GetProcessUniqueID();
    });
  }
  for (std::thread& thread : threads) thread.join();
  std::sort(ids.begin(), ids.end());
  EXPECT_EQ(ids.end(), std::adjacent_find(ids.begin(), ids.end()));
  EXPECT_NE(MTInterface::kInvalidUniqueID, ids.front());
}

TEST_F(MTInterfaceTest, AnAtomicPointerHoldsAPointer) {
  int first = 0;
  int second = 0;
  const std::unique_ptr<MTAtomicPointer> pointer(MTInterface::NewAtomicPointer(&first));
  EXPECT_EQ(&first, pointer->Get());
  pointer->CompareAndSwap(&second, nullptr);
  EXPECT_EQ(&first, pointer->Get());
  pointer->CompareAndSwap(&first, &second);
  EXPECT_EQ(&second, pointer->Get());
}

TEST_F(MTInterfaceTest, AnAtomicPointerReportsLowExpectationsOnly) {
  void* const low = reinterpret_cast<void*>(std::uintptr_t{0x1000});
  void* const high = reinterpret_cast<void*>(std::uintptr_t{0x123400001000});
  const std::unique_ptr<MTAtomicPointer> pointer(MTInterface::NewAtomicPointer(nullptr));
  EXPECT_TRUE(pointer->CompareAndSwap(nullptr, low));
  EXPECT_TRUE(pointer->CompareAndSwap(low, high));
  EXPECT_FALSE(pointer->CompareAndSwap(high, nullptr));  // took place
  EXPECT_EQ(nullptr, pointer->Get());
}

TEST_F(MTInterfaceTest, AnAtomicPointerOwnsItsCounter) {
  const LiveCounts before = TestMTInterface::Get().GetLiveCounts();
  std::unique_ptr<MTAtomicPointer> pointer(MTInterface::NewAtomicPointer(nullptr));
  EXPECT_EQ(before.atomics + 1, TestMTInterface::Get().GetLiveCounts().atomics);
  pointer.reset();
  EXPECT_EQ(before, TestMTInterface::Get().GetLiveCounts());
}

TEST_F(MTInterfaceTest, AnAtomicPointerThatCannotBeMadeLeavesNothing) {
  const LiveCounts before = TestMTInterface::Get().GetLiveCounts();
  // The counter is three allocations in the test's implementation at most; then the pointer's own.
  for (std::size_t ordinal = 1;; ++ordinal) {
    const AllocationFailure failure(ordinal);
    try {
      const std::unique_ptr<MTAtomicPointer> pointer(MTInterface::NewAtomicPointer(nullptr));
      if (!failure.HasHappened()) break;
      ADD_FAILURE() << "made in spite of a failure";
    } catch (const std::bad_alloc&) {
    }
    EXPECT_EQ(before, TestMTInterface::Get().GetLiveCounts()) << ordinal;
  }
}

}  // namespace
}  // namespace Orvane
