#include "DelayingMTInterface.h"

#include <functional>
#include <memory>
#include <vector>

#include "OrvaneTest.h"

namespace Orvane {
namespace {

using Kind = DelayChoices::Kind;
using Delay = DelayChoices::Delay;

constexpr DelayRates kAlways{1, 0, 0, 0};

std::vector<Delay> ChoicesOf(std::uint64_t seed, std::uint64_t threadNumber,
                             const DelayRates& rates, std::size_t count) {
  DelayChoices choices(seed, threadNumber);
  std::vector<Delay> all;
  for (std::size_t k = 0; k < count; ++k) all.push_back(choices.Next(rates));
  return all;
}

class DelayingMTInterfaceTest : public OrvaneTest {
 protected:
  // How many delays one operation meets in this thread.
  static std::uint64_t DelaysIn(const std::function<void()>& operation) {
    const std::uint64_t before = DelayingMTInterface::CountDelaysOfThisThread();
    operation();
    return DelayingMTInterface::CountDelaysOfThisThread() - before;
  }
  static DelayingMTInterface& Delaying() {
    static auto* const delaying = new DelayingMTInterface(new MTInterfaceImpHost, 1, kAlways);
    return *delaying;
  }
};

TEST_F(DelayingMTInterfaceTest, AThreadIsDelayedAlikeWithTheSameSeed) {
  EXPECT_EQ(ChoicesOf(7, 3, {}, 10000), ChoicesOf(7, 3, {}, 10000));
}

TEST_F(DelayingMTInterfaceTest, OtherSeedsAndOtherThreadsAreDelayedOtherwise) {
  const auto choices = ChoicesOf(7, 3, {}, 1000);
  EXPECT_NE(choices, ChoicesOf(8, 3, {}, 1000));
  EXPECT_NE(choices, ChoicesOf(7, 4, {}, 1000));
  EXPECT_NE(choices, ChoicesOf(8, 2, {}, 1000));
}

TEST_F(DelayingMTInterfaceTest, NoThreadRunsAheadOfAnother) {
  const auto ahead = ChoicesOf(7, 4, {}, 1000);
  const auto behind = ChoicesOf(7, 3, {}, 1001);
  EXPECT_NE(ahead, std::vector<Delay>(behind.begin() + 1, behind.end()));
}

TEST_F(DelayingMTInterfaceTest, DelaysAreAsOftenAndAsLongAsTheRatesSay) {
  const DelayRates rates{4, 10, 100, 1000};
  constexpr std::size_t kCount = 400000;
  std::size_t counts[4] = {};
  std::size_t longSleeps = 0;
  for (const Delay& delay : ChoicesOf(7, 3, rates, kCount)) {
    ++counts[static_cast<std::size_t>(delay.kind)];
    EXPECT_LE(delay.micro, delay.kind == Kind::kBusy    ? rates.shortMicro
                           : delay.kind == Kind::kSleep ? rates.longMicro
                                                        : 0);
    if (delay.micro > rates.middleMicro) ++longSleeps;
  }
  const auto share = [&](Kind kind) {
    return static_cast<double>(counts[static_cast<std::size_t>(kind)]) / kCount;
  };
  EXPECT_NEAR(0.75, share(Kind::kNone), 0.01);
  EXPECT_NEAR(0.25 / 4, share(Kind::kBusy), 0.01);
  EXPECT_NEAR(0.25 / 32, share(Kind::kSleep), 0.001);
  EXPECT_NEAR(100000.0 / 1024, static_cast<double>(longSleeps), 40);
}

TEST_F(DelayingMTInterfaceTest, EveryOperationIsAPlaceBeforeItAndOneBehind) {
  const std::unique_ptr<MTCritSec> section(Delaying().NewCritSec());
  const std::unique_ptr<MTSemaphore> semaphore(Delaying().NewSemaphore(1, 0));
  const std::unique_ptr<MTAtomicUnsigned32> narrow(Delaying().NewAtomicUnsigned32(5));
  const std::unique_ptr<MTAtomicUnsigned64> wide(Delaying().NewAtomicUnsigned64(5));
  const std::function<void()> operations[] = {
      [&]() ORVANE_NO_THREAD_SAFETY_ANALYSIS { section->Enter(); },
      [&]() ORVANE_NO_THREAD_SAFETY_ANALYSIS { section->Leave(); },
      [&] { EXPECT_TRUE(semaphore->Release(1)); },
      [&] { EXPECT_TRUE(semaphore->Wait(0, 1)); },
      [&] { EXPECT_EQ(5U, narrow->Get()); },
      [&] { EXPECT_EQ(6U, narrow->Increment()); },
      [&] { EXPECT_EQ(5U, narrow->Decrement()); },
      [&] { EXPECT_TRUE(narrow->CompareAndSwap(5, 9)); },
      [&] { EXPECT_EQ(5U, wide->Get()); },
      [&] { EXPECT_EQ(6U, wide->Increment()); },
      [&] { EXPECT_EQ(5U, wide->Decrement()); },
      [&] { EXPECT_TRUE(wide->CompareAndSwap(5, 9)); },
  };
  for (const auto& operation : operations) EXPECT_EQ(2U, DelaysIn(operation));
}

TEST_F(DelayingMTInterfaceTest, AStartOfAThreadIsAPlaceToo) {
  class Body : public MTThreadBody {
    void ThreadMain(MTThread*) override {}
  } body;
  std::unique_ptr<MTThread> thread;
  const std::uint64_t delays = DelaysIn([&] {
    thread.reset(Delaying().NewThread(&body, MTThread::kPriorityNormal, MTThread::kProcessorAny));
  });
  EXPECT_LE(2U, delays);  // the thread's own semaphore and counters come from what is installed
  EXPECT_TRUE(thread->Terminate(0xFFFFFFFF));
}

TEST_F(DelayingMTInterfaceTest, WhatCannotBeMadeIsNull) {
  TestMTInterface& test = TestMTInterface::Get();
  DelayingMTInterface delaying(&test, 1, kAlways);
  const std::function<bool()> makers[] = {
      [&] { return delaying.NewCritSec() == nullptr; },
      [&] { return delaying.NewSemaphore(1, 0) == nullptr; },
      [&] { return delaying.NewAtomicUnsigned32(0) == nullptr; },
      [&] { return delaying.NewAtomicUnsigned64(0) == nullptr; },
  };
  for (const auto& isNull : makers) {
    test.FailCreation(1, TestMTInterface::kNull);
    EXPECT_TRUE(isNull());
  }
}

}  // namespace
}  // namespace Orvane
