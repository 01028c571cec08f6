// What every implementation of the threading interface promises of its primitives.
#include "MTPrimitives.h"

#include <chrono>
#include <limits>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "DelayingMTInterface.h"
#include "MTInterface.h"
#include "OrvaneTest.h"
#include "TestHost.h"

namespace Orvane {
namespace {

struct Implementation {
  const char* name;
  MTInterfaceImp& (*get)();
};

MTInterfaceImp& HostImplementation() {
  static auto* const host = new MTInterfaceImpHost;
  return *host;
}

MTInterfaceImp& InstalledImplementation() {
  return TestMTInterface::Get();
}

MTInterfaceImp& DelayingImplementation() {
  static auto* const delaying = new DelayingMTInterface(&HostImplementation(), 1, DelayRates{});
  return *delaying;
}

constexpr std::uint32_t kForEver = 0xFFFFFFFF;
constexpr std::uint32_t kMax32 = std::numeric_limits<std::uint32_t>::max();
constexpr std::uint64_t kMax64 = std::numeric_limits<std::uint64_t>::max();

class MTPrimitivesTest : public OrvaneTest, public ::testing::WithParamInterface<Implementation> {
 protected:
  static MTInterfaceImp& Imp() { return GetParam().get(); }
  static std::unique_ptr<MTSemaphore> NewSemaphore(std::uint32_t maximum, std::uint32_t initial) {
    return std::unique_ptr<MTSemaphore>(Imp().NewSemaphore(maximum, initial));
  }
  static std::unique_ptr<MTAtomicUnsigned32> NewAtomic32(std::uint32_t initial) {
    return std::unique_ptr<MTAtomicUnsigned32>(Imp().NewAtomicUnsigned32(initial));
  }
  static std::unique_ptr<MTAtomicUnsigned64> NewAtomic64(std::uint64_t initial) {
    return std::unique_ptr<MTAtomicUnsigned64>(Imp().NewAtomicUnsigned64(initial));
  }
  // Units that can be taken at once.
  static std::uint32_t CountUnits(MTSemaphore* semaphore) {
    std::uint32_t units = 0;
    while (semaphore->Wait(0, 1)) ++units;
    return units;
  }
  static std::uint64_t NowMs() { return Imp().GetCurrentTimeMicro() / 1000; }
};

INSTANTIATE_TEST_SUITE_P(Every, MTPrimitivesTest,
                         ::testing::Values(Implementation{"Installed", &InstalledImplementation},
                                           Implementation{"Host", &HostImplementation},
                                           Implementation{"Delaying", &DelayingImplementation}),
                         [](const auto& every) { return std::string(every.param.name); });

// Critical sections.

TEST_P(MTPrimitivesTest, ASectionKeepsOthersOut) {
  constexpr int kRounds = 20000;
  const std::unique_ptr<MTCritSec> section(Imp().NewCritSec());
  int value = 0;
  const auto work = [&]() ORVANE_NO_THREAD_SAFETY_ANALYSIS {
    for (int i = 0; i < kRounds; ++i) {
      section->Enter();
      ++value;
      section->Leave();
    }
  };
  std::thread first(work);
  std::thread second(work);
  first.join();
  second.join();
  EXPECT_EQ(2 * kRounds, value);
}

// Nested on purpose, which the analysis does not know.
TEST_P(MTPrimitivesTest, TheOwnerOfASectionMayEnterAgain) {
  const std::unique_ptr<MTCritSec> section(Imp().NewCritSec());
  const std::unique_ptr<MTSemaphore> entered = NewSemaphore(1, 0);
  std::thread other;
  [&]() ORVANE_NO_THREAD_SAFETY_ANALYSIS {
    for (int i = 0; i < 3; ++i) section->Enter();
    other = std::thread([&]() ORVANE_NO_THREAD_SAFETY_ANALYSIS {
      section->Enter();
      entered->Release(1);
      section->Leave();
    });
    for (int i = 0; i < 2; ++i) section->Leave();
    EXPECT_FALSE(entered->Wait(20, 1));  // still owned once
    section->Leave();
  }();
  EXPECT_TRUE(entered->Wait(kForEver, 1));
  other.join();
}

// Semaphores.

TEST_P(MTPrimitivesTest, ASemaphoreStartsWithItsInitialCount) {
  EXPECT_EQ(3U, CountUnits(NewSemaphore(5, 3).get()));
  EXPECT_EQ(0U, CountUnits(NewSemaphore(5, 0).get()));
  EXPECT_EQ(5U, CountUnits(NewSemaphore(5, 5).get()));
}

TEST_P(MTPrimitivesTest, ReleaseBeyondTheMaximumFailsAndChangesNothing) {
  const std::unique_ptr<MTSemaphore> semaphore = NewSemaphore(1, 0);
  EXPECT_FALSE(semaphore->Release(2));
  EXPECT_EQ(0U, CountUnits(semaphore.get()));
  EXPECT_TRUE(semaphore->Release(1));
  EXPECT_FALSE(semaphore->Release(1));
  EXPECT_FALSE(semaphore->Release(kMax32));
  EXPECT_EQ(1U, CountUnits(semaphore.get()));
}

TEST_P(MTPrimitivesTest, ReleaseOfNothingFails) {
  const std::unique_ptr<MTSemaphore> semaphore = NewSemaphore(2, 1);
  EXPECT_FALSE(semaphore->Release(0));
  EXPECT_EQ(1U, CountUnits(semaphore.get()));
}

TEST_P(MTPrimitivesTest, TheLargestMaximumCanBeReached) {
  const std::uint32_t largest = GetLargestSemaphoreCount();
  const std::unique_ptr<MTSemaphore> semaphore = NewSemaphore(largest, 0);
  EXPECT_TRUE(semaphore->Release(largest - 1));
  EXPECT_FALSE(semaphore->Release(2));
  EXPECT_TRUE(semaphore->Release(1));
  EXPECT_FALSE(semaphore->Release(1));
  EXPECT_TRUE(semaphore->Wait(0, 1));
  EXPECT_TRUE(semaphore->Release(1));
}

TEST_P(MTPrimitivesTest, ASemaphoreThatCannotBeMadeFailsEveryCall) {
  const std::pair<std::uint32_t, std::uint32_t> kWrongOnes[] = {{1, 2}, {0, 0}};
  for (const auto& [maximum, initial] : kWrongOnes) {
    const std::unique_ptr<MTSemaphore> semaphore = NewSemaphore(maximum, initial);
    EXPECT_FALSE(semaphore->Release(1));
    EXPECT_FALSE(semaphore->Wait(0, 1));
    EXPECT_FALSE(semaphore->Wait(kForEver, 1));
    EXPECT_TRUE(semaphore->Wait(0, 0));
  }
}

TEST_P(MTPrimitivesTest, WaitForNothingSucceedsAtOnce) {
  const std::unique_ptr<MTSemaphore> semaphore = NewSemaphore(1, 0);
  EXPECT_TRUE(semaphore->Wait(0, 0));
  EXPECT_TRUE(semaphore->Wait(1000, 0));
  EXPECT_TRUE(semaphore->Wait(kForEver, 0));
  EXPECT_TRUE(semaphore->Release(1));
  EXPECT_TRUE(semaphore->Wait(kForEver, 0));
  EXPECT_EQ(1U, CountUnits(semaphore.get()));
}

TEST_P(MTPrimitivesTest, TheTimeOfAWaitIsSharedByItsUnits) {
  const std::unique_ptr<MTSemaphore> semaphore = NewSemaphore(4, 0);
  const std::uint64_t start = NowMs();
  EXPECT_FALSE(semaphore->Wait(1000, 4));
  const std::uint64_t waited = NowMs() - start;
  EXPECT_GE(waited, 249U);
  EXPECT_LT(waited, 900U);  // clearly not the whole second
}

TEST_P(MTPrimitivesTest, AShareBelowAMillisecondDoesNotWait) {
  const std::unique_ptr<MTSemaphore> semaphore = NewSemaphore(8, 0);
  const std::uint64_t start = NowMs();
  EXPECT_FALSE(semaphore->Wait(7, 8));
  EXPECT_LT(NowMs() - start, 1000U);
  EXPECT_TRUE(semaphore->Release(8));
  EXPECT_TRUE(semaphore->Wait(7, 8));
}

TEST_P(MTPrimitivesTest, UnitsTakenByAFailedWaitAreNotGivenBack) {
  const std::unique_ptr<MTSemaphore> semaphore = NewSemaphore(8, 3);
  EXPECT_FALSE(semaphore->Wait(0, 4));
  EXPECT_EQ(0U, CountUnits(semaphore.get()));
}

TEST_P(MTPrimitivesTest, AWaitWithoutLimitIsWithoutLimitForEveryUnit) {
  const std::uint32_t units = GetManySemaphoreUnits();
  const std::uint32_t share = kForEver / units;  // what a time-out of that would give to each
  const std::unique_ptr<MTSemaphore> semaphore = NewSemaphore(units, 0);
  const std::unique_ptr<MTSemaphore> done = NewSemaphore(1, 0);
  bool result = false;
  std::thread waiter([&] {
    result = semaphore->Wait(kForEver, units);
    done->Release(1);
  });
  EXPECT_FALSE(done->Wait(share + 500, 1));
  EXPECT_TRUE(semaphore->Release(units));
  EXPECT_TRUE(done->Wait(kForEver, 1));
  waiter.join();
  EXPECT_TRUE(result);
}

TEST_P(MTPrimitivesTest, AReleaseWakesAWaiterBeforeItsTimeIsOver) {
  const std::unique_ptr<MTSemaphore> semaphore = NewSemaphore(1, 0);
  bool result = false;
  std::thread waiter([&] { result = semaphore->Wait(60000, 1); });
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  EXPECT_TRUE(semaphore->Release(1));
  waiter.join();
  EXPECT_TRUE(result);
}

// However many units come at once, as many waiters go on.
void ReleaseForThree(MTInterfaceImp& imp, std::uint32_t count) {
  constexpr std::uint32_t kWaiters = 3;
  const std::unique_ptr<MTSemaphore> semaphore(imp.NewSemaphore(GetLargestSemaphoreCount(), 0));
  const std::unique_ptr<MTSemaphore> done(imp.NewSemaphore(kWaiters, 0));
  std::vector<std::thread> waiters;
  for (std::uint32_t i = 0; i < kWaiters; ++i) {
    waiters.emplace_back([&] {
      EXPECT_TRUE(semaphore->Wait(5000, 1));
      done->Release(1);
    });
  }
  std::this_thread::sleep_for(std::chrono::milliseconds(50));  // most likely they all sleep now
  const std::uint64_t start = imp.GetCurrentTimeMicro();
  EXPECT_TRUE(semaphore->Release(count));
  EXPECT_TRUE(done->Wait(kForEver, kWaiters));
  EXPECT_LT((imp.GetCurrentTimeMicro() - start) / 1000, 4000U) << "woken by the end of their time";
  for (std::thread& waiter : waiters) waiter.join();
}

TEST_P(MTPrimitivesTest, AReleaseOfManyWakesThemAll) {
  ReleaseForThree(Imp(), 3);
}

// A host that counts in signed numbers may take the first for a negative one.
TEST_P(MTPrimitivesTest, AReleaseOfAsManyAsThereCanBeWakesThemAll) {
  ReleaseForThree(Imp(), GetLargestSemaphoreCount() / 2 + 1);
  ReleaseForThree(Imp(), GetLargestSemaphoreCount());
}

TEST_P(MTPrimitivesTest, NoUnitIsLostOrTakenTwice) {
  constexpr std::uint32_t kUnits = 20000;
  const std::unique_ptr<MTSemaphore> semaphore = NewSemaphore(kUnits, 0);
  const std::unique_ptr<MTAtomicUnsigned32> taken = NewAtomic32(0);
  const auto take = [&] {
    for (std::uint32_t i = 0; i < kUnits / 2; ++i) {
      if (semaphore->Wait(60000, 1)) taken->Increment();
    }
  };
  std::thread first(take);
  std::thread second(take);
  for (std::uint32_t i = 0; i < kUnits; ++i) EXPECT_TRUE(semaphore->Release(1));
  first.join();
  second.join();
  EXPECT_EQ(kUnits, taken->Get());
  EXPECT_FALSE(semaphore->Wait(0, 1));
}

TEST_P(MTPrimitivesTest, WaitsThatEndWithTheirTimeLoseNoUnit) {
  constexpr std::uint32_t kUnits = 300;
  const std::unique_ptr<MTSemaphore> semaphore = NewSemaphore(kUnits, 0);
  std::uint32_t taken = 0;
  std::thread waiter([&] {
    while (taken < kUnits) {
      if (semaphore->Wait(1, 1)) ++taken;
    }
  });
  for (std::uint32_t i = 0; i < kUnits; ++i) {
    EXPECT_TRUE(semaphore->Release(1));
    std::this_thread::sleep_for(std::chrono::microseconds(500 + 7 * (i % 100)));
  }
  waiter.join();
  EXPECT_EQ(kUnits, taken);
}

TEST_P(MTPrimitivesTest, WhatWasDoneBeforeAReleaseIsSeenAfterTheWait) {
  constexpr int kRounds = 20000;
  const std::unique_ptr<MTSemaphore> there = NewSemaphore(1, 0);
  const std::unique_ptr<MTSemaphore> back = NewSemaphore(1, 0);
  int value = 0;
  std::thread other([&] {
    for (int i = 0; i < kRounds; ++i) {
      there->Wait(kForEver, 1);
      ++value;
      back->Release(1);
    }
  });
  for (int i = 0; i < kRounds; ++i) {
    ++value;
    there->Release(1);
    back->Wait(kForEver, 1);
  }
  other.join();
  EXPECT_EQ(2 * kRounds, value);
}

TEST_P(MTPrimitivesTest, ASemaphoreMayBeDeletedAfterTheWaitThatTookItsUnit) {
  constexpr int kRounds = 100000;
  // Handed to the releasing thread, deleted by the waiting one.
  const std::unique_ptr<MTSemaphore> handed = NewSemaphore(1, 0);
  MTSemaphore* current = nullptr;
  std::thread releaser([&] {
    for (int i = 0; i < kRounds; ++i) {
      handed->Wait(kForEver, 1);
      current->Release(1);
    }
  });
  for (int i = 0; i < kRounds; ++i) {
    std::unique_ptr<MTSemaphore> semaphore = NewSemaphore(1, 0);
    current = semaphore.get();
    handed->Release(1);
    // Asleep, or watching so closely that the deletion follows the unit at once.
    if (i % 2 == 0) {
      semaphore->Wait(kForEver, 1);
    } else {
      while (!semaphore->Wait(0, 1)) {
      }
    }
    semaphore.reset();
  }
  releaser.join();
}

// Atomic values.

TEST_P(MTPrimitivesTest, A32BitValueCountsAndWraps) {
  const std::unique_ptr<MTAtomicUnsigned32> value = NewAtomic32(kMax32 - 1);
  EXPECT_EQ(kMax32 - 1, value->Get());
  EXPECT_EQ(kMax32, value->Increment());
  EXPECT_EQ(0U, value->Increment());
  EXPECT_EQ(kMax32, value->Decrement());
  EXPECT_EQ(kMax32, value->Get());
}

TEST_P(MTPrimitivesTest, A32BitValueIsExchangedIfItIsAsExpected) {
  const std::unique_ptr<MTAtomicUnsigned32> value = NewAtomic32(7);
  EXPECT_FALSE(value->CompareAndSwap(8, 9));
  EXPECT_EQ(7U, value->Get());
  EXPECT_TRUE(value->CompareAndSwap(7, kMax32));
  EXPECT_TRUE(value->CompareAndSwap(kMax32, 0));
  EXPECT_EQ(0U, value->Get());
}

TEST_P(MTPrimitivesTest, NoCountOfA32BitValueIsLost) {
  constexpr std::uint32_t kRounds = 50000;
  const std::unique_ptr<MTAtomicUnsigned32> value = NewAtomic32(0);
  const auto up = [&] {
    for (std::uint32_t i = 0; i < kRounds; ++i) value->Increment();
  };
  std::thread first(up);
  std::thread second([&] {
    for (std::uint32_t i = 0; i < kRounds;) {
      const std::uint32_t seen = value->Get();
      if (value->CompareAndSwap(seen, seen + 2)) ++i;
    }
  });
  first.join();
  second.join();
  EXPECT_EQ(3 * kRounds, value->Get());
}

TEST_P(MTPrimitivesTest, A64BitCountAnswersItsLowHalfOnly) {
  const std::unique_ptr<MTAtomicUnsigned64> value = NewAtomic64(0xFFFFFFFF);
  EXPECT_EQ(0U, value->Increment());
  EXPECT_EQ(0x100000000U, value->Get());
  EXPECT_EQ(0xFFFFFFFFU, value->Decrement());
  EXPECT_EQ(0xFFFFFFFFU, value->Get());
  const std::unique_ptr<MTAtomicUnsigned64> high = NewAtomic64(0x700000005);
  EXPECT_EQ(6U, high->Increment());
  EXPECT_EQ(5U, high->Decrement());
  EXPECT_EQ(0x700000005U, high->Get());
}

TEST_P(MTPrimitivesTest, A64BitValueWraps) {
  const std::unique_ptr<MTAtomicUnsigned64> value = NewAtomic64(0);
  EXPECT_EQ(0xFFFFFFFFU, value->Decrement());
  EXPECT_EQ(kMax64, value->Get());
  EXPECT_EQ(0U, value->Increment());
  EXPECT_EQ(0U, value->Get());
}

TEST_P(MTPrimitivesTest, AHigh64BitExchangeTakesPlaceAndAnswersFalse) {
  const std::unique_ptr<MTAtomicUnsigned64> value = NewAtomic64(0x100000000);
  EXPECT_FALSE(value->CompareAndSwap(0x100000000, 5));
  EXPECT_EQ(5U, value->Get());
}

TEST_P(MTPrimitivesTest, ALow64BitExchangeAnswersTrue) {
  const std::unique_ptr<MTAtomicUnsigned64> value = NewAtomic64(0xFFFFFFFF);
  EXPECT_TRUE(value->CompareAndSwap(0xFFFFFFFF, kMax64));
  EXPECT_EQ(kMax64, value->Get());
  EXPECT_FALSE(value->CompareAndSwap(kMax64, 3));
  EXPECT_EQ(3U, value->Get());
}

TEST_P(MTPrimitivesTest, A64BitExchangeComparesAllBitsButJudgesByTheLowHalf) {
  const std::unique_ptr<MTAtomicUnsigned64> value = NewAtomic64(0x200000005);
  EXPECT_TRUE(value->CompareAndSwap(5, 9));  // did not take place
  EXPECT_EQ(0x200000005U, value->Get());
  EXPECT_FALSE(value->CompareAndSwap(6, 9));
  EXPECT_FALSE(value->CompareAndSwap(0x100000005, 9));
  EXPECT_EQ(0x200000005U, value->Get());
}

// Time, threads and processors of an implementation.

TEST_P(MTPrimitivesTest, TimeIsMonotonicAcrossThreads) {
  constexpr int kRounds = 5000;
  const std::unique_ptr<MTSemaphore> there = NewSemaphore(1, 0);
  const std::unique_ptr<MTSemaphore> back = NewSemaphore(1, 0);
  std::uint64_t latest = Imp().GetCurrentTimeMicro();
  int steps = 0;
  const auto look = [&] {
    const std::uint64_t now = Imp().GetCurrentTimeMicro();
    if (now >= latest) ++steps;
    latest = now;
  };
  std::thread other([&] {
    for (int i = 0; i < kRounds; ++i) {
      there->Wait(kForEver, 1);
      look();
      back->Release(1);
    }
  });
  for (int i = 0; i < kRounds; ++i) {
    look();
    there->Release(1);
    back->Wait(kForEver, 1);
  }
  other.join();
  EXPECT_EQ(2 * kRounds, steps);
}

TEST_P(MTPrimitivesTest, TimeIsInMicroseconds) {
  const auto realStart = std::chrono::steady_clock::now();
  const std::uint64_t start = Imp().GetCurrentTimeMicro();
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  const std::uint64_t passed = Imp().GetCurrentTimeMicro() - start;
  const auto realPassed = std::chrono::duration_cast<std::chrono::microseconds>(
      std::chrono::steady_clock::now() - realStart);
  EXPECT_GE(passed, 19999U);
  EXPECT_LE(passed, static_cast<std::uint64_t>(realPassed.count()) + 1);
}

TEST_P(MTPrimitivesTest, EveryThreadHasAnIDOfItsOwn) {
  const std::int64_t mine = Imp().GetCurrentThreadID();
  EXPECT_EQ(mine, Imp().GetCurrentThreadID());
  std::int64_t others = mine;
  std::thread([&] { others = Imp().GetCurrentThreadID(); }).join();
  EXPECT_NE(mine, others);
  EXPECT_GT(mine, 0);
}

TEST_P(MTPrimitivesTest, ThereIsAtLeastOneProcessor) {
  EXPECT_GE(Imp().GetCPUCount(), 1U);
}

}  // namespace
}  // namespace Orvane
