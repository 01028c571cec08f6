// Seeds, policies, carriers, the search for schedules, and time.
#include <algorithm>
#include <chrono>
#include <set>
#include <thread>

#include "LiveAllocations.h"
#include "OSServices/Sim/SimPolicy.h"
#include "SimTestTools.h"

namespace Orvane {
namespace {

using SimulatorScheduleTest = SimulatorTestBase;

constexpr SimulatedPolicy kPolicies[] = {
    SimulatedPolicy::kBySeed, SimulatedPolicy::kRandom,     SimulatedPolicy::kLazy,
    SimulatedPolicy::kPCT,    SimulatedPolicy::kStarvation, SimulatedPolicy::kPriorities};

class NotedRead : public FileSource::ResultCallbackBuffer {
 public:
  explicit NotedRead(bool* reported) : reported_(reported) {}
  void Callback(CacheSource::Result_t, std::uint64_t, Buffer*, std::uint64_t) override {
    *reported_ = true;
  }

 private:
  bool* const reported_;
};

// A bit of everything: a cache, files, threads of both kinds, locks, waits with an end.
void Mixture() {
  SimulatedFiles::Create("file", SimContent(8 * kSimPage));
  Cache* const cache = NewSimCache(kSimPage, 3);
  NativeFileSource* const file = NativeFileSysInterface::NewNativeFileSource("file");
  file->UseCache(cache);
  file->Open(true, true, false);
  const auto semaphore = NewSimSemaphore();
  const auto value = NewSimAtomic();
  const auto reader = [&](std::uint64_t first) {
    return [&, first] {
      Buffer* const buffer = PhysMemInterface::Allocate(2 * kSimPage);
      for (std::uint64_t k = 0; k < 3; ++k) {
        file->Read((first + k + Simulator::Random(3)) * kSimPage, buffer, nullptr);
        value->Increment();
      }
      semaphore->Release(1);
      ReleaseObject(buffer);
    };
  };
  RunTogether({reader(0), reader(2), [&] {
                 semaphore->Wait(3, 2);
                 file->Cancel();
                 std::vector<int> own(Simulator::Random(20) + 1);
               }});
  Buffer* const buffer = PhysMemInterface::Allocate(kSimPage);
  bool reported = false;
  auto* const callback = new NotedRead(&reported);
  if (file->ReadAsync(kSimPage, buffer, callback, 0) == CacheSource::kResultPending) {
    Simulator::WaitUntil([&reported] { return reported; });
    ReleaseObject(callback);
  }
  ReleaseObject(buffer);
  ReleaseObject(file);
  ReleaseObject(cache);
}

TEST_F(SimulatorScheduleTest, ASeedIsOneRunOnBothCarriers) {
  std::uint64_t steps = 0;
  for (const SimulatedPolicy policy : kPolicies) {
    for (std::uint64_t seed = 1; seed <= 10; ++seed) {
      SimulationSetup setup;
      setup.seed = seed;
      setup.policy = policy;
      setup.faults.failTransfer = setup.faults.shortTransfer = setup.faults.hang = 50;
      SimulationSetup onThreads = setup;
      onThreads.carrier = SimulatedCarrier::kThreads;
      const SimulationResult first = Simulator::Run(setup, Mixture);
      const SimulationResult again = Simulator::Run(setup, Mixture);
      const SimulationResult other = Simulator::Run(onThreads, Mixture);
      ExpectGood(first);
      for (const SimulationResult& same : {again, other}) {
        EXPECT_EQ(first.traceHash, same.traceHash);
        EXPECT_EQ(first.steps, same.steps);
        EXPECT_EQ(first.micros, same.micros);
        EXPECT_EQ(first.hostCalls, same.hostCalls);
        EXPECT_EQ(first.allocations, same.allocations);
        EXPECT_EQ(first.faults, same.faults);
      }
      steps += first.steps;
    }
  }
  EXPECT_GT(steps, 10000u);
}

TEST_F(SimulatorScheduleTest, SeedsDiffer) {
  for (const SimulatedPolicy policy : kPolicies) {
    std::set<std::uint64_t> hashes;
    for (std::uint64_t seed = 1; seed <= 60; ++seed) {
      hashes.insert(Simulator::Run(PlainSetup(seed, policy), Mixture).traceHash);
    }
    EXPECT_GE(hashes.size(), 57u) << static_cast<int>(policy);
  }
}

TEST_F(SimulatorScheduleTest, EveryPolicyComesToAnEnd) {
  for (const SimulatedPolicy policy : kPolicies) {
    SimulationSetup setup;
    setup.policy = policy;
    const SimulationResult result = Simulator::Explore(setup, 100, Mixture);
    ExpectGood(result);
    EXPECT_EQ(result.runs, 100u);
  }
}

// A thread of high priority that waits by asking again and again.
void Polling() {
  const auto flag = NewSimAtomic();
  const auto body = [&flag](MTThread*) {
    while (flag->Get() == 0) {
    }
  };
  BodyOf<decltype(body)> poller(body);
  const std::unique_ptr<MTThread> thread(
      MTInterface::NewThread(&poller, MTThread::kPriorityHighest, MTThread::kProcessorAny));
  flag->Increment();
  thread->Terminate(kForEver);
}

TEST_F(SimulatorScheduleTest, PrioritiesExposeAThreadThatPolls) {
  for (const SimulatedPolicy policy :
       {SimulatedPolicy::kRandom, SimulatedPolicy::kLazy, SimulatedPolicy::kStarvation}) {
    ExpectGood(Simulator::Explore(PlainSetup(1, policy), 100, Polling));
  }
  for (std::uint64_t seed = 1; seed <= 20; ++seed) {
    const SimulationResult result =
        Simulator::Run(PlainSetup(seed, SimulatedPolicy::kPriorities), Polling);
    EXPECT_NE(result.failure.find("is polling"), std::string::npos) << result.failure;
  }
}

// Two threads add without a lock: found when one goes on between the other's look and its answer.
void RaceOfTwoSteps() {
  int value = 0;
  const auto add = [&value] {
    const int before = value;
    Simulator::Step();
    value = before + 1;
  };
  RunTogether({add, add});
  if (value != 2) Simulator::Fail("an addition is lost");
}

// Wrong only if the reader's looks lie on both sides of the second change, the first one behind the
// first change: that takes the processor away twice.
void RaceOfThreeSteps() {
  bool inUse = false;
  bool wrong = false;
  RunTogether({[&] {
                 inUse = true;
                 Simulator::Step();
                 inUse = false;
               },
               [&] {
                 const bool first = inUse;
                 Simulator::Step();
                 wrong = first && !inUse;
               }});
  if (wrong) Simulator::Fail("it changes under the reader's eyes");
}

TEST_F(SimulatorScheduleTest, RacesAreFoundSoon) {
  for (const SimulatedPolicy policy : {SimulatedPolicy::kRandom, SimulatedPolicy::kLazy,
                                       SimulatedPolicy::kPCT, SimulatedPolicy::kBySeed}) {
    const SimulationResult two = Simulator::Explore(PlainSetup(1, policy), 300, RaceOfTwoSteps);
    EXPECT_FALSE(two.ok) << static_cast<int>(policy);
    EXPECT_EQ(two.failure, "an addition is lost");
  }
  EXPECT_FALSE(
      Simulator::Explore(PlainSetup(1, SimulatedPolicy::kRandom), 300, RaceOfThreeSteps).ok);
  EXPECT_FALSE(
      Simulator::Explore(PlainSetup(1, SimulatedPolicy::kBySeed), 3000, RaceOfThreeSteps).ok);
  EXPECT_FALSE(
      Simulator::Explore(PlainSetup(1, SimulatedPolicy::kPCT), 20000, RaceOfThreeSteps).ok);
}

// The orders in which two threads with two events each can come, with so many preemptions.
std::set<std::string> OrdersWith(unsigned preemptions) {
  std::set<std::string> orders;
  const SimulationResult result =
      Simulator::ExploreAll(PlainSetup(), preemptions, 1000000, [&orders] {
        std::string order;
        const auto twice = [&order](char name) {
          return [&order, name] {
            order += name;
            Simulator::Step();
            order += name;
          };
        };
        RunTogether({twice('a'), twice('b')});
        const SimulatorAllocations::Exempt exempt;
        orders.insert(order);
      });
  EXPECT_TRUE(result.ok) << result.report;
  return orders;
}

TEST_F(SimulatorScheduleTest, AllOrdersOfATinyScenario) {
  using Orders = std::set<std::string>;
  EXPECT_EQ(OrdersWith(0), (Orders{"aabb", "bbaa"}));
  EXPECT_EQ(OrdersWith(1), (Orders{"aabb", "bbaa", "abba", "baab"}));
  EXPECT_EQ(OrdersWith(2), (Orders{"aabb", "bbaa", "abba", "baab", "abab", "baba"}));
}

// Schedules of threads with so many steps each, under the policy of ExploreAll: a model of a world
// in which a thread can always go on until its steps are done.
std::uint64_t CountSchedules(const std::vector<unsigned>& steps, unsigned preemptions) {
  std::vector<SimSearchPolicy::Choice> choices;
  std::set<std::vector<std::uint32_t>> schedules;
  std::uint64_t runs = 0;
  do {
    ++runs;
    SimSearchPolicy policy(&choices, preemptions);
    std::vector<SimThread> threads(steps.size());
    std::vector<unsigned> left = steps;
    std::vector<std::uint32_t> schedule;
    SimThread* running = nullptr;
    for (;;) {
      SimCandidates candidates;
      for (std::uint32_t k = 0; k < threads.size(); ++k) {
        threads[k].index = k;
        if (left[k] == 0) continue;
        candidates.threads[candidates.count++] = &threads[k];
        if (&threads[k] == running) candidates.running = running;
      }
      if (candidates.count == 0) break;
      running = candidates.threads[policy.Choose(candidates, schedule.size())];
      schedule.push_back(running->index);
      --left[running->index];
    }
    schedules.insert(schedule);
  } while (SimSearchPolicy::Advance(&choices));
  EXPECT_EQ(schedules.size(), runs) << "a schedule came twice";
  return runs;
}

TEST_F(SimulatorScheduleTest, TheSearchCountsAsOneDoesByHand) {
  EXPECT_EQ(CountSchedules({1}, 2), 1u);
  EXPECT_EQ(CountSchedules({1, 1}, 0), 2u);
  EXPECT_EQ(CountSchedules({1, 1, 1}, 0), 6u);  // 3!
  EXPECT_EQ(CountSchedules({2, 2}, 0), 2u);
  EXPECT_EQ(CountSchedules({2, 2}, 1), 4u);
  EXPECT_EQ(CountSchedules({2, 2}, 2), 6u);  // 4 over 2: all
  EXPECT_EQ(CountSchedules({2, 2}, 9), 6u);
  // Of the 20 (6 over 3) orders those with at most as many changes away from an unfinished thread.
  EXPECT_EQ(CountSchedules({3, 3}, 0), 2u);
  EXPECT_EQ(CountSchedules({3, 3}, 1), 6u);   // and one cut of the first thread: 2 * 2
  EXPECT_EQ(CountSchedules({3, 3}, 2), 14u);  // and a cut of each: 2 * 2 * 2
  EXPECT_EQ(CountSchedules({3, 3}, 3), 18u);  // and two of the first, one of the other: 2 * 2
  EXPECT_EQ(CountSchedules({3, 3}, 4), 20u);
}

TEST_F(SimulatorScheduleTest, AllSchedulesFindWhatTakesTwoPreemptions) {
  const SimulationResult none = Simulator::ExploreAll(PlainSetup(), 1, 1000000, RaceOfThreeSteps);
  ExpectGood(none);
  EXPECT_LT(none.runs, 1000000u);
  const SimulationResult found = Simulator::ExploreAll(PlainSetup(), 2, 1000000, RaceOfThreeSteps);
  EXPECT_FALSE(found.ok);
  EXPECT_EQ(found.failure, "it changes under the reader's eyes");
  EXPECT_FALSE(Simulator::ExploreAll(PlainSetup(), 1, 1000000, RaceOfTwoSteps).ok);
  ExpectGood(Simulator::ExploreAll(PlainSetup(), 0, 1000000, RaceOfTwoSteps));
}

TEST_F(SimulatorScheduleTest, AllSchedulesAreWithoutFaultsByChance) {
  SimulationSetup setup = PlainSetup();
  setup.faults.failPages = 1000;
  const auto pages = [] {
    Buffer* const buffer = PhysMemInterface::Allocate(kSimPage);
    if (!buffer) Simulator::Fail("no pages");
    ReleaseObject(buffer);
  };
  ExpectGood(Simulator::ExploreAll(setup, 1, 100, pages));
  setup.faults.failCall = 1;
  setup.faults.andAllLater = true;
  EXPECT_FALSE(Simulator::ExploreAll(setup, 1, 100, pages).ok);
}

// What is drawn from the low bits of a seed meets every policy.
TEST_F(SimulatorScheduleTest, PoliciesDoNotFollowTheLowBitsOfTheSeed) {
  for (std::uint64_t low = 0; low < 16; ++low) {
    std::set<SimulatedPolicy> met;
    for (std::uint64_t k = 0; k < 100; ++k) met.insert(ChooseSimPolicy(16 * k + low));
    EXPECT_EQ(met.size(), 5u) << low;
  }
}

TEST_F(SimulatorScheduleTest, ARunInsideOfARunIsAFailure) {
  ExpectFailure(PlainSetup(), "inside of a run", [] { Simulator::Run(PlainSetup(), [] {}); });
}

TEST_F(SimulatorScheduleTest, AllSchedulesStopAtTheirLimit) {
  EXPECT_EQ(Simulator::ExploreAll(PlainSetup(), 2, 10, RaceOfThreeSteps).runs, 10u);
}

TEST_F(SimulatorScheduleTest, ARecordedRunIsReplayed) {
  for (std::uint64_t seed = 1; seed <= 20; ++seed) {
    SimulationSetup setup;
    setup.seed = seed;
    setup.recordSwitches = true;
    const SimulationResult recorded = Simulator::Run(setup, Mixture);
    ASSERT_TRUE(recorded.ok) << recorded.report;
    setup.recordSwitches = false;
    setup.policy = SimulatedPolicy::kReplay;
    setup.switches = recorded.switches;
    const SimulationResult replayed = Simulator::Run(setup, Mixture);
    EXPECT_EQ(replayed.traceHash, recorded.traceHash) << seed;
  }
}

TEST_F(SimulatorScheduleTest, MinimiseLeavesFewSwitches) {
  const SimulationResult found =
      Simulator::Explore(PlainSetup(1, SimulatedPolicy::kRandom), 300, RaceOfThreeSteps);
  ASSERT_FALSE(found.ok);
  SimulationSetup setup = PlainSetup(found.seed, SimulatedPolicy::kRandom);
  setup.recordSwitches = true;
  const std::size_t before = Simulator::Run(setup, RaceOfThreeSteps).switches.size();
  setup.recordSwitches = false;
  const SimulationResult least = Simulator::Minimise(setup, RaceOfThreeSteps);
  ASSERT_FALSE(least.ok);
  EXPECT_EQ(least.failure, "it changes under the reader's eyes");
  EXPECT_LE(least.switches.size(), 3u);
  EXPECT_LT(least.switches.size(), before);
  SimulationSetup replay = setup;
  replay.policy = SimulatedPolicy::kReplay;
  replay.switches = least.switches;
  EXPECT_EQ(Simulator::Run(replay, RaceOfThreeSteps).failure, least.failure);
  // Each of them is needed.
  for (std::size_t k = 0; k < least.switches.size(); ++k) {
    replay.switches = least.switches;
    replay.switches.erase(replay.switches.begin() + static_cast<std::ptrdiff_t>(k));
    EXPECT_TRUE(Simulator::Run(replay, RaceOfThreeSteps).ok) << k;
  }
  EXPECT_TRUE(Simulator::Minimise(setup, [] {}).ok);
}

// Fails in another way when nobody changes anything.
TEST_F(SimulatorScheduleTest, MinimiseKeepsTheFailure) {
  const auto scenario = [] {
    int value = 0;
    RunTogether({[&value] {
                   Simulator::Step();
                   value = 1;
                   Simulator::Step();
                   value = 2;
                 },
                 [&value] {
                   Simulator::Step();
                   if (value == 1) Simulator::Fail("it is in the middle, at 1");
                 }});
    Simulator::Fail("it never ends well");
  };
  SimulationSetup setup = PlainSetup(1, SimulatedPolicy::kRandom);
  while (Simulator::Run(setup, scenario).failure != "it is in the middle, at 1") ++setup.seed;
  const SimulationResult least = Simulator::Minimise(setup, scenario);
  EXPECT_EQ(least.failure, "it is in the middle, at 1");
  EXPECT_FALSE(least.switches.empty());
}

// How far time moves while a thread is busy all the time.
std::uint64_t TimeOfBusyThread(const SimulationSetup& setup) {
  std::uint64_t moved = 0;
  const SimulationResult result = Simulator::Run(setup, [&moved] {
    const std::uint64_t start = MTInterface::GetCurrentTimeMicro();
    for (int k = 0; k < 5000; ++k) Simulator::Step();
    moved = MTInterface::GetCurrentTimeMicro() - start;
  });
  EXPECT_TRUE(result.ok) << result.report;
  return moved;
}

TEST_F(SimulatorScheduleTest, TimeMovesWhenNobodyCanGoOn) {
  int moved = 0;
  for (std::uint64_t seed = 1; seed <= 40; ++seed) {
    SimulationSetup setup = PlainSetup(seed);
    EXPECT_EQ(TimeOfBusyThread(setup), 0u);
    setup.timeJumps = true;
    moved += TimeOfBusyThread(setup) != 0 ? 1 : 0;
  }
  EXPECT_GT(moved, 10);
  EXPECT_LT(moved, 30);
  ExpectGood(Simulator::Run(PlainSetup(), [] {
    const std::uint64_t start = MTInterface::GetCurrentTimeMicro();
    MTInterface::Sleep(1234);
    if (MTInterface::GetCurrentTimeMicro() - start != 1234000) Simulator::Fail("not in time");
  }));
}

TEST_F(SimulatorScheduleTest, TheMillisecondClockWraps) {
  SimulationSetup setup = PlainSetup();
  setup.startMicro = (std::uint64_t{1} << 32) * 1000 - 2500;
  ExpectGood(Simulator::Run(setup, [] {
    if (MTInterface::GetCurrentTimeMilli() != 0xFFFFFFFD) Simulator::Fail("not before the wrap");
    MTInterface::Sleep(3);
    if (MTInterface::GetCurrentTimeMilli() != 0) Simulator::Fail("not behind the wrap");
  }));
  // The seed comes near it by itself.
  int wraps = 0;
  for (std::uint64_t seed = 1; seed <= 80; ++seed) {
    SimulationSetup bySeed;
    bySeed.seed = seed;
    bySeed.timeJumps = false;
    Simulator::Run(bySeed, [&wraps] {
      const std::uint32_t before = MTInterface::GetCurrentTimeMilli();
      MTInterface::Sleep(12000);
      wraps += MTInterface::GetCurrentTimeMilli() < before ? 1 : 0;
    });
  }
  EXPECT_GT(wraps, 10);
}

TEST_F(SimulatorScheduleTest, AReleaseInTheInstantOfTheDeadlineEndsBothWays) {
  int taken = 0;
  int late = 0;
  for (std::uint64_t seed = 1; seed <= 100; ++seed) {
    ExpectGood(Simulator::Run(PlainSetup(seed), [&taken, &late] {
      const auto semaphore = NewSimSemaphore();
      const std::uint64_t start = MTInterface::GetCurrentTimeMicro();
      RunTogether({[&] {
                     (semaphore->Wait(10, 1) ? taken : late) += 1;
                     if (MTInterface::GetCurrentTimeMicro() - start != 10000) {
                       Simulator::Fail("not at the deadline");
                     }
                   },
                   [&] {
                     MTInterface::Sleep(10);
                     semaphore->Release(1);
                   }});
    }));
  }
  EXPECT_GT(taken, 5);
  EXPECT_GT(late, 5);
}

TEST_F(SimulatorScheduleTest, WorldsLeaveNothingBehind) {
  SimulationSetup setup;
  const auto run = [&setup](std::uint64_t runs) {
    const SimulationResult result = Simulator::Explore(setup, runs, Mixture);
    EXPECT_TRUE(result.ok) << result.report;
    setup.seed += runs;
  };
  for (const auto carrier : {SimulatedCarrier::kFibers, SimulatedCarrier::kThreads}) {
    setup.carrier = carrier;
    run(100);  // what is kept for the next world has its size
    const long before = liveAllocations;
    run(carrier == SimulatedCarrier::kFibers ? 1000 : 100);
    // Threads that are not kept take a moment to end.
    const auto grown = [before] { return std::abs(liveAllocations - before); };
    for (int wait = 0; grown() > 8 && wait < 5000; ++wait)
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    EXPECT_LE(grown(), 8);
  }
}

}  // namespace
}  // namespace Orvane
